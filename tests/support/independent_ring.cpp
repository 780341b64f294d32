#include "support/independent_ring.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

// Offsets here are file offsets less 8, as everywhere in the format. The ring is walked by index
// and remainder alone; speed is not the point.

namespace {

uint32_t* WordPointer(unsigned char* file, uint32_t fileOffset) {
    return reinterpret_cast<uint32_t*>(file + fileOffset);
}

uint32_t Following(uint32_t offset, uint32_t length, uint32_t ring) {
    uint64_t end = uint64_t{offset} + 4 + length;
    while (end % 4 != 0) {
        ++end;
    }
    return static_cast<uint32_t>(end % ring);
}

}  // namespace

IndependentRing::IndependentRing(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat status {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0 || status.st_size < 12) {
        if (descriptor >= 0) {
            close(descriptor);
        }
        throw std::runtime_error("no ring file at " + path);
    }
    m_fileBytes = static_cast<uint32_t>(status.st_size);
    void* const map = mmap(nullptr, m_fileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (map == MAP_FAILED) {
        throw std::runtime_error("cannot map " + path);
    }
    m_file = static_cast<unsigned char*>(map);
}

IndependentRing::~IndependentRing() {
    munmap(m_file, m_fileBytes);
}

bool IndependentRing::Put(const std::vector<unsigned char>& message) {
    const uint32_t ring = m_fileBytes - 8;
    const auto length = static_cast<uint32_t>(message.size());
    const uint32_t reader = __atomic_load_n(WordPointer(m_file, 0), __ATOMIC_ACQUIRE);
    const uint32_t writer = __atomic_load_n(WordPointer(m_file, 4), __ATOMIC_RELAXED);
    const uint32_t taken = writer >= reader ? writer - reader : ring - reader + writer;
    const uint32_t wanted = (length + 3) / 4 * 4 + 4;
    if (taken + wanted >= ring) {
        return false;
    }
    const uint32_t body = writer + 4;
    const uint32_t untilEnd = ring - body < length ? ring - body : length;
    std::memcpy(m_file + 8 + body, message.data(), untilEnd);
    std::memcpy(m_file + 8, message.data() + untilEnd, length - untilEnd);
    const uint32_t next = Following(writer, length, ring);
    __atomic_store_n(WordPointer(m_file, 8 + next), 0, __ATOMIC_RELAXED);
    __atomic_store_n(WordPointer(m_file, 8 + writer), length, __ATOMIC_RELAXED);
    __atomic_store_n(WordPointer(m_file, 4), next, __ATOMIC_RELEASE);
    return true;
}

bool IndependentRing::Take(std::vector<unsigned char>& message) {
    const uint32_t ring = m_fileBytes - 8;
    const uint32_t reader = __atomic_load_n(WordPointer(m_file, 0), __ATOMIC_RELAXED);
    const uint32_t writer = __atomic_load_n(WordPointer(m_file, 4), __ATOMIC_ACQUIRE);
    if (reader == writer) {
        return false;
    }
    const uint32_t length = __atomic_load_n(WordPointer(m_file, 8 + reader), __ATOMIC_RELAXED);
    if (length == 0 || length > ring - 8) {
        throw std::runtime_error("a length word of " + std::to_string(length) + " in the ring");
    }
    message.resize(length);
    const uint32_t body = reader + 4;
    const uint32_t untilEnd = ring - body < length ? ring - body : length;
    std::memcpy(message.data(), m_file + 8 + body, untilEnd);
    std::memcpy(message.data() + untilEnd, m_file + 8, length - untilEnd);
    __atomic_store_n(WordPointer(m_file, 8 + reader), 0, __ATOMIC_RELAXED);
    __atomic_store_n(WordPointer(m_file, 0), Following(reader, length, ring), __ATOMIC_RELEASE);
    return true;
}

uint32_t IndependentRing::Word(uint32_t fileOffset) const {
    return __atomic_load_n(WordPointer(m_file, fileOffset), __ATOMIC_ACQUIRE);
}

void IndependentRing::Poke(uint32_t fileOffset, uint32_t value) {
    __atomic_store_n(WordPointer(m_file, fileOffset), value, __ATOMIC_RELEASE);
}

std::vector<unsigned char> IndependentRing::Bytes() const {
    return {m_file, m_file + m_fileBytes};
}

void IndependentRing::Fill(unsigned char value) {
    std::memset(m_file, value, m_fileBytes);
}
