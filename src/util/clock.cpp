#include "util/clock.h"

namespace clock_detail {
std::atomic<clock_source> source{nullptr};
}  // namespace clock_detail

void clock_set_source(clock_source source) {
    clock_detail::source.store(source, std::memory_order_release);
}
