// Both forms of the event reader, the one that waits before each header and the one of the daemon,
// are taken through the same random schedules of what a sensor and its machine may do. After each
// step they must have given the same results, handed over the same alerts, written the same lines
// at the same levels, and have the same unread bytes at an open descriptor, or a closed one.
//
// The environment variable TARN_SCHEDULES sets the number of schedules, and TARN_FIRST_SCHEDULE the
// first one.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "config/config.h"
#include "logging/log.h"
#include "snort/snort_event_reader.h"
#include "support/temp_dir.h"
#include "support/unified2_records.h"
#include "unit/snort/recorded_waits.h"
#include "unit/snort/waiting_event_reader.h"

namespace {

using u2test::Bytes;

constexpr uint64_t kUsualSchedules = 4000;
constexpr uint64_t kSchedulesOfALog = 500;
constexpr int kSteps = 14;

uint64_t NumberFrom(const char* variable, uint64_t otherwise) {
    const char* const given = std::getenv(variable);
    return given != nullptr ? std::strtoull(given, nullptr, 10) : otherwise;
}

// A reader whose descriptor can be looked at.
template <typename Reader>
class Watched : public Reader {
  public:
    using Reader::Reader;
    [[nodiscard]] int Fd() const { return this->m_fd; }
};

// What was logged since the last question, with the level of the lines at levels 1 to 3.
class LogTail {
  public:
    LogTail() {
        vald::Log::Destroy();
        const std::string path = m_folder.File("log");
        vald::Log::GetInstance()->Open("tarn_test", path.c_str(), vald::Log::kDebug, 1 << 30, 1);
        m_fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        vald::Log::SetConsole(&KeepLoud, true, true, true);
    }
    ~LogTail() {
        vald::Log::SetConsole(nullptr, false, false, false);
        vald::Log::Destroy();
        vald::Log::SetLevel(vald::Log::kNotice);
        close(m_fd);
    }
    LogTail(const LogTail&) = delete;
    LogTail& operator=(const LogTail&) = delete;

    [[nodiscard]] std::string Take() {
        std::string text;
        std::array<char, 65536> piece;
        for (ssize_t count = 0; (count = pread(m_fd, piece.data(), piece.size(), m_read)) > 0;) {
            text.append(piece.data(), static_cast<size_t>(count));
            m_read += count;
        }
        std::string tail = WithoutPrefixes(text) + Loud();
        Loud().clear();
        return tail;
    }

  private:
    static std::string& Loud() {
        static std::string lines;
        return lines;
    }

    __attribute__((format(printf, 2, 0))) static void KeepLoud(int level, const char* format,
                                                               va_list args) {
        char text[2048];
        std::vsnprintf(text, sizeof(text), format, args);
        Loud() += "level " + std::to_string(level) + ": " + text + "\n";
    }

    // "2026/11/12 14:12:01.123 T:140 text": the time and the thread differ from run to run.
    static std::string WithoutPrefixes(const std::string& text) {
        constexpr size_t kTime = 23;
        std::string lines;
        for (size_t at = 0; at < text.size();) {
            const size_t end = std::min(text.find('\n', at), text.size());
            size_t from = at;
            if (end > at + kTime && text.compare(at + kTime, 3, " T:") == 0) {
                from = text.find(' ', at + kTime + 3) + 1;
            }
            lines.append(text, from, end - from).push_back('\n');
            at = end + 1;
        }
        return lines;
    }

    TempDir m_folder;
    int m_fd = -1;
    off_t m_read = 0;
};

// Interrupts the waits of this thread again and again while it lives.
class Interruptions {
  public:
    Interruptions() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &m_former);
        const itimerval often = {.it_interval = {0, 200}, .it_value = {0, 200}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Interruptions() {
        const itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &m_former, nullptr);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

  private:
    struct sigaction m_former {};
};

enum class Do {
    kWrite,            // bytes, in one write
    kWriteSplit,       // bytes that the pipe gives in two pieces
    kWriteInTheGap,    // bytes that arrive when the reader is about to wait
    kReplaceInTheGap,  // the writer ends and another one begins when the reader is about to wait
    kStartWriter,
    kStopWriter,
    kStartOtherReader,  // keeps what is in the FIFO while the daemon has it closed
    kStopOtherReader,
    kRead,           // passes
    kReadAtSignal,   // one pass that a signal interrupts if it waits
    kReadWrongTime,  // one pass with a timeout that is none
    kReload,         // the reader is destroyed and made anew
    kRemoveFifo,
    kMakeFifo,
};

struct Step {
    Do what = Do::kRead;
    Bytes bytes;
    size_t number = 1;  // passes, or the place of a split
};

// One form of the reader with a FIFO of its own, and what happens around it.
template <typename Reader>
class Side {
  public:
    Side(const std::string& path, LogTail& log) : m_path(path), m_log(log) {
        unlink(m_path.c_str());
        EXPECT_EQ(0, mkfifo(m_path.c_str(), 0600));
        m_reader = std::make_unique<Watched<Reader>>(m_path.c_str());
    }
    ~Side() {
        BeforeTheNextSelect({});
        for (int* const fd : {&m_writer, &m_otherReader}) {
            Shut(*fd);
        }
    }
    Side(const Side&) = delete;
    Side& operator=(const Side&) = delete;

