#include "crm/crm_event_producer.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "crm/crm_event_source.h"
#include "ring/event_queue.h"
#include "ring/shm_event_pipe.h"
#include "support/golden_bytes.h"
#include "support/independent_ring.h"
#include "support/levelled_log.h"
#include "support/log_capture.h"
#include "support/private_channel.h"
#include "unit/crm/report_samples.h"

// Reaches what no operation shows.
class CrmEventProducerPeer {
  public:
    static ShmReportCallback QueueReport(const CrmEventProducer& producer) {
        return producer.m_queue->m_pfnLog;
    }
};

namespace {

std::atomic<int> g_posts{0};

}  // namespace

// All channels of the machine share one semaphore, so its value says nothing about this process.
// This one counts the posts of this process on their way to the real one.
extern "C" int sem_post(sem_t* semaphore) noexcept {
    using Post = int (*)(sem_t*);
    static const Post post = reinterpret_cast<Post>(dlsym(RTLD_NEXT, "sem_post"));
    ++g_posts;
    return post(semaphore);
}

namespace {

using Bytes = std::vector<unsigned char>;

struct ReleaseProducer {
    void operator()(CrmEventProducer* producer) const { producer->Release(); }
};
using Producer = std::unique_ptr<CrmEventProducer, ReleaseProducer>;

class CrmEventProducerTest : public testing::Test {
  protected:
    void SetUp() override { g_posts = 0; }

    // The oldest message of a ring; empty when there is none.
    Bytes Take(int ring = 0) {
        IndependentRing reader(m_channel.RingBase() + "-" + std::to_string(ring));
        Bytes message;
        return reader.Take(message) ? message : Bytes();
    }

    int SendText(const char* text, uint32_t ring) {
        const iovec piece{const_cast<char*>(text), strlen(text)};
        return m_producer->Send(&piece, 1, ring);
    }

    PrivateChannel m_channel;
    Producer m_producer{CrmEventProducer::GetInstance()};
};

TEST_F(CrmEventProducerTest, InstanceIsOneUntilItsLastRelease) {
    const Producer second(CrmEventProducer::GetInstance());
    EXPECT_EQ(m_producer.get(), second.get());
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    m_producer.reset();
    const iovec piece{const_cast<char*>("x"), 1};
    EXPECT_EQ(0, second->Send(&piece, 1, 0)) << "the queue stays open for the other holder";
}

TEST_F(CrmEventProducerTest, LastReleaseClosesTheQueue) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    m_producer.reset();
    m_producer.reset(CrmEventProducer::GetInstance());
    EXPECT_EQ(1, SendText("x", 0));
}

TEST_F(CrmEventProducerTest, OpenMakesBothRingsOfTheChannel) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    struct stat file {};
    ASSERT_EQ(0, stat((m_channel.RingBase() + "-0").c_str(), &file));
    EXPECT_EQ(0x800000, file.st_size);
    ASSERT_EQ(0, stat((m_channel.RingBase() + "-1").c_str(), &file));
    EXPECT_EQ(0x40000, file.st_size);
}

TEST_F(CrmEventProducerTest, SecondOpenOfTheSameChannelLeavesTheQueueAlone) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    ASSERT_EQ(0, SendText("kept", 0));
    const LogCapture log(5);
    EXPECT_EQ(0, m_producer->Open(m_channel.Id()));
    EXPECT_TRUE(log.Messages().empty());
    EXPECT_EQ(Bytes({'k', 'e', 'p', 't'}), Take());
}

TEST_F(CrmEventProducerTest, OpenOfAnotherChannelIsRefusedAndTheFirstStaysOpen) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    {
        const LogCapture log(5);
        EXPECT_EQ(1, m_producer->Open(m_channel.Id() + 1));
        EXPECT_THAT(log.Messages(),
                    testing::ElementsAre(
                        "CRM communication channel has already opened with another channel ID."));
        const LogCapture notice(4);
        EXPECT_EQ(1, m_producer->Open(m_channel.Id() + 1));
        EXPECT_TRUE(notice.Messages().empty());
    }
    EXPECT_EQ(0, SendText("x", 0));
    EXPECT_EQ(Bytes({'x'}), Take());
}

