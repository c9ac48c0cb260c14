#include "qmlab/clock.h"

#include <atomic>

namespace qmlab {

Stamp StampNow()
{
    static std::atomic<uint64_t> counter{0};
    Stamp s;
    s.seq = counter.fetch_add(1, std::memory_order_relaxed) + 1;
    s.at = Clock::now();
    return s;
}

}  // namespace qmlab
