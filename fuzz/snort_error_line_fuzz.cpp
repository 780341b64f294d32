// Any bytes at all as a line of Snort's standard error and as the rule file that it points into.
// The input is one byte, from which the sizes of the buffers are taken, then the line, a newline,
// and the file. The buffers are as long as they claim to be, so a byte too many is seen.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "snort/rule_lookup.h"
#include "snort/snort_error_parser.h"

namespace {

class RuleFile {
  public:
    explicit RuleFile(const std::string& content) : m_fd(memfd_create("rules", MFD_CLOEXEC)) {
        if (write(m_fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
            std::abort();
        }
    }
    ~RuleFile() { close(m_fd); }
    RuleFile(const RuleFile&) = delete;
    RuleFile& operator=(const RuleFile&) = delete;

    [[nodiscard]] std::string Path() const { return "/proc/self/fd/" + std::to_string(m_fd); }

  private:
    int m_fd;
};

struct Buffer {
    explicit Buffer(int length)
        : size(length), bytes(std::make_unique<char[]>(static_cast<size_t>(length))) {}

    // Whether it holds a text with its NUL.
    [[nodiscard]] bool IsText() const {
        return size == 0 || std::find(bytes.get(), bytes.get() + size, '\0') != bytes.get() + size;
    }

    int size;
    std::unique_ptr<char[]> bytes;
};

void Demand(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// False when the line is one that ends the thread.
bool Parse(const std::string& line, Buffer& reason, long* lineNumber) {
    int kind = -1;
    try {
        Demand(ParseSnortError(line.c_str(), &kind, lineNumber, reason.bytes.get(), &reason.size) ==
               0);
    } catch (const std::out_of_range&) {
        Demand(kind == kSnortErrorInRules && reason.IsText());
        return false;
    }
    Demand(kind >= kSnortErrorOther && kind <= kSnortErrorInRules && reason.IsText());
    Demand(kind == kSnortErrorInRules || *lineNumber == 0);
    Demand(*lineNumber == static_cast<int32_t>(*lineNumber));
    return true;
}

void Lookup(const std::string& rules, long lineNumber, Buffer& sid, Buffer& message) {
    const RuleFile file(rules);
    try {
        const int result = LookupRuleByLine(file.Path().c_str(), &lineNumber, sid.bytes.get(),
                                            &sid.size, message.bytes.get(), &message.size);
        Demand(result >= kRuleFound && result <= kRuleHasNoMessage);
    } catch (const std::out_of_range&) {
        // A rule with an empty option.
    }
    Demand(sid.IsText() && message.IsText());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const int length = data[0];
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const size_t end = text.find('\n');
    const std::string line = text.substr(0, end == std::string::npos ? end : end + 1);
    const std::string rules = end == std::string::npos ? std::string() : text.substr(end + 1);

    Buffer reason(length);
    long lineNumber = -1;
    if (Parse(line, reason, &lineNumber)) {
        Buffer sid(length / 4);
        Buffer message(length);
        Lookup(rules, lineNumber, sid, message);
    }
    return 0;
}
