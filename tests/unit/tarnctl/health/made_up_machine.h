#pragma once

// A folder that looks like a machine with a daemon to the collector: processes with descriptors,
// FIFOs, rings, sockets, files and a log.
//
// Threads: the test's own.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/temp_dir.h"
#include "tarnctl/health/health.h"

namespace tarnctl {

class MadeUpMachine {
  public:
    static constexpr int kDaemon = 4100;
    static constexpr double kBootTime = 1'700'000'000.0;
    static constexpr uint64_t kTicks = 100;  // a second

    MadeUpMachine() {
        for (const char* name : {"proc/net", "fifo", "tmp", "shm", "run", "log", "etc"}) {
            std::filesystem::create_directories(dir.File(name));
        }
        places.proc = dir.File("proc");
        places.pidFile = dir.File("run/tarn0.pid");
        places.stateFile = dir.File("etc/tarn.state");
        places.configFile = dir.File("etc/tarn.conf");
        places.eventFile = dir.File("etc/tarn_event.conf");
        places.alertFifo = dir.File("fifo/alerts.fifo");
        places.errorFifo = dir.File("fifo/errmsgs.fifo");
        places.ringBase = dir.File("tmp/EventQueueCRM");
        places.semaphore = dir.File("shm/sem.EventQueueCRM.sem");
        places.peers = {{"messages", dir.File("run/messages"), "messages"},
                        {"secmgr", dir.File("run/secmgr"), "rules"}};
        places.channel = 2;
        places.logFile = dir.File("log/tarn.log");
        places.bootTime = kBootTime;
        dir.Write("proc/net/unix", "Num       RefCount Protocol Flags    Type St Inode Path\n");
    }

    // A process of this name, without descriptors.
    void AddProcess(int number, const std::string& name, char state = 'S', uint64_t flags = 0,
                    uint64_t startTicks = 5 * kTicks) {
        const std::string folder = "proc/" + std::to_string(number);
        std::filesystem::create_directories(dir.File(folder + "/fd"));
        std::filesystem::create_directories(dir.File(folder + "/fdinfo"));
        dir.Write(folder + "/stat", StatusLine(number, name, state, flags, 0, startTicks));
        dir.Write(folder + "/status", "Name:\t" + name + "\nVmRSS:\t    4740 kB\n");
        dir.Write(folder + "/maps", "");
        AddThread(number, number, state, 0, startTicks);
    }

    void AddThread(int number, int thread, char state, uint64_t ticks, uint64_t startTicks) {
        const std::string folder =
            "proc/" + std::to_string(number) + "/task/" + std::to_string(thread);
        std::filesystem::create_directories(dir.File(folder));
        dir.Write(folder + "/stat", StatusLine(thread, "tarn", state, 0, ticks, startTicks));
    }

    // The process has a file open; `flags` as in fcntl.h.
    void AddDescriptor(int number, int descriptor, const std::string& path, int flags) {
        const std::string folder = "proc/" + std::to_string(number);
        std::filesystem::create_symlink(path,
                                        dir.File(folder + "/fd/" + std::to_string(descriptor)));
        char text[64];
        std::snprintf(text, sizeof text, "pos:\t0\nflags:\t0%o\nmnt_id:\t15\n",
                      static_cast<unsigned>(flags));
        dir.Write(folder + "/fdinfo/" + std::to_string(descriptor), text);
    }

    // Only the superuser sees what the process has open.
    void HideDescriptors(int number) {
        std::filesystem::permissions(dir.File("proc/" + std::to_string(number) + "/fd"),
                                     std::filesystem::perms::none);
    }

    // What the daemon's command line is; the words end in NULs.
    void SetCommandLine(int number, const std::string& words) {
        dir.Write("proc/" + std::to_string(number) + "/cmdline", words);
    }

    static std::string StatusLine(int number, const std::string& name, char state, uint64_t flags,
                                  uint64_t cpuTicks, uint64_t startTicks) {
        return std::to_string(number) + " (" + name + ") " + state + " 1 1 1 0 -1 " +
               std::to_string(flags) + " 0 0 0 0 " + std::to_string(cpuTicks) + " 7 0 0 20 0 3 0 " +
               std::to_string(startTicks) + " 1000 200 18446744073709551615\n";
    }

    TempDir dir;
    HealthPlaces places;
};

// Another user than the superuser, before whom this machine hides what it can.
class AnotherUser {
  public:
    explicit AnotherUser(const MadeUpMachine& machine) {
        std::filesystem::permissions(machine.dir.Path(), std::filesystem::perms::all);
        m_isThere = geteuid() == 0 && seteuid(kNumber) == 0 && seteuid(0) == 0;
    }
    [[nodiscard]] bool IsThere() const { return m_isThere; }

    // The result of what this user does.
    template <typename Work>
    auto Does(Work work) const {
        EXPECT_EQ(0, seteuid(kNumber));
        auto result = work();
        EXPECT_EQ(0, seteuid(0));
        return result;
    }

  private:
    static constexpr uid_t kNumber = 65534;
    bool m_isThere = false;
};

}  // namespace tarnctl
