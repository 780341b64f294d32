#include "tarnctl/quarantine/never_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

using testing::EndsWith;
using testing::HasSubstr;

namespace tarnctl {
namespace {

TEST(NeverList, CoversAddressesAndNetworks) {
    NeverList list;
    ASSERT_EQ("", list.Add("10.1.0.0/16"));
    ASSERT_EQ("", list.Add("192.0.2.7"));
    ASSERT_EQ("", list.Add("2001:db8:8000::/33"));
    EXPECT_EQ("10.1.0.0/16", list.Covering("10.1.0.0"));
    EXPECT_EQ("10.1.0.0/16", list.Covering("10.1.255.255"));
    EXPECT_EQ("", list.Covering("10.2.0.0"));
    EXPECT_EQ("", list.Covering("10.0.255.255"));
    EXPECT_EQ("192.0.2.7", list.Covering("192.0.2.7"));
    EXPECT_EQ("", list.Covering("192.0.2.6"));
    EXPECT_EQ("2001:db8:8000::/33", list.Covering("2001:db8:8000::1"));
    EXPECT_EQ("", list.Covering("2001:db8:7fff::1"));
    EXPECT_EQ("", list.Covering("no address"));
}

TEST(NeverList, CoversAFamilyByAPrefixOfZeroAndNotTheOther) {
    NeverList list;
    ASSERT_EQ("", list.Add("0.0.0.0/0"));
    EXPECT_EQ("0.0.0.0/0", list.Covering("203.0.113.1"));
    EXPECT_EQ("", list.Covering("2001:db8::1"));
}

TEST(NeverList, RefusesWhatIsNoAddress) {
    for (const char* const text : {"", "host", "10.0.0", "10.0.0.1.2", "/8", "2001:db8::g"}) {
        EXPECT_THAT(NeverList().Add(text),
                    EndsWith("is no address and no network; write it as 10.0.0.1 or 10.0.0.0/24"))
            << text;
    }
    for (const char* const text :
         {"10.0.0.0/33", "10.0.0.0/", "10.0.0.0/8x", "10.0.0.0/-1", "2001:db8::/129"}) {
        EXPECT_THAT(NeverList().Add(text), HasSubstr("has no prefix length up to")) << text;
    }
    EXPECT_EQ("\"10.0.0.1/8\" has bits behind its prefix; clear them or lengthen it",
              NeverList().Add("10.0.0.1/8"));
}

TEST(NeverListFile, TakesOneEntryALine) {
    const TempDir dir;
    NeverList list;
    ASSERT_EQ("", list.AddFile(
                      dir.Write("never", "# ours\n\n 10.0.0.1 \t# the gateway\r\n2001:db8::/32")));
    EXPECT_EQ("10.0.0.1", list.Covering("10.0.0.1"));
    EXPECT_EQ("2001:db8::/32", list.Covering("2001:db8::1"));
}

TEST(NeverListFile, TellsTheLineThatIsWrong) {
    const TempDir dir;
    const std::string path = dir.Write("never", "10.0.0.1\n10.0.0.x\n");
    EXPECT_EQ(NeverList().AddFile(path),
              path +
                  ", line 2: \"10.0.0.x\" is no address and no network; write it as 10.0.0.1 "
                  "or 10.0.0.0/24");
    EXPECT_THAT(NeverList().AddFile(dir.File("none")),
                EndsWith("No such file or directory; check the name"));
}

TEST(NeverListHost, CoversLoopbackAlways) {
    NeverList list;
    EXPECT_EQ("", list.Covering("127.0.0.1"));
    list.AddHostAddresses();
    EXPECT_EQ("127.0.0.0/8", list.Covering("127.1.2.3"));
    EXPECT_EQ("::1", list.Covering("::1"));
}

class Objection : public testing::Test {
  protected:
    Objection() {
        m_parts.intruder = "203.0.113.1";
        m_parts.expiration = kNow + 1;
        EXPECT_EQ("", m_never.Add("10.0.0.0/8"));
        EXPECT_EQ("", m_never.Add("10.9.9.9"));
        EXPECT_EQ("", m_never.Add("192.0.2.1"));
    }
    std::string Reason() const { return ObjectionTo(m_parts, m_never, kNow); }

    static constexpr time_t kNow = 1000;
    NeverList m_never;
    QuarantineParts m_parts;
};

TEST_F(Objection, IsNoneToARuleWithAForeignAddress) {
    EXPECT_EQ("", Reason());
}

TEST_F(Objection, IsToARuleWithoutAnAddress) {
    m_parts.intruder = "";
    EXPECT_EQ("names no address", Reason());
}

TEST_F(Objection, IsToAnEndThatHasCome) {
    m_parts.expiration = kNow;
    EXPECT_EQ("its end has come already", Reason());
}

TEST_F(Objection, IsToEitherAddressOnTheList) {
    m_parts.victim = "10.1.2.3";
    EXPECT_EQ("10.1.2.3 is never quarantined, as part of 10.0.0.0/8", Reason());
    m_parts.intruder = "192.0.2.1";
    EXPECT_EQ("192.0.2.1 is never quarantined", Reason());
}

}  // namespace
}  // namespace tarnctl
