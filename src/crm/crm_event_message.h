#pragma once

// CrmEventMessage: the gather list of one report to the CRM, in the order of the wire.
//
// It is made on the stack for one send. Its list points into the event source and into itself, so
// nothing is copied before the ring's own copy, and nothing is allocated as long as the event has
// at most kUsualPairs pairs and its user data at most kUsualUserData bytes.
//
// Owner: CrmEventSource::Dispatch. The event source must outlive it and must not change while it
// lives.
//
// Threads: those of the event source.

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

#include "crm/event_report_format.h"

class CrmEventSource;

class CrmEventMessage {
  public:
    explicit CrmEventMessage(const CrmEventSource& source);
    CrmEventMessage(const CrmEventMessage&) = delete;
    CrmEventMessage& operator=(const CrmEventMessage&) = delete;

    [[nodiscard]] const iovec* Pieces() const { return m_pieces.data(); }
    [[nodiscard]] int PieceCount() const { return static_cast<int>(m_pieces.size()); }

    // A comma, the event's name, a colon and the severity's word. The wire goes without the comma.
    [[nodiscard]] const char* UserData() const { return m_userData.c_str(); }
    // Both are empty: this sensor has nothing to say there, and the CRM expects the strings.
    [[nodiscard]] static const char* NameValues() { return ""; }
    [[nodiscard]] static const char* SensorName() { return ""; }

    // True for a severity that has a word of its own; the others are sent as low.
    [[nodiscard]] static bool IsSeverity(uint32_t severity);
    [[nodiscard]] static std::string_view SeverityWord(uint32_t severity);

  private:
    static constexpr size_t kFixedPieces = 11;  // without the pairs, with the packet
    static constexpr size_t kUsualPairs = 8;
    static constexpr size_t kUsualUserData = 512;  // bytes, the NUL counted

    // A text that is followed by a NUL; zero bytes inside it are part of it.
    struct TerminatedText {
        template <class String>
        TerminatedText(const String& text) : data(text.c_str()), length(text.size()) {}
        TerminatedText(const char* text)
            : data(text), length(std::char_traits<char>::length(text)) {}
        TerminatedText(const char* text, size_t size) : data(text), length(size) {}

        const char* data;
        size_t length;  // bytes, the NUL not counted
    };

    void AddReport(const CrmEventSource& source);
    void AddPacket(const CrmEventSource& source);
    void AddNameValues(const CrmEventSource& source);
    void Add(const void* data, size_t length);
    // Returns the bytes that the message claims for them; no more than kMostZeros are gathered.
    size_t AddZeros(uint32_t count);
    // These return the bytes added, the NUL counted. A list loses one comma in front.
    size_t AddString(TerminatedText text);
    size_t AddList(TerminatedText list);

    ReportChunkHeader m_header;
    ChunkHeader m_pairsHeader;
    ChunkHeader m_end;

    // Room for the usual event; only an unusual one takes more from the heap.
    static constexpr size_t kRoom =
        (kFixedPieces + 2 * kUsualPairs) * sizeof(iovec) + kUsualUserData;
    alignas(iovec) std::array<std::byte, kRoom> m_room;
    std::pmr::monotonic_buffer_resource m_arena;
    std::pmr::vector<iovec> m_pieces;
    std::pmr::string m_userData;
};
