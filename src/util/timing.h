// The service's intervals and time-outs in one record, each defaulting to the
// value the product runs with. Tests, benchmarks and the soak build shorten
// them here and nowhere else.
//
// Who sets it and when: zor_service_run (service_main.h) once, on the
// initial thread, before it starts any subsystem (the product's values from
// main, the soak build's shorter cleaner periods); a test or benchmark before
// it starts the subsystem it exercises. Each subsystem takes its values when
// it starts (the transport when a request starts), so a record set while a
// subsystem runs applies only to what starts afterwards. Reading and setting
// are thread-safe, but no thread should count on a change while it runs.
#pragma once

#include <chrono>

struct zor_timing {
    using ms = std::chrono::milliseconds;

    ms cache_clean{5000};        // between two passes of the verdict cache's cleaner
    ms log_clean{60000};         // between two size checks of the log file
    ms query_trigger{10000};     // between two wakes of the query sender by the trigger
    ms login_retry{30000};       // the session maintainer's wait after a failed round
    ms form_timeout{5000};       // connect and total time-out of the login form POST
    ms request_timeout{10000};   // connect and total time-out of the ping and query requests
    ms family_retry{1000};       // netlink family request again while its id is unknown
    ms family_refresh{5000};     // netlink family request again once its id is known
    ms ipc_request{5000};        // a command connection's wait for its request
    ms stop_check{1000};         // the main thread's look at the stop signal and flags
    ms rule_second{1000};        // one second of the rule scheduler's waits
};

// Replaces the record. Every value below 1 ms is taken as 1 ms (a zero
// libcurl time-out would mean none, a zero period a busy loop).
void timing_set(const zor_timing& timing);
// A copy of the record in force.
zor_timing timing_get();
