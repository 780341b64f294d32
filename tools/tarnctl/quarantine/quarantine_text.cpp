#include "tarnctl/quarantine/quarantine_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <limits>

#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

constexpr int kHighestProtocol = 255;

std::string Quoted(std::string_view word) {
    return "\"" + ForTerminal(word) + "\"";
}

// A number without sign, needless zeros or anything after it.
template <typename Number>
bool ParseNumber(std::string_view word, Number& number) {
    if (word.empty() || word.front() == '-' || (word.front() == '0' && word.size() > 1)) {
        return false;
    }
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    return error == std::errc() && end == word.data() + word.size();
}

// An address in the one form that inet_ntop gives it.
bool IsAddress(int ipVersion, const std::string& text) {
    const int family = ipVersion == 4 ? AF_INET : AF_INET6;
    in6_addr address = {};
    std::array<char, INET6_ADDRSTRLEN> shortest = {};
    return inet_pton(family, text.c_str(), &address) == 1 &&
           inet_ntop(family, &address, shortest.data(), shortest.size()) != nullptr &&
           text == shortest.data();
}

bool ParseTime(std::string_view word, time_t& time) {
    tm parts = {};
    int length = 0;
    const std::string text(word);
    if (std::sscanf(text.c_str(), "%d-%2d-%2dT%2d:%2d:%2dZ%n", &parts.tm_year, &parts.tm_mon,
                    &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &length) != 6 ||
        static_cast<size_t>(length) != text.size() ||
        parts.tm_year < std::numeric_limits<int>::min() + 1900) {
        return false;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    const time_t seconds = timegm(&parts);
    if (UtcText(seconds) != word) {
        return false;
    }
    time = seconds;
    return true;
}

// Reads a line word by word; the first fault ends it.
class QuarantineLine {
  public:
    explicit QuarantineLine(std::string_view text) : m_text(text) { Advance(); }

    std::string Parse(QuarantineParts& parts) {
        if (Family() && Address("intruder", m_parts.intruder) &&
            Address("victim", m_parts.victim) && Protocol() && Counter() && Expiration()) {
            parts = m_parts;
        }
        return m_fault;
    }

  private:
    // The next word, which ends at one blank. An empty word is none of those that are expected.
    void Advance() {
        if (m_text.data() == nullptr) {
            m_word = {};
            return;
        }
        const size_t blank = m_text.find(' ');
        m_word = m_text.substr(0, blank);
        m_text = blank == std::string_view::npos ? std::string_view() : m_text.substr(blank + 1);
    }

    // Goes past the word if it is this one.
    bool Take(std::string_view word) {
        if (m_word != word) {
            return false;
        }
        Advance();
        return true;
    }

    bool Expect(std::string_view word) {
        return Take(word) || Fail(Quoted(word) + " is expected where the line has " +
                                  (m_word.empty() ? "no word" : Quoted(m_word)));
    }

    bool Fail(std::string reason) {
        m_fault = std::move(reason);
        return false;
    }

    template <typename Number>
    bool TakeNumber(const char* what, Number& number) {
        if (!ParseNumber(m_word, number)) {
            return Fail(Quoted(m_word) + " is no " + what);
        }
        Advance();
        return true;
    }

    bool Family() {
        if (Take("ip")) {
            m_parts.ipVersion = 4;
            return true;
        }
        m_parts.ipVersion = 6;
        return Take("ipv6") ||
               Fail("the line begins with " + Quoted(m_word) + " instead of \"ip\" or \"ipv6\"");
    }

    bool Address(std::string_view whose, std::string& address) {
        if (!Take(whose)) {
            return true;
        }
        if (!Expect("addr")) {
            return false;
        }
        address = m_word;
        if (m_word.find('\0') != std::string_view::npos || !IsAddress(m_parts.ipVersion, address)) {
            return Fail(Quoted(m_word) + " is no IPv" + std::to_string(m_parts.ipVersion) +
                        " address in its shortest form");
        }
        Advance();
        return true;
    }

    bool Protocol() {
        if (Take("tcp")) {
            m_parts.protocol = IPPROTO_TCP;
            return Ports();
        }
        if (Take("udp")) {
            m_parts.protocol = IPPROTO_UDP;
            return Ports();
        }
        if (m_word == "icmp" || m_word == "icmpv6") {
            return Icmp();
        }
        return !Take("proto") || ProtocolNumber();
    }

    bool Ports() {
        return Expect("src") && Expect("port") && TakeNumber("port", m_parts.sourcePort) &&
               Expect("dst") && Expect("port") && TakeNumber("port", m_parts.destinationPort);
    }

    bool Icmp() {
        const bool isVersion4 = m_word == "icmp";
        if (isVersion4 != (m_parts.ipVersion == 4)) {
            return Fail(Quoted(m_word) + " does not go with IPv" +
                        std::to_string(m_parts.ipVersion));
        }
        Advance();
        m_parts.protocol = isVersion4 ? int{IPPROTO_ICMP} : int{IPPROTO_ICMPV6};
        return IcmpField("type", m_parts.icmpType) && IcmpField("code", m_parts.icmpCode);
    }

    bool IcmpField(const char* name, std::optional<uint8_t>& field) {
        return !Take(name) || TakeNumber(name, field.emplace());
    }

    bool ProtocolNumber() {
        const std::string_view word = m_word;
        if (!TakeNumber("protocol number", m_parts.protocol)) {
            return false;
        }
        switch (m_parts.protocol) {
            case 0:
            case IPPROTO_ICMP:
            case IPPROTO_TCP:
            case IPPROTO_UDP:
            case IPPROTO_ICMPV6:
                return Fail("protocol " + Quoted(word) + " is never written by its number");
            default:
                return m_parts.protocol <= kHighestProtocol ||
                       Fail(Quoted(word) + " is no protocol number");
        }
    }

    bool Counter() {
        if (!Take("counter")) {
            return true;
        }
        const std::string_view number = m_word.substr(0, m_word.empty() ? 0 : m_word.size() - 1);
        if (!m_word.ends_with('b') || !ParseNumber(number, m_parts.counter) ||
            m_parts.counter == 0) {
            return Fail(Quoted(m_word) + " is no counter");
        }
        Advance();
        return true;
    }

    bool Expiration() {
        if (!Expect("expires")) {
            return false;
        }
        if (m_word.find('\0') != std::string_view::npos || !ParseTime(m_word, m_parts.expiration)) {
            return Fail(Quoted(m_word) + " is no time");
        }
        if (m_parts.expiration == 0) {
            return Fail("the expiration time is zero");
        }
        return m_text.data() == nullptr || Fail("more follows the expiration time");
    }

    std::string_view m_text;  // what follows the word; its data is null when the word is the last
    std::string_view m_word;
    QuarantineParts m_parts;
    std::string m_fault;
};

}  // namespace

std::string ParseQuarantineText(std::string_view text, QuarantineParts& parts) {
    return QuarantineLine(text).Parse(parts);
}

std::string UtcText(time_t time) {
    tm parts = {};
    std::array<char, 64> text = {};
    if (gmtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return std::to_string(time);
    }
    return text.data();
}

}  // namespace tarnctl