TEST_F(CrmEventProducerTest, OpenThatFailsLeavesItClosed) {
    // A directory in the ring's place cannot be opened for writing, whoever the user is.
    const std::string blocker = m_channel.RingBase() + "-1";
    ASSERT_EQ(0, mkdir(blocker.c_str(), 0700));
    const LogCapture log(1);
    EXPECT_EQ(1, m_producer->Open(m_channel.Id()));
    EXPECT_THAT(log.Messages(),
                testing::ElementsAre("CRM communication channel cannot be opened."));
    EXPECT_EQ(0, rmdir(blocker.c_str()));
    EXPECT_EQ(1, SendText("x", 0));
    EXPECT_EQ(0, m_producer->Open(m_channel.Id())) << "and it can be opened later";
}

TEST_F(CrmEventProducerTest, SendWithoutAChannelIsRefusedWithAnError) {
    const LogCapture log(1);
    EXPECT_EQ(1, SendText("x", 0));
    EXPECT_EQ(1, SendText("x", 7)) << "the channel is looked at before the ring";
    EXPECT_THAT(
        log.Messages(),
        testing::Each("Attempt to send event to CRM but communication channel has not be opened."));
    EXPECT_EQ(2u, log.Messages().size());
    EXPECT_EQ(0, g_posts);
}

TEST_F(CrmEventProducerTest, CloseReturnsZeroAndCanBeRepeated) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    EXPECT_EQ(0, m_producer->Close());
    EXPECT_EQ(0, m_producer->Close());
    EXPECT_EQ(1, SendText("x", 0));
}

TEST_F(CrmEventProducerTest, SendWritesToTheRingThatIsNamedAndPostsOnce) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    EXPECT_EQ(0, SendText("one", 1));
    EXPECT_EQ(1, g_posts);
    EXPECT_TRUE(Take(0).empty());
    EXPECT_EQ(Bytes({'o', 'n', 'e'}), Take(1));
    EXPECT_EQ(0, SendText("nil", 0));
    EXPECT_EQ(2, g_posts);
    EXPECT_EQ(Bytes({'n', 'i', 'l'}), Take(0));
}

TEST_F(CrmEventProducerTest, SendToARingAboveOneIsRefused) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    EXPECT_EQ(3, SendText("x", 2));
    EXPECT_EQ(3, SendText("x", 0xFFFFFFFF));
    EXPECT_EQ(0, g_posts);
    EXPECT_TRUE(Take(0).empty());
    EXPECT_TRUE(Take(1).empty());
}

TEST_F(CrmEventProducerTest, FullRingGivesOneAndIsNotPosted) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    const std::string half(0x40000 / 2, 'h');
    EXPECT_EQ(0, SendText(half.c_str(), 1));
    EXPECT_EQ(PIPE_FULL, SendText(half.c_str(), 1));
    EXPECT_EQ(1, g_posts);
    EXPECT_EQ(half.size(), Take(1).size());
    EXPECT_TRUE(Take(1).empty());
}

TEST_F(CrmEventProducerTest, MessageLargerThanTheRingGivesThreeAndIsNotPosted) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    const std::string tooLarge(0x40000, 'h');
    EXPECT_EQ(PIPE_ERROR, SendText(tooLarge.c_str(), 1));
    EXPECT_EQ(0, g_posts);
    EXPECT_TRUE(Take(1).empty());
}

TEST_F(CrmEventProducerTest, ReportsArriveInTheFirstRingByteForByte) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    CrmEventSource ipv4 = samples::Ipv4();
    CrmEventSource ipv6 = samples::Ipv6();
    EXPECT_EQ(0, m_producer->SendEvent(&ipv4));
    EXPECT_EQ(0, ipv6.Dispatch(m_producer.get()));
    EXPECT_EQ(2, g_posts);
    EXPECT_EQ(GoldenBytes("event_report_ipv4.txt"), Take());
    EXPECT_EQ(GoldenBytes("event_report_ipv6.txt"), Take());
    EXPECT_TRUE(Take().empty());
    EXPECT_TRUE(Take(1).empty());
}

TEST_F(CrmEventProducerTest, DispatchOnAClosedChannelGivesTheProducersResult) {
    const CrmEventSource source = samples::Minimal();
    EXPECT_EQ(1, source.Dispatch(m_producer.get()));
}

