#include "tarnctl/packetlog/datagram_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/temp_dir.h"

using testing::HasSubstr;
using testing::Not;

namespace tarnctl {
namespace {

TEST(DatagramQueue, IsReadFromItsFile) {
    const TempDir dir;
    EXPECT_EQ(10u, DatagramQueueLimit(dir.Write("limit", "10\n")));
    EXPECT_EQ(std::nullopt, DatagramQueueLimit(dir.File("missing")));
    EXPECT_EQ(std::nullopt, DatagramQueueLimit(dir.Write("none", "\n")));
}

TEST(DatagramQueue, HoldsWhatItsWordsSay) {
    const std::optional<uint32_t> limit = DatagramQueueLimit();
    ASSERT_TRUE(limit);
    const TempDir dir;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    dir.File("socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int receiver = socket(AF_UNIX, SOCK_DGRAM, 0);
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(0, bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    uint64_t held = 0;
    while (held < 100 &&
           sendto(sender, "x", 1, 0, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 1) {
        ++held;
    }
    close(sender);
    close(receiver);
    if (*limit < 99) {
        EXPECT_EQ(uint64_t{*limit} + 1, held);
        EXPECT_THAT(DatagramQueueWords(limit),
                    HasSubstr("holds " + std::to_string(held) + " messages"));
    } else {
        EXPECT_EQ(100u, held);
    }
}

TEST(DatagramQueue, ThatIsShortHasAWordOnWhatToDo) {
    EXPECT_THAT(DatagramQueueWords(511), HasSubstr("sysctl -w net.unix.max_dgram_qlen=512"));
    EXPECT_THAT(DatagramQueueWords(512), HasSubstr("holds 513 messages"));
    EXPECT_THAT(DatagramQueueWords(512), Not(HasSubstr("sysctl")));
    EXPECT_THAT(DatagramQueueWords(std::nullopt), HasSubstr("cannot be read"));
}

}  // namespace
}  // namespace tarnctl
