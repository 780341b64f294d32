#include "snort/snort_error_reader.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/bound_socket.h"
#include "support/crm_message_socket.h"
#include "threads/cancellation.h"
#include "unit/snort/error_fifo.h"
#include "unit/snort/log_questions.h"
#include "unit/snort/recorded_waits.h"

namespace {

const std::string kRulesError = "ERROR: /etc/snort/rules/snort.rules";
const std::string kEof = "Get EOF in SNORT stderr, please igore the reason: Illegal seek";
const std::string kOpened = "File is opened, waiting for Snort errors";
const std::string kSent = "Send SNORT message successfully";
const std::string kNotSent = "Send SNORT message failed, sleep and retry";

class SnortErrorReaderTest : public testing::Test {
  protected:
    void ListenAsCrm() { m_crm.emplace(m_fifo.m_socket); }

    // Opens the FIFO at both ends.
    void Connect() {
        m_fifo.Make();
        ASSERT_FALSE(m_reader->ReadErrors(0));
        ASSERT_TRUE(m_fifo.OpenWriter());
    }

    [[nodiscard]] std::vector<std::string> ReadAll();

    QuestionedLog m_log;
    ErrorFifo m_fifo;
    std::optional<CrmMessageSocket> m_crm;
    std::unique_ptr<SnortErrorReader> m_reader = m_fifo.MakeReader();
};

using SnortErrorReaderProcess = SnortErrorReaderTest;
using SnortErrorReaderSend = SnortErrorReaderTest;
using SnortErrorReaderRead = SnortErrorReaderTest;
using SnortErrorReaderInstance = SnortErrorReaderTest;

TEST_F(SnortErrorReaderProcess, MakesInformationOfALineThatIsNoError) {
    for (const std::string line :
         {"Commencing packet processing\n", "\n", " ERROR: a blank first\n",
          "error: in small letters\n", "WARNING: x\n", "ERROR"}) {
        m_reader->Process(line);
        EXPECT_EQ(m_reader->Message(), line);
        EXPECT_FALSE(m_reader->IsError()) << line;
    }
    EXPECT_EQ(1, m_log.CountAt(3, "[SNORT INFO] WARNING: x"));
}

TEST_F(SnortErrorReaderProcess, LeavesTheMessageAsItIsForAnEmptyLine) {
    m_reader->Process("ERROR: x\n");
    m_reader->Process("");
    EXPECT_EQ("ERROR in SNORT. Reason: ERROR: x\n", m_reader->Message());
    EXPECT_TRUE(m_reader->IsError());
}

TEST_F(SnortErrorReaderProcess, DescribesAnErrorElsewhereByItsWholeLine) {
    m_reader->Process("ERROR: Can't start DAQ (-1)!\n");
    EXPECT_EQ("ERROR in SNORT. Reason: ERROR: Can't start DAQ (-1)!\n", m_reader->Message());
    EXPECT_TRUE(m_reader->IsError());
    EXPECT_EQ(1, m_log.Count("[SNORT ERROR] SnortHandler::Process: Error occurred"));
    EXPECT_EQ(
        1, m_log.CountAt(3, "[SNORT ERROR] ERROR in SNORT. Reason: ERROR: Can't start DAQ (-1)!"));
}

TEST_F(SnortErrorReaderProcess, DescribesAnErrorInTheConfigurationByItsWholeLine) {
    m_reader->Process("ERROR: /etc/snort/qor-snort.conf(3) bad\n");
    EXPECT_EQ("ERROR in SNORT configuration. Reason: ERROR: /etc/snort/qor-snort.conf(3) bad\n",
              m_reader->Message());
    EXPECT_TRUE(m_reader->IsError());
    EXPECT_EQ(1, m_log.Count("[SNORT ERROR] SnortHandler::Process: Error in config file"));
}

TEST_F(SnortErrorReaderProcess, DescribesAnErrorInTheRulesByTheRule) {
    std::string rules(11, '\n');
    m_fifo.m_dir.Write("snort.rules", rules + "alert ip (msg:\"Bad thing\"; sid:1000012;)\n");
    m_reader->Process(kRulesError + "(12) unknown option\n");
    EXPECT_EQ("ERROR in SNORT rule. SID: 1000012, Msg: \"Bad thing\",  Reason: unknown option\n",
              m_reader->Message());
    EXPECT_TRUE(m_reader->IsError());
    EXPECT_EQ(1, m_log.Count("[SNORT ERROR] SnortHandler::Process: Error in rules file"));
    EXPECT_EQ(
        1,
        m_log.Count(
            "[SNORT ERROR] SnortHandler::Process: Rule error found - SID: 1000012, MSG: 'Bad thing', Error: 'unknown option"));
}

TEST_F(SnortErrorReaderProcess, DescribesAnErrorInTheRulesWithoutTheRuleWhenItIsNotFound) {
    const std::string sentence = "ERROR in SNORT rule. Error: unknown option\n";
    m_reader->Process(kRulesError + "(12) unknown option\n");
    EXPECT_EQ(m_reader->Message(), sentence) << "no rule file";
    m_fifo.m_dir.Write("snort.rules", "sid:1; msg:m;\n\n\n\n\n");
    m_reader->Process(kRulesError + "(12) unknown option\n");
    EXPECT_EQ(m_reader->Message(), sentence) << "a rule file of five lines";
    EXPECT_TRUE(m_reader->IsError());
    EXPECT_EQ(
        2,
        m_log.Count("[SNORT ERROR] SnortHandler::Process: Cannot find rule SID by line number 12"));
}

TEST_F(SnortErrorReaderProcess, KeepsARuleFileThatCannotBeOpenedForARuleWithEmptyPlaces) {
    const BoundSocket rules(SOCK_STREAM, m_fifo.m_rules);  // is there, and no user can open it
    m_reader->Process(kRulesError + "(12) unknown option\n");
    EXPECT_EQ("ERROR in SNORT rule. SID: , Msg: \"\",  Reason: unknown option\n",
              m_reader->Message());
    EXPECT_TRUE(m_reader->IsError());
}

TEST_F(SnortErrorReaderProcess, KeepsSnortsOwnWordsForAMissingInterface) {
    const std::string line = "ERROR: Config option \"interface\" requires arguments.\n";
    m_reader->Process(line);
    EXPECT_EQ("ERROR in SNORT. Reason: " + line, m_reader->Message());
    EXPECT_TRUE(m_reader->IsError());
}

TEST_F(SnortErrorReaderProcess, KeepsTheLineAsTheMessageWhenTheRuleHasAnEmptyOption) {
    m_fifo.m_dir.Write("snort.rules", "alert ip (msg:\"m\"; sid: ;)\n");
    const std::string line = kRulesError + "(1) unknown option\n";
    EXPECT_THROW(m_reader->Process(line), std::out_of_range);
    EXPECT_EQ(m_reader->Message(), line);
    EXPECT_FALSE(m_reader->IsError());
}

TEST_F(SnortErrorReaderProcess, KeepsTheSentenceOfTheInterfaceOnlyWhenTheLineCannotBeDescribed) {
    EXPECT_THROW(
        m_reader->Process(kRulesError + "(1)) Config option \"interface\" requires arguments.\n"),
        std::out_of_range);
    EXPECT_EQ("No valid interface is selected in SNORT Configuration", m_reader->Message());
}

TEST_F(SnortErrorReaderSend, SendsEachKindOnce) {
    ListenAsCrm();
    m_reader->Process("ERROR: x\n");
    EXPECT_TRUE(m_reader->SendMessage(0));
    EXPECT_EQ("E ERROR in SNORT. Reason: ERROR: x\n", m_crm->Take());
    EXPECT_EQ("", m_reader->Message());
    m_reader->Process("hello\n");
    EXPECT_TRUE(m_reader->SendMessage(0));
    EXPECT_EQ("I hello\n", m_crm->Take());
    EXPECT_EQ("", m_crm->Take());
    EXPECT_EQ(2, m_log.Count(kSent));
}

TEST_F(SnortErrorReaderSend, HoldsTheMessageAndClosesTheChannelWhenItFails) {
    m_reader->Process("hello\n");
    EXPECT_FALSE(m_reader->SendMessage(0));
    EXPECT_EQ("hello\n", m_reader->Message());
    EXPECT_EQ(1, m_log.CountAt(2, kNotSent));
    EXPECT_EQ(1, m_log.Count("MsgComm closed message channel of fd"));
    ListenAsCrm();
    EXPECT_TRUE(m_reader->SendMessage(0));
    EXPECT_EQ("I hello\n", m_crm->Take());
}

TEST_F(SnortErrorReaderSend, PausesForASecondAfterASendThatFails) {
    Connect();
    const RecordedWaits waits;
    ASSERT_TRUE(m_fifo.Write("hello\n"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ((std::vector<long>{1}), RecordedWaits::Sleeps()) << "after the line was read";
    EXPECT_FALSE(m_reader->ReadErrors(10));
    EXPECT_EQ((std::vector<long>{1, 1}), RecordedWaits::Sleeps()) << "while the message is owed";
    EXPECT_FALSE(m_reader->SendMessage(0));
    EXPECT_EQ((std::vector<long>{1, 1, 0}), RecordedWaits::Sleeps());
}

TEST_F(SnortErrorReaderTest, SaysNothingOfTheUsualBelowTheDebugLevel) {
    vald::Log::SetLevel(vald::Log::kNotice);
    ListenAsCrm();
    m_fifo.m_dir.Write("snort.rules", "alert ip (msg:\"m\"; sid:1;)\n");
    Connect();
    for (const std::string& line : {std::string("hello\n"), std::string("ERROR: x\n"),
                                    std::string("ERROR: /etc/snort/qor-snort.conf(3) bad\n"),
                                    kRulesError + "(1) found\n", kRulesError + "(2) not found\n"}) {
        ASSERT_TRUE(m_fifo.Write(line));
        EXPECT_TRUE(m_reader->ReadErrors(10));
        EXPECT_NE("", m_crm->Take());
    }
    m_fifo.CloseWriter();
    EXPECT_FALSE(m_reader->ReadErrors(10));
    long sentences = 0;
    for (const std::string& line : m_log.Lines()) {
        sentences +=
            line.starts_with("[SNORT INFO] ") || line.starts_with("[SNORT ERROR] ERROR in") ? 1 : 0;
        EXPECT_TRUE(line.empty() || line.starts_with("[SNORT ")) << line;
        EXPECT_EQ(std::string::npos, line.find("SnortHandler::Process")) << line;
    }
    EXPECT_EQ(5, sentences);
}

TEST_F(SnortErrorReaderSend, FailsAtOnceWhenTheChannelCannotBeOpened) {
    m_reader->Process("hello\n");
    EXPECT_EXIT(
        {
            rlimit none{};
            getrlimit(RLIMIT_NOFILE, &none);
            none.rlim_cur = 0;
            setrlimit(RLIMIT_NOFILE, &none);
            _exit(!m_reader->SendMessage(1000) && m_reader->Message() == "hello\n" &&
                          m_log.CountAt(1, "Cannot open MsgComm") == 1
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(SnortErrorReaderRead, SendsALineAsItComes) {
    ListenAsCrm();
    Connect();
    ASSERT_TRUE(m_fifo.Write("hello\n"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ("I hello\n", m_crm->Take());
    EXPECT_FALSE(m_reader->ReadErrors(0));
    EXPECT_EQ("", m_crm->Take()) << "once, and not once for each pass";
    EXPECT_EQ(1, m_log.Count("### Debug Snort stderr ### hello"));
}

TEST_F(SnortErrorReaderRead, DescriptorIsNotInheritedByOtherPrograms) {
    m_fifo.Make();
    const int next = dup(STDERR_FILENO);
    ASSERT_NE(-1, next);
    close(next);
    EXPECT_FALSE(m_reader->ReadErrors(0));  // opens at the number that is free now
    EXPECT_NE(0, fcntl(next, F_GETFD) & FD_CLOEXEC);
}

TEST_F(SnortErrorReaderRead, SendsALineOfAnyLength) {
    ListenAsCrm();
    Connect();
    const std::string line(9000, 'x');
    ASSERT_TRUE(m_fifo.Write(line + "\n"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ("I " + line.substr(0, 512), m_crm->Take()) << "as much as a message holds";
}

TEST_F(SnortErrorReaderRead, KeepsTryingAFifoThatIsNotThereAtEachPassAndOpensItOnceItIs) {
    EXPECT_FALSE(m_reader->ReadErrors(60));
    EXPECT_FALSE(m_reader->ReadErrors(60));
    EXPECT_EQ(2, m_log.CountAt(1, "Open file error: " + m_fifo.m_path +
                                      ", reason: No such file or directory"));
    m_fifo.Make();
    EXPECT_FALSE(m_reader->ReadErrors(0));
    EXPECT_FALSE(m_reader->ReadErrors(0));
    EXPECT_EQ(3, m_log.Count("Opening file: " + m_fifo.m_path));
    EXPECT_EQ(1, m_log.Count(kOpened));
}

TEST_F(SnortErrorReaderRead, ClosesTheFifoAtTheEndOfAWriterAndServesTheNext) {
    ListenAsCrm();
    for (const char* const line : {"first\n", "second\n"}) {
        Connect();
        ASSERT_TRUE(m_fifo.Write(line));
        m_fifo.CloseWriter();
        EXPECT_TRUE(m_reader->ReadErrors(10));
        EXPECT_FALSE(m_reader->ReadErrors(10));
        EXPECT_EQ(std::string("I ") + line, m_crm->Take());
    }
    EXPECT_EQ(2, m_log.Count(kEof));
    EXPECT_EQ(2, m_log.Count(kOpened));
    EXPECT_EQ(0, m_log.Count("getline error"));
}

TEST_F(SnortErrorReaderRead, KeepsFurtherLinesOfOneWriteUntilTheFifoIsReadableAgain) {
    ListenAsCrm();
    Connect();
    ASSERT_TRUE(m_fifo.Write("one\ntwo\nthree\n"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_FALSE(m_reader->ReadErrors(0));
    EXPECT_EQ("I one\n", m_crm->Take());
    EXPECT_EQ("", m_crm->Take());
    m_fifo.CloseWriter();
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ("I two\n", m_crm->Take());
    EXPECT_EQ("I three\n", m_crm->Take());
    EXPECT_FALSE(m_reader->ReadErrors(10));
    EXPECT_EQ(1, m_log.Count(kEof));
}

// Reads lines until none comes, and takes their messages.
std::vector<std::string> SnortErrorReaderTest::ReadAll() {
    std::vector<std::string> messages;
    while (m_reader->ReadErrors(0)) {
        messages.push_back(m_crm->Take());
    }
    return messages;
}

TEST_F(SnortErrorReaderRead, KeepsReading4096BytesAtATimeAndTheRestUntilTheFifoIsReadable) {
    ListenAsCrm();
    Connect();
    std::string written;
    std::vector<std::string> expected;
    for (int i = 100; i < 160; ++i) {
        const std::string line = std::to_string(i) + std::string(96, 'x') + "\n";
        written += line;
        expected.push_back("I " + line);
    }
    ASSERT_TRUE(m_fifo.Write(written));
    // The 41st line begins in the first 4096 bytes, and what is left of the FIFO comes with it.
    std::vector<std::string> messages = ReadAll();
    EXPECT_EQ(41U, messages.size());
    m_fifo.CloseWriter();
    for (std::string& message : ReadAll()) {
        messages.push_back(std::move(message));
    }
    EXPECT_EQ(expected, messages);
}

TEST_F(SnortErrorReaderRead, KeepsOpeningTheFifoAgainAfterALineWhoseEndIsLate) {
    ListenAsCrm();
    Connect();
    ASSERT_TRUE(m_fifo.Write("half"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ("I half", m_crm->Take());
    ASSERT_TRUE(m_fifo.Write(" done\n"));
    errno = 0;
    EXPECT_FALSE(m_reader->ReadErrors(10));
    EXPECT_EQ(1, m_log.CountAt(1, "getline error, reason: Resource temporarily unavailable"));
    EXPECT_EQ(1, m_log.Count(kOpened));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ(2, m_log.Count(kOpened));
    EXPECT_EQ("I  done\n", m_crm->Take());
    EXPECT_EQ(1, m_log.Count("getline error"));
}

TEST_F(SnortErrorReaderRead, DeliversTheLastLineOfAWriterWithoutItsNewline) {
    ListenAsCrm();
    Connect();
    ASSERT_TRUE(m_fifo.Write("no newline"));
    m_fifo.CloseWriter();
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_FALSE(m_reader->ReadErrors(10));
    EXPECT_EQ("I no newline", m_crm->Take());
    EXPECT_EQ(1, m_log.Count(kEof));
    EXPECT_EQ(0, m_log.Count("getline error"));
}

TEST_F(SnortErrorReaderRead, ClosesTheFifoAtAnyOtherReadError) {
    std::filesystem::create_directory(m_fifo.m_path);  // opens and is always ready to be refused
    EXPECT_FALSE(m_reader->ReadErrors(10));
    EXPECT_EQ(1, m_log.CountAt(1, "getline error, reason: Is a directory"));
    EXPECT_FALSE(m_reader->ReadErrors(10));
    EXPECT_EQ(2, m_log.Count(kOpened));
}

TEST_F(SnortErrorReaderRead, ReadsNoFurtherLineWhileAMessageIsOwed) {
    Connect();
    ASSERT_TRUE(m_fifo.Write("one\n"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    ASSERT_TRUE(m_fifo.Write("two\n"));
    EXPECT_FALSE(m_reader->ReadErrors(10));
    EXPECT_EQ(1, m_log.Count("### Debug Snort stderr ###"));
    EXPECT_EQ("one\n", m_reader->Message());
    EXPECT_EQ(2, m_log.CountAt(2, kNotSent));
    ListenAsCrm();
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ("I one\n", m_crm->Take());
    EXPECT_EQ("I two\n", m_crm->Take());
    EXPECT_EQ("", m_crm->Take());
}

TEST_F(SnortErrorReaderRead, OpensANewStreamAfterAWaitThatFailedAndLeavesForeignFilesAlone) {
    ListenAsCrm();
    Connect();
    ASSERT_TRUE(m_fifo.Write("one\n"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    const int next = dup(STDERR_FILENO);
    close(next);
    EXPECT_FALSE(m_reader->ReadErrors(-1)) << "a time that select refuses";
    EXPECT_EQ(1, m_log.CountAt(1, "Select FDs error, reason: Invalid argument"));
    const int taken = dup(STDERR_FILENO);
    ASSERT_LT(taken, next) << "the number of the FIFO that was closed";
    Connect();
    ASSERT_TRUE(m_fifo.Write("two\n"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ("I one\n", m_crm->Take());
    EXPECT_EQ("I two\n", m_crm->Take());
    EXPECT_NE(-1, fcntl(taken, F_GETFD));
    m_reader.reset();
    EXPECT_NE(-1, fcntl(taken, F_GETFD));
    close(taken);
}

TEST_F(SnortErrorReaderRead, KeepsTheFifoReadableWhileAStrangeLineThrows) {
    ListenAsCrm();
    Connect();
    ASSERT_TRUE(m_fifo.Write(kRulesError + "(1)) text\n"));
    EXPECT_THROW(m_reader->ReadErrors(10), std::out_of_range);
    EXPECT_EQ("", m_crm->Take());
    EXPECT_FALSE(m_reader->ReadErrors(0));
    EXPECT_EQ("I " + kRulesError + "(1)) text\n", m_crm->Take()) << "the line is owed";
    ASSERT_TRUE(m_fifo.Write("next\n"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ("I next\n", m_crm->Take());
}

// Runs one call on a thread of its own with cancellation off, as the error thread does, and
// cancels it. True when the cancel ended the call.
template <typename Call>
bool IsCancelledIn(Call call) {
    pthread_t thread{};
    const auto body = [](void* argument) -> void* {
        const CancellationOff off;
        (*static_cast<Call*>(argument))();
        return nullptr;
    };
    if (pthread_create(&thread, nullptr, body, &call) != 0) {
        return false;
    }
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    return result == PTHREAD_CANCELED;
}

TEST_F(SnortErrorReaderRead, CanBeCancelledWhileItWaitsForTheFifo) {
    Connect();
    // The cancel may come before the first instruction of the thread.
    EXPECT_TRUE(IsCancelledIn([this] { (void)m_reader->ReadErrors(60); }));
    ListenAsCrm();
    ASSERT_TRUE(m_fifo.Write("still there\n"));
    EXPECT_TRUE(m_reader->ReadErrors(10));
    EXPECT_EQ("I still there\n", m_crm->Take());
}

TEST_F(SnortErrorReaderSend, CanBeCancelledInItsPauseAndStillOwesTheMessage) {
    m_reader->Process("hello\n");
    EXPECT_TRUE(IsCancelledIn([this] { (void)m_reader->SendMessage(60); }));
    EXPECT_EQ("hello\n", m_reader->Message());
}

TEST_F(SnortErrorReaderInstance, IsOneUntilItIsReleased) {
    SnortErrorReader* const reader = m_reader.get();
    SnortErrorReader::ReplaceInstance(std::move(m_reader));
    EXPECT_EQ(SnortErrorReader::Instance(), reader);
    EXPECT_EQ(SnortErrorReader::Instance(), reader);
    reader->Process("owed\n");
    SnortErrorReader::ReleaseInstance();
    SnortErrorReader::ReleaseInstance();
    EXPECT_EQ("", SnortErrorReader::Instance()->Message()) << "lost with the old one";
    SnortErrorReader::ReleaseInstance();
}

TEST_F(SnortErrorReaderInstance, IsTheSameForThreadsThatMeetAtTheFirstUse) {
    for (int i = 0; i < 100; ++i) {
        SnortErrorReader* other = nullptr;
        std::thread thread([&other] { other = SnortErrorReader::Instance(); });
        SnortErrorReader* const own = SnortErrorReader::Instance();
        thread.join();
        ASSERT_EQ(own, other);
        SnortErrorReader::ReleaseInstance();
    }
}

}  // namespace
