#include "cloud_link.h"

namespace {
std::atomic<const cloud_link*> the_link{nullptr};
}

void cloud_link_set(const cloud_link* link) {
    the_link.store(link, std::memory_order_release);
}

bool cloud_ready() {
    const cloud_link* l = the_link.load(std::memory_order_acquire);
    return l && l->ready();
}

int cloud_session_info(int32_t* start, int32_t* exp, std::string* id) {
    const cloud_link* l = the_link.load(std::memory_order_acquire);
    return l ? l->session_info(start, exp, id) : 0;
}

std::optional<std::string> cloud_query(const char* text, const std::atomic<bool>* abort) {
    const cloud_link* l = the_link.load(std::memory_order_acquire);
    if (!l) return std::nullopt;
    return l->query(text, abort);
}