TEST_F(CrmEventProducerTest, QueueReportsGoToTheLogAtTheLevelsOfTheLog) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    const ShmReportCallback report = CrmEventProducerPeer::QueueReport(*m_producer);
    ASSERT_NE(nullptr, report);
    const auto lines = LevelledMessages([&] {
        for (const int64_t level : {0, 1, 2, 3, 4, 5, 6, 1000}) {
            EXPECT_EQ(1, report("Class", "Method", level, "report %d", static_cast<int>(level)));
        }
    });
    EXPECT_THAT(lines, testing::ElementsAre("1 report 1", "2 report 2", "3 report 3", "3 report 4",
                                            "5 report 5", "5 report 6", "5 report 1000"));
}

const std::vector<std::string> kDump = {
    "Dispatching CRM event - header.blockedStatus: 5",
    "Dispatching CRM event - eventReport.icmpType: 0",
    "Dispatching CRM event - eventReport.icmpCode: 0",
    "Dispatching CRM event - eventReport.intruderIpv6: 2001:db8::1",
    "Dispatching CRM event - eventReport.intruderIp: 0a010203",
    "Dispatching CRM event - eventReport.sensorId: 0",
    "Dispatching CRM event - eventReport.issueId: 2019401",
    "Dispatching CRM event - eventReport.filterId: 0",
    "Dispatching CRM event - eventReport.vlanId: 100",
    "Dispatching CRM event - eventReport.victimIp: c0a80114",
    "Dispatching CRM event - eventReport.victimIpv6: ::",
    "Dispatching CRM event - eventReport.victimPort: 80",
    "Dispatching CRM event - eventReport.intruderPort: 51234",
    "Dispatching CRM event - eventReport.lastVictimIp: 00000000",
    "Dispatching CRM event - eventReport.sourceIp: 0a010203",
    "Dispatching CRM event - eventReport.destinationIp: c0a80114",
    "Dispatching CRM event - eventReport.destinationPort: 80",
    "Dispatching CRM event - eventReport.sourcePort: 51234",
    "Dispatching CRM event - eventReport.sourceIpv6: 2001:db8::1",
    "Dispatching CRM event - eventReport.destinationIpv6: ::",
    "Dispatching CRM event - eventReport.lastVictimIpv6: ::",
    "Dispatching CRM event - eventReport.startTime: 1762956721",
    "Dispatching CRM event - eventReport.endTime: 1762956721",
    "Dispatching CRM event - eventReport.count: 1",
    "Dispatching CRM event - eventReport.result: 0",
    "Dispatching CRM event - eventReport.eventType: 6",
    "Dispatching CRM event - eventReport.reportType: 2",
    "Dispatching CRM event - eventReport.adapterId: -1",
    "Dispatching CRM event - eventReport.eventId: 0",
    "Dispatching CRM event - eventReport.throttleEventCount: 0",
    "Dispatching CRM event - eventReport.resultFlags: 0",
    "Dispatching CRM event - eventReport.validFields: 0",
    "Dispatching CRM event - eventReport.packetFlags: 0",
    "Dispatching CRM event - eventReport.frameNumber: 0",
    "Dispatching CRM event - eventReport.flow_id: 0",
    "Dispatching CRM event - eventReport.etherType: 2048",
    "Dispatching CRM event - eventReport.ipProtocol: 6",
    "Dispatching CRM event - eventReport.priority: 1",
    "Dispatching CRM event - eventReport.nameValues (leading comma excluded): ",
    "Dispatching CRM event - eventReport.userResponse: ,DISPLAY:WithRaw",
    "Dispatching CRM event - eventReport.userDataStr (leading comma excluded): ,Suspicious "
    "Login:high",
    "Dispatching CRM event - eventReport.sensorName: ",
};

CrmEventSource DumpSample() {
    CrmEventSource source = samples::Ipv4();
    const uint8_t from[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    source.SetSourceIpv6(from);
    source.SetUserResponse(0x02, ",DISPLAY:WithRaw");
    return source;
}

TEST_F(CrmEventProducerTest, KeepsTheCommasAndTheDoubledCountInTheDumpAtLevelFive) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    const LogCapture log(5);
    EXPECT_EQ(0, DumpSample().Dispatch(m_producer.get()));
    EXPECT_EQ(kDump, log.Messages());
}

TEST_F(CrmEventProducerTest, KeepsTheDumpOffAtLevelSix) {
    ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
    for (const int level : {6, 4, 1, 0}) {
        const LogCapture log(level);
        EXPECT_EQ(0, DumpSample().Dispatch(m_producer.get()));
        EXPECT_TRUE(log.Messages().empty()) << level;
    }
}

}  // namespace
