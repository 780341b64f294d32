// The processes around a daemon that is measured end to end: the sensor that feeds the alert
// FIFO, the loop that the daemon is held against, and the CRM and the system log that take
// what it writes. The script end_to_end.py starts them.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "tarnctl/common/record_file.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/crm/crm_channel.h"
#include "unified2/unified2_format.h"

namespace {

using Clock = std::chrono::steady_clock;
using Record = std::vector<std::byte>;

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "tarn_end_to_end: %s\n", what.c_str());
    std::exit(1);
}

void PinTo(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (sched_setaffinity(0, sizeof(set), &set) != 0) {
        Fail("cannot run on CPU " + std::to_string(cpu));
    }
}

void TakePriority(int niceness) {
    if (setpriority(PRIO_PROCESS, 0, niceness) != 0) {
        Fail("cannot take the priority " + std::to_string(niceness));
    }
}

uint32_t TypeOf(const Record& record) {
    unified2::RecordHeader header;
    std::memcpy(&header, record.data(), sizeof(header));
    return header.type.HostOrder();
}

bool IsAlert(const Record& record) {
    const uint32_t type = TypeOf(record);
    return type == unified2::kAlertIpv4 || type == unified2::kAlertIpv6;
}

std::vector<Record> RecordsOf(const char* path) {
    tarnctl::RecordFile file;
    std::vector<Record> records;
    if (!file.Open(path)) {
        Fail(file.Error());
    }
    tarnctl::RecordResult result = file.Next();
    for (; result == tarnctl::RecordResult::kRecord; result = file.Next()) {
        records.push_back(file.Bytes());
    }
    if (result != tarnctl::RecordResult::kEnd || records.empty()) {
        Fail(std::string(path) + ": " + file.Error());
    }
    return records;
}

// Leaves out extra data of the kinds that the daemon does not take: each costs it a line in the log
// and one in the system log, at the default level, which is another figure than that of its reader.
std::vector<Record> OfKnownKinds(const std::vector<Record>& records) {
    std::vector<Record> known;
    for (const Record& record : records) {
        if (TypeOf(record) == unified2::kExtraData) {
            unified2::ExtraData extra;
            std::memcpy(&extra, &record[sizeof(unified2::RecordHeader)], sizeof(extra));
            const uint32_t kind = extra.type.HostOrder();
            if (kind != unified2::kHttpUri && kind != unified2::kHttpHostname) {
                continue;
            }
        }
        known.push_back(record);
    }
    return known;
}

// The stream of a sensor that writes no extra data: each alert and its packet.
std::vector<Record> WithoutExtraData(const std::vector<Record>& records) {
    std::vector<Record> plain;
    std::copy_if(records.begin(), records.end(), std::back_inserter(plain),
                 [](const Record& record) { return TypeOf(record) != unified2::kExtraData; });
    return plain;
}

// Makes the stream of a troublesome sensor: each packet comes twice, which takes the
// place of the first, and once more under an id that no alert has, which the daemon refuses.
std::vector<Record> WithStrayPackets(const std::vector<Record>& records) {
    constexpr uint32_t kNoAlert = 0x7FFF0000;
    std::vector<Record> mixed;
    for (const Record& record : records) {
        mixed.push_back(record);
        if (TypeOf(record) == unified2::kPacket) {
            mixed.push_back(record);
            Record stray = record;
            unified2::Packet packet;
            std::memcpy(&packet, &stray[sizeof(unified2::RecordHeader)], sizeof(packet));
            packet.eventId = unified2::Big32::FromHostOrder(kNoAlert);
            std::memcpy(&stray[sizeof(unified2::RecordHeader)], &packet, sizeof(packet));
            mixed.push_back(stray);
        }
    }
    return mixed;
}

// The writing end of the FIFO. The reader loses a record whose tail is not there yet, so each one
// goes in whole. Back pressure paces it: a write waits for room. The pipe is as large as any user
// may have it, so that the sensor is ahead of its reader.
class Sensor {
  public:
    explicit Sensor(const char* fifo) : m_fd(open(fifo, O_WRONLY | O_CLOEXEC)) {
        if (m_fd == -1 || fcntl(m_fd, F_SETPIPE_SZ, kPipeBytes) < kPipeBytes) {
            Fail(std::string("no FIFO to feed at ") + fifo);
        }
    }
    ~Sensor() { close(m_fd); }
    Sensor(const Sensor&) = delete;
    Sensor& operator=(const Sensor&) = delete;

