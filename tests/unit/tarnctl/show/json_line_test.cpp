#include "tarnctl/show/json_line.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tarnctl/common/text_forms.h"

using Json = nlohmann::ordered_json;

namespace tarnctl {
namespace {

TEST(JsonLineTest, IsAnObjectInTheOrderOfItsParts) {
    JsonLine line;
    line.Add("b", 7U);
    line.AddText("a", "text");
    line.AddNull("c");
    line.Add("d", std::optional<uint16_t>(65535));
    line.Add("e", std::optional<uint16_t>());
    line.AddRaw("f", "[1,2]");
    EXPECT_EQ(R"({"b":7,"a":"text","c":null,"d":65535,"e":null,"f":[1,2]})", line.Finish());
}

TEST(JsonLineTest, MayBeEmpty) {
    EXPECT_EQ("{}", JsonLine().Finish());
}

TEST(JsonLineTest, NumbersHaveAllTheirDigits) {
    JsonLine line;
    line.Add("least", uint8_t{0});
    line.Add("most", UINT64_MAX);
    EXPECT_EQ(R"({"least":0,"most":18446744073709551615})", line.Finish());
}

TEST(JsonLineTest, TextsAreWhatTheLibraryMakesOfThem) {
    for (const std::string text : {"", "plain text ~", "a \"quote\"", "back\\slash", "line\nend",
                                   "\x1b[1m", "\x7f", "M\xc3\xbcller", "no UTF-8 \xff\xfe"}) {
        JsonLine line;
        line.AddText("text", text);
        EXPECT_EQ(Json({{"text", TextAsJson(text)}}).dump(), line.Finish());
    }
}

TEST(JsonLineTest, AnEmptyTextMayBeNull) {
    JsonLine line;
    line.AddTextOrNull("empty", "");
    line.AddTextOrNull("blank", " ");
    EXPECT_EQ(R"({"empty":null,"blank":" "})", line.Finish());
}

TEST(JsonLineTest, TimesAreWhatTheLibraryMakesOfThem) {
    for (const uint32_t second : {0U, 1700000000U, 2147483648U, 4294967295U}) {
        for (const uint32_t microsecond : {0U, 1U, 9U, 10U, 100000U, 120000U, 123456U, 500000U,
                                           999999U, 1000000U, 4294967295U}) {
            JsonLine line;
            line.AddTime("time", second, microsecond);
            EXPECT_EQ(Json({{"time", TimeAsJson(second, microsecond)}}).dump(), line.Finish());
        }
    }
}

TEST(JsonLineTest, ATimeSoonAfterTheEpochHasNoDigitsOfARoundedSum) {
    JsonLine line;
    line.AddTime("time", 1, 999999);
    EXPECT_EQ(R"({"time":1.999999})", line.Finish());
}

TEST(JsonLineTest, BytesAreInBase64) {
    JsonLine line;
    line.AddBytes("bytes", std::as_bytes(std::span("ab", 2)));
    line.AddBytes("none", {});
    EXPECT_EQ(R"({"bytes":"YWI=","none":""})", line.Finish());
}

}  // namespace
}  // namespace tarnctl
