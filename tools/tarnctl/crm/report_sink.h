#pragma once

// Where reports go: a file, a socket, a stream of another machine.
//
// A sink is offered whole lines, in order, and says how many of them it has taken. What it has not
// taken it is offered again, first of all and in the same order. Between two offers it may thus
// keep what is on its way, half a line on a socket or a record without its acknowledgement, and
// goes on there. What "taken" means is each sink's own; it is always more than "handed on".
//
// A sink whose other end is away takes nothing, says why in Error(), and tries again by itself at
// later offers. It never waits for longer than kPatience, so that one sink does not hold up others.
//
// Threads: one at a time.

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace tarnctl {

class ReportSink {
  public:
    // The longest that an offer may take.
    static constexpr std::chrono::milliseconds kPatience{100};

    virtual ~ReportSink() = default;
    ReportSink(const ReportSink&) = delete;
    ReportSink& operator=(const ReportSink&) = delete;

    // Its kind, as in the name of its option, and where its lines go.
    [[nodiscard]] const std::string& Kind() const { return m_kind; }
    [[nodiscard]] const std::string& Target() const { return m_target; }

    // Takes its place. Returns an empty text, or the reason why it will never take anything. What
    // is merely away is no such reason.
    [[nodiscard]] virtual std::string Open() = 0;

    // Offers lines, each with its line end. Returns the bytes of those that it has taken, from the
    // front on.
    [[nodiscard]] virtual size_t Take(std::string_view lines) = 0;

    // What was offered last and not taken is not offered again.
    virtual void Forget() {}

    // What it writes to may have been moved away; it begins anew.
    virtual void Reopen() {}

    // Whoever read has seen enough; nothing will be taken any more, and nothing is wrong.
    [[nodiscard]] virtual bool IsOver() const { return false; }

    // Why it takes nothing at present; empty while all is well.
    [[nodiscard]] const std::string& Error() const { return m_error; }

  protected:
    ReportSink(std::string kind, std::string target)
        : m_kind(std::move(kind)), m_target(std::move(target)) {}

    // The other end is away, for this reason; IsDue() is false for a while.
    void SetAway(const std::string& reason) {
        constexpr std::chrono::milliseconds kRetryAfter{500};
        m_error = reason;
        m_nextTry = Clock::now() + kRetryAfter;
    }
    void SetWell() { m_error.clear(); }
    // Whether to try again after SetAway().
    [[nodiscard]] bool IsDue() const { return m_error.empty() || Clock::now() >= m_nextTry; }

    using Clock = std::chrono::steady_clock;

  private:
    const std::string m_kind;
    const std::string m_target;
    std::string m_error;
    Clock::time_point m_nextTry;
};

// The bytes of the whole lines within the first `size` bytes of `lines`.
[[nodiscard]] inline size_t WholeLines(std::string_view lines, size_t size) {
    const size_t end = lines.substr(0, size).rfind('\n');
    return end == std::string_view::npos ? 0 : end + 1;
}

}  // namespace tarnctl
