#pragma once

// Writes one JSON object after the other into a text, member by member.
//
// A report has some sixty members, and a service writes hundreds of thousands of reports in a
// second. A tree of values, made and written and thrown away for each report, takes most of the
// time that such a report may take. So numbers and plain texts are appended here at once. Whatever
// needs more than that, as a text with anything but printable ASCII in it, goes through the
// library.
//
// Threads: one at a time per object.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tarnctl {

class JsonText {
  public:
    // `to` is borrowed and grows at its end.
    explicit JsonText(std::string& to) : m_to(to) {}

    // Begins and ends an object: the first one without a name, those within it with one. A name is
    // plain text.
    void Open();
    void Open(std::string_view name);
    void Close() { m_to += '}'; }

    void Number(std::string_view name, uint64_t value);
    // The same, but nothing for a 0.
    void NumberUnlessZero(std::string_view name, uint64_t value);
    // A value that is JSON already.
    void Raw(std::string_view name, std::string_view value);
    // A string; what is no UTF-8 in it becomes U+FFFD.
    void Text(std::string_view name, std::string_view text);
    // A string, or {"base64": ...} where the text is no UTF-8; nothing for an empty text.
    void TextUnlessEmpty(std::string_view name, std::string_view text);
    // An IPv4 address in host byte order, and an IPv6 address.
    void Ipv4(std::string_view name, uint32_t address);
    void Ipv6(std::string_view name, std::span<const uint8_t, 16> address);
    // Two hexadecimal digits for each byte; nothing where all of them are 0.
    void HexUnlessZero(std::string_view name, std::span<const uint8_t> bytes);

  private:
    void Name(std::string_view name);

    std::string& m_to;
};

// Appends a string, or {"base64": ...} where the text is no UTF-8.
void AppendTextAsJson(std::string& to, std::string_view text);

[[nodiscard]] bool IsUtf8(std::string_view text);

}  // namespace tarnctl
