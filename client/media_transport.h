#pragma once

// The steps of talking to media-service below the client classes of media_client.h: the socket,
// the client type msg, waiting for a signal. What the classes report their outcome with lives here
// too. Tests and tools that speak the protocol by hand use these; a decoder client needs none.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

struct ucred;

namespace mediaclient {

enum class ClientError {
    kOk = 0,           // the service answered (or, for connect and ring, the step was done)
    kTimeout,          // no sync msg within the given time
    kDisconnected,     // the service closed the connection
    kNotConnected,     // the object has no connection (or no block)
    kInvalidArgument,  // refused before sending: last_error_text() names the field and its limit
    kSystem,           // a system call failed: last_error_text() and last_errno() say which
};

// A few words per value; an object's last_error_text() says more.
const char* error_text(ClientError error);

// Default wait for one request: a video init probes hardware devices and can take a while.
constexpr int kDefaultTimeoutMs = 20000;

// Socket path as the service composes it: $XDG_RUNTIME_DIR/vessa/sockets/media-service.socket,
// or /run/user/<euid>/vessa/sockets/media-service.socket when the variable is unset.
std::string default_socket_path();

// Opens a sequenced-packet socket connected to `path` (the default path when empty), close-on-exec.
// Returns the descriptor, or -1 with errno set.
int connect_service(const std::string& path = "");

// Sends one record with `size` data bytes (0 is allowed: an empty record), `fd_count` descriptors
// as SCM_RIGHTS (none when 0) and, when `creds` is not null, explicit SCM_CREDENTIALS. Without
// explicit credentials the kernel attaches the sender's own, since the service has SO_PASSCRED on.
// Another process's pid is accepted by the kernel only from a privileged sender.
// Returns the bytes sent or -1 with errno set. Never raises SIGPIPE.
ssize_t send_record(int fd, const void* data, size_t size, const int* fds, size_t fd_count,
                    const struct ucred* creds);

// Sends a client type msg: `client_type`, a reserved zero byte and, when `shm_name` is not empty,
// the name with its terminator; one descriptor `passed_fd`, and credentials naming `pid` (own pid
// when 0). The service answers nothing; a refused client sees its connection closed.
// Returns 0, or -1 with errno set.
int send_client_type_msg(int fd, uint8_t client_type, const std::string& shm_name, int passed_fd,
                         pid_t pid = 0);

// Waits until `fd` is readable. kOk, kTimeout, or kSystem.
ClientError wait_readable(int fd, int timeout_ms);

// Whether the peer closed the connection within `timeout_ms` (unread data does not count and is
// not consumed).
bool wait_closed(int fd, int timeout_ms);

}  // namespace mediaclient
