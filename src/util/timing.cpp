#include "util/timing.h"

#include <algorithm>
#include <mutex>

namespace {

std::mutex lock;
zor_timing current;  // covered by lock

}  // namespace

// Eleven periods, each raised below; a field added to the record must join
// the list in timing_set.
static_assert(sizeof(zor_timing) == 11 * sizeof(zor_timing::ms));

void timing_set(const zor_timing& timing) {
    constexpr zor_timing::ms kShortest{1};
    zor_timing t = timing;
    for (zor_timing::ms* v : {&t.cache_clean, &t.log_clean, &t.query_trigger, &t.login_retry,
                              &t.form_timeout, &t.request_timeout, &t.family_retry, &t.family_refresh,
                              &t.ipc_request, &t.stop_check, &t.rule_second})
        *v = std::max(*v, kShortest);
    std::lock_guard<std::mutex> g(lock);
    current = t;
}

zor_timing timing_get() {
    std::lock_guard<std::mutex> g(lock);
    return current;
}
