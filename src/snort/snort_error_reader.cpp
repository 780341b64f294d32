#include "snort/snort_error_reader.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "logging/log.h"
#include "snort/rule_lookup.h"
#include "snort/snort_error_parser.h"
#include "threads/cancellation.h"
#include "threads/mutex_lock.h"

namespace {

using vald::Log;

constexpr unsigned kRetrySeconds = 1;
constexpr int kReasonSize = 256;
constexpr int kSidSize = 64;
constexpr int kRuleMessageSize = 256;

// The engine and the error thread both ask for the instance, whichever comes first. Nothing that
// can wait is done with the mutex held.
pthread_mutex_t s_instanceMutex = PTHREAD_MUTEX_INITIALIZER;
SnortErrorReader* s_instance = nullptr;  // owned; guarded by s_instanceMutex

// A line as getdelim allocates it.
struct LineBuffer {
    LineBuffer() = default;
    ~LineBuffer() { std::free(text); }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    char* text = nullptr;  // owned
    size_t capacity = 0;
};

}  // namespace

SnortErrorReader* SnortErrorReader::Instance() {
    const MutexLock lock(s_instanceMutex);
    if (s_instance == nullptr) {
        s_instance = new SnortErrorReader();
    }
    return s_instance;
}

void SnortErrorReader::ReleaseInstance() {
    ReplaceInstance(nullptr);
}

void SnortErrorReader::ReplaceInstance(std::unique_ptr<SnortErrorReader> reader) {
    std::unique_ptr<SnortErrorReader> former;  // goes when the lock has gone: it logs as it closes
    const MutexLock lock(s_instanceMutex);
    former.reset(std::exchange(s_instance, reader.release()));
}

SnortErrorReader::SnortErrorReader(const char* path, const char* messageSocket,
                                   const char* rulesPath)
    : SnortReaderBase(path),
      m_pMsgComm(std::make_unique<MsgComm>(messageSocket)),
      m_rulesPath(rulesPath) {}

// The base closes the descriptor.
SnortErrorReader::~SnortErrorReader() = default;

bool SnortErrorReader::ReadErrors(long timeoutSeconds) {
    // No line is read before the last message has gone out, so that none is lost.
    if (!m_message.empty() && !SendMessage(kRetrySeconds)) {
        return false;
    }
    if (m_fd < 0 && !OpenFifo()) {
        return false;
    }
    // Deliberate: it is the FIFO that is waited for. Lines that came with an earlier one in a
    // single read wait in the stream until the FIFO is readable again: more lines came, or a writer
    // ended.
    if (WaitReadable(timeoutSeconds) <= 0) {
        return false;
    }
    std::string line;
    if (!ReadLine(&line)) {
        return false;
    }
    Process(line);
    (void)SendMessage(kRetrySeconds);  // a failed send is repeated by the next pass
    return true;
}

bool SnortErrorReader::OpenFifo() {
    Log* const log = Log::GetInstance();
    log->Write(Log::kDebug, "Opening file: %s", m_path.c_str());
    m_fd = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (m_fd < 0) {
        const int error = errno;
        // Deliberate: the next pass tries again at once, since the engine makes the FIFO a moment
        // after it has started the thread.
        log->Write(Log::kError, "Open file error: %s, reason: %s", m_path.c_str(), strerror(error));
        return false;
    }
    // The base may close the descriptor under the stream, when a wait fails, and its number may be
    // another file's by the time the stream is closed. A stream of fdopen would then close that
    // file; this one only ever reads.
    cookie_io_functions_t operations{};
    operations.read = &SnortErrorReader::ReadDescriptor;
    m_pFile.reset(fopencookie(this, "r", operations));
    if (m_pFile == nullptr) {
        const int error = errno;
        log->Write(Log::kError, "fdopen error, reason: %s", strerror(error));
        Close();
        return false;
    }
    (void)setvbuf(m_pFile.get(), m_streamBuffer.data(), _IOFBF, m_streamBuffer.size());
    log->Write(Log::kDebug, "File is opened, waiting for Snort errors");
    return true;
}

ssize_t SnortErrorReader::ReadDescriptor(void* self, char* buffer, size_t size) {
    auto* const reader = static_cast<SnortErrorReader*>(self);
    const ssize_t count = read(reader->m_fd, buffer, size);
    if (count == -1) {
        reader->m_streamError = errno;
    }
    return count;
}

// Why the stream gave no line, as an errno. The end of a writer has none of its own and counts as
// ESPIPE, by which a stream says that it is on a FIFO.
int SnortErrorReader::StreamFailure(int error) const {
    if (feof(m_pFile.get()) != 0) {
        return ESPIPE;
    }
    return ferror(m_pFile.get()) != 0 ? m_streamError : error;
}