    // Takes the step and returns all that it has shown.
    [[nodiscard]] std::string Take(const Step& step) {
        m_shown.clear();
        Act(step);
        BeforeTheNextSelect({});
        int unread = -1;
        if (m_reader->Fd() != -1) {
            EXPECT_EQ(0, ioctl(m_reader->Fd(), FIONREAD, &unread));
        }
        m_shown += m_reader->Fd() == -1 ? "closed\n" : "open, " + std::to_string(unread) + "\n";
        std::string lines = m_log.Take();
        for (size_t at = 0; (at = lines.find(m_path, at)) != std::string::npos;) {
            lines.replace(at, m_path.size(), "FIFO");
        }
        return m_shown + lines;
    }

  private:
    void Act(const Step& step) {
        switch (step.what) {
            case Do::kWrite:
                Write(step.bytes, 0, step.bytes.size());
                break;
            case Do::kWriteSplit:
                Split(step.bytes, step.number);
                break;
            case Do::kWriteInTheGap:
            case Do::kReplaceInTheGap:
                InTheGap(step);
                break;
            case Do::kStartWriter:
                StartWriter();
                break;
            case Do::kStopWriter:
                Shut(m_writer);
                break;
            case Do::kStartOtherReader:
                Shut(m_otherReader);
                m_otherReader = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
                break;
            case Do::kStopOtherReader:
                Shut(m_otherReader);
                break;
            case Do::kRead:
                for (size_t pass = 0; pass < step.number; ++pass) {
                    Read(0);
                }
                break;
            case Do::kReadAtSignal: {
                const Interruptions interruptions;
                Read(1);
                break;
            }
            case Do::kReadWrongTime:
                Read(-1);
                break;
            case Do::kReload:
                m_reader.reset();
                m_reader = std::make_unique<Watched<Reader>>(m_path.c_str());
                break;
            case Do::kRemoveFifo:
                m_shown += std::to_string(unlink(m_path.c_str()));
                break;
            case Do::kMakeFifo:
                m_shown += m_reader->CreateFifo() ? "made\n" : "not made\n";
                break;
        }
    }

    void Read(long seconds) {
        try {
            m_shown += m_reader->ReadEvent(seconds) ? "record\n" : "none\n";
        } catch (const std::length_error&) {
            m_shown += "thrown\n";
        }
    }

    // What comes between a look that found nothing and the wait. With bytes there a form that does
    // not look first would wait with another FIFO than one that does.
    void InTheGap(const Step& step) {
        int unread = 0;
        if (m_reader->Fd() != -1 && ioctl(m_reader->Fd(), FIONREAD, &unread) == 0 && unread == 0) {
            BeforeTheNextSelect([this, &step] {
                if (step.what == Do::kReplaceInTheGap) {
                    Shut(m_writer);
                    StartWriter();
                }
                Write(step.bytes, 0, step.bytes.size());
            });
        }
        Read(0);
    }

    void StartWriter() {
        Shut(m_writer);
        m_writer = open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        m_shown += m_writer == -1 ? "no writer\n" : "a writer\n";
    }

    void Write(const Bytes& bytes, size_t from, size_t to) {
        if (m_writer != -1) {
            m_shown += std::to_string(write(m_writer, bytes.data() + from, to - from)) + " bytes\n";
        }
    }

    // Each write is one packet of the pipe, and each read takes bytes of one packet only.
    void Split(const Bytes& bytes, size_t place) {
        fcntl(m_writer, F_SETFL, O_NONBLOCK | O_DIRECT);
        Write(bytes, 0, std::min(place, bytes.size()));
        if (place < bytes.size()) {
            Write(bytes, place, bytes.size());
        }
        fcntl(m_writer, F_SETFL, O_NONBLOCK);
    }

    static void Shut(int& fd) {
        if (fd != -1) {
            close(fd);
            fd = -1;
        }
    }

    const std::string m_path;
    LogTail& m_log;
    std::unique_ptr<Watched<Reader>> m_reader;
    int m_writer = -1;
    int m_otherReader = -1;
    std::string m_shown;
};

// Makes the steps of one schedule.
class Schedule {
  public:
    explicit Schedule(uint64_t number) : m_random(number) {}

    [[nodiscard]] int LogLevel() { return static_cast<int>(Below(4)) + 2; }

