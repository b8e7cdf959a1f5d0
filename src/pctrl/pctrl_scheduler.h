// Parental-control rule scheduler: keeps the kernel's rule table equal to the
// rules of the configured rule file that are due today, applying at start and
// at every local midnight.
//
// One scheduler thread, owned by this module: started by the IPC command that
// enables parental control, stopped (and joined) by the one that disables it
// and by the service's shutdown. Start and stop may be called from any thread
// but never from the scheduler thread itself. Applies from the scheduler and
// the IPC thread are serialised, so their kernel commands never interleave.
// Every kernel command is logged at level I as "pctrl command: <command>" and
// sent through zor_ctrl.h; a rule whose mac or text the command cannot carry
// as one word is skipped. "Now" comes from util/clock.h.
#pragma once

#include <ctime>

// Starts the scheduler thread (applies at once). No-op while running.
void pctrl_sched_start();
// Stops and joins the scheduler, interrupting its wait; sends "pc rule clean"
// only when it was running. Safe twice and before start.
void pctrl_sched_stop();
// Reads the rule file named by the context and loads today's rules: one
// "pc rule clean", then one "pc rule add" per rule. A missing, unreadable or
// invalid file leaves the kernel's rules untouched; no file set does nothing.
void pctrl_apply_rules();
// The same, telling the caller whether the file was read: false when a rule
// file is set but could not be read as rules (the reader logged why; the
// kernel's rules are untouched), true otherwise.
[[nodiscard]] bool pctrl_reapply_rules();
// Sends "pc rule clean"; returns the sender's result (zor_ctrl.h).
int pctrl_clean_rules();

// The coming local midnight after `now` (epoch seconds): the next calendar
// day at 00:00:00 with the zone's own daylight-saving rule, or -1 when the
// local time of `now` cannot be had.
time_t pctrl_next_midnight(time_t now);
