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
        ASSERT_EQ(Result::kNeedsMore, frames.Next(request));
        Append(frames, std::string(1, byte));
    }
    ASSERT_EQ(Result::kRequest, frames.Next(request));
    EXPECT_EQ(1U, request.flags);
    EXPECT_EQ(7U, request.issueId);
    EXPECT_EQ("ip", request.text);
    EXPECT_TRUE(frames.Waiting().empty());
}

TEST(SecmgrFrames, TakesSeveralRequestsOutOfOnePiece) {
    SecmgrFrames frames;
    Append(frames, RequestFrame("one", 1) + RequestFrame("two", 2) + "\x0b");
    SecmgrRequest request;
    ASSERT_EQ(Result::kRequest, frames.Next(request));
    EXPECT_EQ("one", request.text);
    ASSERT_EQ(Result::kRequest, frames.Next(request));
    EXPECT_EQ("two", request.text);
    EXPECT_EQ(Result::kNeedsMore, frames.Next(request));
    EXPECT_EQ(1U, frames.Waiting().size());
}

TEST(SecmgrFrames, TakesTheLongestBodyAndNoLonger) {
    const size_t longest = SecmgrFrames::kLongestBody - 9;
    SecmgrFrames frames;
    SecmgrRequest request;
    Append(frames, RequestFrame(std::string(longest, 'x'), 1));
    EXPECT_EQ(Result::kRequest, frames.Next(request));
    Append(frames, RequestFrame(std::string(longest + 1, 'x'), 1));
    EXPECT_EQ(Result::kMalformed, frames.Next(request));
}

std::string ReasonFor(const std::string& bytes) {
    SecmgrFrames frames;
    SecmgrRequest request;
    Append(frames, bytes);
    EXPECT_EQ(Result::kMalformed, frames.Next(request));
    EXPECT_EQ(Result::kMalformed, frames.Next(request)) << "it stays so";
    return frames.Error();
}

TEST(SecmgrFrames, RefusesAnUnknownCommandBeforeItsBodyComes) {
    EXPECT_EQ("command 12 is unknown", ReasonFor(Words({12, 100})));
}

TEST(SecmgrFrames, RefusesABodyThatCanHoldNoRule) {
    EXPECT_EQ("a body of 0 bytes holds no rule", ReasonFor(Words({11, 0})));
    EXPECT_EQ("a body of 9 bytes holds no rule", ReasonFor(Words({11, 9})));
    EXPECT_EQ("a body of 4294967295 bytes holds no rule", ReasonFor(Words({11, 0xFFFFFFFF})));
}

TEST(SecmgrFrames, RefusesATextThatItsNulDoesNotEnd) {
    using namespace std::string_literals;
    EXPECT_EQ("a rule text without a NUL at its end", ReasonFor(Words({11, 10, 1, 1}) + "ab"));
    EXPECT_EQ("a NUL within the rule text", ReasonFor(Words({11, 12, 1, 1}) + "a\0b\0"s));
    EXPECT_EQ("a rule text without a NUL at its end", ReasonFor(Words({11, 12, 1, 1}) + "a\0bc"s));
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
    EXPECT_EQ("", bytesOf("close"));
    EXPECT_EQ("", bytesOf("silent"));
}

}  // namespace
}  // namespace tarnctl
