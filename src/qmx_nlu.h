// Generic netlink channel to the kernel module's "zor_notify" family. The
// socket is bound with the service's process id as its port id; when that
// port is taken, with one the kernel picks, and the port actually bound is
// the one announced to the module. A resolver
// thread asks the netlink controller for the family id every second until it
// is known and every 5 s afterwards; each controller reply stores the id and
// tells the module our port ("env server_port <port>"). A receive thread
// hands every event record of the family to the callback, on the receive
// thread; the socket's receive queue is enlarged to 1 MiB, since the module
// drops what does not fit. All integers on this channel are in host byte order.
//
// Datagram layouts (offsets from the start of the netlink message):
//   family request:   nlmsghdr{36, type 16, flags 1, seq 0, pid 0},
//                     genl{cmd 3, version 1}, attr{len 16, type 2} "zor_notify\0" + pad
//   controller reply: nlmsghdr{type 16}, genl{cmd 1}, attr 1 at 20 (name at 24),
//                     attr 2 at 20 + align4(attr 1 len): type 1, u16 family id at +4
//   event:            nlmsghdr{type = family id}, genl{cmd 1} at 16, attr header at 20,
//                     flags at 24, data_type at 28, data_len at 32, data at 36
//
// nlu_open starts both threads; nlu_close stops and joins them (it returns
// promptly: the receive thread polls with a stop signal and the resolver
// sleeps on a condition variable) and then closes the socket. The callback
// may be running while nlu_close waits for it; its owner makes it return
// quickly (the event workers stop accepting events before they close).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// The kernel's event record as the callback receives it: `data_len` bytes of
// zero-terminated text in a fixed-size field follow the three words. The
// channel guarantees that all `data_len` bytes are inside the datagram.
struct nl_event {
    uint32_t flags;      // bit 0: send the pending cloud queries now
    uint32_t data_type;  // 20 = domain name; 21, 22 = address text
    uint32_t data_len;   // 256 for a domain name, 40 for an address
    const char* data() const { return reinterpret_cast<const char*>(this + 1); }
};
static_assert(sizeof(nl_event) == 12);

// Event callback; null drops events.
using nlu_event_fn = void (*)(const nl_event* event);

struct nlu_ctx;

// Receive buffer size: the largest datagram the channel reads whole.
inline constexpr size_t NLU_RECV_SIZE = 1044;
// Largest payload nlu_send accepts.
inline constexpr size_t NLU_MAX_SEND = 1012;

// Creates the socket, binds it to `port` (or, when that is taken, to a free
// port: nlu_port tells which), starts the receive and resolver threads. Null
// when the socket cannot be created or bound.
[[nodiscard]] nlu_ctx* nlu_open(uint32_t port, nlu_event_fn on_event);
// Stops and joins both threads, closes the socket, frees the channel.
// Null-safe.
void nlu_close(nlu_ctx* ctx);
// Sends `len` bytes (at most NLU_MAX_SEND) to netlink port `port` as a data
// message (at 20: u32 1, at 24: u32 len, at 28: the data) without blocking.
// -1 while the family id is unknown or the arguments are bad; otherwise the
// result of sendmsg.
int nlu_send(nlu_ctx* ctx, uint32_t port, const void* data, uint32_t len);

// The family id, 0 while unknown.
uint32_t nlu_family_id(const nlu_ctx* ctx);
// The channel's own port id: the one bound.
uint32_t nlu_port(const nlu_ctx* ctx);

// The family request datagram, byte for byte.
std::vector<uint8_t> nlu_family_request();

// What the receive thread does with one received datagram of `len` bytes:
// bounds checks, controller reply handling, event dispatch. Any thread may
// call it (tests feed datagrams through it without a socket).
void nlu_handle_datagram(nlu_ctx* ctx, const uint8_t* buf, size_t len);

// A channel without a socket or threads, for feeding nlu_handle_datagram
// directly. Freed with nlu_close.
[[nodiscard]] nlu_ctx* nlu_open_detached(uint32_t port, nlu_event_fn on_event);
