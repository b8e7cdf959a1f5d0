// Local command channel: a Unix stream socket at the context's ipc_socket,
// served by one command thread owned by this module, one 264-byte request and
// one 260-byte reply per connection (several for IPC_CMD_STATS), in arrival
// order. A connection whose request does not come within zor_timing's
// ipc_request (5 s, taken at start) is dropped, so that a silent client
// cannot hold the channel.
//
// ipc_srv_start and ipc_srv_stop are called by the main thread (start-up,
// shutdown); the command thread writes the context's run-state words and
// pc_rule, and calls the scheduler, the verdict cache, the cloud client and
// the reload.
// Both records are raw structures in host byte order: both ends run on the
// same machine.
//
// Only root, the service's own uid and, when the configuration names one,
// the members of ipc_group are served: the socket file is 0600 (0660 and
// that group's with ipc_group) from before it listens, and every
// connection's peer credentials are checked; anyone else is logged at E and
// closed without a reply.
//
// The reply record belongs to the command thread for its whole life. It is
// zeroed once when the thread starts and never cleared between requests, so
// a command that does not write it answers with what the previous command
// left there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "stats.h"

enum ipc_cmd : int32_t {
    IPC_CMD_EXIT = 1,
    IPC_CMD_CLOUD_ENABLE = 10,
    IPC_CMD_CLOUD_DISABLE = 11,
    IPC_CMD_PC_ENABLE = 40,
    IPC_CMD_PC_DISABLE = 41,
    IPC_CMD_PC_SET_RULE = 42,    // buf: the rule file's path
    IPC_CMD_PC_CLEAR_RULE = 43,  // reply not written
    IPC_CMD_STATUS = 70,         // msg "%c %c %llu %llu %s"; result not written
    IPC_CMD_QUERY = 100,         // type; buf "NAME A B"; the reply holds NAME over result
    IPC_CMD_SHOW_DB = 200,       // result 0; the listing goes to the log, not the reply
    IPC_CMD_DB_ADD = 201,        // buf: a cloud reply JSON; result 0 whatever the outcome
    IPC_CMD_RELOAD = 300,        // result 0; 1: category file kept, 2: rules not read; msg says why
    IPC_CMD_STATS = 301,         // answered by ipc_stats_records; the kept reply is not written
};

struct ipc_request {
    int32_t cmd;    // an ipc_cmd
    int32_t type;   // argument of IPC_CMD_QUERY
    char buf[256];  // text argument, zero-terminated (the server forces the last byte)
};
static_assert(sizeof(ipc_request) == 264, "wire size of a request");

struct ipc_reply {
    int32_t result;  // 0 done, 1 failed
    char msg[256];   // zero-terminated; meaningful only for commands that set it
};
static_assert(sizeof(ipc_reply) == 260, "wire size of a reply");

// The counters travel as several reply records on the one connection, each
// msg holding whole "NAME VALUE\n" lines (decimal, unsigned 64-bit), its
// result the number of records that follow (0 on the last). At most this
// many records; values that do not fit in them are left out.
inline constexpr size_t IPC_STATS_MAX_RECORDS = 16;
std::vector<ipc_reply> ipc_stats_records(const std::vector<stat_value>& values);

// Carries out one request as the command thread does, writing `reply` only
// where the command writes it (the caller keeps the record between requests
// as the thread does). Forces the last byte of req.buf to zero first. Runs
// on the command thread; tests and fuzzing call it directly.
void ipc_dispatch(ipc_request& req, ipc_reply& reply);

// Removes a file left at ipc_socket, binds, listens and starts the command
// thread; a running server is stopped first. 1 when the socket listens and
// the thread runs, 0 otherwise (not configured, a path of 108 bytes or more,
// or a socket call failed; each logged at level E).
[[nodiscard]] int ipc_srv_start();
// Stops and joins the thread (it returns promptly unless a command is
// running) and removes the socket file. Safe twice and before start.
void ipc_srv_stop();
