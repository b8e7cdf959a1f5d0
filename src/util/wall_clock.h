// The wall clock in whole seconds, for time stamps in logs and for token
// lifetimes the cloud states in seconds. Any thread may call it.
#pragma once

#include <cstdint>
#include <ctime>

// Seconds since the epoch (time()), 64 bits on every target.
inline int64_t now_seconds() { return static_cast<int64_t>(std::time(nullptr)); }
