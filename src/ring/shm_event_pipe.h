#pragma once

// A one-way ring of length-prefixed messages in a mapped file, from one writing process to one
// reading process, with no lock and no system call on the data path. The format of the file is
// docs/formats/shm_ring.md. The file and the messages in it outlive both processes.
//
// A pipe belongs to an EventQueue, as half of a pair, or to a PacketLogWriter. It wakes nobody: the
// owner tells the other side that a message waits.
//
// The other process is not trusted. Whatever it writes into the shared words, nothing is read or
// written outside the mapping.
//
// Threads: one thread at a time per object, by the owner's arrangement. The two sides may run at
// once: the writer's release of the write index is acquired by the reader, which hands the message
// over, and the reader's release of the read index is acquired by the writer, which hands the
// space back.

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "ring/shm_ring_format.h"

enum ShmPipeRole : uint32_t {
    READER = 0,
    WRITER = 1,
};

enum ShmPipeResult : int32_t {
    PIPE_OK = 0,
    PIPE_FULL = 1,     // write: no room now, nothing was changed
    PIPE_NO_DATA = 2,  // read: nothing was delivered
    PIPE_ERROR = 3,    // wrong role, not mapped, message larger than the ring, or bad length word
};

enum ShmReadStatus : uint32_t {
    READ_OK = 0,
    READ_WRONG_ROLE = 1,
    READ_BAD_SIZE = 2,
    READ_BUFFER_TOO_SMALL = 3,
    READ_EMPTY = 4,
};

// Takes class name, method name, level, printf format and arguments. The result is not looked at.
using ShmReportCallback
    [[gnu::format(printf, 4, 5)]] = int (*)(const char* szClass, const char* szMethod,
                                            int64_t level, const char* format, ...);

// What a ring holds at one moment. The other side may be moving its index meanwhile.
struct ShmRingState {
    uint32_t size = 0;        // bytes of the ring; 0 when it is not mapped
    uint32_t readIndex = 0;   // ring offset, below size
    uint32_t writeIndex = 0;  // ring offset, below size
    uint32_t used = 0;        // bytes of unread messages, length words and padding included
    bool isStuck = false;     // the oldest unread message has no bytes, so a reader never passes it
};

class ShmEventPipe {
  public:
    // First argument of every report.
    static inline const char* const m_szClass = "ShmEventPipe";

    // fileSize in bytes, rounded up to a multiple of 4. Touches no file.
    ShmEventPipe(ShmPipeRole role, std::string path, uint32_t fileSize);
    // Closes. The file stays.
    ~ShmEventPipe();
    ShmEventPipe(const ShmEventPipe&) = delete;
    ShmEventPipe& operator=(const ShmEventPipe&) = delete;

    // Makes and sizes the file, which makes Destroy remove it. True on success; a file that could
    // not be sized is removed again.
    [[nodiscard]] bool Create();
    // Maps the file, which is made if it is missing, and adopts this side's index from it, so that
    // the messages in it stay. True when mapped. An object is opened once: each success takes the
    // header's 8 bytes off m_uSize. The argument goes into m_bOpenOption. After a failure no
    // descriptor is open but one that Create left.
    [[nodiscard]] bool Open(bool option);
    // True when the object is not mapped afterwards.
    bool Close();
    // Empties the ring. False when it is not mapped or cannot be synchronised. The other side must
    // not be running.
    [[nodiscard]] bool Reset();
    // Removes the file if Create made it. True unless that failed.
    bool Destroy();

    // How full the ring is, in either role. Changes nothing.
    [[nodiscard]] ShmRingState State() const;

    // Delivers the oldest message. *size is the buffer's capacity going in and the message's
    // length coming out. A message larger than the buffer is lost; a bad length word costs all
    // that is pending. PIPE_OK, PIPE_NO_DATA or PIPE_ERROR, with the reason in *status.
    [[nodiscard]] ShmPipeResult read(void* buffer, uint32_t* size, uint32_t* status = nullptr);

    // Each puts one message into the ring: PIPE_OK, PIPE_FULL or PIPE_ERROR. A message of no bytes
    // is accepted and blocks the reader for good, so callers never send one. The gather form takes
    // the pieces in order and sums their lengths in 32 bits; count of 0 or less is no bytes.
    [[nodiscard]] ShmPipeResult write(const void* buffer, const uint32_t* length);
    [[nodiscard]] ShmPipeResult write(const iovec* pieces, int32_t count);

    ShmPipeRole m_eRole;
    int m_iFd = -1;
    void* m_pMap = nullptr;  // start of the mapping
    std::string m_strPath;
    uint32_t m_uSize;            // bytes: of the file until Open succeeds, of the ring from then on
    bool m_bOpenOption = false;  // inverse of Open's argument; Deliberate: stored, not read
    bool m_bMapped = false;      // the file is mapped
    bool m_bCreated = false;     // Create made the file
    std::byte* m_pData = nullptr;     // ring offset 0
    std::byte* m_pDataEnd = nullptr;  // end of the ring; Deliberate: stored, not read
    ShmRingHeader* m_pHeader = nullptr;
    int64_t m_iErrorLevel = 1;             // level of the report of a bad length word
    int64_t m_iInfoLevel = 0;              // level of every other report
    ShmReportCallback m_pfnLog = nullptr;  // null: nothing is reported

  private:
    // Where a message goes: its own ring offset and that of the one after it.
    struct Slot {
        uint32_t at;
        uint32_t next;
    };

    [[gnu::format(printf, 3, 0)]] void ReportErrno(const char* method, const char* format) const;
    [[nodiscard]] bool OpenFile();
    [[nodiscard]] void* MapFile() const;
    void CloseDescriptor();

    [[nodiscard]] uint32_t AdoptIndex(uint32_t index) const;
    [[nodiscard]] uint32_t NextIndex(uint32_t at, uint32_t length) const;
    [[nodiscard]] uint32_t LoadWord(uint32_t at) const;
    void StoreWord(uint32_t at, uint32_t value);

    [[nodiscard]] ShmPipeResult Claim(uint32_t length, Slot& slot);
    uint32_t CopyIn(uint32_t at, const void* from, uint32_t length);
    void CopyOut(uint32_t at, void* to, uint32_t length) const;
    void Publish(const Slot& slot);
};

// Two rings under one base name, in one role: element 0 with the suffix "-0", element 1 with "-1".
// Operations go to both whatever the first one gave: 0 when both succeeded, 1 when either failed.
class ShmEventPipePair {
  public:
    // Sizes in bytes, the second ring's first. removeStale removes files of an earlier run.
    ShmEventPipePair(ShmPipeRole role, const char* baseName, uint32_t secondSize,
                     uint32_t firstSize, bool removeStale);
    // Closes the second ring, then the first.
    ~ShmEventPipePair();
    ShmEventPipePair(const ShmEventPipePair&) = delete;
    ShmEventPipePair& operator=(const ShmEventPipePair&) = delete;

    [[nodiscard]] int Open();
    int Close();
    int Destroy();

    ShmPipeRole m_eRole;
    std::array<ShmEventPipe, 2> m_aPipes;
};
