// zor_service_soak: zor_service with its cache and log cleaners on periods
// fixed at build time (ZOR_SOAK_CACHE_CLEAN_MS, ZOR_SOAK_LOG_CLEAN_MS), so that
// a soak of minutes sees as many cleaner passes as days of service would.
// The shipped binary always runs them every 5 and 60 seconds; this one exists
// only in the build tree, for scripts/soak.sh.
#include <chrono>

#include "service_main.h"

int main(int argc, char** argv) {
    zor_timing timing;
    timing.cache_clean = std::chrono::milliseconds(ZOR_SOAK_CACHE_CLEAN_MS);
    timing.log_clean = std::chrono::milliseconds(ZOR_SOAK_LOG_CLEAN_MS);
    return zor_service_run(argc, argv, timing);
}
