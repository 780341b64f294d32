#pragma once

// One JSON object on one line, written as it is put together.
//
// A spool file has many millions of records, and a tree of values that is built and then written
// for each of them takes most of the time that the record is worth. The text is what
// nlohmann::ordered_json writes for the same values.
//
// Threads: plain values.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarnctl {

class JsonLine {
  public:
    // Keys are letters and digits only.
    void Add(std::string_view key, std::unsigned_integral auto number) {
        AddNumber(key, uint64_t{number});
    }
    template <std::unsigned_integral T>
    void Add(std::string_view key, const std::optional<T>& number) {
        number ? AddNumber(key, uint64_t{*number}) : AddNull(key);
    }
    void AddNull(std::string_view key) { AddRaw(key, "null"); }
    // A text that is not UTF-8 becomes an object with its bytes.
    void AddText(std::string_view key, std::string_view text);
    // The same, but null in place of an empty text.
    void AddTextOrNull(std::string_view key, std::string_view text);
    // Seconds since the epoch, with a fraction where there is one; null for zero.
    void AddTime(std::string_view key, uint32_t second, uint32_t microsecond = 0);
    void AddBytes(std::string_view key, std::span<const std::byte> bytes);
    // A value that is JSON already.
    void AddRaw(std::string_view key, std::string_view value);

    // The whole object, without a line end. No more may be added then.
    [[nodiscard]] std::string Finish();

  private:
    void AddNumber(std::string_view key, uint64_t number);
    void AddKey(std::string_view key);

    std::string m_text;
};

}  // namespace tarnctl
