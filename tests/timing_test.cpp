// The timing record and the wall clock every module reads: what a set record
// holds, and a fake clock seen by every thread until it is removed.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <iterator>
#include <thread>

#include "util/clock.h"
#include "util/timing.h"

namespace {

using namespace std::chrono_literals;
using ms = zor_timing::ms;

// Every field, so a test walks them all.
constexpr ms zor_timing::*kFields[] = {
    &zor_timing::cache_clean,  &zor_timing::log_clean,       &zor_timing::query_trigger,
    &zor_timing::login_retry,  &zor_timing::form_timeout,    &zor_timing::request_timeout,
    &zor_timing::family_retry, &zor_timing::family_refresh,  &zor_timing::ipc_request,
    &zor_timing::stop_check,   &zor_timing::rule_second};
static_assert(std::size(kFields) * sizeof(ms) == sizeof(zor_timing));

class Timing : public ::testing::Test {
protected:
    void TearDown() override { timing_set(zor_timing{}); }
};

// Each field keeps its own value, and none below 1 ms survives (libcurl
// reads a zero time-out as none, a zero period would spin).
TEST_F(Timing, SetKeepsEachFieldAndRaisesNonPositiveOnesToOneMillisecond) {
    const struct {
        ms given;
        ms kept;
    } cases[] = {{-5ms, 1ms}, {0ms, 1ms}, {1ms, 1ms}, {250ms, 250ms}, {3h, 3h}};
    for (const auto& c : cases) {
        for (size_t i = 0; i < std::size(kFields); ++i) {
            zor_timing t;
            for (size_t j = 0; j < std::size(kFields); ++j) t.*kFields[j] = ms(7000 + j);
            t.*kFields[i] = c.given;
            timing_set(t);
            const zor_timing got = timing_get();
            for (size_t j = 0; j < std::size(kFields); ++j)
                EXPECT_EQ((got.*kFields[j]).count(), j == i ? c.kept.count() : 7000 + int64_t(j))
                    << "field " << j << " with field " << i << " given " << c.given.count();
        }
    }
}

std::atomic<int64_t> fake_now{0};

// A source installed on one thread is what the others read; removing it
// brings back time().
TEST(Clock, FakeSourceIsSeenByEveryThreadUntilRemoved) {
    fake_now = 1'700'000'000;
    clock_set_source([] { return fake_now.load(); });
    int64_t seen = 0;
    std::thread([&] {
        seen = clock_now();
        fake_now += 86401;
    }).join();
    EXPECT_EQ(seen, 1'700'000'000);
    EXPECT_EQ(clock_now(), 1'700'086'401);

    clock_set_source(nullptr);
    const int64_t before = static_cast<int64_t>(time(nullptr));
    const int64_t now = clock_now();
    EXPECT_GE(now, before);
    EXPECT_LE(now, static_cast<int64_t>(time(nullptr)));
}

}  // namespace
