// Event workers: kernel reports are queued, matched against the category
// file, then the verdict cache, and otherwise batched to the cloud. Every
// verdict found goes back to the kernel module as "db key2group update".
//
// Threads: the netlink receive thread runs the event handler, which only
// queues the report (it never waits beyond a short list lock: at 1025 queued
// reports new ones are dropped); the announcer tells the kernel about each
// queued report ("u2k") in arrival order and passes it on; the event worker
// takes reports newest first and looks them up (a report with flag bit 0
// wakes the sender once every report that arrived before it is looked up);
// the query sender sends the pending keys in batches of at most 50 (only
// while the cloud is enabled and the session ready; otherwise a batch is
// dropped); the trigger wakes the sender every 10 s (zor_timing's
// query_trigger) while no key is pending.
// start and release run on the main thread. All threads are joined by
// release, which returns promptly: it stops accepting reports, aborts a cloud
// query in flight and wakes every thread.
#pragma once

#include <cstdint>

struct nl_event;

// Starts the workers and the netlink channel (port = qmxsrv_ctx.pid).
// 1 on success, 0 on failure (nothing is left running). 1 without effect when
// already started.
[[nodiscard]] int qmx_srv_start();
// Stops and joins everything. Safe twice and before start.
void qmx_srv_release();

// The event handler given to the netlink channel: logs the report, drops it
// when 1025 are queued, else queues it for the announcer (u2k for a valid
// one) and then the worker. Does nothing while the workers are not running.
// Called on the netlink receive thread (tests and benchmarks call it
// directly).
void qmx_srv_handle_event(const nl_event* event);

// Diagnostics (also what tests wait on): reports queued (announced or not;
// what the cap counts), of them those announced and waiting for the lookup,
// reports the worker has finished since start, keys waiting for a query.
// Release logs how many reports arrived and how many the cap dropped, and
// the kernel commands not sent, when there were any (zor_ctrl.h).
uint32_t qmx_srv_queued_events();
uint32_t qmx_srv_lookup_events();
uint64_t qmx_srv_finished_events();
uint32_t qmx_srv_pending_queries();