bool SnortErrorReader::ReadLine(std::string* line) {
    LineBuffer buffer;
    // Deliberate: a line whose end is late is delivered as far as it has come, and the read that
    // did not find the end leaves the stream in error. The next call then fails here, and the rest
    // of the line is read from the FIFO when it is open again.
    const ssize_t length = getdelim(&buffer.text, &buffer.capacity, '\n', m_pFile.get());
    if (length < 0) {
        const int error = StreamFailure(errno);
        if (error != ESPIPE) {
            Log::GetInstance()->Write(Log::kError, "getline error, reason: %s", strerror(error));
        } else if (Log::Passes(Log::kDebug)) {
            Log::GetInstance()->Write(Log::kDebug,
                                      "Get EOF in SNORT stderr, please igore the reason: %s",
                                      strerror(error));
        }
        m_pFile.reset();
        Close();
        return false;
    }
    Log::GetInstance()->Write(Log::kDebug, "### Debug Snort stderr ### %s", buffer.text);
    line->assign(buffer.text, static_cast<size_t>(length));
    return true;
}

bool SnortErrorReader::SendMessage(unsigned sleepSeconds) {
    Log* const log = Log::GetInstance();
    if (!m_pMsgComm->IsOpen() && m_pMsgComm->Open() < 0) {
        log->Write(Log::kError, "Cannot open MsgComm");
        return false;
    }
    const int result = m_isError ? m_pMsgComm->SendErrorMessage(m_message.c_str())
                                 : m_pMsgComm->SendInfoMessage(m_message.c_str());
    if (result < 0) {
        log->Write(Log::kWarning, "Send SNORT message failed, sleep and retry");
        m_pMsgComm->Close();
        const CancellationOn window;
        sleep(sleepSeconds);
        return false;
    }
    log->Write(Log::kDebug, "Send SNORT message successfully");
    m_message.clear();
    return true;
}

void SnortErrorReader::Process(const std::string& line) {
    if (line.empty()) {
        return;
    }
    Log* const log = Log::GetInstance();
    m_message = line;
    if (!line.starts_with("ERROR:")) {
        log->Write(Log::kInfo, "[SNORT INFO] %s", m_message.c_str());
        m_isError = false;
        return;
    }
    // Deliberate: the sentence below takes this one's place, so that the CRM gets the reason in
    // Snort's own words. It goes out only when a line cannot be described at all.
    if (line.find("Config option \"interface\" requires arguments.") != std::string::npos) {
        m_message = "No valid interface is selected in SNORT Configuration";
    }
    m_message = DescribeError(line);
    log->Write(Log::kInfo, "[SNORT ERROR] %s", m_message.c_str());
    m_isError = true;
}

std::string SnortErrorReader::DescribeError(const std::string& line) const {
    Log* const log = Log::GetInstance();
    int kind = kSnortErrorOther;
    long lineNumber = 0;
    std::array<char, kReasonSize> reason{};
    int reasonSize = kReasonSize;
    ParseSnortError(line.c_str(), &kind, &lineNumber, reason.data(), &reasonSize);
    switch (kind) {
        case kSnortErrorInRules:
            log->Write(Log::kDebug, "[SNORT ERROR] SnortHandler::Process: Error in rules file");
            return DescribeRuleError(lineNumber, reason.data());
        case kSnortErrorInConfiguration:
            log->Write(Log::kDebug, "[SNORT ERROR] SnortHandler::Process: Error in config file");
            return std::string("ERROR in SNORT configuration. Reason: ") + reason.data();
        default:
            log->Write(Log::kDebug, "[SNORT ERROR] SnortHandler::Process: Error occurred");
            return std::string("ERROR in SNORT. Reason: ") + reason.data();
    }
}

std::string SnortErrorReader::DescribeRuleError(long lineNumber, const char* reason) const {
    Log* const log = Log::GetInstance();
    std::array<char, kSidSize> sid{};
    std::array<char, kRuleMessageSize> message{};
    int sidSize = kSidSize;
    int messageSize = kRuleMessageSize;
    if (LookupRuleByLine(m_rulesPath.c_str(), &lineNumber, sid.data(), &sidSize, message.data(),
                         &messageSize) != kRuleFound) {
        log->Write(Log::kDebug,
                   "[SNORT ERROR] SnortHandler::Process: Cannot find rule SID by line number %d",
                   static_cast<int>(lineNumber));
        return std::string("ERROR in SNORT rule. Error: ") + reason;
    }
    log->Write(
        Log::kDebug,
        "[SNORT ERROR] SnortHandler::Process: Rule error found - SID: %s, MSG: '%s', Error: '%s'",
        sid.data(), message.data(), reason);
    return std::string("ERROR in SNORT rule. SID: ") + sid.data() + ", Msg: \"" + message.data() +
           "\",  Reason: " + reason;
}
