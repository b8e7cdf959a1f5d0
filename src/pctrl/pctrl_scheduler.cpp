#include "pctrl/pctrl_scheduler.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "log.h"
#include "pctrl/pctrl_reader.h"
#include "qmxsrv_ctx.h"
#include "stats.h"
#include "util/clock.h"
#include "util/timing.h"
#include "zor_ctrl.h"

namespace {

constexpr long kSecondsPerDay = 86400;

// Serialises start and stop (and so the join).
std::mutex control_lock;
// Applies from the scheduler and the IPC thread take turns.
std::mutex apply_lock;

std::mutex wait_lock;
std::condition_variable wait_cv;
bool running = false;  // covered by wait_lock; set by start, cleared by stop
std::thread sched_thread;  // covered by control_lock

bool is_running() {
    std::lock_guard<std::mutex> g(wait_lock);
    return running;
}

// Waits `seconds` scheduler seconds (of `second` each) or until stop.
// Returns false on stop.
bool wait_seconds(std::chrono::milliseconds second, long seconds) {
    auto length = second * seconds;
    std::unique_lock<std::mutex> lk(wait_lock);
    return !wait_cv.wait_for(lk, length, [] { return !running; });
}

void send_rule(const pctrl_rule& rule) {
    if (rule.kind != PCTRL_KIND_CONTENT && rule.kind != PCTRL_KIND_DOMAIN) return;
    const auto& text = rule.kind == PCTRL_KIND_CONTENT ? rule.content : rule.domain;
    if (!text) return;
    // The kernel takes the times as unsigned 32-bit epoch seconds. A rule
    // whose mac or text could not travel as one word is refused here.
    const int rc = zor_ctrl_pc_add(rule.kind, rule.mac, text->c_str(), static_cast<uint32_t>(rule.from),
                                   static_cast<uint32_t>(rule.to));
    if (rc < 0)
        LOG_D("Rule id %d not sent: a word the command cannot carry, or a line too long", rule.id);
    else if (rc == 0)
        stat_add(g_stats.rules_sent);
}

void pctrl_sched(std::chrono::milliseconds second) {
    LOG_D("Start parental control scheduler ...\r\n");
    while (is_running()) {
        pctrl_apply_rules();
        const time_t now = static_cast<time_t>(clock_now());
        time_t next = pctrl_next_midnight(now);
        if (next < now) {
            LOG_I("nextday_epoch < cur_epoch");
            wait_seconds(second, 1);
            continue;
        }
        long diff = static_cast<long>(next - now);
        if (diff > kSecondsPerDay) {
            // A 25-hour day: apply again each second until the day has caught up.
            LOG_I("diff_epoch biggger than 86400: %ld", diff);
            wait_seconds(second, 1);
            continue;
        }
        LOG_I("Today epoch: %ld", static_cast<long>(now));
        LOG_I("Excepted next epoch: %ld", static_cast<long>(next));
        LOG_I("Sleep seconds: %ld", diff);
        wait_seconds(second, diff);
    }
    LOG_I("%s stopped", "pctrl_sched");
}

}  // namespace

time_t pctrl_next_midnight(time_t now) {
    struct tm tm;
    if (localtime_r(&now, &tm) == nullptr) return -1;
    tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
    tm.tm_mday += 1;  // mktime carries a month or year end
    tm.tm_isdst = -1;
    return pctrl_mktime(&tm);
}

int pctrl_clean_rules() { return zor_ctrl_pc_clean(); }

bool pctrl_reapply_rules() {
    std::lock_guard<std::mutex> serial(apply_lock);
    std::string path = qmxsrv_ctx_pc_rule();
    if (path.empty()) return true;
    pctrl_holder rules;
    if (pctrl_read_rules(path.c_str(), &rules) != 0 || rules.list == nullptr) return false;
    stat_add(g_stats.rule_applications);
    pctrl_clean_rules();
    pctrl_dump_rules(&rules);
    rules.list->for_each(send_rule);
    return true;
}

void pctrl_apply_rules() { (void)pctrl_reapply_rules(); }

void pctrl_sched_start() {
    std::lock_guard<std::mutex> control(control_lock);
    {
        std::lock_guard<std::mutex> g(wait_lock);
        if (running) return;
        running = true;
    }
    try {
        sched_thread = std::thread(pctrl_sched, timing_get().rule_second);
    } catch (const std::system_error&) {
        // The flag stays set: a later start does nothing until a stop.
        LOG_E("Failed to start parental control scheduler ...\r\n");
    }
}

void pctrl_sched_stop() {
    LOG_D("pctrl_sched_stop");
    std::lock_guard<std::mutex> control(control_lock);
    {
        std::lock_guard<std::mutex> g(wait_lock);
        if (!running) return;
        running = false;
    }
    wait_cv.notify_all();
    if (sched_thread.joinable()) sched_thread.join();
    pctrl_clean_rules();
}