    void Send(const Record& record) const {
        if (record.size() > PIPE_BUF) {
            WaitUntilUnread(kSafeBytes);
        }
        if (write(m_fd, record.data(), record.size()) != static_cast<ssize_t>(record.size())) {
            Fail("the reader is gone");
        }
    }
    // Whether the pipe is sure to take a record of the usual size.
    [[nodiscard]] bool HasRoom() const { return Unread() < kSafeBytes; }
    void Drain() const { WaitUntilUnread(0); }

  private:
    static constexpr int kPipeBytes = 1 << 20;
    // A record goes into the last page if it fits in there, so any two neighbours hold more than a
    // page of bytes: with this many unread some three quarters of the pages are taken at most.
    static constexpr int kSafeBytes = kPipeBytes * 3 / 8;

    [[nodiscard]] int Unread() const {
        int unread = 0;
        return ioctl(m_fd, FIONREAD, &unread) == 0 ? unread : 0;
    }
    void WaitUntilUnread(int limit) const {
        while (Unread() > limit) {
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
    }

    int m_fd;
};

// The records of a file over and over.
class Feed {
  public:
    Feed(const char* file, const std::string& kind) : m_records(RecordsOf(file)) {
        if (kind == "strays") {
            m_records = WithStrayPackets(m_records);
        } else if (kind == "known") {
            m_records = OfKnownKinds(m_records);
        } else if (kind == "packets") {
            m_records = WithoutExtraData(m_records);
        } else if (kind != "plain") {
            Fail("no feed of the kind " + kind);
        }
    }
    const Record& Next() {
        const Record& record = m_records[m_next];
        m_next = (m_next + 1) % m_records.size();
        m_sent += 1;
        m_alerts += IsAlert(record) ? 1 : 0;
        return record;
    }
    [[nodiscard]] uint64_t Sent() const { return m_sent; }
    [[nodiscard]] uint64_t Alerts() const { return m_alerts; }

