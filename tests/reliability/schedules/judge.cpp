#include "judge.h"

#include "gssipMessage.h"
#include "referenceDecoder.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <string>

namespace schedules
{
namespace
{

using ids = std::vector<std::uint16_t>;

/// Those of the application; what ports write by themselves is left out. Each session is for itself: a message that is
/// cut off when the device goes away does not reach into the next.
std::vector<kit::decodedFrame> applicationFrames(std::vector<bytes> const& sessions, std::size_t& errors)
{
    std::vector<kit::decodedFrame> frames;
    errors = 0;
    for (bytes const& stream : sessions)
    {
        kit::decodedStream decoded = kit::decode(stream);
        errors += decoded.headerErrors;
        std::copy_if(std::make_move_iterator(decoded.frames.begin()), std::make_move_iterator(decoded.frames.end()),
                     std::back_inserter(frames),
                     [](kit::decodedFrame const& frame) { return (frame.flags & gssipMessage::REPLY_FLAG) == 0; });
    }
    return frames;
}

std::string text(ids const& all)
{
    std::string line;
    for (std::uint16_t const id : all)
    {
        line += ' ' + std::to_string(id);
    }
    return line;
}

bool isPartOf(ids const& part, ids const& whole)
{
    auto place = whole.begin();
    return std::all_of(part.begin(), part.end(), [&](std::uint16_t id) {
        place = std::find(place, whole.end(), id);
        return place != whole.end() && (++place, true);
    });
}

/// How often each id was written; `order` holds each once, by its first copy.
std::map<std::uint16_t, unsigned> countCopies(std::vector<kit::decodedFrame> const& frames, ids& order)
{
    std::map<std::uint16_t, unsigned> copies;
    for (kit::decodedFrame const& frame : frames)
    {
        if (++copies[frame.id] == 1)
        {
            order.push_back(frame.id);
        }
    }
    return copies;
}

void judgeCopies(scheduler& schedule, station const& sender, std::map<std::uint16_t, unsigned> const& copies,
                 circumstances const& under)
{
    for (auto const& [id, count] : copies)
    {
        auto const given = sender.account().entered().find(id);
        if (given == sender.account().entered().end())
        {
            schedule.fail("message " + std::to_string(id) + " is on the line, and was never queued");
        }
        unsigned const most = given->second && !under.answersComeInTime ? 2 : 1;
        if (count > most)
        {
            schedule.fail("message " + std::to_string(id) + " was written " + std::to_string(count) + " times");
        }
    }
}

ids idsRead(station const& receiver)
{
    ids all;
    std::size_t errors = 0;
    for (kit::decodedFrame const& frame : applicationFrames(receiver.wire().readAt(receiver.place()), errors))
    {
        all.push_back(frame.id);
    }
    return all;
}

} // namespace

void judgeSent(scheduler& schedule, station const& sender, circumstances const& under)
{
    std::size_t errors = 0;
    ids order;
    auto const frames = applicationFrames(sender.wire().left(sender.place()), errors);
    auto const copies = countCopies(frames, order);
    judgeCopies(schedule, sender, copies, under);
    ids const& taken = sender.account().taken();
    if (under.lineIsWhole && (errors != 0 || order != taken))
    {
        schedule.fail("taken from the queue:" + text(taken) + "; written:" + text(order) + "; damaged headers " +
                      std::to_string(errors));
    }
    if (!isPartOf(order, taken))
    {
        schedule.fail("written in another order than queued:" + text(order));
    }
    for (kit::decodedFrame const& frame : frames)
    {
        if (under.lineIsWhole && frame.data != station::contentOf(frame.id))
        {
            schedule.fail("message " + std::to_string(frame.id) + " was written with other content");
        }
    }
}

void judgeReceived(scheduler& schedule, station& receiver, circumstances const& under)
{
    ids const read = idsRead(receiver);
    ids found = receiver.delivered();
    bool const isWhole = receiver.wire().readAt(receiver.place()).size() == 1 && under.lineIsWhole;
    if (isWhole && receiver.port.receiver != nullptr)
    {
        for (gssipMessage const& waiting : static_cast<kit::exposedReceive&>(*receiver.port.receiver).rxQueue.queue)
        {
            if ((waiting.getProtocolFlags() & gssipMessage::REPLY_FLAG) == 0)
            {
                found.push_back(waiting.getId());
            }
        }
    }
    if (isWhole ? found != read : !isPartOf(found, read))
    {
        schedule.fail("read:" + text(read) + "; delivered or queued:" + text(found));
    }
}

} // namespace schedules
