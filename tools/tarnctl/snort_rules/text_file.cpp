#include "tarnctl/snort_rules/text_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tarnctl {
namespace {

class Descriptor {
  public:
    explicit Descriptor(const std::string& path)
        : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY)) {}
    ~Descriptor() {
        if (m_fd != -1) {
            close(m_fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    [[nodiscard]] int Get() const { return m_fd; }

  private:
    int m_fd;
};

int ReadAll(int fd, std::string& text) {
    constexpr size_t kChunk = 1U << 18;
    for (;;) {
        const size_t size = text.size();
        text.resize(size + kChunk);
        const ssize_t count = read(fd, text.data() + size, kChunk);
        const int error = errno;
        text.resize(size + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count == 0) {
            return 0;
        }
        if (count == -1 && error != EINTR) {
            return error;
        }
    }
}

}  // namespace

int ReadTextFile(const std::string& path, std::string& text, struct stat* status) {
    const Descriptor file(path);
    if (file.Get() == -1) {
        return errno;
    }
    struct stat own = {};
    struct stat& result = status != nullptr ? *status : own;
    if (fstat(file.Get(), &result) != 0) {
        return errno;
    }
    text.clear();
    return S_ISDIR(result.st_mode) ? 0 : ReadAll(file.Get(), text);
}

}  // namespace tarnctl
