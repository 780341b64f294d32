#include "tarnctl/common/descriptor_output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

DescriptorBuffer* BufferOf(std::ostream& out) {
    return dynamic_cast<DescriptorBuffer*>(out.rdbuf());
}

}  // namespace

DescriptorBuffer::DescriptorBuffer(int descriptor) : m_descriptor(descriptor) {
    setp(m_buffer.data(), m_buffer.data() + m_buffer.size());
}

DescriptorBuffer::~DescriptorBuffer() {
    (void)WriteOut();  // OutputFault() has reported a failure where it counts
}

bool DescriptorBuffer::IsReaderGone() {
    pollfd entry = {.fd = m_descriptor, .events = 0, .revents = 0};
    if (m_error == 0 && poll(&entry, 1, 0) == 1 && (entry.revents & POLLERR) != 0) {
        m_error = EPIPE;
    }
    return m_error == EPIPE;
}

DescriptorBuffer::int_type DescriptorBuffer::overflow(int_type letter) {
    if (!WriteOut()) {
        return traits_type::eof();
    }
    if (!traits_type::eq_int_type(letter, traits_type::eof())) {
        sputc(traits_type::to_char_type(letter));
    }
    return traits_type::not_eof(letter);
}

int DescriptorBuffer::sync() {
    return WriteOut() ? 0 : -1;
}

// A signal that asks for a stop may interrupt the write; what was begun is finished all the same.
bool DescriptorBuffer::WriteOut() {
    const char* from = pbase();
    while (m_error == 0 && from < pptr()) {
        const ssize_t count = write(m_descriptor, from, static_cast<size_t>(pptr() - from));
        if (count >= 0) {
            from += count;
        } else if (errno == EAGAIN) {
            pollfd entry = {.fd = m_descriptor, .events = POLLOUT, .revents = 0};
            (void)poll(&entry, 1, -1);
        } else if (errno != EINTR) {
            m_error = errno;
        }
    }
    setp(m_buffer.data(), m_buffer.data() + m_buffer.size());
    return m_error == 0;
}

bool IsReaderGone(std::ostream& out) {
    DescriptorBuffer* const buffer = BufferOf(out);
    return buffer != nullptr && buffer->IsReaderGone();
}

std::string OutputFault(std::ostream& out) {
    out.flush();
    if (out) {
        return "";
    }
    const DescriptorBuffer* const buffer = BufferOf(out);
    const int error = buffer != nullptr && buffer->Error() != 0 ? buffer->Error() : EIO;
    return error == EPIPE ? "" : FailureText("standard output", error);
}

}  // namespace tarnctl