    // Beginnings are such that most schedules get somewhere.
    [[nodiscard]] Step Next(int index) {
        if (index == 0) {
            return {.what = Below(8) == 0 ? Do::kStartOtherReader : Do::kRead, .bytes = {}};
        }
        if (index == 1 && Below(8) != 0) {
            return {.what = Do::kStartWriter, .bytes = {}};
        }
        static constexpr std::array kWeighted = {
            Do::kWrite,
            Do::kWrite,
            Do::kWrite,
            Do::kWrite,
            Do::kWrite,
            Do::kWrite,
            Do::kWriteSplit,
            Do::kWriteInTheGap,
            Do::kReplaceInTheGap,
            Do::kStartWriter,
            Do::kStartWriter,
            Do::kStopWriter,
            Do::kRead,
            Do::kRead,
            Do::kRead,
            Do::kRead,
            Do::kRead,
            Do::kRead,
            Do::kReadAtSignal,
            Do::kStartOtherReader,
            Do::kStopOtherReader,
            Do::kReadWrongTime,
            Do::kReload,
            Do::kRemoveFifo,
            Do::kMakeFifo,
            Do::kStopWriter,
        };
        Step step = {.what = kWeighted[Below(kWeighted.size())], .bytes = {}};
        if (Rare(step.what) && Below(2) == 0) {
            step.what = Do::kRead;
        }
        step.number = 1 + Below(step.what == Do::kWriteSplit ? 80 : 5);
        if (step.what == Do::kWrite && Below(60) == 0) {
            for (uint32_t id = 0; id < 130; ++id) {
                u2test::Append(step.bytes, u2test::Framed(u2test::Alert{.eventId = id}));
            }
        } else {
            step.bytes = Stream();
        }
        if (step.what == Do::kRead && Below(20) == 0) {
            step.number = 140;
        }
        return step;
    }

  private:
    size_t Below(size_t limit) { return m_random() % limit; }

    static bool Rare(Do what) {
        return what == Do::kReadWrongTime || what == Do::kReload || what == Do::kRemoveFifo;
    }

    // Whole records, and sometimes the head or the tail of one.
    Bytes Stream() {
        Bytes bytes;
        for (size_t records = 1 + Below(3); records > 0; --records) {
            u2test::Append(bytes, Record());
        }
        if (Below(4) == 0) {
            const auto cut = static_cast<Bytes::difference_type>(Below(bytes.size()));
            bytes = Below(2) == 0 ? Bytes(bytes.begin(), bytes.begin() + cut)
                                  : Bytes(bytes.begin() + cut, bytes.end());
        }
        return bytes;
    }

    Bytes Record() {
        const auto id = static_cast<uint32_t>(Below(4));
        switch (Below(10)) {
            case 0:
            case 1:
            case 2:
                return u2test::Framed(u2test::Alert{.eventId = id});
            case 3: {
                u2test::Alert alert = u2test::AlertIpv6();
                alert.eventId = id;
                return u2test::Framed(alert);
            }
            case 4:
            case 5:
                return u2test::Framed(
                    u2test::Packet{.eventId = id, .data = Bytes(Below(40), 0x5A)});
            case 6: {
                constexpr std::array<uint32_t, 3> kKinds = {9, 10, 4};
                return u2test::Framed(
                    u2test::ExtraData{.eventId = id, .type = kKinds[Below(kKinds.size())]});
            }
            case 7:
                return u2test::Framed(u2test::ExtraData{
                    .eventId = id, .claimedLength = static_cast<int64_t>(Below(30))});
            case 8:
                return u2test::Framed(7, Bytes(Below(20), 0xFF));
            default:
                return u2test::Framed(Below(2) == 0 ? 104 : 2, Bytes(Below(30), 0));
        }
    }

    std::mt19937_64 m_random;
};

TEST(SnortEventReaderForms, ShowTheSameOverRandomSchedules) {
    signal(SIGPIPE, SIG_IGN);  // a write into a FIFO that nobody reads is only a failed one
    const TempDir folder;
    std::optional<LogTail> log;
    const uint64_t first = NumberFrom("TARN_FIRST_SCHEDULE", 0);
    const uint64_t count = NumberFrom("TARN_SCHEDULES", kUsualSchedules);
    uint64_t records = 0;
    for (uint64_t number = first; number < first + count; ++number) {
        if (number % kSchedulesOfALog == 0 || !log) {
            log.emplace();  // so that its file stays small
        }
        Schedule schedule(number);
        const int level = schedule.LogLevel();
        vald::Log::SetLevel(level);
        Config::s_logLevel = level;
        Side<WaitingEventReader> waiting(folder.File("waits.fifo"), *log);
        Side<SnortEventReader> daemon(folder.File("reads.fifo"), *log);
        for (int index = 0; index < kSteps; ++index) {
            const Step step = schedule.Next(index);
            const std::string shown = waiting.Take(step);
            ASSERT_EQ(shown, daemon.Take(step)) << "schedule " << number << ", step " << index
                                                << ", action " << static_cast<int>(step.what);
            records += shown.find("record\n") != std::string::npos ? 1 : 0;
        }
    }
    EXPECT_LT(count / 2, records) << "the schedules get somewhere";
    Config::s_logLevel = vald::Log::kInfo;
    signal(SIGPIPE, SIG_DFL);
}

}  // namespace
