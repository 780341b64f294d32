#pragma once

// The health of a daemon with which all is well, for tests of what is made of it.

#include <string>

#include "tarnctl/health/health.h"

namespace tarnctl {

inline RingHealth HealthyRing(const std::string& path) {
    const std::string source = "test";
    RingHealth ring;
    ring.path = path;
    ring.isThere = Known(true, source);
    ring.sizeBytes = Known(uint64_t{1000}, source);
    ring.readIndex = Known(uint32_t{8}, source);
    ring.writeIndex = Known(uint32_t{8}, source);
    ring.usedBytes = Known(uint64_t{0}, source);
    ring.messages = Known(uint64_t{0}, source);
    ring.motion = Known(RingMotion::kEmpty, source);
    return ring;
}

inline FifoHealth HealthyFifo(const std::string& path) {
    const std::string source = "test";
    FifoHealth fifo;
    fifo.path = path;
    fifo.isThere = Known(true, source);
    fifo.readers = Known(Holders{{12, 3, "tarn"}}, source);
    fifo.writers = Known(Holders{{20, 5, "snort"}}, source);
    fifo.unreadBytes = Known(uint64_t{0}, source);
    fifo.capacityBytes = Known(uint64_t{65536}, source);
    return fifo;
}

inline PeerHealth HealthyPeer(const std::string& name, const std::string& carries) {
    const std::string source = "test";
    PeerHealth peer;
    peer.place = {name, "/" + name, carries};
    peer.isThere = Known(true, source);
    peer.owner = Known(std::string("user 0, mode 0600"), source);
    peer.isListening = Known(true, source);
    peer.listeners = Known(Holders{{30, 3, "peer"}}, source);
    return peer;
}

inline Health HealthyHealth() {
    const std::string source = "test";
    constexpr double kStart = 1'795'250'000;
    Health health;
    health.time = kStart + 3600;
    health.daemon.pidFileNumber = Known(12, source);
    health.daemon.isRunning = Known(true, source);
    health.daemon.pid = Known(12, source);
    health.daemon.others = Known(0, source);
    health.daemon.startTime = Known(kStart, source);
    health.daemon.ageSeconds = Known(3600.0, source);
    health.daemon.memoryBytes = Known(uint64_t{5} << 20, source);
    health.daemon.threads =
        Known(std::vector<ThreadHealth>{{12, 'S', 1.5, kStart}, {13, 'S', 2.5, kStart}}, source);
    health.alerts = HealthyFifo("/alerts");
    health.errors = HealthyFifo("/errors");
    health.queue.channel = Known(2, source);
    health.queue.rings = {HealthyRing("/ring-0"), HealthyRing("/ring-1")};
    health.queue.readers = Known(Holders{{40, 4, "crm"}}, source);
    health.queue.semaphore = Known(1, source);
    health.peers = {HealthyPeer("messages", "messages"), HealthyPeer("secmgr", "rules")};
    health.loadTime = Known(kStart, source);
    for (const auto& [name, path] :
         {std::pair("config", "/etc/tarn.conf"), std::pair("events", "/etc/tarn_event.conf")}) {
        FileHealth file;
        file.name = name;
        file.path = path;
        file.modifiedTime = Known(kStart - 10, source);
        file.isNewer = Known(false, source);
        health.files.push_back(file);
    }
    health.log.path = "/tarn.log";
    health.log.isWritten = Known(true, source);
    health.log.firstTime = Known(kStart, source);
    health.log.lastTime = Known(kStart + 5, source);
    health.log.reloadTime = Known(kStart, source);
    health.log.losses = Known(std::vector<LossHealth>(), source);
    RoomHealth room;
    room.path = "/var/tmp";
    room.purpose = "rings";
    room.freeBytes = Known(uint64_t{1} << 30, source);
    room.neededBytes = 100;
    health.rooms = {room};
    return health;
}

}  // namespace tarnctl
