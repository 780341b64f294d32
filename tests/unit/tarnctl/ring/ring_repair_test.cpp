#include "tarnctl/ring/ring_repair.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <memory>

#include "support/independent_ring.h"
#include "support/ring_fixture.h"
#include "tarnctl/rings/ring_users.h"
#include "unit/tarnctl/rings/crm_reports.h"
#include "unit/tarnctl/rings/ring_side.h"

using namespace std::chrono_literals;
using testing::HasSubstr;

namespace tarnctl {
namespace {

constexpr uint32_t kFileSize = 4096;
constexpr uint32_t kSize = kFileSize - 8;
constexpr uint32_t kReadWord = 0;
constexpr uint32_t kWriteWord = 4;
constexpr uint32_t kRing = 8;

class RingRepairTest : public RingTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(m_writer.Open(true));
        ASSERT_TRUE(m_reader.Open(true));
        m_raw = std::make_unique<IndependentRing>(m_path);
        m_options.interval = 0ms;
        m_options.isForced = true;  // no process that cannot be seen has a ring of a test
        m_place.name = m_place.path = m_path;
    }
    // A report whose user data is this text.
    static Bytes Report(const std::string& text) {
        CrmReport message;
        message.userData = text;
        const CrmBytes bytes = Encode(message);
        const auto* const first = reinterpret_cast<const unsigned char*>(bytes.data());
        return {first, first + bytes.size()};
    }
    void Put(const Bytes& message) { ASSERT_EQ(PIPE_OK, Write(m_writer, message)); }
    // What a reader does that is killed between its two last stores.
    void LeaveHole() { m_raw->Poke(kRing + m_raw->Word(kReadWord), 0); }
    Repair RunRepair() { return RepairRing(m_place, m_options); }

    ShmEventPipe m_writer{WRITER, m_path, kFileSize};
    ShmEventPipe m_reader{READER, m_path, kFileSize};
    std::unique_ptr<IndependentRing> m_raw;
    RepairOptions m_options;
    RingPlace m_place;
};

TEST_F(RingRepairTest, TouchesNoHealthyRing) {
    EXPECT_EQ(RepairOutcome::kHealthy, RunRepair().outcome);
    Put(Counting(8));
    const std::vector<unsigned char> before = m_raw->Bytes();
    const RingSide reader(m_path, PROT_READ | PROT_WRITE, "reader");
    const Repair repair = RunRepair();
    EXPECT_EQ(RepairOutcome::kHealthy, repair.outcome);
    EXPECT_EQ("there is nothing to repair", repair.text);
    EXPECT_EQ(before, m_raw->Bytes());
}

TEST_F(RingRepairTest, GivesAReportItsLengthBackAndLosesNothing) {
    m_place.kind = RingKind::kReports;
    Put(Report("one"));
    ASSERT_EQ(Report("one"), Read(m_reader).message);
    for (int round = 0; round < 40; ++round) {  // round the end of the ring, too
        Put(Report("two"));
        Put(Report("three"));
        LeaveHole();
        ASSERT_EQ(PIPE_NO_DATA, Read(m_reader).result);
        const Repair repair = RunRepair();
        ASSERT_EQ(RepairOutcome::kRepaired, repair.outcome) << repair.text;
        ASSERT_EQ(0U, repair.lostBytes);
        ASSERT_THAT(repair.text, HasSubstr("nothing is lost"));
        ASSERT_EQ(Report("two"), Read(m_reader).message);
        ASSERT_EQ(Report("three"), Read(m_reader).message);
    }
}

TEST_F(RingRepairTest, GivesAReportItsLengthBackWhateverStandsThere) {
    m_place.kind = RingKind::kReports;
    Put(Report("two"));
    Put(Report("three"));
    for (const uint32_t length : {0xFFFFFFFFU, kSize, kSize + 1}) {
        m_raw->Poke(kRing, length);
        EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
        EXPECT_EQ(Report("two").size(), m_raw->Word(kRing));
    }
}

TEST_F(RingRepairTest, DropsReportsWhereWhatFollowsDoesNotLeadToTheWriteIndex) {
    m_place.kind = RingKind::kReports;
    Put(Report("two"));
    Put(Report("three"));
    const uint32_t second = 4 + (static_cast<uint32_t>(Report("two").size()) + 3) / 4 * 4;
    LeaveHole();
    m_raw->Poke(kRing + second, 0);
    const Repair repair = RunRepair();
    EXPECT_EQ(RepairOutcome::kRepaired, repair.outcome);
    EXPECT_EQ(m_raw->Word(kWriteWord), m_raw->Word(kReadWord));
    EXPECT_EQ(m_raw->Word(kWriteWord), repair.lostBytes);
}

