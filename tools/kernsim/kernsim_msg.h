// Datagrams that the kernel module sends to the service over generic
// netlink, built in user space: the controller reply that announces the
// "zor_notify" family id, and event records. Every field a malformed
// datagram needs to get wrong (lengths, types, the family id) can be set.
// Pure functions; all integers are in host byte order, as on the wire.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

inline constexpr uint16_t KS_GENL_ID_CTRL = 16;
inline constexpr uint8_t KS_CTRL_CMD_NEWFAMILY = 1;
inline constexpr uint16_t KS_CTRL_ATTR_FAMILY_ID = 1;
inline constexpr uint16_t KS_CTRL_ATTR_FAMILY_NAME = 2;
inline constexpr uint16_t KS_DEFAULT_FAMILY_ID = 40;
inline constexpr const char* KS_FAMILY_NAME = "zor_notify";

// Key types and their data field sizes.
inline constexpr uint32_t KS_TYPE_DOMAIN = 20;
inline constexpr uint32_t KS_TYPE_ADDR = 21;
inline constexpr uint32_t KS_TYPE_ADDR_ALT = 22;
inline constexpr uint32_t KS_DOMAIN_FIELD = 256;
inline constexpr uint32_t KS_ADDR_FIELD = 40;

// Header tweaks shared by both kinds of datagram. Unset members keep the
// value a well-behaved kernel module would send.
struct ks_header_opts {
    std::optional<uint32_t> nlmsg_len;   // a length that need not be true
    std::optional<uint16_t> nlmsg_type;  // e.g. a family id that is not the announced one
    std::optional<uint8_t> genl_cmd;
    std::optional<size_t> cut;           // send only this many leading bytes
};

// The controller's answer to a family request: genl cmd 1, first attribute
// the family name, second attribute (type `id_attr_type`, normally the family
// id) holding `family_id`, then version, header size and attribute count as
// the kernel appends them.
struct ks_announce {
    std::string name = KS_FAMILY_NAME;
    uint16_t family_id = KS_DEFAULT_FAMILY_ID;
    uint16_t id_attr_type = KS_CTRL_ATTR_FAMILY_ID;
    ks_header_opts hdr;
};

// One event record: netlink header with nlmsg_type = family id, genl cmd 1,
// one attribute holding flags, data_type, data_len and a data field of
// `field_size` zero-filled bytes into which `text` is copied (cut to the field;
// a text that fills the field has no terminator).
struct ks_event {
    uint16_t family_id = KS_DEFAULT_FAMILY_ID;
    uint32_t flags = 0;
    uint32_t data_type = KS_TYPE_DOMAIN;
    uint32_t field_size = KS_DOMAIN_FIELD;
    std::optional<uint32_t> data_len;  // the data_len word when it must lie
    std::string text;
    ks_header_opts hdr;
};

std::vector<uint8_t> ks_build_announce(const ks_announce& a, uint32_t seq);
std::vector<uint8_t> ks_build_event(const ks_event& e, uint32_t seq);

// Reads back what the service's receive path would read; used by tests and
// by the verbose trace. Returns nullopt when the buffer is too short.
struct ks_view {
    uint32_t nlmsg_len;
    uint16_t nlmsg_type;
    uint8_t genl_cmd;
};
std::optional<ks_view> ks_peek(const std::vector<uint8_t>& msg);

// Replaces every "{n}" in `text` with the decimal `index`.
std::string ks_expand(const std::string& text, unsigned index);
