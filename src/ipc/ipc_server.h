// Local command channel: a Unix stream socket served by one thread, one
// 264-byte request and one 260-byte reply per connection.
#pragma once

// 1 when the socket listens and the thread runs, 0 otherwise.
[[nodiscard]] int ipc_srv_start();
// Stops and joins the thread and removes the socket file. Safe twice.
void ipc_srv_stop();
