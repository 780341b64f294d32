#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tarnctl/health/parts.h"

namespace tarnctl {
namespace {

struct BoundSocket {
    uint64_t inode = 0;
    bool receives = false;
};

// A name may be bound through another way to the same folder, as /run for /var/run.
bool IsSamePlace(const std::string& left, const std::string& right) {
    if (left == right) {
        return true;
    }
    const std::filesystem::path first(left);
    const std::filesystem::path second(right);
    std::error_code error;
    return first.filename() == second.filename() &&
           std::filesystem::equivalent(first.parent_path(), second.parent_path(), error);
}

// The sockets that are bound to a path. False when the list cannot be had.
// "Num: RefCount Protocol Flags Type St Inode Path"
bool BoundTo(const std::string& list, const std::string& path, std::vector<BoundSocket>& sockets) {
    constexpr unsigned kAcceptsConnections = 0x10000;  // __SO_ACCEPTCON
    constexpr unsigned kDatagrams = 2;                 // SOCK_DGRAM as the kernel shows it
    std::ifstream file(list);
    std::string line;
    if (!std::getline(file, line)) {
        return false;
    }
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string skipped;
        unsigned flags = 0;
        unsigned type = 0;
        BoundSocket found;
        std::string bound;
        words >> skipped >> skipped >> skipped >> std::hex >> flags >> type >> skipped >>
            std::dec >> found.inode >> std::ws;
        if (!std::getline(words, bound) || !IsSamePlace(bound, path)) {
            continue;
        }
        found.receives = type == kDatagrams || (flags & kAcceptsConnections) != 0;
        if (found.receives) {
            sockets.push_back(found);
        }
    }
    return true;
}

std::string OwnerText(const struct stat& status) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", status.st_mode & 07777U);
    return "user " + std::to_string(status.st_uid) + ", mode " + mode;
}

}  // namespace

PeerHealth LookAtPeer(const HealthPlaces& places, const PeerPlace& place,
                      const ProcessTable& processes) {
    PeerHealth health;
    health.place = place;
    struct stat status = {};
    if (lstat(place.path.c_str(), &status) == 0) {
        health.isThere = Known(S_ISSOCK(status.st_mode), place.path);
        health.owner = Known(OwnerText(status), place.path);
    } else {
        const int error = errno;
        const std::string reason = LookFailure(place.path, error);
        health.isThere = error == ENOENT || error == ENOTDIR ? Known(false, place.path)
                                                             : Unknown<bool>(place.path, reason);
        health.owner = Unknown<std::string>(place.path, reason);
    }
    const std::string list = places.proc + "/net/unix";
    std::vector<BoundSocket> sockets;
    if (!BoundTo(list, place.path, sockets)) {
        const std::string reason = LookFailure(list, errno);
        health.isListening = Unknown<bool>(list, reason);
        health.listeners = Unknown<Holders>(list, reason);
        return health;
    }
    Holders listeners;
    for (const BoundSocket& socket : sockets) {
        for (Holder& holder : processes.HoldersOfSocket(socket.inode)) {
            listeners.push_back(std::move(holder));
        }
    }
    // The list is that of the network, which may have other sandboxes with the same names in it;
    // a socket that no process here has open is theirs.
    const bool isListening = health.isThere.Is(true) &&
                             (!listeners.empty() || (!processes.IsComplete() && !sockets.empty()));
    health.isListening = Known(isListening, list);
    health.listeners = isListening && listeners.empty()
                           ? Unknown<Holders>(processes.DescriptorsSource(), HoldersHidden())
                           : Known(std::move(listeners), processes.DescriptorsSource());
    return health;
}

}  // namespace tarnctl
