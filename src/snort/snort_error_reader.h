#pragma once

// Reads Snort's standard error, line by line, from the error FIFO, makes a sentence of each line,
// and sends it to the CRM. One message at most is owed at any time: while it cannot be sent, no
// further line is read, so that Snort's output waits in the FIFO and nothing is lost.
//
// A process-wide singleton, driven by SnortErrorThread, which releases it when it ends.
// docs/formats/snort_errors.md describes the lines and what becomes of them,
// docs/formats/crm_message.md the messages.
//
// Threads: any thread may call Instance and ReleaseInstance. A reader belongs to the error thread,
// except for CreateFifo: the engine calls it while that thread may be running, and it touches
// nothing that changes. The error thread releases the instance only after the engine has stopped
// it, so no pointer that the engine uses becomes invalid. The thread can be cancelled in the two
// long waits only, for the FIFO and after a failed send; the destructor of the reader then closes
// what is open.

#include <array>
#include <cstdio>
#include <memory>
#include <string>

#include "crm/msg_comm.h"
#include "paths.h"
#include "snort/snort_reader_base.h"

class SnortErrorReader : public SnortReaderBase {
  public:
    // The reader of the error FIFO, made on first use.
    [[nodiscard]] static SnortErrorReader* Instance();

    // Destroys the instance, if there is one, and a message that it owes with it. The next
    // Instance() makes a new one.
    static void ReleaseInstance();

    // Puts a reader of other paths in the instance's place, for a run beside an installed daemon.
    static void ReplaceInstance(std::unique_ptr<SnortErrorReader> reader);

    explicit SnortErrorReader(const char* path = tarn::paths::kErrorFifo,
                              const char* messageSocket = tarn::paths::kCrmMessageSocket,
                              const char* rulesPath = tarn::paths::kSnortRules);
    ~SnortErrorReader() override;

    // One pass: sends a message that is still owed, opens the FIFO if it is closed, waits for at
    // most `timeoutSeconds`, reads one line, and sends what it says. True if a line was read.
    bool ReadErrors(long timeoutSeconds);

    // Makes the message of a line; an empty line leaves the message as it is. Lets the
    // std::out_of_range of the parser and the rule lookup pass; the message is then the line.
    void Process(const std::string& line);

    // Sends the message. True if it went out, after which none is owed. A send that fails closes
    // the channel and pauses for `sleepSeconds`; a channel that cannot be opened does not pause.
    bool SendMessage(unsigned sleepSeconds);

    [[nodiscard]] const std::string& Message() const { return m_message; }
    [[nodiscard]] bool IsError() const { return m_isError; }

  private:
    struct CloseStream {
        void operator()(FILE* stream) const { (void)fclose(stream); }  // there is nothing to flush
    };

    [[nodiscard]] bool OpenFifo();
    [[nodiscard]] bool ReadLine(std::string* line);
    [[nodiscard]] int StreamFailure(int error) const;
    [[nodiscard]] std::string DescribeError(const std::string& line) const;
    [[nodiscard]] std::string DescribeRuleError(long lineNumber, const char* reason) const;
    static ssize_t ReadDescriptor(void* self, char* buffer, size_t size);

    // What the stream reads at a time, in bytes: as much as a stream that fdopen makes of a FIFO.
    static constexpr size_t kStreamBytes = 4096;

    const std::unique_ptr<MsgComm> m_pMsgComm;
    std::array<char, kStreamBytes> m_streamBuffer{};  // lent to m_pFile
    int m_streamError = 0;                            // errno of the stream's last read that failed
    // Buffers what m_fd yields; null after the FIFO was closed at a failed read. It does not own
    // the descriptor.
    std::unique_ptr<FILE, CloseStream> m_pFile;
    std::string m_message;   // waits to be sent; empty when none does
    bool m_isError = false;  // which of the two kinds of message m_message is
    const std::string m_rulesPath;
};
