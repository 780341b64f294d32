#include "tarnctl/common/text_forms.h"

#include <gtest/gtest.h>

#include <array>
#include <nlohmann/json.hpp>
#include <string>

namespace tarnctl {
namespace {

TEST(Base64Text, PadsTheLastGroup) {
    const auto text = [](std::string_view plain) {
        return Base64(std::as_bytes(std::span(plain.data(), plain.size())));
    };
    EXPECT_EQ(text(""), "");
    EXPECT_EQ(text("f"), "Zg==");
    EXPECT_EQ(text("fo"), "Zm8=");
    EXPECT_EQ(text("foo"), "Zm9v");
    EXPECT_EQ(text("foob"), "Zm9vYg==");
    EXPECT_EQ(text("\xFB\xFF\xFE"), "+//+");
}

TEST(ForTerminalText, WritesWhatWouldActOnATerminalAsNumbers) {
    EXPECT_EQ(ForTerminal("plain ~ text"), "plain ~ text");
    EXPECT_EQ(ForTerminal("\x1B[2J\n\\"), "\\x1B[2J\\x0A\\x5C");
    EXPECT_EQ(ForTerminal("\xC3\xA4"), "\\xC3\\xA4");
}

TEST(TextAsJsonValue, IsTheTextOrItsBytesWhereItIsNoUnicode) {
    EXPECT_EQ(TextAsJson("\xC3\xA4 \"x\"").dump(), "\"\xC3\xA4 \\\"x\\\"\"");
    EXPECT_EQ(TextAsJson("\xFF").dump(), "{\"base64\":\"/w==\"}");
}

TEST(Bytes, AreShownAsPairsOfDigits) {
    const std::array<std::byte, 3> bytes = {std::byte{0x00}, std::byte{0x1B}, std::byte{0xFF}};
    EXPECT_EQ(HexDigits(bytes), " 00 1b ff");
}

TEST(MalformedJson, HoldsTheReasonAndAllBytes) {
    const std::array<std::byte, 2> bytes = {std::byte{1}, std::byte{2}};
    EXPECT_EQ(MalformedAsJson("it is odd", bytes), R"({"malformed":"it is odd","bytes":"AQI="})");
}

}  // namespace
}  // namespace tarnctl
