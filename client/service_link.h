#pragma once

// Finding, starting and stopping the media service: what a ServiceLease does, and what the tools,
// benchmarks and tests use besides. Not installed.

#include <sys/types.h>

#include <string>

namespace mediaclient {

// The media-service binary to start: the one next to the running program, else the first one
// in PATH. Empty when there is none.
std::string find_service_binary();

// Whether something accepts connections on `socket_path` now.
bool service_listening(const std::string& socket_path);

// Starts `binary` (find_service_binary() when empty) so that it listens on `socket_path`, and
// waits up to `timeout_ms` for the socket. The service derives its socket path from
// XDG_RUNTIME_DIR, so the path must end in /vessa/sockets/media-service.socket; the directory is
// created when missing. With `cgroup`, the service starts in that cgroup (a folder of the cgroup
// file system). On failure `error` holds one line.
bool start_service(const std::string& socket_path, const std::string& binary, int timeout_ms,
                   std::string* error, const std::string& cgroup = "");

// Closes every descriptor above standard error but `keep`; async-signal-safe, for a forked child.
void close_all_but(int keep);

// mkdir -p, with mode 0700 for what it creates.
bool make_dirs(const std::string& dir);

// The process at the other end of a connected local socket (SO_PEERCRED): for a client
// connection to the service, the service itself. -1 when unknown.
pid_t peer_pid(int fd);

// The process listening on `socket_path`, -1 when nothing does.
pid_t listener_pid(const std::string& socket_path);

// Waits up to `timeout_ms` for `pid` to end. The service is not our child (it daemonises), so its
// end is seen with kill(pid, 0) and its state in /proc.
bool wait_process_gone(pid_t pid, int timeout_ms);

// Sends SIGTERM to `pid` and waits up to `timeout_ms` for it to end.
bool stop_process(pid_t pid, int timeout_ms);

}  // namespace mediaclient
