#include "vectorReader.h"
#include "temporaryFolder.h"

#include <fstream>
#include <gmock/gmock.h>
#include <sstream>
#include <string>

namespace
{

using namespace conformance;
using testing::HasSubstr;
using testing::StartsWith;

vectorFile read(std::string const& text)
{
    std::istringstream stream(text);
    return readVectors(stream, "my.vectors");
}

/// The vectors of a text of one vector, without its first line.
testVector readOne(std::string const& statements)
{
    return read("vector one\n" + statements).vectors.at(0);
}

template <typename Statement>
Statement readStatement(std::string const& text)
{
    return std::get<Statement>(readOne(text).steps.at(0).what);
}

std::string errorOf(std::string const& text)
{
    try
    {
        read(text);
        return "no error";
    }
    catch (vectorError const& error)
    {
        return error.what();
    }
}

TEST(VectorReader, Bytes_AreHexadecimalPairs)
{
    EXPECT_EQ(readStatement<putBytes>("in FF 81  0a").content, (bytes{0xFF, 0x81, 0x0A}));
}

TEST(VectorReader, Bytes_MayBeRepeated)
{
    EXPECT_EQ(readStatement<putBytes>("in 01*3 02").content, (bytes{1, 1, 1, 2}));
}

TEST(VectorReader, PlusSign_ContinuesTheStatementBefore)
{
    testVector const vector = readOne("in 01 # begins\n  # a line between\n  + 02\n\n  + 03 # ends\nsilence 1 s");
    ASSERT_EQ(vector.steps.size(), 2U);
    EXPECT_EQ(std::get<putBytes>(vector.steps[0].what).content, (bytes{1, 2, 3}));
    EXPECT_EQ(vector.steps[0].line, 2U);
    EXPECT_EQ(vector.steps[1].line, 7U);
}

TEST(VectorReader, Out_CountsFromTheMark)
{
    testVector const vector = readOne("mark\nout after 0.25 s + 18 characters: FF\nout after 1 s: FF\nout FF");
    lineTime const first = std::get<expectBytes>(vector.steps[1].what).notBefore.value();
    EXPECT_EQ(first.seconds, 0.25);
    EXPECT_EQ(first.characters, 18U);
    lineTime const second = std::get<expectBytes>(vector.steps[2].what).notBefore.value();
    EXPECT_EQ(second.seconds, 1.0);
    EXPECT_EQ(second.characters, 0U);
    EXPECT_FALSE(std::get<expectBytes>(vector.steps[3].what).notBefore);
}

TEST(VectorReader, Fields_AreHexadecimal)
{
    auto const delivered = readStatement<expectMessage>("delivers id 10 flags A3FF data 0001 dead*2 data-checksum 7");
    EXPECT_EQ(delivered.fields.id, 0x10);
    EXPECT_EQ(delivered.fields.flags, 0xA3FF);
    EXPECT_EQ(delivered.fields.data, (std::vector<std::uint16_t>{1, 0xDEAD, 0xDEAD}));
    EXPECT_EQ(delivered.fields.dataChecksum, 7);
    EXPECT_FALSE(delivered.invalid);
}

TEST(VectorReader, Invalid_IsSuch)
{
    EXPECT_TRUE(readStatement<expectMessage>("invalid id 1 flags 0 data 0001 data-checksum 0").invalid);
}

TEST(VectorReader, Log_HasALevelAndAText)
{
    auto const line = readStatement<expectLine>("log 2 Port(PORT)  Invalid: Message # a comment");
    EXPECT_EQ(line.level, 2);
    EXPECT_EQ(line.text, "Port(PORT)  Invalid: Message");
}

TEST(VectorReader, Send_MayBeTracked)
{
    EXPECT_TRUE(readStatement<sendMessage>("send tracked id 1 flags 4000").tracked);
    EXPECT_FALSE(readStatement<sendMessage>("send id 1 flags 4000").tracked);
}

TEST(VectorReader, Reject_HasThirtyTwoBits)
{
    auto const rejected = readStatement<sendReject>("reject 00012345 extra");
    EXPECT_EQ(rejected.id, 0x12345U);
    EXPECT_TRUE(rejected.extra);
}

TEST(VectorReader, Encode_HasFieldsAndBytes)
{
    auto const expected = readStatement<expectImage>("encode id 1 flags 8800: FF 81");
    EXPECT_EQ(expected.fields.flags, 0x8800);
    EXPECT_EQ(expected.image, (bytes{0xFF, 0x81}));
}

TEST(VectorReader, Settings_AreRead)
{
    portSettings const settings =
        readOne("set acknowledge-time-out 0.5 s\nset handshake-time-out 7 s\nset automatic-answers off\n"
                "set invalid-messages skipped\nfiller")
            .settings;
    EXPECT_EQ(settings.acknowledgeTimeout_sec, 0.5);
    EXPECT_EQ(settings.handshakeTimeout_sec, 7.0);
    EXPECT_FALSE(settings.answers);
    EXPECT_FALSE(settings.returnsInvalid);
}

TEST(VectorReader, Settings_DoNotOutliveTheirVector)
{
    vectorFile const file = read("vector a\nset automatic-answers off\nfiller\nvector b\nfiller");
    EXPECT_TRUE(file.vectors.at(1).settings.answers);
}

TEST(VectorReader, MissingFile_IsNamed)
{
    EXPECT_THAT([] { readVectors("/nowhere/my.vectors"); },
                testing::ThrowsMessage<vectorError>(HasSubstr("/nowhere/my.vectors: No such file")));
}

TEST(VectorReader, FileOnDisk_IsReadWithItsPath)
{
    kit::temporaryFolder const folder;
    std::string const path = folder.path / "some.vectors";
    std::ofstream(path) << "vector a\nfiller\n";
    EXPECT_EQ(readVectors(path).path, path);
}

struct badFile
{
    char const* text;
    char const* where;
    char const* what;
};

class VectorReaderErrors : public testing::TestWithParam<badFile>
{};

TEST_P(VectorReaderErrors, BadFile_IsToldWithItsLine)
{
    std::string const error = errorOf(GetParam().text);
    EXPECT_THAT(error, StartsWith(GetParam().where));
    EXPECT_THAT(error, HasSubstr(GetParam().what));
}

constexpr badFile badFiles[] = {
    {"", "my.vectors:1: ", "there is no vector in it"},
    {"# nothing\n", "my.vectors:1: ", "there is no vector in it"},
    {"in FF\n", "my.vectors:1: ", "'in' stands before the first vector"},
    {"+ FF\n", "my.vectors:1: ", "'+' stands before the first vector"},
    {"vector\n", "my.vectors:1: ", "a vector needs a name"},
    {"vector a\nfiller\n\nvector a\n", "my.vectors:4: ", "there is a vector 'a' already"},
    {"vector a\nvector b\nfiller\n", "my.vectors:2: ", "the vector 'a' before this has no statement"},
    {"vector a\n", "my.vectors:1: ", "the vector 'a' before this has no statement"},
    {"vector a\n\nput FF\n", "my.vectors:3: ", "'put' is no statement"},
    {"vector a\nin\n", "my.vectors:2: ", "a byte is missing"},
    {"vector a\nin GG\n", "my.vectors:2: ", "'GG' is no byte (2 hexadecimal digits)"},
    {"vector a\nin FF81\n", "my.vectors:2: ", "'FF81' is no byte"},
    {"vector a\nin F\n", "my.vectors:2: ", "'F' is no byte"},
    {"vector a\nin FF*\n", "my.vectors:2: ", "the number behind *"},
    {"vector a\nin FF*0\n", "my.vectors:2: ", "the number behind *"},
    {"vector a\nin FF*1000001\n", "my.vectors:2: ", "the number behind *"},
    {"vector a\nout after 1 s: FF\n", "my.vectors:2: ", "'after' counts from a 'mark'"},
    {"vector a\nmark\nout after 1: FF\n", "my.vectors:3: ", "'s' is missing before ':'"},
    {"vector a\nmark\nout after -1 s: FF\n", "my.vectors:3: ", "'-1' is no number of seconds"},
    {"vector a\nmark\nout after 1 s FF\n", "my.vectors:3: ", "':' is missing before 'FF'"},
    {"vector a\nmark now\n", "my.vectors:2: ", "'now' is too much"},
    {"vector a\nsilence\n", "my.vectors:2: ", "a number of seconds is missing"},
    {"vector a\nsilence x s\n", "my.vectors:2: ", "'x' is no number of seconds"},
    {"vector a\ndelivers flags 0\n", "my.vectors:2: ", "'id' is missing before 'flags'"},
    {"vector a\ndelivers id 12345 flags 0\n", "my.vectors:2: ", "'12345' is no id"},
    {"vector a\ndelivers id 1\n", "my.vectors:2: ", "'flags' is missing"},
    {"vector a\ndelivers id 1 flags 0 data\n", "my.vectors:2: ", "a data word is missing"},
    {"vector a\ndelivers id 1 flags 0 data 1\n", "my.vectors:2: ", "'1' is no data word (4 hexadecimal digits)"},
    {"vector a\ndelivers id 1 flags 0 data 0000*65536\n", "my.vectors:2: ", "at most 65535 data words"},
    {"vector a\ndelivers id 1 flags 0 text\n", "my.vectors:2: ", "'text' is too much"},
    {"vector a\ninvalid id 1 flags 0 data 0001\n", "my.vectors:2: ", "needs the data checksum that it came with"},
    {"vector a\nsend id 1 flags 0 data 0001 data-checksum 1\n", "my.vectors:2: ", "gets its checksums from the sender"},
    {"vector a\nlog two text\n", "my.vectors:2: ", "'two' is no level"},
    {"vector a\nlog 2\n", "my.vectors:2: ", "the text of the line is missing"},
    {"vector a\nreject 123456789\n", "my.vectors:2: ", "'123456789' is no id"},
    {"vector a\nreject 1 more\n", "my.vectors:2: ", "'more' is too much"},
    {"vector a\nencode id 1 flags 0 FF\n", "my.vectors:2: ", "':' is missing before 'FF'"},
    {"vector a\nset colour blue\n", "my.vectors:2: ", "'colour' is no setting"},
    {"vector a\nset automatic-answers maybe\n", "my.vectors:2: ", "'on' or 'off' is missing"},
    {"vector a\nfiller\nset automatic-answers on\n", "my.vectors:3: ", "settings stand before the other statements"},
};

INSTANTIATE_TEST_SUITE_P(Each, VectorReaderErrors, testing::ValuesIn(badFiles));

} // namespace
