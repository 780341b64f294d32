// Any bytes at all, through the alert FIFO: framing, short and lying lengths, association,
// eviction, and the dump of what comes out. The bridge is not initialised and refuses every alert.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "config/config.h"
#include "logging/log.h"
#include "snort/snort_event_reader.h"

// A record may claim any length; one that the machine cannot hold is an answer and no fault.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256";
}

namespace {

constexpr size_t kPipeCapacity = 65536;

class AlertFifo {
  public:
    AlertFifo() {
        std::string name = std::filesystem::temp_directory_path() / "tarn-fuzz-XXXXXX";
        m_folder = mkdtemp(name.data());
        m_path = m_folder / "alerts.fifo";
        if (!SnortEventReader(m_path.c_str()).CreateFifo()) {
            std::abort();
        }
        m_sensor = open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
    ~AlertFifo() {
        close(m_sensor);
        std::filesystem::remove_all(m_folder);
    }
    AlertFifo(const AlertFifo&) = delete;
    AlertFifo& operator=(const AlertFifo&) = delete;

    [[nodiscard]] const char* Path() const { return m_path.c_str(); }

    void Fill(const uint8_t* data, size_t size) const {
        const size_t fits = std::min(size, kPipeCapacity);
        if (write(m_sensor, data, fits) != static_cast<ssize_t>(fits)) {
            std::abort();
        }
    }

    void Drain() const {
        char bytes[4096];
        while (read(m_sensor, bytes, sizeof(bytes)) > 0) {
        }
    }

    [[nodiscard]] bool IsEmpty() const {
        int left = 0;
        return ioctl(m_sensor, FIONREAD, &left) != 0 || left == 0;
    }

  private:
    std::filesystem::path m_folder;
    std::filesystem::path m_path;
    int m_sensor = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The log is not open, so the lines are made and go nowhere.
    vald::Log::SetLevel(vald::Log::kDebug);
    Config::s_logLevel = vald::Log::kDebug;
    static const AlertFifo fifo;

    if (size > 0) {
        fifo.Fill(data, size);
    }
    SnortEventReader reader(fifo.Path());
    try {
        while (!fifo.IsEmpty()) {
            reader.ReadEvent(0);
        }
        reader.ReadEvent(0);
    } catch (const std::length_error&) {
        // What extra data that cannot count itself comes to.
        fifo.Drain();
    }
    return 0;
}
