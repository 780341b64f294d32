#include "tarnctl/secmgr/secmgr_frames.h"

#include <gtest/gtest.h>

#include <string>

#include "tarnctl/secmgr/secmgr_answer.h"
#include "unit/tarnctl/secmgr/secmgr_requests.h"

namespace tarnctl {
namespace {

using Result = SecmgrFrames::Result;

void Append(SecmgrFrames& frames, const std::string& bytes) {
    frames.Append(std::as_bytes(std::span(bytes.data(), bytes.size())));
}

TEST(SecmgrFrames, TakesARequestThatCameByteByByte) {
    const std::string bytes = RequestFrame("ip", 7, 1);
    SecmgrFrames frames;
    SecmgrRequest request;
    for (const char byte : bytes) {
        ASSERT_EQ(frames.Next(request), Result::kNeedsMore);
        Append(frames, std::string(1, byte));
    }
    ASSERT_EQ(frames.Next(request), Result::kRequest);
    EXPECT_EQ(request.flags, 1U);
    EXPECT_EQ(request.issueId, 7U);
    EXPECT_EQ(request.text, "ip");
    EXPECT_TRUE(frames.Waiting().empty());
}

TEST(SecmgrFrames, TakesSeveralRequestsOutOfOnePiece) {
    SecmgrFrames frames;
    Append(frames, RequestFrame("one", 1) + RequestFrame("two", 2) + "\x0b");
    SecmgrRequest request;
    ASSERT_EQ(frames.Next(request), Result::kRequest);
    EXPECT_EQ(request.text, "one");
    ASSERT_EQ(frames.Next(request), Result::kRequest);
    EXPECT_EQ(request.text, "two");
    EXPECT_EQ(frames.Next(request), Result::kNeedsMore);
    EXPECT_EQ(frames.Waiting().size(), 1U);
}

TEST(SecmgrFrames, TakesTheLongestBodyAndNoLonger) {
    const std::size_t longest = SecmgrFrames::kLongestBody - 9;
    SecmgrFrames frames;
    SecmgrRequest request;
    Append(frames, RequestFrame(std::string(longest, 'x'), 1));
    EXPECT_EQ(frames.Next(request), Result::kRequest);
    Append(frames, RequestFrame(std::string(longest + 1, 'x'), 1));
    EXPECT_EQ(frames.Next(request), Result::kMalformed);
}

std::string ReasonFor(const std::string& bytes) {
    SecmgrFrames frames;
    SecmgrRequest request;
    Append(frames, bytes);
    EXPECT_EQ(frames.Next(request), Result::kMalformed);
    EXPECT_EQ(frames.Next(request), Result::kMalformed) << "it stays so";
    return frames.Error();
}

TEST(SecmgrFrames, RefusesAnUnknownCommandBeforeItsBodyComes) {
    EXPECT_EQ(ReasonFor(Words({12, 100})), "command 12 is unknown");
}

TEST(SecmgrFrames, RefusesABodyThatCanHoldNoRule) {
    EXPECT_EQ(ReasonFor(Words({11, 0})), "a body of 0 bytes holds no rule");
    EXPECT_EQ(ReasonFor(Words({11, 9})), "a body of 9 bytes holds no rule");
    EXPECT_EQ(ReasonFor(Words({11, 0xFFFFFFFF})), "a body of 4294967295 bytes holds no rule");
}

TEST(SecmgrFrames, RefusesATextThatItsNulDoesNotEnd) {
    using namespace std::string_literals;
    EXPECT_EQ(ReasonFor(Words({11, 10, 1, 1}) + "ab"), "a rule text without a NUL at its end");
    EXPECT_EQ(ReasonFor(Words({11, 12, 1, 1}) + "a\0b\0"s), "a NUL within the rule text");
    EXPECT_EQ(ReasonFor(Words({11, 12, 1, 1}) + "a\0bc"s), "a rule text without a NUL at its end");
}

TEST(SecmgrAnswer, KnowsItsWords) {
    for (const char* const word : {"close", "silent", "short", "long", "0", "3", "4294967295"}) {
        SecmgrAnswer answer;
        ASSERT_TRUE(ParseAnswer(word, answer)) << word;
        EXPECT_EQ(AnswerText(answer), word);
    }
    SecmgrAnswer answer;
    for (const char* const word : {"", "Close", "-1", "3x", "4294967296"}) {
        EXPECT_FALSE(ParseAnswer(word, answer)) << word;
    }
}

TEST(SecmgrAnswer, HasTheBytesThatItsWordSays) {
    const auto bytesOf = [](const char* word) {
        SecmgrAnswer answer;
        EXPECT_TRUE(ParseAnswer(word, answer));
        const std::vector<std::byte> bytes = AnswerBytes(answer);
        return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    };
    EXPECT_EQ(bytesOf("15"), Words({15, 0}));
    EXPECT_EQ(bytesOf("3"), Words({3, 0}));
    EXPECT_EQ(bytesOf("long"), Words({15, 4, 0}));
    EXPECT_EQ(bytesOf("short"), Words({15}));
    EXPECT_EQ(bytesOf("close"), "");
    EXPECT_EQ(bytesOf("silent"), "");
}

}  // namespace
}  // namespace tarnctl
