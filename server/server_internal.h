#pragma once

// What the server's handlers share: the log identity of the server's lines, and changing an io
// watcher's write interest.

#include <cstddef>

#include <ev++.h>

#include "base/log.h"

#define LOG_MODULE "media server"
#define LOG_FILE "media_server"

namespace server_detail {

// A doorbell, a session's answer and a record the service reads at once: at most this much.
constexpr size_t CLIENT_READ_SIZE = 256;

// Adds EV_WRITE to or removes it from an io watcher's events; the descriptor and EV_READ stay, and
// an active watcher is restarted with the new set (ev::io::set does the stop and start).
inline void set_write_interest(ev::io& io, bool on) {
    const int events = io.events & (EV_READ | EV_WRITE);
    io.set(on ? (events | EV_WRITE) : (events & ~EV_WRITE));
}

}  // namespace server_detail
