#include "tarnctl/check/places.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "paths.h"
#include "ring/event_queue.h"
#include "tarnctl/check/finding_kinds.h"

namespace tarnctl {
namespace {

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

bool IsAllowed(const std::string& path, int mode) {
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

// "owner 0, mode 0600"
std::string OwnerAndMode(const struct stat& status) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", status.st_mode & 07777U);
    return "owner " + std::to_string(status.st_uid) + ", mode " + mode;
}

class PlaceCheck {
  public:
    PlaceCheck(const Places& places, Findings& findings) : m_places(places), m_findings(findings) {}

    void Run() {
        for (const std::string& path : m_places.fifos) {
            CheckFifo(path);
        }
        CheckRings();
        CheckSemaphore();
        for (const std::string& path : m_places.sockets) {
            CheckSocket(path);
        }
        (void)CheckFolder(FolderOf(m_places.logFile), "the log is lost without a message");
    }

  private:
    void Add(const FindingKind& kind, const std::string& path, std::string reason,
             std::string suggestion) {
        FindingPlace place;
        place.file = path;
        m_findings.push_back(
            {&kind, std::move(place), std::move(reason), std::move(suggestion), ""});
    }

    bool CheckFolder(const std::string& path, const std::string& outcome) {
        struct stat status = {};
        if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            Add(kinds::kFolderMissing, path, "the folder does not exist: " + outcome,
                "mkdir -p " + path);
            return false;
        }
        if (!IsAllowed(path, W_OK | X_OK)) {
            Add(kinds::kFolderNotWritable, path,
                "this user cannot make files in the folder (" + OwnerAndMode(status) +
                    "): " + outcome,
                "give the folder to the user of the daemon");
            return false;
        }
        return true;
    }

    // Whether the kernel refuses to open `path` with O_CREAT, to root as well: in a sticky folder
    // where others may write, a file has to belong to who opens it or to the folder's owner.
    [[nodiscard]] bool IsProtected(const std::string& path, const struct stat& status,
                                   const char* setting) const {
        int level = 0;
        std::ifstream file(m_places.settingsFolder + "/" + setting);
        file >> level;
        struct stat folder = {};
        if (level == 0 || stat(FolderOf(path).c_str(), &folder) != 0 ||
            (folder.st_mode & S_ISVTX) == 0 || status.st_uid == geteuid() ||
            status.st_uid == folder.st_uid) {
            return false;
        }
        return (folder.st_mode & S_IWOTH) != 0 || (level >= 2 && (folder.st_mode & S_IWGRP) != 0);
    }

    void CheckFifo(const std::string& path) {
        struct stat status = {};
        if (stat(path.c_str(), &status) != 0) {
            (void)CheckFolder(FolderOf(path), "the daemon cannot make its FIFO and ends");
            return;
        }
        if (!S_ISFIFO(status.st_mode)) {
            Add(kinds::kFifoIsNone, path,
                "something else has the place of the FIFO: the daemon ends",
                "stop Snort, remove it, and start tarn first");
            return;
        }
        if (!IsAllowed(path, R_OK)) {
            Add(kinds::kFifoMode, path,
                "this user cannot read the FIFO (" + OwnerAndMode(status) + ")",
                "remove the FIFO; the daemon makes a new one");
        }
        if (IsProtected(path, status, "protected_fifos")) {
            Add(kinds::kFifoProtected, path,
                "fs.protected_fifos keeps everybody but its owner from opening it with O_CREAT (" +
                    OwnerAndMode(status) + ")",
                "remove the FIFO; the daemon makes a new one");
        }
    }

    void CheckRings() {
        const std::string folder = FolderOf(m_places.ringBase);
        if (!CheckFolder(folder, "the daemon cannot make the rings of the CRM queue and ends")) {
            return;
        }
        constexpr std::pair<const char*, uint64_t> kRings[] = {{"-0", kEventQueueFirstRingSize},
                                                               {"-1", kEventQueueSecondRingSize}};
        uint64_t needed = 0;
        for (const auto& [suffix, size] : kRings) {
            needed += size - std::min(size, CheckRing(m_places.ringBase + suffix));
        }
        struct statvfs room = {};
        if (statvfs(folder.c_str(), &room) != 0) {
            return;
        }
        const uint64_t free =
            static_cast<uint64_t>(geteuid() == 0 ? room.f_bfree : room.f_bavail) * room.f_frsize;
        if (free < needed) {
            Add(kinds::kRingRoom, folder,
                "the rings need " + std::to_string(needed) + " bytes more and " +
                    std::to_string(free) +
                    " are free: a write into a ring without room ends the daemon by SIGBUS",
                "make room, or mount a larger file system here");
        }
    }

