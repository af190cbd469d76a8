#include "vectorReader.h"

#include "statementWords.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>

namespace conformance
{
namespace
{

std::string trimmed(std::string const& text)
{
    char const* const blanks = " \t\r";
    std::size_t const begin = text.find_first_not_of(blanks);
    return begin == std::string::npos ? std::string{} : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

/// A comment begins with # at the start of a line or behind a blank.
std::string withoutComment(std::string const& line)
{
    for (std::size_t at = line.find('#'); at != std::string::npos; at = line.find('#', at + 1))
    {
        if (at == 0 || line[at - 1] == ' ' || line[at - 1] == '\t')
        {
            return line.substr(0, at);
        }
    }
    return line;
}

/// A statement with the lines that continue it.
struct rawStatement
{
    unsigned line = 0;
    std::string keyword;
    std::string rest;
};

std::vector<rawStatement> statementsOf(std::istream& text)
{
    std::vector<rawStatement> statements;
    unsigned number = 0;
    for (std::string line; std::getline(text, line);)
    {
        ++number;
        std::string const content = trimmed(withoutComment(line));
        if (content.empty())
        {
            continue;
        }
        std::size_t const end = std::min(content.find_first_of(" \t"), content.size());
        std::string const keyword = content.substr(0, end);
        if (keyword == "+" && !statements.empty())
        {
            statements.back().rest += content.substr(end);
            continue;
        }
        statements.push_back({number, keyword, trimmed(content.substr(end))});
    }
    return statements;
}

// One function for each statement.

statement readPut(std::string const& rest)
{
    return putBytes{statementWords(rest).takeBytes()};
}

lineTime readLineTime(statementWords& words)
{
    lineTime time;
    time.seconds = words.takeSeconds();
    words.require("s");
    if (words.accept("+"))
    {
        time.characters = words.takeCount("number of characters");
        words.require("characters");
    }
    words.require(":");
    return time;
}

statement readExpect(std::string const& rest)
{
    statementWords words(rest);
    expectBytes result;
    if (words.accept("after"))
    {
        result.notBefore = readLineTime(words);
    }
    result.content = words.takeBytes();
    return result;
}

statement readDelivered(std::string const& rest)
{
    statementWords words(rest);
    expectMessage const result{words.takeFields(), false};
    words.requireEnd();
    return result;
}

statement readInvalid(std::string const& rest)
{
    statementWords words(rest);
    expectMessage const result{words.takeFields(), true};
    words.requireEnd();
    if (!result.fields.dataChecksum)
    {
        throw statementError("an invalid message needs the data checksum that it came with");
    }
    return result;
}

statement readLog(std::string const& rest)
{
    std::size_t const blank = std::min(rest.find(' '), rest.size());
    statementWords level(rest.substr(0, blank));
    std::string const text = trimmed(rest.substr(blank));
    expectLine const result{static_cast<std::int32_t>(level.takeCount("level")), text};
    if (text.empty())
    {
        throw statementError("the text of the line is missing");
    }
    return result;
}

statement readSilence(std::string const& rest)
{
    statementWords words(rest);
    expectSilence const result{words.takeSeconds()};
    words.require("s");
    words.requireEnd();
    return result;
}

statement readMark(std::string const& rest)
{
    statementWords(rest).requireEnd();
    return markTime{};
}

statement readSend(std::string const& rest)
{
    statementWords words(rest);
    sendMessage result;
    result.tracked = words.accept("tracked");
    result.fields = words.takeFields();
    words.requireEnd();
    if (result.fields.dataChecksum)
    {
        throw statementError("a message that is sent gets its checksums from the sender");
    }
    return result;
}

statement readReject(std::string const& rest)
{
    statementWords words(rest);
    sendReject result;
    result.id = words.takeHex("id", 8);
    result.extra = words.accept("extra");
    words.requireEnd();
    return result;
}

statement readFiller(std::string const& rest)
{
    statementWords(rest).requireEnd();
    return sendFiller{};
}

statement readEncode(std::string const& rest)
{
    statementWords words(rest);
    expectImage result;
    result.fields = words.takeFields();
    words.require(":");
    result.image = words.takeBytes();
    return result;
}

using statementReader = statement (*)(std::string const&);

statementReader readerOf(std::string const& keyword)
{
    static std::map<std::string, statementReader> const readers{
        {"in", readPut},        {"out", readExpect},      {"delivers", readDelivered}, {"invalid", readInvalid},
        {"log", readLog},       {"silence", readSilence}, {"mark", readMark},          {"send", readSend},
        {"reject", readReject}, {"filler", readFiller},   {"encode", readEncode},
    };
    auto const found = readers.find(keyword);
    if (found == readers.end())
    {
        throw statementError("'" + keyword + "' is no statement");
    }
    return found->second;
}

bool readChoice(statementWords& words, std::string const& yes, std::string const& no)
{
    if (words.accept(yes))
    {
        return true;
    }
    if (words.accept(no))
    {
        return false;
    }
    throw statementError("'" + yes + "' or '" + no + "' is missing");
}

void readSetting(std::string const& rest, portSettings& settings)
{
    statementWords words(rest);
    std::string const name = words.take("the name of a setting");
    if (name == "acknowledge-time-out")
    {
        settings.acknowledgeTimeout_sec = words.takeSeconds();
        words.require("s");
    }
    else if (name == "handshake-time-out")
    {
        settings.handshakeTimeout_sec = words.takeSeconds();
        words.require("s");
    }
    else if (name == "automatic-answers")
    {
        settings.answers = readChoice(words, "on", "off");
    }
    else if (name == "invalid-messages")
    {
        settings.returnsInvalid = readChoice(words, "returned", "skipped");
    }
    else
    {
        throw statementError("'" + name + "' is no setting");
    }
    words.requireEnd();
}

bool countsFromAMark(step const& each)
{
    auto const* const expected = std::get_if<expectBytes>(&each.what);
    return expected != nullptr && expected->notBefore.has_value();
}

/// Builds vectors out of one statement after the other.
class vectorBuilder
{
  public:
    void add(rawStatement const& raw)
    {
        if (raw.keyword == "vector")
        {
            begin(raw);
        }
        else if (vectors.empty())
        {
            throw statementError("'" + raw.keyword + "' stands before the first vector");
        }
        else if (raw.keyword == "set")
        {
            set(raw);
        }
        else
        {
            addStep(raw);
        }
    }

    std::vector<testVector> finish()
    {
        if (vectors.empty())
        {
            throw statementError("there is no vector in it");
        }
        requireSteps();
        return std::move(vectors);
    }

  private:
    void begin(rawStatement const& raw)
    {
        auto const hasThisName = [&raw](testVector const& each) { return each.name == raw.rest; };
        if (raw.rest.empty())
        {
            throw statementError("a vector needs a name");
        }
        if (std::any_of(vectors.begin(), vectors.end(), hasThisName))
        {
            throw statementError("there is a vector '" + raw.rest + "' already");
        }
        requireSteps();
        vectors.push_back({raw.rest, {}, {}});
        marked = false;
    }

    void requireSteps() const
    {
        if (!vectors.empty() && vectors.back().steps.empty())
        {
            throw statementError("the vector '" + vectors.back().name + "' before this has no statement");
        }
    }

    void set(rawStatement const& raw)
    {
        if (!vectors.back().steps.empty())
        {
            throw statementError("settings stand before the other statements of a vector");
        }
        readSetting(raw.rest, vectors.back().settings);
    }

    void addStep(rawStatement const& raw)
    {
        step next{raw.line, trimmed(raw.keyword + " " + raw.rest), readerOf(raw.keyword)(raw.rest)};
        marked = marked || std::holds_alternative<markTime>(next.what);
        if (countsFromAMark(next) && !marked)
        {
            throw statementError("'after' counts from a 'mark', and there is none before");
        }
        vectors.back().steps.push_back(std::move(next));
    }

    std::vector<testVector> vectors;
    bool marked = false;
};

vectorError at(std::string const& path, unsigned line, statementError const& error)
{
    return vectorError(path + ":" + std::to_string(line) + ": " + error.what());
}

} // namespace

vectorFile readVectors(std::istream& text, std::string const& path)
{
    vectorBuilder builder;
    unsigned line = 1;
    try
    {
        for (rawStatement const& each : statementsOf(text))
        {
            line = each.line;
            builder.add(each);
        }
        return {path, builder.finish()};
    }
    catch (statementError const& error)
    {
        throw at(path, line, error);
    }
}

vectorFile readVectors(std::string const& path)
{
    std::ifstream file(path);
    if (!file)
    {
        throw vectorError(path + ": " + std::strerror(errno));
    }
    return readVectors(file, path);
}

} // namespace conformance
