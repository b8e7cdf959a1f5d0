// Datagrams on the generic-netlink channel come from the kernel, but a bug
// there or a local sender with the right to write to our port must not take
// the service down: the channel takes any datagram, learns the family id
// only from a sound controller reply (telling the module our port each
// time), and hands an event to the handler only when all of its data lies
// inside the datagram. The handler's first step, the u2k line for a domain
// or address report, runs on every event handed over.
//
// Input: datagrams, each as a little-endian 16-bit length and that many
// bytes (the last one takes what is left), fed in order to one channel.
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "qmx_nlu.h"
#include "zor_ctrl.h"

namespace {

constexpr size_t kMaxInput = 1 << 14;
constexpr size_t kMaxDatagrams = 16;
constexpr uint32_t kPort = 4242;
constexpr size_t kEventData = 36;  // offset of an event's text

size_t g_datagram_len = 0;  // length of the datagram being handled
size_t g_events = 0;

void on_event(const nl_event* ev) {
    ++g_events;
    fuzz::check(kEventData + ev->data_len <= g_datagram_len, "event data runs past its datagram");
    // The handler keeps the text up to its first zero byte and announces a
    // domain or address report to the kernel.
    const std::string text(ev->data(), strnlen(ev->data(), ev->data_len));
    const bool report = (ev->data_type == 20 && ev->data_len == 256) ||
                        ((ev->data_type == 21 || ev->data_type == 22) && ev->data_len == 40);
    if (report) zor_notify_u2k(static_cast<int>(ev->data_type), text.c_str());
}

struct ctx_closer {
    void operator()(nlu_ctx* c) const { nlu_close(c); }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::install_checking_runner();
    fuzz::log_to_null();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    std::unique_ptr<nlu_ctx, ctx_closer> ctx(nlu_open_detached(kPort, on_event));
    fuzz::check(ctx != nullptr, "no channel");
    const std::string port_line = zor_ctrl_server_port_line(static_cast<int>(kPort));
    fuzz::take_lines();
    g_events = 0;

    size_t at = 0;
    for (size_t n = 0; n < kMaxDatagrams && at + 2 <= size; ++n) {
        size_t len = data[at] | static_cast<size_t>(data[at + 1]) << 8;
        at += 2;
        if (len > size - at) len = size - at;
        // A buffer of exactly the datagram's size: any read past it is caught.
        std::vector<uint8_t> dgram(data + at, data + at + len);
        at += len;
        const uint32_t fid_before = nlu_family_id(ctx.get());
        const size_t events_before = g_events;
        g_datagram_len = len;
        nlu_handle_datagram(ctx.get(), dgram.data(), dgram.size());
        const std::vector<std::string> lines = fuzz::take_lines();

        const uint32_t fid = nlu_family_id(ctx.get());
        fuzz::check(fid <= 0xFFFF, "family id wider than 16 bits");
        const bool handed = g_events != events_before;
        if (handed) {
            fuzz::check(fid != 0 && fid == fid_before, "event handed over without a known family");
            for (const std::string& l : lines)
                fuzz::check(l.find("echo \"db key2group u2k ") != std::string::npos, "event ran another line", l);
        } else {
            // A controller reply announces our port once; nothing else runs.
            fuzz::check(lines.size() <= 1, "more than one line for one datagram");
            if (!lines.empty()) fuzz::check(lines[0] == port_line, "unexpected line", lines[0]);
        }
    }
    return 0;
}
