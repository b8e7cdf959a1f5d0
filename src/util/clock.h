// The service's wall clock in whole seconds: the one place every module reads
// the time of day from (cache stamps and ages, the rule reader's day and the
// scheduler's midnight, token lifetimes, log and debug stamps). Waits for a
// period measure with std::chrono::steady_clock and do not come here.
//
// Any thread may call clock_now() at any time. The verdict cache reads it on
// every lookup, so it takes no lock: one atomic load, then time() or the
// installed source.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

// A replacement clock: seconds since the epoch. It must be callable from any
// thread for as long as it is installed.
using clock_source = int64_t (*)();

namespace clock_detail {
extern std::atomic<clock_source> source;  // null: time()
}  // namespace clock_detail

// Seconds since the epoch, 64 bits on every target.
inline int64_t clock_now() {
    const clock_source s = clock_detail::source.load(std::memory_order_acquire);
    return s ? s() : static_cast<int64_t>(std::time(nullptr));
}

// Installs `source` as the clock of every thread; null restores time(). The
// seam tests, benchmarks and fuzz targets move time with; the service never
// calls it.
void clock_set_source(clock_source source);
