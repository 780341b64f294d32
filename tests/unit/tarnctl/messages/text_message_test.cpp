#include "tarnctl/messages/text_message.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <vector>

#include "crm/crm_message_format.h"
#include "support/golden_bytes.h"

using nlohmann::json;

namespace tarnctl {
namespace {

std::string Decode(const std::vector<uint8_t>& bytes, TextMessage& message) {
    return DecodeTextMessage(std::as_bytes(std::span(bytes)), message);
}

// A message of a text, with its length right.
std::vector<uint8_t> Encode(const std::string& text, bool withNul = true) {
    tarn::crm::MessageHeader header{};
    const size_t size = sizeof(header) + text.size() + (withNul ? 1 : 0);
    header.type = tarn::crm::kMessageType;
    header.length = static_cast<uint16_t>(size);
    header.time = 1794495600;
    std::vector<uint8_t> bytes(size);
    std::memcpy(bytes.data(), &header, sizeof(header));
    std::memcpy(bytes.data() + sizeof(header), text.data(), text.size());
    return bytes;
}

std::string Reason(const std::vector<uint8_t>& bytes) {
    TextMessage message;
    return Decode(bytes, message);
}

// `bytes` with one of them changed.
std::vector<uint8_t> With(std::vector<uint8_t> bytes, size_t offset, uint8_t value) {
    bytes.at(offset) = value;
    return bytes;
}

TEST(DecodeTextMessage, ReadsTheGoldenMessages) {
    TextMessage message;
    ASSERT_EQ("", Decode(GoldenBytes("crm_message_error.txt"), message));
    EXPECT_EQ(1794495600U, message.time);
    EXPECT_TRUE(message.isError);
    EXPECT_EQ("bad rule", message.text);
    ASSERT_EQ("", Decode(GoldenBytes("crm_message_information.txt"), message));
    EXPECT_FALSE(message.isError);
    EXPECT_EQ("", message.text);
}

TEST(DecodeTextMessage, ReadsATextThatWasCutAndHasNoNul) {
    TextMessage message;
    ASSERT_EQ("", Decode(Encode(std::string(513, 'x'), false), message));
    EXPECT_EQ(std::string(513, 'x'), message.text);
    ASSERT_EQ("", Decode(Encode(std::string(512, 'x')), message));
    EXPECT_EQ(std::string(512, 'x'), message.text);
}

TEST(DecodeTextMessage, TellsWhatDoesNotAddUp) {
    const std::vector<uint8_t> good = Encode("bad rule");
    EXPECT_EQ("", Reason(good));
    EXPECT_EQ("it is shorter than any message", Reason({}));
    EXPECT_EQ("it is shorter than any message", Reason(std::vector<uint8_t>(20)));
    EXPECT_EQ("it is longer than any message", Reason(Encode(std::string(514, 'x'), false)));
    EXPECT_EQ("its type is 1238 and not 1237", Reason(With(good, 4, 0xD6)));
    EXPECT_EQ("its length says 28 bytes", Reason(With(good, 6, 28)));
    EXPECT_EQ("its kind is 2", Reason(With(good, 16, 2)));
    EXPECT_EQ("its text has no end", Reason(Encode("no end", false)));
    EXPECT_EQ("there are bytes after its text", Reason(With(good, 22, 0)));
}

class TextMessageInUtc : public testing::Test {
  protected:
    TextMessageInUtc() {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

TEST_F(TextMessageInUtc, IsALineWithoutTheNewlineAtItsEnd) {
    EXPECT_EQ("2026-11-12 15:00:00  error  ERROR in SNORT. Reason: x",
              TextMessageAsLine({1794495600, true, "ERROR in SNORT. Reason: x\n"}));
    EXPECT_EQ("2026-11-12 15:00:00  information  \\x1B[2J\\x0A",
              TextMessageAsLine({1794495600, false, "\x1B[2J\n\n"}));
    EXPECT_EQ("2026-11-12 15:00:00  information", TextMessageAsLine({1794495600, false, ""}));
}

TEST(TextMessageJson, HoldsTheTextAsItCame) {
    const json object = json::parse(TextMessageAsJson({7, false, "a\n"}));
    EXPECT_EQ(object, json({{"time", 7}, {"kind", "information"}, {"text", "a\n"}}));
    EXPECT_EQ(json::parse(TextMessageAsJson({7, true, "\xFF"}))["text"],
              json({{"base64", "/w=="}}));
}

}  // namespace
}  // namespace tarnctl
