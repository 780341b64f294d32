#pragma once

// Client end of a local stream socket on which requests and answers travel as an 8-byte header and
// a body. It knows the framing, the time limits and how an answer is stored; its user knows what
// the words mean. DbtComm embeds one. The frames are described in
// quarantine/security_manager_format.h and docs/formats/security_manager.md. It uses neither log
// nor configuration: it reports faults to a callback of the owner's.
//
// Threads: no lock; one client serves one thread at a time. That thread may be cancelled in the
// waits (connecting without a limit, select, recv, readv) even when it runs with cancellation off
// otherwise, and nothing is lost then but the exchange: the owner's destructor closes the socket.

#include <cstddef>
#include <cstdint>

namespace tarn::secmgr {
struct ResponseHeader;
}

class RequestClient {
  public:
    // The context is the owner's own word; the level is that of a log message, always 1 here.
    using LogCallback [[gnu::format(printf, 3, 4)]] = void (*)(uint64_t context, uint32_t level,
                                                               const char* format, ...);

    // Releases an answer that a smart pointer holds.
    struct ResponseDeleter {
        void operator()(uint8_t* buffer) const { FreeResponse(buffer); }
    };

    RequestClient() = default;
    ~RequestClient();
    RequestClient(const RequestClient&) = delete;
    RequestClient& operator=(const RequestClient&) = delete;

    // Where reports go; null, as at construction, means nowhere.
    void SetLog(LogCallback log, uint64_t context);

    // Connects to the socket at a path of at most 107 bytes. With a limit above 0, in seconds, it
    // waits no longer than that; otherwise it blocks. The connected socket blocks in any case.
    // False after a failure, with the client closed. Must not be called on a connected client.
    [[nodiscard]] bool Connect(const char* path, int32_t timeout);

    // Closes the socket, if there is one.
    void Disconnect();

    // Sends the header and the body, or the header alone for a null body or no length. It never
    // blocks. False when not connected or when a send failed; a body that the socket took only in
    // part counts as sent.
    [[nodiscard]] bool SendRequest(uint32_t type, const void* body, uint64_t length);

    // Awaits an answer: its header for at most timeout seconds, its body for as long as the peer
    // keeps the socket open. True gives *buffer (header and body as they came, to be given back
    // with FreeResponse) and *size, which is short of the promised length when the body was cut.
    // False leaves *buffer null. An allocation failure is thrown.
    [[nodiscard]] bool ReceiveResponse(uint8_t** buffer, uint64_t* size, int32_t timeout);

    // The same for an answer whose second word counts records of recordSize bytes, at least 1.
    // True gives one buffer: the header, one iovec for each record, then the records; *size
    // counts header and records, without the vector. A body that is cut, and one of 4 GiB or more,
    // is a failure, which leaves *buffer null and in *size the bytes of the header.
    [[nodiscard]] bool ReceiveRecords(uint8_t** buffer, uint64_t* size, uint64_t recordSize,
                                      int32_t timeout);

    // Connect, SendRequest, then ReceiveResponse if both out pointers are given. Once it has
    // connected it disconnects on every way out, an exception and a cancel included. True when
    // every step that ran succeeded. The limit goes for connecting and for the answer.
    [[nodiscard]] bool Transact(const char* path, uint32_t type, const void* body, uint64_t length,
                                uint8_t** buffer, uint64_t* size, int32_t timeout);

    // The same with ReceiveRecords.
    [[nodiscard]] bool TransactRecords(const char* path, uint32_t type, const void* body,
                                       uint64_t length, uint8_t** buffer, uint64_t* size,
                                       uint64_t recordSize, int32_t timeout);

    // Gives back a buffer of ReceiveResponse or ReceiveRecords. Null is allowed.
    static void FreeResponse(uint8_t* buffer);

  private:
    enum class Readiness { kToRead, kToWrite };

    // 1 when the socket is ready, 0 when the limit in seconds ran out, -1 with errno on a failure.
    int WaitUntil(Readiness readiness, int32_t timeout) const;
    template <typename ReceiveAnswer>
    bool Exchange(const char* path, uint32_t type, const void* body, uint64_t length,
                  int32_t timeout, ReceiveAnswer receiveAnswer);
    bool AwaitConnection(int32_t timeout) const;
    bool SetBlocking(bool blocking) const;
    // The number of bytes that came before the peer closed or a failure, which is reported.
    size_t Receive(uint8_t* target, size_t length) const;
    bool ReceiveHeader(tarn::secmgr::ResponseHeader& header, uint64_t* size, int32_t timeout) const;
    // False unless all total bytes came; what went wrong is reported.
    bool ReceiveAll(uint8_t* target, uint32_t total) const;
    // The callback to report through: the owner's, or one that drops the report.
    LogCallback Report() const;

    int32_t m_iSocket = -1;          // owned; -1 when closed
    LogCallback m_pfnLog = nullptr;  // borrowed
    uint64_t m_uLogContext = 0;
};
