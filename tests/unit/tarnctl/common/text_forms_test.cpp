#include "tarnctl/common/text_forms.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>

namespace tarnctl {
namespace {

TEST(Base64Text, PadsTheLastGroup) {
    const auto text = [](std::string_view plain) {
        return Base64(std::as_bytes(std::span(plain.data(), plain.size())));
    };
    EXPECT_EQ("", text(""));
    EXPECT_EQ("Zg==", text("f"));
    EXPECT_EQ("Zm8=", text("fo"));
    EXPECT_EQ("Zm9v", text("foo"));
    EXPECT_EQ("Zm9vYg==", text("foob"));
    EXPECT_EQ("+//+", text("\xFB\xFF\xFE"));
}

TEST(ForTerminalText, WritesWhatWouldActOnATerminalAsNumbers) {
    EXPECT_EQ("plain ~ text", ForTerminal("plain ~ text"));
    EXPECT_EQ("\\x1B[2J\\x0A\\x5C", ForTerminal("\x1B[2J\n\\"));
    EXPECT_EQ("\\xC3\\xA4", ForTerminal("\xC3\xA4"));
}

TEST(TextAsJsonValue, IsTheTextOrItsBytesWhereItIsNoUnicode) {
    EXPECT_EQ("\"\xC3\xA4 \\\"x\\\"\"", TextAsJson("\xC3\xA4 \"x\"").dump());
    EXPECT_EQ("{\"base64\":\"/w==\"}", TextAsJson("\xFF").dump());
}

TEST(TimeAsJsonValue, IsANumberOrNothing) {
    EXPECT_EQ("1794495600", TimeAsJson(1794495600).dump());
    EXPECT_EQ("1794495600.25", TimeAsJson(1794495600, 250000).dump());
    EXPECT_EQ("1794495600.000001", TimeAsJson(1794495600, 1).dump());
    EXPECT_EQ("null", TimeAsJson(0).dump());
}

TEST(TimeTextForm, IsLocalDateAndTime) {
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ("1970-01-01 00:00:00", TimeText(0));
    EXPECT_EQ("2023-11-14 22:13:20", TimeText(1700000000));
    EXPECT_EQ("9999-12-31 23:59:59", TimeText(253402300799));
    EXPECT_EQ("10000-01-01 00:00:00", TimeText(253402300800));
    EXPECT_EQ("1899-12-31 23:59:59", TimeText(static_cast<uint64_t>(-2208988801)));
    // A year that no number holds is none.
    EXPECT_EQ(std::to_string(uint64_t{1} << 62), TimeText(uint64_t{1} << 62));
}

TEST(TimeTextForm, HasSixDigitsOfAFraction) {
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ("1970-01-01 00:00:01.000000", TimeText(1, 0));
    EXPECT_EQ("1970-01-01 00:00:01.000999", TimeText(1, 999));
    EXPECT_EQ("1970-01-01 00:00:01.999999", TimeText(1, 999999));
    EXPECT_EQ("1970-01-01 00:00:01.4294967295", TimeText(1, 4294967295));
}

TEST(Bytes, AreShownAsPairsOfDigits) {
    const std::array<std::byte, 3> bytes = {std::byte{0x00}, std::byte{0x1B}, std::byte{0xFF}};
    EXPECT_EQ(" 00 1b ff", HexDigits(bytes));
}

TEST(MalformedJson, HoldsTheReasonAndAllBytes) {
    const std::array<std::byte, 2> bytes = {std::byte{1}, std::byte{2}};
    EXPECT_EQ(R"({"malformed":"it is odd","bytes":"AQI="})", MalformedAsJson("it is odd", bytes));
}

}  // namespace
}  // namespace tarnctl
