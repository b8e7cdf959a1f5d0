#include "kernsim_msg.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t NL_HDR = 16;
constexpr size_t GENL_HDR = 4;
constexpr size_t NLA_HDR = 4;

constexpr size_t align4(size_t n) { return (n + 3) & ~size_t{3}; }

void put16(std::vector<uint8_t>& b, size_t at, uint16_t v) { std::memcpy(&b[at], &v, 2); }
void put32(std::vector<uint8_t>& b, size_t at, uint32_t v) { std::memcpy(&b[at], &v, 4); }

// Appends one attribute (header, payload, padding) and returns its offset.
size_t put_attr(std::vector<uint8_t>& b, uint16_t type, const void* data, size_t len) {
    size_t at = b.size();
    b.resize(at + align4(NLA_HDR + len), 0);
    put16(b, at, static_cast<uint16_t>(NLA_HDR + len));
    put16(b, at + 2, type);
    if (len) std::memcpy(&b[at + NLA_HDR], data, len);
    return at;
}

std::vector<uint8_t> start_msg(uint16_t type, uint8_t cmd, uint8_t version, uint32_t seq) {
    std::vector<uint8_t> b(NL_HDR + GENL_HDR, 0);
    put16(b, 4, type);
    put32(b, 8, seq);
    b[16] = cmd;
    b[17] = version;
    return b;
}

// Writes the true length, then applies the caller's lies and the cut.
void finish_msg(std::vector<uint8_t>& b, const ks_header_opts& h) {
    put32(b, 0, static_cast<uint32_t>(b.size()));
    if (h.nlmsg_type) put16(b, 4, *h.nlmsg_type);
    if (h.genl_cmd) b[16] = *h.genl_cmd;
    if (h.cut && *h.cut < b.size()) {
        b.resize(*h.cut);
        // A cut datagram still says how long it is, unless told to lie.
        if (b.size() >= 4) put32(b, 0, static_cast<uint32_t>(b.size()));
    }
    if (h.nlmsg_len && b.size() >= 4) put32(b, 0, *h.nlmsg_len);
}

}  // namespace

std::vector<uint8_t> ks_build_announce(const ks_announce& a, uint32_t seq) {
    std::vector<uint8_t> b = start_msg(KS_GENL_ID_CTRL, KS_CTRL_CMD_NEWFAMILY, 2, seq);
    put_attr(b, KS_CTRL_ATTR_FAMILY_NAME, a.name.c_str(), a.name.size() + 1);
    put_attr(b, a.id_attr_type, &a.family_id, sizeof a.family_id);
    const uint32_t version = 1, hdrsize = 0, maxattr = 1;
    put_attr(b, 3, &version, 4);
    put_attr(b, 4, &hdrsize, 4);
    put_attr(b, 5, &maxattr, 4);
    finish_msg(b, a.hdr);
    return b;
}

std::vector<uint8_t> ks_build_event(const ks_event& e, uint32_t seq) {
    std::vector<uint8_t> b = start_msg(e.family_id, 1, 1, seq);
    std::vector<uint8_t> rec(12 + e.field_size, 0);
    uint32_t words[3] = {e.flags, e.data_type, e.data_len.value_or(e.field_size)};
    std::memcpy(rec.data(), words, sizeof words);
    std::memcpy(rec.data() + 12, e.text.data(), std::min<size_t>(e.text.size(), e.field_size));
    put_attr(b, 1, rec.data(), rec.size());
    finish_msg(b, e.hdr);
    return b;
}

std::optional<ks_view> ks_peek(const std::vector<uint8_t>& msg) {
    if (msg.size() < NL_HDR + 1) return std::nullopt;
    ks_view v{};
    std::memcpy(&v.nlmsg_len, &msg[0], 4);
    std::memcpy(&v.nlmsg_type, &msg[4], 2);
    v.genl_cmd = msg[16];
    return v;
}

std::string ks_expand(const std::string& text, unsigned index) {
    std::string out;
    const std::string n = std::to_string(index);
    size_t pos = 0;
    for (;;) {
        size_t hit = text.find("{n}", pos);
        if (hit == std::string::npos) break;
        out.append(text, pos, hit - pos);
        out += n;
        pos = hit + 3;
    }
    out.append(text, pos, std::string::npos);
    return out;
}