    // The bytes of the ring that have their room on the disk already.
    uint64_t CheckRing(const std::string& path) {
        struct stat status = {};
        if (stat(path.c_str(), &status) != 0) {
            return 0;
        }
        if (!S_ISREG(status.st_mode)) {
            Add(kinds::kRingIsNone, path,
                "something else has the place of the ring: the daemon ends", "remove it");
            return 0;
        }
        if (!IsAllowed(path, R_OK | W_OK)) {
            Add(kinds::kRingMode, path,
                "this user cannot read and write the ring (" + OwnerAndMode(status) +
                    "): the daemon ends",
                "run the daemon and the reader as one user, or remove the ring");
        } else if (IsProtected(path, status, "protected_regular")) {
            Add(kinds::kRingProtected, path,
                "fs.protected_regular keeps everybody but its owner from opening it with O_CREAT, "
                "root included (" +
                    OwnerAndMode(status) + "): the daemon ends",
                "run the daemon and the reader as one user, or remove the ring");
        }
        constexpr uint64_t kBlock = 512;  // what st_blocks counts
        return static_cast<uint64_t>(status.st_blocks) * kBlock;
    }

    void CheckSemaphore() {
        if (!CheckFolder(FolderOf(m_places.semaphore),
                         "the daemon cannot make the semaphore of the CRM queue and ends")) {
            return;
        }
        const std::string& path = m_places.semaphore;
        struct stat status = {};
        if (lstat(path.c_str(), &status) != 0) {
            return;
        }
        if (!S_ISREG(status.st_mode) || static_cast<size_t>(status.st_size) < sizeof(sem_t)) {
            Add(kinds::kSemaphoreIsNone, path,
                "something else has the place of the semaphore: the daemon ends", "remove it");
        } else if (!IsAllowed(path, R_OK | W_OK)) {
            Add(kinds::kSemaphoreMode, path,
                "this user cannot open the semaphore (" + OwnerAndMode(status) +
                    "): the daemon ends",
                "run the daemon as root, or remove the semaphore and let the reader make it");
        }
    }

    void CheckSocket(const std::string& path) {
        struct stat status = {};
        if (stat(path.c_str(), &status) != 0) {
            return;  // its owner is not running, which may be so at any time
        }
        if (!S_ISSOCK(status.st_mode)) {
            Add(kinds::kSocketIsNone, path,
                "something else has the place of the socket: nothing can be sent",
                "remove it and start its owner again");
        } else if (!IsAllowed(path, W_OK)) {
            Add(kinds::kSocketMode, path,
                "this user cannot write to the socket (" + OwnerAndMode(status) +
                    "): nothing can be sent",
                "let the owner of the socket give it to the user of the daemon");
        }
    }

    const Places& m_places;
    Findings& m_findings;
};

}  // namespace

Places DaemonPlaces(int channel, const std::string& logFile) {
    namespace paths = tarn::paths;
    Places places;
    places.fifos = {paths::kAlertFifo, paths::kErrorFifo};
    places.sockets = {paths::kCrmMessageSocket, paths::kSecurityManagerSocket,
                      paths::kPacketLogSocket};
    places.ringBase = std::string(paths::kEventQueueBase) + "CRM" + std::to_string(channel);
    places.semaphore =
        "/dev/shm/sem." + std::string(paths::kEventQueueSemaphore).substr(1) + "CRM.sem";
    places.logFile = logFile;
    return places;
}

void CheckPlaces(const Places& places, Findings& findings) {
    PlaceCheck(places, findings).Run();
}

bool CheckFile(const std::string& path, bool isStateFile, Findings& findings) {
    const auto add = [&](const FindingKind& kind, std::string reason, std::string suggestion) {
        FindingPlace place;
        place.file = path;
        findings.push_back({&kind, std::move(place), std::move(reason), std::move(suggestion), ""});
    };
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        const int error = errno;
        if (!isStateFile || error != ENOENT) {
            add(error == ENOENT ? kinds::kFileMissing : kinds::kFileUnreadable,
                std::string(std::strerror(error)) +
                    (isStateFile ? ": the daemon passes the file over" : ": the daemon ends"),
                "");
        }
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        add(kinds::kFileNotRegular,
            isStateFile ? "this is no regular file" : "this is no regular file: the daemon ends",
            "");
        return false;
    }
    if (!IsAllowed(path, R_OK)) {
        add(kinds::kFileUnreadable,
            "this user cannot read the file (" + OwnerAndMode(status) +
                "): the daemon passes it over without a message",
            "give the file to the user of the daemon");
        return false;
    }
    if (!IsAllowed(path, W_OK)) {
        add(kinds::kFileNotWritable,
            "the daemon opens the file for writing too, and this user cannot (" +
                OwnerAndMode(status) + "): the file is passed over without a message",
            "make the file writable for the user of the daemon");
    }
    return true;
}

}  // namespace tarnctl
