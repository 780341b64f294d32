// ShmEventPipePair: two rings that are opened, closed and removed together.

#include <unistd.h>

#include "ring/shm_event_pipe.h"
#include "threads/cancellation.h"

namespace {

// The path of one ring of a pair; a file of an earlier run is removed when that is asked for.
std::string RingPath(const char* baseName, const char* suffix, bool removeStale) {
    std::string path = std::string(baseName) + suffix;
    if (removeStale) {
        ::unlink(path.c_str());
    }
    return path;
}

}  // namespace

// Deliberate: the second ring's size comes first, which is the order that the callers use.
ShmEventPipePair::ShmEventPipePair(ShmPipeRole role, const char* baseName, uint32_t secondSize,
                                   uint32_t firstSize, bool removeStale)
    : m_eRole(role),
      m_aPipes{{{role, RingPath(baseName, kShmRingFirstSuffix, removeStale), firstSize},
                {role, RingPath(baseName, kShmRingSecondSuffix, removeStale), secondSize}}} {}

// The destructors of the members would close the rings too. They are closed here so that the second
// one is always closed first.
ShmEventPipePair::~ShmEventPipePair() {
    const CancellationOff off;
    m_aPipes[1].Close();
    m_aPipes[0].Close();
}

int ShmEventPipePair::Open() {
    const bool first = m_aPipes[0].Open(true);
    const bool second = m_aPipes[1].Open(true);
    return first && second ? 0 : 1;
}

int ShmEventPipePair::Close() {
    const bool first = m_aPipes[0].Close();
    const bool second = m_aPipes[1].Close();
    return first && second ? 0 : 1;
}

int ShmEventPipePair::Destroy() {
    const bool first = m_aPipes[0].Destroy();
    const bool second = m_aPipes[1].Destroy();
    return first && second ? 0 : 1;
}
