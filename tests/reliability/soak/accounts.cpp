#include "accounts.h"

#include <algorithm>
#include <functional>
#include <sstream>
#include <unordered_map>

namespace soak
{
namespace
{

std::string shown(frameRecord const& record)
{
    std::ostringstream text;
    text << "message " << record.id << " with flags 0x" << std::hex << record.flags;
    return text.str();
}

/// Tells the first element of `part` that does not stand in `whole`, in order.
std::string outOfOrder(frameRecords const& part, frameRecords const& whole)
{
    auto next = whole.begin();
    for (frameRecord const& record : part)
    {
        next = std::find(next, whole.end(), record);
        if (next == whole.end())
        {
            return shown(record);
        }
        ++next;
    }
    return {};
}

std::string firstMissing(frameRecords const& part, frameRecords const& whole)
{
    auto const differs = std::mismatch(whole.begin(), whole.end(), part.begin(), part.end()).first;
    return differs == whole.end() ? std::string() : shown(*differs);
}

/// `part` must be all of `whole`, or where something may be lost at least in its order.
std::string compare(frameRecords const& part, frameRecords const& whole, bool mayLose, char const* what)
{
    std::string const stranger = outOfOrder(part, whole);
    if (!stranger.empty())
    {
        return std::string(what) + ": " + stranger + " out of order or out of nothing; ";
    }
    if (!mayLose && part.size() != whole.size())
    {
        return std::string(what) + ": " + std::to_string(whole.size() - part.size()) + " lost, the first " +
               firstMissing(part, whole) + "; ";
    }
    return {};
}

bool asksForAcknowledgement(frameRecord const& record)
{
    return (record.flags & gssipMessage::ACK_REQ_FLAG) != 0;
}

struct copies
{
    frameRecords first;
    frameRecords later;
    std::string fault;
};

/// Separates first copies from later ones. A message that asks for acknowledgement may be written twice, others once.
copies copiesIn(frameRecords const& written)
{
    copies found;
    std::unordered_map<std::uint16_t, unsigned> times;
    for (frameRecord const& record : written)
    {
        unsigned const most = asksForAcknowledgement(record) ? 2 : 1;
        unsigned const count = ++times[record.id];
        (count == 1 ? found.first : found.later).push_back(record);
        if (count > most)
        {
            found.fault = shown(record) + " is written " + std::to_string(count) + " times; ";
        }
    }
    return found;
}

/// Behind half a frame, which is what a line that was blocked for too long leaves, a first copy may be swallowed. Then
/// the second one counts as the first, and comes out of order.
std::string compareBehindHalfFrames(frameRecords inOrder, frameRecords const& given)
{
    auto const late = std::stable_partition(inOrder.begin(), inOrder.end(), std::not_fn(asksForAcknowledgement));
    auto const stranger = std::find_if(late, inOrder.end(), [&](frameRecord const& record) {
        return std::find(given.begin(), given.end(), record) == given.end();
    });
    if (stranger != inOrder.end())
    {
        return "to the line: " + shown(*stranger) + " was never given; ";
    }
    inOrder.erase(late, inOrder.end());
    return compare(inOrder, given, true, "to the line");
}

} // namespace

std::string settle(std::size_t side, effects const& allowed, spoiledWay::books const& line, frameRecords const& given,
                   station::books const& receiver, wayTotals& totals)
{
    bool const receiverSuffers = allowed.receivingSuffers[1 - side];
    copies const written = copiesIn(line.written);
    std::string fault = written.fault;
    fault += allowed.sendingSuffers[side] ? compareBehindHalfFrames(written.first, given)
                                          : compare(written.first, given, false, "to the line");
    fault += line.torn != 0 && !allowed.sendingSuffers[side] ? "to the line: a torn frame; " : "";
    fault += compare(receiver.delivered, line.deliverable, receiverSuffers, "from the line");
    if (receiver.damaged > line.damaged || (!receiverSuffers && receiver.damaged != line.damaged))
    {
        fault += "from the line: " + std::to_string(line.damaged) + " damaged, but " +
                 std::to_string(receiver.damaged) + " reported; ";
    }
    totals.given += given.size();
    totals.written += written.first.size();
    totals.resent += written.later.size();
    totals.unwritten += given.size() - written.first.size();
    totals.deliverable += line.deliverable.size();
    totals.delivered += receiver.delivered.size();
    totals.undelivered += line.deliverable.size() - receiver.delivered.size();
    totals.damaged += line.damaged;
    totals.unanswered += receiver.unanswered;
    return fault;
}

} // namespace soak
