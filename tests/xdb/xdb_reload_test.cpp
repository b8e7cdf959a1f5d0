// Replacing the category file under running lookups: the reader slot on its
// own (who waits for whom, and a stress run where every replaced object is
// checked to have no reader left when it is handed back), then the real
// file swapped by xdb_reload while several threads look up, with a damaged
// file among the reloads. Built in the ThreadSanitizer and AddressSanitizer
// runs as well, where a lookup on a freed file or an unordered free fails.
#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <future>
#include <thread>
#include <vector>

#include "test_util.h"
#include "util/grace_slot.h"
#include "xdb_test_util.h"

using namespace std::chrono_literals;

namespace {

// An object that knows whether it has been handed back. Replaced objects go
// to a graveyard instead of being freed, so a reader that still held one
// reads a defined "dead" mark, not freed memory, in every build.
struct canary {
    explicit canary(uint32_t n) : serial(n) {}
    std::atomic<bool> dead{false};
    const uint32_t serial;
};
using canary_slot = grace_slot<canary>;

TEST(GraceSlot, ExchangeWaitsForEarlierReadersOnlyAndLaterReadersSeeTheNewObject) {
    canary_slot slot;
    EXPECT_EQ(slot.read().get(), nullptr);
    ASSERT_EQ(slot.exchange(std::make_unique<canary>(1)), nullptr);

    std::optional<canary_slot::reader> early(slot.read());
    ASSERT_EQ(early->get()->serial, 1u);
    auto* second = new canary(2);
    std::future<std::unique_ptr<canary>> swapped =
        std::async(std::launch::async, [&] { return slot.exchange(std::unique_ptr<canary>(second)); });
    // The new object is in place at once, and a reader taken now does not
    // hold the exchange back.
    ASSERT_TRUE(zor_test::eventually([&] { return slot.read().get() == second; }));
    std::optional<canary_slot::reader> late(slot.read());
    EXPECT_EQ(late->get(), second);
    EXPECT_EQ(swapped.wait_for(100ms), std::future_status::timeout) << "handed back under a reader";
    early.reset();
    ASSERT_EQ(swapped.wait_for(10s), std::future_status::ready);
    std::unique_ptr<canary> old = swapped.get();
    ASSERT_NE(old, nullptr);
    EXPECT_EQ(old->serial, 1u);

    // The next exchange waits for the reader of the second object.
    std::future<void> emptied = std::async(std::launch::async, [&] { slot.reset(); });
    EXPECT_EQ(emptied.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(slot.readers_now(), 1u);
    late.reset();
    EXPECT_EQ(emptied.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(slot.read().get(), nullptr);
    EXPECT_EQ(slot.readers_now(), 0u);
}

// Readers on several threads while one thread replaces the object over and
// over: no reader ever sees an object that was handed back, each thread sees
// the serials in the order they were installed, and nothing is left counted.
// The replacing goes on until every reader has read a while during it.
TEST(GraceSlot, ReplacedObjectsHaveNoReaderLeft) {
    constexpr uint32_t kSwaps = 1000;
    constexpr uint64_t kReadsEach = 2000;
    constexpr int kReaders = 3;
    canary_slot slot;
    (void)slot.exchange(std::make_unique<canary>(0));
    std::atomic<bool> done{false};
    std::atomic<uint32_t> dead_seen{0}, out_of_order{0};
    std::atomic<uint64_t> reads[kReaders] = {};
    std::vector<std::thread> readers;
    for (int t = 0; t < kReaders; ++t) {
        readers.emplace_back([&, t] {
            uint32_t last = 0;
            while (!done.load()) {
                const canary_slot::reader r = slot.read();
                const canary* c = r.get();
                if (c->dead.load()) ++dead_seen;
                if (c->serial < last) ++out_of_order;
                last = c->serial;
                for (int spin = 0; spin < 50; ++spin) std::atomic_signal_fence(std::memory_order_seq_cst);
                if (c->dead.load()) ++dead_seen;
                ++reads[t];
            }
        });
    }
    ASSERT_TRUE(zor_test::eventually([&] {
        return std::all_of(std::begin(reads), std::end(reads), [](const auto& n) { return n.load() > 0; });
    }));
    auto fewest_reads = [&] {
        uint64_t least = UINT64_MAX;
        for (const auto& n : reads) least = std::min(least, n.load());
        return least;
    };
    const uint64_t before = fewest_reads();
    std::vector<std::unique_ptr<canary>> graveyard;
    uint32_t n = 1;
    for (; n <= kSwaps || fewest_reads() < before + kReadsEach; ++n) {
        std::unique_ptr<canary> old = slot.exchange(std::make_unique<canary>(n));
        if (!old || old->serial != n - 1) {
            ADD_FAILURE() << "swap " << n << " handed back " << (old ? old->serial : 0);
            break;
        }
        old->dead.store(true);
        graveyard.push_back(std::move(old));
    }
    done.store(true);
    for (std::thread& t : readers) t.join();
    EXPECT_EQ(dead_seen.load(), 0u);
    EXPECT_EQ(out_of_order.load(), 0u);
    EXPECT_EQ(slot.readers_now(), 0u);
    EXPECT_GE(n, kSwaps);
}

class XdbReload : public ::testing::Test {
protected:
    void TearDown() override { xdb_release(); }

    // A category file giving `id` to every name under example.com and to 10/8.
    std::string file_with(uint32_t id) {
        const std::string source = ".example.com " + std::to_string(id) + "\n10.0.0.0/8 " + std::to_string(id) + "\n";
        const std::vector<uint8_t> bytes = xdbtest::build_source(source);
        const std::string path = dir_.file("c" + std::to_string(id) + ".xdb");
        EXPECT_TRUE(zor_test::write_file(path, std::string(bytes.begin(), bytes.end())));
        return path;
    }

    static uint32_t domain_id() {
        const std::optional<xdb_match> m = xdb_match_domain("www.example.com", 15);
        return m ? m->id : 0;
    }
    static uint32_t address_id() {
        const std::optional<xdb_match> m = xdb_match_ipv4("10.1.2.3");
        return m ? m->id : 0;
    }

    zor_test::temp_dir dir_;
};

// Reloads take effect for the next lookup; one that does not load, for
// whatever reason, leaves the file before it in force and says why.
TEST_F(XdbReload, AGoodFileReplacesTheOldOneAndABadOneLeavesItInForce) {
    const std::string one = file_with(1), two = file_with(2);
    const std::vector<uint8_t> good = xdbtest::build_source(".example.com 3\n");
    ASSERT_TRUE(zor_test::write_file(dir_.file("cut.xdb"), std::string(good.begin(), good.begin() + 600)));
    ASSERT_TRUE(zor_test::write_file(dir_.file("empty.xdb"), ""));
    testing::internal::CaptureStdout();
    ASSERT_EQ(xdb_init(one.c_str()), 0);
    testing::internal::GetCapturedStdout();
    std::string messages;
    ASSERT_EQ(xdb_reload(two.c_str(), &messages), 0);
    EXPECT_EQ(messages, "");
    EXPECT_EQ(domain_id(), 2u);
    EXPECT_EQ(address_id(), 2u);

    const struct {
        std::string path, messages;
    } bad[] = {
        {dir_.file("missing.xdb"), "Failed to open file, " + dir_.file("missing.xdb") + "!\n"},
        {dir_.file("empty.xdb"), "Failed to read xac header!\nFailed to load xdb!\n"},
        {dir_.file("cut.xdb"), "Failed to load tran table, "},
        {dir_.path(), "Failed to read xac header!\nFailed to load xdb!\n"},  // a directory reads as nothing
    };
    for (const auto& b : bad) {
        SCOPED_TRACE(b.path);
        messages.clear();
        testing::internal::CaptureStderr();
        EXPECT_EQ(xdb_reload(b.path.c_str(), &messages), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "messages go to the caller only";
        EXPECT_EQ(messages.substr(0, b.messages.size()), b.messages);
        EXPECT_EQ(domain_id(), 2u);
        EXPECT_EQ(address_id(), 2u);
    }
    ASSERT_EQ(xdb_reload(one.c_str(), &messages), 0);
    EXPECT_EQ(domain_id(), 1u);
}

// Lookups on several threads while the main thread reloads two files in
// turn and a damaged one between them: every lookup answers from a whole
// file, old or new (never nothing, never from a freed one), and after the
// last reload every thread sees its file.
TEST_F(XdbReload, LookupsRunOnThroughReloads) {
    constexpr int kReloads = 500;
    constexpr int kThreads = 3;
    const std::string files[2] = {file_with(1), file_with(2)};
    ASSERT_TRUE(zor_test::write_file(dir_.file("bad.xdb"), "not a category file"));
    testing::internal::CaptureStdout();
    ASSERT_EQ(xdb_init(files[0].c_str()), 0);
    testing::internal::GetCapturedStdout();

    std::atomic<bool> done{false};
    std::atomic<int> running{0};
    std::atomic<uint32_t> wrong{0};
    std::atomic<uint32_t> finals[kThreads] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            uint32_t last = 0;
            auto one_pass = [&] {
                const uint32_t d = domain_id(), a = address_id();
                if (d != 1 && d != 2) ++wrong;
                if (a != 1 && a != 2) ++wrong;
                last = d;
            };
            one_pass();
            ++running;
            while (!done.load()) one_pass();
            one_pass();
            finals[t] = last;
        });
    }
    ASSERT_TRUE(zor_test::eventually([&] { return running.load() == kThreads; }));
    uint32_t failures = 0;
    for (int n = 1; n <= kReloads; ++n) {
        std::string messages;
        if (n % 10 == 0) failures += xdb_reload(dir_.file("bad.xdb").c_str(), &messages) != 0;
        if (xdb_reload(files[n % 2].c_str(), &messages) != 0) {
            ADD_FAILURE() << messages;
            break;
        }
    }
    done.store(true);
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0u);
    EXPECT_EQ(failures, static_cast<uint32_t>(kReloads / 10));
    const uint32_t last_id = kReloads % 2 == 0 ? 1 : 2;  // files[kReloads % 2]
    for (const auto& f : finals) EXPECT_EQ(f.load(), last_id);
}

}  // namespace
