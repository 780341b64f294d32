#include "tarnctl/quarantine/quarantine_state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tarnctl/common/atomic_file.h"
#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/read_error.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kHead = "tarn-quarantine 1";
constexpr std::string_view kHeadOfAny = "tarn-quarantine ";
constexpr size_t kSumDigits = 8;
constexpr size_t kShownOfALine = 100;
// What failed is tried again, and the disk is asked again, after this time.
constexpr std::chrono::seconds kPause{1};

// The CRC-32 of IEEE 802.3.
uint32_t Crc32(std::string_view bytes) {
    constexpr uint32_t kPolynomial = 0xEDB88320U;
    uint32_t sum = ~0U;
    for (const char byte : bytes) {
        sum ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            sum = (sum >> 1U) ^ ((sum & 1U) != 0 ? kPolynomial : 0U);
        }
    }
    return ~sum;
}

std::string LineFor(std::string_view json) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const uint32_t sum = Crc32(json);
    std::string line;
    for (unsigned shift = 32; shift > 0; shift -= 4) {
        line += kDigits[(sum >> (shift - 4)) & 0xFU];
    }
    return line.append(" ").append(json).append("\n");
}

std::string AsJson(const RuleInForce& rule) {
    Json json = {{"rule", rule.text},
                 {"issueId", rule.issueId},
                 {"asked", rule.asked},
                 {"since", rule.since}};
    if (!rule.why.empty()) {
        json["why"] = rule.why;
    }
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The JSON of a line; empty when the line is damaged.
std::string_view JsonIn(std::string_view line) {
    uint32_t sum = 0;
    const char* const end = line.data() + kSumDigits;
    if (line.size() <= kSumDigits || *end != ' ' ||
        std::from_chars(line.data(), end, sum, 16).ptr != end) {
        return {};
    }
    const std::string_view json = line.substr(kSumDigits + 1);
    return Crc32(json) == sum ? json : std::string_view();
}

// What a line says goes into the table. False when it is damaged.
bool TakeLine(std::string_view line, RuleTable& table) {
    const std::string_view text = JsonIn(line);
    const Json json = Json::parse(text.begin(), text.end(), nullptr, false);
    if (!json.is_object()) {
        return false;
    }
    RuleInForce rule;
    try {
        const bool isEnd = json.contains("ended");
        rule.text = json.at(isEnd ? "ended" : "rule").get<std::string>();
        if (!ParseQuarantineText(rule.text, rule.parts).empty()) {
            return false;
        }
        if (isEnd) {
            (void)table.TakeOutOne(rule.parts);
            return true;
        }
        json.at("issueId").get_to(rule.issueId);
        json.at("asked").get_to(rule.asked);
        json.at("since").get_to(rule.since);
        rule.why = json.value("why", "");
    } catch (const Json::exception&) {
        return false;
    }
    table.Restore(std::move(rule));
    return true;
}

// Why a file with this first line is not taken for one of ours; empty if it is.
std::string ObjectionToHead(const std::string& path, const std::string& line) {
    const bool isOurs = line.empty() || line == kHead || line.find('\0') != std::string::npos ||
                        !JsonIn(line).empty();
    const bool isOther = line.compare(0, kHeadOfAny.size(), kHeadOfAny) == 0;
    return isOurs    ? ""
           : isOther ? path + ": was written by another version of tarnctl; move it away"
                     : path + ": holds no quarantine; move it away or name another file";
}

bool WriteWhole(int fd, std::string_view line) {
    return write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

}  // namespace

QuarantineState::~QuarantineState() {
    if (m_fd != -1) {
        close(m_fd);
    }
}

std::string QuarantineState::Read(RuleTable& table,
                                  const std::function<void(const std::string&)>& tell) const {
    struct stat status = {};
    if (const int error = ReadError(m_path); error != 0) {
        return error == ENOENT ? "" : ReadFailureText(m_path, error);
    }
    if (stat(m_path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return m_path + ": is no file; name another";
    }
    std::ifstream file(m_path, std::ios::binary);
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        std::string objection = number == 1 ? ObjectionToHead(m_path, line) : "";
        if (!objection.empty()) {
            return objection;
        }
        if (line != kHead && !TakeLine(line, table)) {
            tell(m_path + ", line " + std::to_string(number) +
                 ": damaged, and skipped: " + ForTerminal(line.substr(0, kShownOfALine)));
        }
    }
    return file.bad() ? m_path + ": cannot be read to its end" : "";
}

std::string QuarantineState::Rewrite(const std::list<RuleInForce>& rules) {
    m_lastTry = Clock::now();
    m_isBehind = true;
    std::string text = std::string(kHead) + "\n";
    for (const RuleInForce& rule : rules) {
        text += LineFor(AsJson(rule));
    }
    std::string reason = WriteFileAtOnce(m_path, text, Durability::kOnDisk);
    if (!reason.empty()) {
        return reason;
    }
    const int fd = open(m_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd == -1) {
        return FailureText(m_path, errno);
    }
    if (m_fd != -1) {
        close(m_fd);
    }
    m_fd = fd;
    m_lines = rules.size() + 1;
    m_isBehind = false;
    m_isDirty = false;
    return "";
}

void QuarantineState::NotePut(const RuleInForce& rule) {
    Append(AsJson(rule));
}

void QuarantineState::NoteEnded(const RuleInForce& rule) {
    Json json;
    json["ended"] = rule.text;
    Append(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

// After a line that was not written whole none is added: the next Rewrite has them all.
void QuarantineState::Append(std::string_view json) {
    if (m_isBehind) {
        return;
    }
    m_isBehind = !WriteWhole(m_fd, LineFor(json));
    m_isDirty = true;
    ++m_lines;
}

std::string QuarantineState::Upkeep(const std::list<RuleInForce>& rules) {
    if (m_sync.IsUnderWay() || Clock::now() - m_lastTry < kPause) {
        return "";
    }
    const bool isOffTheDisk = m_sync.TakeError() != 0;
    if (isOffTheDisk || m_isBehind || m_lines > 2 * rules.size() + kLinesToSpare) {
        return Rewrite(rules);
    }
    if (m_isDirty) {
        m_lastTry = Clock::now();
        m_isDirty = !m_sync.Begin(m_fd);
    }
    return "";
}

}  // namespace tarnctl
