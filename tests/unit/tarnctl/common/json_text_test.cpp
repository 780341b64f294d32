#include "tarnctl/common/json_text.h"

#include <gtest/gtest.h>

#include <array>
#include <nlohmann/json.hpp>
#include <string>

#include "tarnctl/common/text_forms.h"

using nlohmann::json;

namespace tarnctl {
namespace {

class JsonTextTest : public testing::Test {
  protected:
    std::string Finish() {
        m_json.Close();
        return m_text;
    }

    std::string m_text;
    JsonText m_json{m_text};
};

TEST_F(JsonTextTest, SeparatesTheMembersOfEachObject) {
    m_json.Open();
    m_json.Number("a", 1);
    m_json.Open("b");
    m_json.Number("c", 18446744073709551615U);
    m_json.Raw("d", "[2]");
    m_json.Close();
    m_json.Number("e", 3);
    EXPECT_EQ(R"({"a":1,"b":{"c":18446744073709551615,"d":[2]},"e":3})", Finish());
}

TEST_F(JsonTextTest, WritesAddresses) {
    constexpr std::array<uint8_t, 16> kNone = {};
    constexpr std::array<uint8_t, 16> kSome = {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0,
                                               0,    0,    0,    0,    0, 0, 0, 1};
    m_json.Open();
    m_json.Ipv4("a", 0);
    m_json.Ipv4("b", 0xFF0A64C8);
    m_json.Ipv6("c", kNone);
    m_json.Ipv6("d", kSome);
    EXPECT_EQ(R"({"a":"0.0.0.0","b":"255.10.100.200","c":"::","d":"2001:db8::1"})", Finish());
}

TEST_F(JsonTextTest, LeavesOutWhatIsZeroOrEmpty) {
    constexpr std::array<uint8_t, 3> kZero = {};
    constexpr std::array<uint8_t, 3> kLast = {0, 0, 0xF1};
    m_json.Open();
    m_json.NumberUnlessZero("a", 0);
    m_json.NumberUnlessZero("b", 1);
    m_json.TextUnlessEmpty("c", "");
    m_json.TextUnlessEmpty("d", "x");
    m_json.HexUnlessZero("e", kZero);
    m_json.HexUnlessZero("f", kLast);
    EXPECT_EQ(R"({"b":1,"d":"x","f":"0000f1"})", Finish());
}

// The library is the measure of every byte that a text may hold.
TEST_F(JsonTextTest, WritesEachByteAsTheLibraryDoes) {
    for (int first = 0; first < 256; ++first) {
        const std::string text = {'a', static_cast<char>(first), 'b', static_cast<char>(first)};
        std::string to = "before ";
        AppendTextAsJson(to, text);
        EXPECT_EQ("before " + TextAsJson(text).dump(), to) << first;
        EXPECT_EQ(TextAsJson(text).is_string(), IsUtf8(text)) << first;
    }
}

TEST_F(JsonTextTest, KeepsAPlaceForBytesThatAreNoUtf8) {
    m_json.Open();
    m_json.Text("a", "caf\xe9");
    m_json.TextUnlessEmpty("b", "caf\xe9");
    m_json.Text("c", "caf\xc3\xa9 \"\\\n");
    EXPECT_EQ(
        "{\"a\":\"caf\xef\xbf\xbd\",\"b\":{\"base64\":\"Y2Fm6Q==\"},"
        "\"c\":\"caf\xc3\xa9 \\\"\\\\\\n\"}",
        Finish());
}

}  // namespace
}  // namespace tarnctl
