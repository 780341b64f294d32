#pragma once

// Moves packets to the packet logging daemon through a ring of its own, a fixed record in front of
// each (docs/formats/packet_log_record.md). PacketLogCtrlIF asks that daemon by datagram what to
// do with them. Each instance number has its own ring file.
//
// Whoever makes a writer owns it: Initialize, OpenPipe, then WritePacket for each packet. A packet
// costs no allocation and no system call; one that finds the ring full is lost.
//
// Threads: one thread per object, since the record is refilled for each packet.

#include <cstdint>
#include <memory>

#include "crm/packet_info_format.h"
#include "packet_log/packet_log_format.h"

class ShmEventPipe;

class PacketLogWriter {
  public:
    PacketLogWriter();
    // Closes the pipe.
    ~PacketLogWriter();
    PacketLogWriter(const PacketLogWriter&) = delete;
    PacketLogWriter& operator=(const PacketLogWriter&) = delete;

    // Sets the instance number, which names the ring file. Always true.
    bool Initialize(uint32_t instance);

    // Maps the ring. False without an instance number and when the ring cannot be opened. The first
    // failure is final: the failed pipe stays, and a further call takes it for an open one.
    [[nodiscard]] bool OpenPipe();

    // Sends the packet, or the bare record when there are no captured bytes. PIPE_OK also when
    // there is no pipe or no packet, else the result of the ring's write.
    [[nodiscard]] int32_t WritePacket(const PacketInfo* packet, uint64_t valueB, uint32_t valueA,
                                      uint32_t valueC);

    void ClosePipe();

    static constexpr uint32_t kNoInstance = 0xffff;
    // Packet time in seconds that must pass before a full ring is reported again.
    static constexpr int32_t kFullReportInterval = 300;

    uint32_t m_uInstance = kNoInstance;
    int32_t m_uLastFullReport = 0;          // packet time in seconds of the last such report
    std::unique_ptr<ShmEventPipe> m_pPipe;  // owned, null while closed
    PacketLogRecord m_record;               // refilled for each packet
};
