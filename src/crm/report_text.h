#pragma once

// A text of a report: its own, or one that it borrows so that nothing is copied or allocated. A
// copy has a text of its own in either case.
//
// Threads: those of the report.

#include <string>
#include <string_view>
#include <utility>

class ReportText {
  public:
    ReportText() = default;
    explicit ReportText(std::string text) : m_own(std::move(text)) {}
    ReportText(const ReportText& other) : m_own(other.Text()) {}
    ReportText(ReportText&&) = default;
    ReportText& operator=(const ReportText&) = delete;
    ReportText& operator=(ReportText&&) = default;
    ~ReportText() = default;

    // `text` must outlive the result, and must not change meanwhile.
    [[nodiscard]] static ReportText Borrow(const std::string& text) {
        ReportText borrowed;
        borrowed.m_borrowed = &text;
        return borrowed;
    }

    [[nodiscard]] const std::string& Text() const {
        return m_borrowed != nullptr ? *m_borrowed : m_own;
    }

    friend bool operator==(const ReportText& text, std::string_view other) {
        return text.Text() == other;
    }

  private:
    std::string m_own;
    const std::string* m_borrowed = nullptr;  // null when the text is its own
};
