#include "tarnctl/health/health.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "daemon/engine.h"
#include "paths.h"
#include "ring/event_queue.h"
#include "tarnctl/health/parts.h"

namespace tarnctl {
namespace {

constexpr uint64_t kSmallRoom = 1048576;   // bytes that a working disk has free at least
constexpr uint64_t kSemaphoreRoom = 4096;  // a page
constexpr double kTick = 0.02;  // by which the start of a thread may seem to be earlier, in seconds
constexpr int kReloadLevel = 4;                // at which the log tells of a reload
constexpr size_t kThreadsWithEventThread = 3;  // main, event and error thread

double Seconds(const timespec& time) {
    constexpr double kNanosecond = 1e-9;
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * kNanosecond;
}

double ClockSeconds(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return Seconds(time);
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// When the daemon looked at its files last. A reload stops the event thread and starts it again, so
// the youngest thread tells of it at every level of the log. Without an event thread only the log
// tells, and only at the levels where it does.
Reading<double> LoadTimeOf(const DaemonHealth& daemon, const LogHealth& log) {
    if (!daemon.threads.IsKnown()) {
        return Unknown<double>(daemon.threads.source, daemon.threads.reason);
    }
    Reading<double> load = Known(0.0, daemon.threads.source);
    for (const ThreadHealth& thread : *daemon.threads.value) {
        load.value = std::max(*load.value, thread.startTime);
    }
    if (log.reloadTime.IsKnown() && *log.reloadTime.value > *load.value) {
        load = log.reloadTime;
    }
    return load;
}

// Without an event thread and with few messages a reload leaves no trace.
bool HidesReloads(const DaemonHealth& daemon, int logLevel) {
    return daemon.threads.IsKnown() && daemon.threads.value->size() < kThreadsWithEventThread &&
           logLevel < kReloadLevel;
}

// The bytes that the rings still have to be given by the disk.
uint64_t RingRoom(const QueueHealth& queue) {
    constexpr uint64_t kBlock = 512;  // what st_blocks counts
    const uint64_t sizes[] = {kEventQueueFirstRingSize, kEventQueueSecondRingSize};
    uint64_t needed = 0;
    for (size_t ring = 0; ring < queue.rings.size(); ++ring) {
        struct stat status = {};
        const bool isThere = stat(queue.rings[ring].path.c_str(), &status) == 0;
        const uint64_t has = isThere ? static_cast<uint64_t>(status.st_blocks) * kBlock : 0;
        needed += sizes[ring] - std::min(sizes[ring], has);
    }
    return needed;
}

}  // namespace

std::string LookFailure(const std::string& path, int error) {
    if (error == EACCES || error == EPERM) {
        return path + ": not permitted; run this as the superuser";
    }
    return path + ": " + std::strerror(error);
}

std::string HoldersHidden() {
    return "the descriptors of other users' processes are hidden; run this as the superuser";
}

HealthPlaces DaemonHealthPlaces() {
    namespace paths = tarn::paths;
    HealthPlaces places;
    places.proc = "/proc";
    places.pidFile = TarnEngine::PidFilePath(paths::kPidFile, 0);
    places.stateFile = paths::kStateFile;
    places.configFile = paths::kConfigFile;
    places.eventFile = paths::kEventConfigFile;
    places.alertFifo = paths::kAlertFifo;
    places.errorFifo = paths::kErrorFifo;
    places.ringBase = std::string(paths::kEventQueueBase) + "CRM";
    places.semaphore =
        "/dev/shm/sem." + std::string(paths::kEventQueueSemaphore).substr(1) + "CRM.sem";
    places.peers = {{kPartMessages, paths::kCrmMessageSocket, "messages to the CRM"},
                    {kPartSecmgr, paths::kSecurityManagerSocket, "quarantine rules"},
                    {kPartPacketlog, paths::kPacketLogSocket, "packets to be kept"}};
    return places;
}

FileHealth LookAtFile(const std::string& name, const std::string& path,
                      const Reading<double>& loadTime) {
    FileHealth health;
    health.name = name;
    health.path = path;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        const std::string reason = LookFailure(path, errno);
        health.modifiedTime = Unknown<double>(path, reason);
        health.isNewer = Unknown<bool>(path, reason);
        return health;
    }
    // Who changes a file can give it any time; the time of its last change of any kind is the
    // clock's own, and a content is no younger than that.
    const double modified = std::min(Seconds(status.st_mtim), Seconds(status.st_ctim));
    health.modifiedTime = Known(modified, path);
    health.isNewer = loadTime.IsKnown() ? Known(modified > *loadTime.value + kTick, loadTime.source)
                                        : Unknown<bool>(loadTime.source, loadTime.reason);
    return health;
}

RoomHealth LookAtRoom(const std::string& path, const std::string& purpose, uint64_t neededBytes) {
    RoomHealth health;
    health.path = path;
    health.purpose = purpose;
    health.neededBytes = neededBytes;
    struct statvfs room = {};
    if (statvfs(path.c_str(), &room) != 0) {
        health.freeBytes = Unknown<uint64_t>(path, LookFailure(path, errno));
        return health;
    }
    health.freeBytes = Known(
        static_cast<uint64_t>(geteuid() == 0 ? room.f_bfree : room.f_bavail) * room.f_frsize, path);
    return health;
}

HealthCollector::HealthCollector(HealthPlaces places, double lossSeconds)
    : m_places(std::move(places)), m_lossSeconds(lossSeconds) {}

Health HealthCollector::Look() {
    Health health;
    health.time = ClockSeconds(CLOCK_REALTIME);
    const double bootTime = m_places.bootTime.value_or(health.time - ClockSeconds(CLOCK_BOOTTIME));
    const ProcessTable processes(m_places.proc);
    health.daemon = LookAtDaemon(m_places, processes, bootTime, health.time);
    const int daemon = health.daemon.pid.value.value_or(0);
    DaemonSettings settings = LookAtSettings(m_places, processes, daemon);

    health.alerts = LookAtFifo(m_places.alertFifo, processes, daemon);
    health.errors = LookAtFifo(m_places.errorFifo, processes, daemon);
    health.queue = LookAtQueue(m_places, processes, std::move(settings.channel), daemon);
    for (const PeerPlace& place : m_places.peers) {
        health.peers.push_back(LookAtPeer(m_places, place, processes));
    }
    health.log = LookAtLog(settings.logFile, processes, daemon, health.time - m_lossSeconds);
    health.loadTime = LoadTimeOf(health.daemon, health.log);
    for (const auto& [name, path] :
         {std::pair<const char*, const std::string&>("config", settings.configFile),
          {"events", settings.eventFile}}) {
        FileHealth file = LookAtFile(name, path, health.loadTime);
        if (file.isNewer.Is(true) && HidesReloads(health.daemon, settings.logLevel)) {
            file.isNewer = Unknown<bool>(
                file.isNewer.source,
                "a reload without an event thread shows from tarn.log.level 4 on only");
        }
        health.files.push_back(std::move(file));
    }
    health.rooms.push_back(
        LookAtRoom(FolderOf(m_places.ringBase), "rings", RingRoom(health.queue) + kSmallRoom));
    health.rooms.push_back(LookAtRoom(FolderOf(m_places.semaphore), "semaphore", kSemaphoreRoom));
    health.rooms.push_back(
        LookAtRoom(FolderOf(settings.logFile), "log", std::max(settings.logBytes, kSmallRoom)));
    if (m_previous) {
        CompareQueues(m_previous->queue, health.queue);
    }
    m_previous = health;
    return health;
}

}  // namespace tarnctl
