#pragma once

// Standard output and standard error as streams that know why they failed.
//
// A reader that has closed its end of a pipe has seen enough: a sub-command then ends quietly and
// with the exit status that it has earned so far. Every other failure, as of a full disk, is named
// and makes the exit status a failure.
//
// Threads: one at a time.

#include <array>
#include <ostream>
#include <streambuf>
#include <string>

namespace tarnctl {

class DescriptorBuffer final : public std::streambuf {
  public:
    // `descriptor` is borrowed.
    explicit DescriptorBuffer(int descriptor);
    ~DescriptorBuffer() override;
    DescriptorBuffer(const DescriptorBuffer&) = delete;
    DescriptorBuffer& operator=(const DescriptorBuffer&) = delete;

    // The errno of the write that failed; 0 while all is well.
    [[nodiscard]] int Error() const { return m_error; }
    // True when the other end of a pipe is closed, whether or not a write has met it.
    [[nodiscard]] bool IsReaderGone();

  protected:
    int_type overflow(int_type letter) override;
    int sync() override;

  private:
    bool WriteOut();

    const int m_descriptor;
    int m_error = 0;
    std::array<char, 65536> m_buffer;
};

// True when nobody reads what goes to `out` any more. False for a stream that is no
// DescriptorBuffer's.
[[nodiscard]] bool IsReaderGone(std::ostream& out);

// Flushes `out`. Returns an empty text when it took everything or its reader is gone, or the reason
// why it did not.
[[nodiscard]] std::string OutputFault(std::ostream& out);

}  // namespace tarnctl