  private:
    std::vector<Record> m_records;
    size_t m_next = 0;
    uint64_t m_sent = 0;
    uint64_t m_alerts = 0;
};

void Say(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

// The records of the measured part, its seconds, and the alerts of the whole feed. The FIFO stays
// open until standard input ends.
void SayResult(uint64_t records, double seconds, uint64_t alerts) {
    Say(std::to_string(records) + " " + std::to_string(seconds) + " " + std::to_string(alerts));
    while (std::getchar() != EOF) {
    }
}

// Writes `warmUp` records and then `count` more, of the stream as it is ("plain"), of the kinds
// that the daemon takes ("known"), without extra data ("packets"), or mixed with strays ("strays",
// where alerts count and not records). Prints a word when the first are read, and then the result.
int FeedStream(const char* fifo, const char* file, uint64_t warmUp, uint64_t count,
               const std::string& kind) {
    Feed feed(file, kind);
    const Sensor sensor(fifo);
    const bool strays = kind == "strays";
    const auto send = [&](uint64_t wanted) {
        const uint64_t sent = feed.Sent();
        const auto counted = [&] { return strays ? feed.Alerts() : feed.Sent(); };
        for (const uint64_t until = counted() + wanted; counted() < until;) {
            sensor.Send(feed.Next());
        }
        sensor.Drain();
        return feed.Sent() - sent;
    };
    send(warmUp);
    Say("warm");
    const auto start = Clock::now();
    const uint64_t sent = send(count);
    const std::chrono::duration<double> taken = Clock::now() - start;
    SayResult(sent, taken.count(), feed.Alerts());
    return 0;
}

// Stops the reader, fills the pipe, lets the reader go on, and takes the time until the pipe is
// empty; so often that `count` records have gone through after `warmUp` others.
int FeedBursts(const char* fifo, const char* file, uint64_t warmUp, uint64_t count,
               const std::string& kind, pid_t reader) {
    Feed feed(file, kind);
    const Sensor sensor(fifo);
    std::chrono::duration<double> taken{};
    const auto send = [&](uint64_t wanted) {
        taken = {};
        const uint64_t before = feed.Sent();
        while (feed.Sent() - before < wanted) {
            kill(reader, SIGSTOP);
            while (sensor.HasRoom()) {
                sensor.Send(feed.Next());
            }
            const auto start = Clock::now();
            kill(reader, SIGCONT);
            sensor.Drain();
            taken += Clock::now() - start;
        }
        return feed.Sent() - before;
    };
    send(warmUp);
    Say("warm");
    const uint64_t sent = send(count);
    SayResult(sent, taken.count(), feed.Alerts());
    return 0;
}

// The least that a reader of the FIFO can do: a select, two reads and the memory for the payload.
// `always` calls select before each record, otherwise only when there is nothing to read.
int ReadBare(const char* fifo, bool always) {
    const int fd = open(fifo, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) {
        Fail(std::string("no FIFO to read at ") + fifo);
    }
    for (bool wait = true;; wait = always) {
        unified2::RecordHeader header;
        ssize_t got = wait ? -1 : read(fd, &header, sizeof(header));
        if (got == -1) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(fd, &set);
            timeval timeout = {1, 0};
            while (select(fd + 1, &set, nullptr, nullptr, &timeout) <= 0) {
                FD_SET(fd, &set);
                timeout = {1, 0};
            }
            got = read(fd, &header, sizeof(header));
        }
        if (got == 0) {
            return 0;  // the sensor has ended
        }
        const uint32_t length = header.length.HostOrder();
        void* const payload = malloc(length);
        if (got != sizeof(header) || payload == nullptr ||
            read(fd, payload, length) != static_cast<ssize_t>(length)) {
            Fail("a record was not whole");
        }
        free(payload);
    }
}

// Takes every report until it is asked to stop. It looks into the ring by the clock: a reader that
// slept on the semaphore would be woken for each report, and the wake-up is the kernel's work.
int DrainRing(int channel) {
    tarnctl::CatchStopSignals();
    tarnctl::CrmChannel crm(channel);
    if (!crm.Open()) {
        Fail(crm.Error());
    }
    Say("ready");
    constexpr int kWhile = 50;  // looks into the ring
    uint64_t reports = 0;
    int empty = 0;
    while (!tarnctl::StopRequested()) {
        std::span<const std::byte> bytes;
        int ring = 0;
        switch (crm.Next(bytes, ring)) {
            case tarnctl::CrmChannel::ReadResult::kMessage:
                ++reports;
                empty = 0;
                break;
            case tarnctl::CrmChannel::ReadResult::kEmpty:
                if (++empty == kWhile) {
                    Say(std::to_string(reports));
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                break;
            default:
                Fail(crm.Error());
        }
    }
    Say(std::to_string(reports));
    return 0;
}

// Takes every line of the system log. Without anybody there each line would cost the daemon a new
// attempt to connect.
int TakeSystemLog(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    unlink(path);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        Fail(std::string("no system log at ") + path);
    }
    Say("ready");
    tarnctl::CatchStopSignals();
    char line[4096];
    while (!tarnctl::StopRequested()) {
        (void)!recv(fd, line, sizeof(line), 0);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fputs(
            "usage: tarn_end_to_end CPU NICENESS feed FIFO FILE WARM-UP COUNT KIND\n"
            "       tarn_end_to_end CPU NICENESS bursts FIFO FILE WARM-UP COUNT KIND READER\n"
            "       KIND is plain, known, packets or strays\n"
            "       tarn_end_to_end CPU NICENESS bare FIFO always|empty\n"
            "       tarn_end_to_end CPU NICENESS drain CHANNEL\n"
            "       tarn_end_to_end CPU NICENESS log SOCKET\n",
            stderr);
        return 2;
    }
    PinTo(std::stoi(argv[1]));
    TakePriority(std::stoi(argv[2]));
    const std::string role = argv[3];
    char** const arguments = argv + 4;
    const int count = argc - 4;
    if (role == "feed" && count == 5) {
        return FeedStream(arguments[0], arguments[1], std::stoull(arguments[2]),
                          std::stoull(arguments[3]), arguments[4]);
    }
    if (role == "bursts" && count == 6) {
        return FeedBursts(arguments[0], arguments[1], std::stoull(arguments[2]),
                          std::stoull(arguments[3]), arguments[4], std::stoi(arguments[5]));
    }
    if (role == "bare" && count == 2) {
        return ReadBare(arguments[0], std::string(arguments[1]) == "always");
    }
    if (role == "drain" && count == 1) {
        return DrainRing(std::stoi(arguments[0]));
    }
    if (role == "log" && count == 1) {
        return TakeSystemLog(arguments[0]);
    }
    Fail("no role " + role + " with " + std::to_string(count) + " arguments");
}
