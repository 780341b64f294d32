#include "tarnctl/status/status_text.h"

#include <gmock/gmock.h>

#include <sstream>

#include "unit/tarnctl/common/lines_of.h"
#include "unit/tarnctl/health/made_up_health.h"

namespace tarnctl {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class StatusTextTest : public testing::Test {
  protected:
    std::string Text() {
        m_out.str("");
        WriteStatusText(health, Judge(health, health, {}, false), display, m_out);
        return m_out.str();
    }

    Health health = HealthyHealth();
    Display display;
    std::ostringstream m_out;
};

TEST_F(StatusTextTest, BeginsWithTheVerdictAndEachReason) {
    EXPECT_THAT(Text(), StartsWith("healthy\n\ndaemon\n"));
    health.peers[0].isListening = Known(false, std::string("test"));
    health.alerts.writers.value->clear();
    EXPECT_THAT(Text(), StartsWith("not healthy\n"
                                   "fault: nobody receives at /messages: messages cannot be sent "
                                   "[messages-missing]\n"
                                   "warning: nobody has /alerts open for writing: no sensor "
                                   "[alert-fifo-unwritten]\n\ndaemon\n"));
    health = HealthyHealth();
    health.queue.readers = Unknown<Holders>("s", "hidden");
    EXPECT_THAT(Text(), StartsWith("cannot be said\nunknown: hidden [crm]\n"));
}

TEST_F(StatusTextTest, ShowsEverythingInGroups) {
    health.queue.rings[0].motion = Known(RingMotion::kWaiting, std::string("test"));
    health.queue.rings[0].usedBytes = Known(uint64_t{500}, std::string("test"));
    health.queue.rings[0].messages = Known(uint64_t{3}, std::string("test"));
    health.log.losses.value->push_back({&LossKinds()[0], 9, 0, 1.0});
    const std::string text = Text();
    for (const char* line :
         {"  runs  process 12\n", "  age  01:00:00\n", "  memory  5.0 MiB\n",
          "  main thread 12  CPU 1.50 s, age 01:00:00, sleeps\n",
          "  thread 13  CPU 2.50 s, age 01:00:00, sleeps\n", "\nalert FIFO\n",
          "  read by  tarn 12\n", "  written by  snort 20\n", "  unread  0 B of 64.0 KiB\n",
          "  ring -0  waiting, 50.00% full, 3 waiting, read at 8, write at 8\n",
          "  taken by  crm 40\n", "  semaphore  1\n",
          "  messages  peer 30 at /messages (user 0, mode 0600)\n", "\nlog\n",
          "  queue-full  9 alerts lost: 1024 waited already, 0 recent, last at ",
          "  /var/tmp  1.0 GiB free for the rings, which needs 100 B\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
}

TEST_F(StatusTextTest, ShowsWhatIsUnknownWithItsReason) {
    health.alerts.unreadBytes = Unknown<uint64_t>("s", "not permitted");
    health.peers[0].isListening = Unknown<bool>("s", "no list");
    health.peers[1].listeners = Unknown<Holders>("s", "hidden");
    const std::string text = Text();
    EXPECT_THAT(text, HasSubstr("  unread  unknown: not permitted\n"));
    EXPECT_THAT(text, HasSubstr("  messages  unknown: no list\n"));
    EXPECT_THAT(text, HasSubstr("  secmgr  a process of another user at /secmgr"));
}

TEST_F(StatusTextTest, SaysWhatAPidFileOfAnotherNumberMeans) {
    health.daemon.pidFileNumber = Known(11, std::string("test"));
    EXPECT_THAT(Text(), HasSubstr("PID file  11, the process that put tarn into the background"));
    health.daemon.isRunning = Known(false, std::string("test"));
    health.daemon.pid = Unknown<int>("s", "tarn does not run");
    EXPECT_THAT(Text(), HasSubstr("PID file  11, which is not tarn"));
    EXPECT_THAT(Text(), Not(HasSubstr("memory")));
}

TEST_F(StatusTextTest, FitsATerminalAndWrapsTheReasons) {
    health.peers[0].isListening = Known(false, std::string("test"));
    display.isTerminal = true;
    display.width = 40;
    std::string joined;
    (void)Text();
    for (const std::string& line : LinesOf(m_out)) {
        EXPECT_GE(40U, line.size()) << line;
        joined += line + " ";
    }
    EXPECT_THAT(joined, HasSubstr("messages cannot be sent [messages-missing]"));
    EXPECT_THAT(joined, HasSubstr("  semaphore         "));
}

TEST_F(StatusTextTest, PaintsOnlyWhereItIsAskedTo) {
    EXPECT_THAT(Text(), Not(HasSubstr("\x1b[")));
    display.color = true;
    EXPECT_THAT(Text(), StartsWith("\x1b[32mhealthy\x1b[0m\n"));
    health.peers[0].isListening = Known(false, std::string("test"));
    EXPECT_THAT(Text(), StartsWith("\x1b[31mnot healthy\x1b[0m\n\x1b[31mfault\x1b[0m: nobody"));
}

TEST_F(StatusTextTest, SaysWhatEachThreadDoes) {
    const std::pair<char, const char*> words[] = {
        {'R', "runs"},    {'S', "sleeps"},  {'I', "sleeps"}, {'D', "waits for a disk"},
        {'T', "stopped"}, {'t', "stopped"}, {'X', "ends"}};
    for (const auto& [state, word] : words) {
        health.daemon.threads.value->back().state = state;
        EXPECT_THAT(Text(), HasSubstr("  thread 13  CPU 2.50 s, age 01:00:00, " +
                                      std::string(word) + "\n"));
    }
    health.daemon.threads = Unknown<std::vector<ThreadHealth>>("s", "hidden");
    EXPECT_THAT(Text(), HasSubstr("  threads  unknown: hidden\n"));
}

TEST_F(StatusTextTest, SaysWhatIsNotThere) {
    health.alerts.isThere = Known(false, std::string("test"));
    health.queue.rings[1].isThere = Known(false, std::string("test"));
    health.peers[0].isListening = Known(false, std::string("test"));
    health.peers[0].isThere = Known(false, std::string("test"));
    health.peers[1].isListening = Known(false, std::string("test"));
    const std::string text = Text();
    EXPECT_THAT(text, HasSubstr("alert FIFO\n  file  /alerts: no FIFO\n\nerror FIFO\n"
                                "  file  /errors\n  read by"));
    EXPECT_THAT(text, HasSubstr("  ring -1  none at /ring-1\n"));
    EXPECT_THAT(text, HasSubstr("  messages  no socket at /messages"));
    EXPECT_THAT(text, HasSubstr("  secmgr  nobody receives at /secmgr (user 0, mode 0600)\n"));
}

TEST_F(StatusTextTest, SaysWhereItKnowsTheChannelFrom) {
    EXPECT_THAT(Text(), HasSubstr("  channel  2 (test)\n"));
}

TEST_F(StatusTextTest, ShowsBothIndexesOfARing) {
    health.queue.rings[0].writeIndex = Known(uint32_t{24}, std::string("test"));
    EXPECT_THAT(Text(), HasSubstr("read at 8, write at 24\n"));
}

TEST_F(StatusTextTest, MarksWhatIsNotInForceAndNotWritten) {
    EXPECT_THAT(Text(), HasSubstr("  losses  none\n"));
    EXPECT_THAT(Text(), Not(HasSubstr("newer than")));
    EXPECT_THAT(Text(), Not(HasSubstr("not written")));
    health.files[1].isNewer = Known(true, std::string("test"));
    health.log.isWritten = Known(false, std::string("test"));
    EXPECT_THAT(Text(), testing::ContainsRegex("  events  /etc/tarn_event.conf of [-0-9]+ [:0-9]+, "
                                               "newer than what is in force\n"));
    EXPECT_THAT(Text(), HasSubstr("  file  /tarn.log, not written by tarn\n"));
    EXPECT_THAT(Text(), testing::ContainsRegex("  loaded  2026-[-0-9]+ [:0-9]+\n"));
}

TEST_F(StatusTextTest, PaintsWhatIsWrongRed) {
    display.color = true;
    const std::string red = "\x1b[31m";
    EXPECT_THAT(Text(), Not(HasSubstr(red)));
    health.queue.rings[0].motion = Known(RingMotion::kStuck, std::string("test"));
    health.daemon.threads.value->back().state = 'T';
    health.peers[1].isListening = Known(false, std::string("test"));
    health.log.losses.value->push_back({&LossKinds()[0], 9, 1, 1.0});
    health.log.losses.value->push_back({&LossKinds()[1], 8, 0, 1.0});
    health.rooms[0].neededBytes = (uint64_t{1} << 30) + 1;
    const std::string text = Text();
    EXPECT_THAT(text, HasSubstr(red + "stuck, "));
    EXPECT_THAT(text, HasSubstr(red + "CPU 2.50 s"));
    EXPECT_THAT(text, HasSubstr(red + "nobody receives at /secmgr"));
    EXPECT_THAT(text, HasSubstr(red + "9 alerts lost"));
    EXPECT_THAT(text, Not(HasSubstr(red + "8 ")));
    EXPECT_THAT(text, HasSubstr(red + "1.0 GiB free"));
    health.rooms[0].neededBytes = uint64_t{1} << 30;
    EXPECT_THAT(Text(), Not(HasSubstr(red + "1.0 GiB free")));
}

}  // namespace
}  // namespace tarnctl
