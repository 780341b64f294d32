#include <unistd.h>

#include "ring/shm_event_pipe.h"
#include "threads/cancellation.h"

namespace {

// The path of one ring of a pair; a file of an earlier run is removed when that is asked for.
std::string RingPath(const char* szBaseName, const char* szSuffix, bool bRemoveStale) {
    std::string strPath = std::string(szBaseName) + szSuffix;
    if (bRemoveStale) {
        ::unlink(strPath.c_str());
    }
    return strPath;
}

}  // namespace

// Deliberate: the second ring's size comes first, which is the order that the callers keep.
ShmEventPipePair::ShmEventPipePair(ShmPipeRole eRole, const char* szBaseName, uint32_t uSecondSize,
                                   uint32_t uFirstSize, bool bRemoveStale)
    : m_eRole(eRole),
      m_aPipes{{{eRole, RingPath(szBaseName, kShmRingFirstSuffix, bRemoveStale), uFirstSize},
                {eRole, RingPath(szBaseName, kShmRingSecondSuffix, bRemoveStale), uSecondSize}}} {}

// The members' own destructors would close them too, but the order is this class's to tell.
ShmEventPipePair::~ShmEventPipePair() {
    const CancellationOff off;
    m_aPipes[1].Close();
    m_aPipes[0].Close();
}

int ShmEventPipePair::Open() {
    const bool bFirst = m_aPipes[0].Open(true);
    const bool bSecond = m_aPipes[1].Open(true);
    return bFirst && bSecond ? 0 : 1;
}

int ShmEventPipePair::Close() {
    const bool bFirst = m_aPipes[0].Close();
    const bool bSecond = m_aPipes[1].Close();
    return bFirst && bSecond ? 0 : 1;
}

int ShmEventPipePair::Destroy() {
    const bool bFirst = m_aPipes[0].Destroy();
    const bool bSecond = m_aPipes[1].Destroy();
    return bFirst && bSecond ? 0 : 1;
}
