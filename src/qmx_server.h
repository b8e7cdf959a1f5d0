// Event workers: kernel reports are queued, matched against the category
// file, then the verdict cache, and otherwise batched to the cloud.
#pragma once

// Starts the workers and the netlink channel. 1 on success, 0 on failure.
[[nodiscard]] int qmx_srv_start();
// Stops and joins everything. Safe twice and before start.
void qmx_srv_release();