TEST_F(RingRepairTest, DropsWhatWaitsWhereTheMessagesDoNotSayHowLongTheyAre) {
    Put(Counting(8));
    Put(Counting(20));
    LeaveHole();
    const Repair repair = RunRepair();
    EXPECT_EQ(RepairOutcome::kRepaired, repair.outcome);
    EXPECT_EQ(RingFault::kNoLength, repair.state.fault);
    EXPECT_EQ(36U, repair.lostBytes);
    EXPECT_THAT(repair.text, HasSubstr("36 bytes of messages that waited are lost"));
    EXPECT_EQ(PIPE_NO_DATA, Read(m_reader).result);
    Put(Counting(5));
    EXPECT_EQ(Counting(5), Read(m_reader).message);
}

TEST_F(RingRepairTest, DropsAMessageOfNoBytesThatWasWritten) {
    m_place.kind = RingKind::kReports;
    Put({});
    Put(Report("two"));
    EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
    EXPECT_EQ(m_raw->Word(kWriteWord), m_raw->Word(kReadWord));
}

TEST_F(RingRepairTest, DropsWhatWaitsAtALengthThatCannotBe) {
    for (const uint32_t length : {kSize, kSize + 1, 0xFFFFFFFFU}) {
        Put(Counting(8));
        m_raw->Poke(kRing + m_raw->Word(kReadWord), length);
        EXPECT_EQ(12U, RunRepair().lostBytes);
        EXPECT_EQ(m_raw->Word(kWriteWord), m_raw->Word(kReadWord));
    }
}

TEST_F(RingRepairTest, MendsAReadIndexThatIsNone) {
    for (const uint32_t index : {2U, kSize, 0xFFFFFFFFU}) {
        Put(Counting(8));
        m_raw->Poke(kReadWord, index);
        EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
        EXPECT_EQ(m_raw->Word(kWriteWord), m_raw->Word(kReadWord));
        Put(Counting(5));
        EXPECT_EQ(Counting(5), Read(m_reader).message);
    }
}

TEST_F(RingRepairTest, MendsAReadIndexOfReportsByDroppingThem) {
    m_place.kind = RingKind::kReports;
    Put(Report("one"));
    Put(Report("two"));
    m_raw->Poke(kReadWord, kSize);  // what a side would take for 0
    EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
    EXPECT_EQ(m_raw->Word(kWriteWord), m_raw->Word(kReadWord));
}

TEST_F(RingRepairTest, MendsAWriteIndexThatIsNone) {
    for (const uint32_t index : {3U, kSize, 0xFFFFFFFFU}) {
        Put(Counting(8));
        const uint32_t read = m_raw->Word(kReadWord);
        m_raw->Poke(kWriteWord, index);
        EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
        EXPECT_EQ(read, m_raw->Word(kWriteWord));
        EXPECT_EQ(read, m_raw->Word(kReadWord));
        EXPECT_EQ(0U, m_raw->Word(kRing + read));
        Put(Counting(5));
        EXPECT_EQ(Counting(5), Read(m_reader).message);
    }
}

TEST_F(RingRepairTest, MendsTwoIndexesThatAreNone) {
    m_raw->Poke(kReadWord, 7);
    m_raw->Poke(kWriteWord, kSize + 3);
    EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
    EXPECT_EQ(8U, m_raw->Word(kReadWord));
    EXPECT_EQ(8U, m_raw->Word(kWriteWord));
}

TEST_F(RingRepairTest, RefusesWhileAReaderHasTheRing) {
    Put(Counting(8));
    LeaveHole();
    const std::vector<unsigned char> before = m_raw->Bytes();
    const RingSide reader(m_path, PROT_READ | PROT_WRITE, "reader");
    const Repair repair = RunRepair();
    EXPECT_EQ(RepairOutcome::kRefused, repair.outcome);
    EXPECT_EQ(
        "reader (" + std::to_string(reader.Process()) + ") has the ring mapped; stop it first",
        repair.text);
    const RingSide second(m_path, PROT_READ | PROT_WRITE, "second");
    EXPECT_THAT(RunRepair().text, HasSubstr(") have the ring mapped; stop them first"));
    EXPECT_EQ(before, m_raw->Bytes());
}

