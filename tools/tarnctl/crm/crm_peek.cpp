#include "tarnctl/crm/crm_peek.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <span>
#include <string>
#include <thread>

#include "paths.h"
#include "ring/shm_ring_format.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/crm/crm_report_monitor.h"
#include "tarnctl/rings/ring_walker.h"

namespace tarnctl {
namespace {

using Milliseconds = std::chrono::milliseconds;

// Nobody wakes who does not take a post, so the rings are looked at again after this time.
constexpr Milliseconds kLookInterval{50};

// Damage that stays as long as this is no reader between two of its stores.
constexpr Milliseconds kStays{500};

class CrmPeek final : public CrmReportMonitor {
  public:
    CrmPeek(const CrmOptions& options, std::ostream& out, std::ostream& err)
        : CrmReportMonitor(options, out, err) {
        const std::string base =
            tarn::paths::kEventQueueBase + options.queueName + std::to_string(options.channel);
        m_halves[0].path = base + kShmRingFirstSuffix;
        m_halves[1].path = base + kShmRingSecondSuffix;
    }

  private:
    struct Half {
        std::string path;
        RingWalker walker;
        bool isOpen = false;
        QuietTime::Clock::time_point damagedSince;  // of use while isDamaged
        bool isDamaged = false;
        bool isTold = false;  // the damage has been told
    };

    std::string Begin() override {
        Attach();
        if (!Options().follow && !m_halves[0].isOpen) {
            return access(m_halves[0].path.c_str(), F_OK) == 0
                       ? m_halves[0].walker.Error()
                       : "no ring at " + m_halves[0].path + "; start tarn, which makes it";
        }
        return "";
    }

    void Serve(Milliseconds time) override {
        bool isMoving = false;
        bool isDoubtful = false;
        for (int i = 0; i < 2; ++i) {
            Half& half = m_halves[static_cast<size_t>(i)];
            isMoving = (half.isOpen && !IsDone() && ShowNext(i, half)) || isMoving;
            isDoubtful = isDoubtful || (half.isDamaged && !half.isTold);
        }
        if (isMoving) {
            return;
        }
        if (!Options().follow && !isDoubtful) {
            Finish();
            return;
        }
        std::this_thread::sleep_for(std::min(time, kLookInterval));
        Attach();
    }

    [[nodiscard]] std::string Missing() const override {
        return m_halves[0].isOpen ? "" : "no ring at " + m_halves[0].path;
    }

    [[nodiscard]] std::string Counts() const override {
        return Counted(Taken(), "report") +
               (m_overtaken == 0 ? ""
                                 : ", " + Counted(m_overtaken, "time") +
                                       " the reader took what was to be shown next");
    }

    // Maps what is there and not mapped, and what was replaced.
    void Attach() {
        for (Half& half : m_halves) {
            if (!half.isOpen || !half.walker.IsCurrent()) {
                half.isOpen = half.walker.Open(half.path);
                half.isDamaged = false;
            }
        }
    }

    // Shows the next report of a ring. False when there is none now.
    bool ShowNext(int number, Half& half) {
        const WalkResult result = half.walker.Next();
        if (result == WalkResult::kHole || result == WalkResult::kTooLong) {
            TellWhereItStays(half);
            return false;
        }
        half.isDamaged = false;
        if (result == WalkResult::kOvertaken) {
            ++m_overtaken;
            return true;
        }
        if (result != WalkResult::kMessage) {
            return false;
        }
        HasNews();
        Show({Options().channel, number}, half.walker.Body());
        return true;
    }

    void TellWhereItStays(Half& half) {
        const auto now = QuietTime::Clock::now();
        if (!half.isDamaged) {
            half.isDamaged = true;
            half.isTold = false;
            half.damagedSince = now;
        }
        if (!half.isTold && now - half.damagedSince >= kStays) {
            half.isTold = true;
            TellDamaged(half.path + ": the ring is damaged at offset " +
                        std::to_string(half.walker.At()) + "; see 'tarnctl ring check'");
        }
    }

    std::array<Half, 2> m_halves;
    uint64_t m_overtaken = 0;
};

}  // namespace

int RunCrmPeek(const CrmOptions& options, std::ostream& out, std::ostream& err) {
    return CrmPeek(options, out, err).Run();
}

}  // namespace tarnctl
