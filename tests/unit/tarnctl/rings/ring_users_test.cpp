#include "tarnctl/rings/ring_users.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"
#include "unit/tarnctl/rings/ring_side.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace tarnctl {
namespace {

class UsersOfRingTest : public testing::Test {
  protected:
    const TempDir m_dir;
    const std::string m_path = m_dir.Write("ring", std::string(4096, '\0'));
};

TEST_F(UsersOfRingTest, AreThoseThatMayWrite) {
    EXPECT_THAT(UsersOfRing(m_path).users, IsEmpty());
    const RingSide looker(m_path, PROT_READ, "looker");
    EXPECT_THAT(UsersOfRing(m_path).users, IsEmpty());
    const RingSide reader(m_path, PROT_READ | PROT_WRITE, "reader");
    const RingUsers found = UsersOfRing(m_path);
    ASSERT_THAT(found.users, SizeIs(1));
    EXPECT_EQ(reader.Process(), found.users[0].process);
    EXPECT_EQ("reader", found.users[0].name);
    EXPECT_FALSE(found.users[0].isWriter);
    EXPECT_EQ("", found.error);
    EXPECT_EQ("reader (" + std::to_string(reader.Process()) + ")", UsersText(found.users));
}

TEST_F(UsersOfRingTest, AreThoseOfTheFileUnderAnyName) {
    const RingSide reader(m_path, PROT_READ | PROT_WRITE, "reader");
    ASSERT_EQ(0, link(m_path.c_str(), m_dir.File("other").c_str()));
    EXPECT_THAT(UsersOfRing(m_dir.File("other")).users, SizeIs(1));
    EXPECT_THAT(UsersOfRing(m_dir.Write("third", std::string(4096, '\0'))).users, IsEmpty());
}

TEST_F(UsersOfRingTest, IncludeTheDaemonAsTheWriter) {
    const RingSide daemon(m_path, PROT_READ | PROT_WRITE, "tarn");
    const RingSide other(m_path, PROT_READ | PROT_WRITE, "tarnish");
    const RingUsers found = UsersOfRing(m_path);
    ASSERT_THAT(found.users, SizeIs(2));
    for (const RingUser& user : found.users) {
        EXPECT_EQ(user.process == daemon.Process(), user.isWriter);
    }
    for (const RingUser& user : UsersOfRing(m_path, other.Process()).users) {
        EXPECT_TRUE(user.isWriter);
    }
    EXPECT_THAT(UsersText(found.users), HasSubstr("), tarn"));
}

TEST_F(UsersOfRingTest, AreNotKnownOfAMissingRing) {
    EXPECT_THAT(UsersOfRing(m_dir.File("missing")).error, HasSubstr("No such file"));
}

}  // namespace
}  // namespace tarnctl