TEST_F(RingRepairTest, LetsTheWriterRunUnlessItsOwnIndexIsAtFault) {
    Put(Counting(8));
    LeaveHole();
    const RingSide daemon(m_path, PROT_READ | PROT_WRITE, "tarn");
    EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
    const uint32_t index = m_raw->Word(kWriteWord);
    m_raw->Poke(kWriteWord, index + 1);
    const Repair refused = RunRepair();
    EXPECT_EQ(RepairOutcome::kRefused, refused.outcome);
    EXPECT_THAT(refused.text, HasSubstr("tarn ("));
    EXPECT_EQ(index + 1, m_raw->Word(kWriteWord));
}

TEST_F(RingRepairTest, TakesTheWriterThatItIsGiven) {
    Put(Counting(8));
    LeaveHole();
    const RingSide other(m_path, PROT_READ | PROT_WRITE, "other");
    EXPECT_EQ(RepairOutcome::kRefused, RunRepair().outcome);
    m_options.writer = other.Process();
    EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
}

TEST_F(RingRepairTest, RefusesWhileAnotherOfTheseCommandsUsesTheRing) {
    Put(Counting(8));
    LeaveHole();
    const int lock = open(m_path.c_str(), O_RDONLY);
    ASSERT_EQ(0, flock(lock, LOCK_EX));
    EXPECT_THAT(RunRepair().text, HasSubstr("another tarnctl uses this ring; stop it first"));
    close(lock);
    EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
}

TEST_F(RingRepairTest, InsistsOnSeeingWhatAllProcessesHaveMapped) {
    Put(Counting(8));
    LeaveHole();
    m_options.isForced = false;
    const bool seesAll = UsersOfRing(m_path).unseen == 0;
    const Repair repair = RunRepair();
    EXPECT_EQ(seesAll ? RepairOutcome::kRepaired : RepairOutcome::kRefused, repair.outcome);
    EXPECT_EQ(!seesAll, repair.text.starts_with("it cannot be seen what "));
}

TEST_F(RingRepairTest, LeavesDamageFurtherOnUntilAReaderIsThere) {
    Put(Counting(8));
    Put(Counting(8));
    m_raw->Poke(kRing + 12, 0);
    const Repair repair = RunRepair();
    EXPECT_EQ(RepairOutcome::kRefused, repair.outcome);
    EXPECT_THAT(repair.text, HasSubstr("1 message in front of the damage can be read"));
    EXPECT_EQ(Counting(8), Read(m_reader).message);
    EXPECT_EQ(RepairOutcome::kRepaired, RunRepair().outcome);
}

TEST_F(RingRepairTest, TellsOfARingThatIsNotThere) {
    m_place.path = m_dir.File("missing");
    EXPECT_EQ(RepairOutcome::kRefused, RunRepair().outcome);
    EXPECT_THAT(RunRepair().text, HasSubstr("No such file"));
    EXPECT_THAT(ResetRing(m_place, m_options).text, HasSubstr("No such file"));
}

TEST_F(RingRepairTest, EmptiesARingThatNobodyUses) {
    Put(Counting(8));
    const Repair repair = ResetRing(m_place, m_options);
    EXPECT_EQ(RepairOutcome::kRepaired, repair.outcome);
    EXPECT_EQ(12U, repair.lostBytes);
    EXPECT_THAT(repair.text, HasSubstr("12 bytes"));
    EXPECT_EQ(0U, m_raw->Word(kReadWord));
    EXPECT_EQ(0U, m_raw->Word(kWriteWord));
    EXPECT_EQ(0U, m_raw->Word(kRing));
    EXPECT_EQ(kFileSize, m_raw->Bytes().size());
}

TEST_F(RingRepairTest, DoesNotEmptyARingThatTheDaemonUses) {
    Put(Counting(8));
    const RingSide daemon(m_path, PROT_READ | PROT_WRITE, "tarn");
    EXPECT_EQ(RepairOutcome::kRefused, ResetRing(m_place, m_options).outcome);
    EXPECT_EQ(12U, m_raw->Word(kWriteWord));
}

}  // namespace
}  // namespace tarnctl
