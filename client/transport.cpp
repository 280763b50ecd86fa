// The protocol's steps below the client classes: the socket path, connecting, records with
// ancillary data, waiting for a signal; and the texts that the library reports errors with.
#include "client/client_internal.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/eintr.h"

namespace mediaclient {

using namespace protocol;

namespace internal {

ssize_t read_retry(int fd, void* buf, size_t size) {
    return retry_on_eintr([&] { return ::read(fd, buf, size); });
}

ssize_t send_retry(int fd, const void* buf, size_t size) {
    return retry_on_eintr([&] { return ::send(fd, buf, size, MSG_NOSIGNAL); });
}

bool is_disconnect_errno(int err) {
    return err == ECONNRESET || err == EPIPE || err == ENOTCONN;
}

std::string system_error_text(const std::string& doing, int err) {
    std::string text = doing + ": " + strerror(err);
    // Nothing listens on the socket (a stale file) or there is no socket file at all.
    if (err == ECONNREFUSED || err == ENOENT) {
        text += " (is the service running?)";
    } else if (err == ENAMETOOLONG) {
        text += " (a socket path holds at most " +
                std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes)";
    }
    return text;
}

std::string error_text_of(ClientError error, const std::string& doing, int err) {
    switch (error) {
        case ClientError::kSystem:
            return system_error_text(doing, err);
        case ClientError::kTimeout:
            return doing + ": timed out";
        case ClientError::kDisconnected:
            return doing + ": the service closed the connection";
        case ClientError::kNotConnected:
            return doing + ": not connected";
        case ClientError::kInvalidArgument:
        case ClientError::kOk:
            break;
    }
    return doing;
}

}  // namespace internal

const char* error_text(ClientError error) {
    switch (error) {
        case ClientError::kOk:
            return "ok";
        case ClientError::kTimeout:
            return "timed out";
        case ClientError::kDisconnected:
            return "disconnected";
        case ClientError::kNotConnected:
            return "not connected";
        case ClientError::kInvalidArgument:
            return "invalid argument";
        case ClientError::kSystem:
            return "system call failed";
    }
    return "unknown error";
}

std::string default_socket_path() {
    return protocol::socket_path_for(getenv("XDG_RUNTIME_DIR"), geteuid());
}

int connect_service(const std::string& path) {
    const std::string target = path.empty() ? default_socket_path() : path;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (target.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(addr.sun_path, target.c_str(), target.size() + 1);

    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    const int ret = retry_on_eintr(
        [&] { return ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)); });
    if (ret < 0) {
        int err = errno;
        ::close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

ssize_t send_record(int fd, const void* data, size_t size, const int* fds, size_t fd_count,
                    const struct ucred* creds) {
    if (fd_count > internal::kMaxPassedFds || (fd_count > 0 && fds == nullptr) ||
        (size > 0 && data == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    union {
        cmsghdr align;
        char buf[CMSG_SPACE(sizeof(struct ucred)) +
                 CMSG_SPACE(sizeof(int) * internal::kMaxPassedFds)];
    } control;
    memset(&control, 0, sizeof(control));

    iovec iov{const_cast<void*>(data), size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;

    size_t control_len = 0;
    if (creds != nullptr) {
        control_len += CMSG_SPACE(sizeof(struct ucred));
    }
    if (fd_count > 0) {
        control_len += CMSG_SPACE(sizeof(int) * fd_count);
    }
    if (control_len > 0) {
        msg.msg_control = control.buf;
        msg.msg_controllen = control_len;
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        if (creds != nullptr) {
            cmsg->cmsg_level = SOL_SOCKET;
            cmsg->cmsg_type = SCM_CREDENTIALS;
            cmsg->cmsg_len = CMSG_LEN(sizeof(struct ucred));
            memcpy(CMSG_DATA(cmsg), creds, sizeof(struct ucred));
            cmsg = CMSG_NXTHDR(&msg, cmsg);
        }
        if (fd_count > 0) {
            cmsg->cmsg_level = SOL_SOCKET;
            cmsg->cmsg_type = SCM_RIGHTS;
            cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fd_count);
            memcpy(CMSG_DATA(cmsg), fds, sizeof(int) * fd_count);
        }
    }

    return retry_on_eintr([&] { return ::sendmsg(fd, &msg, MSG_NOSIGNAL); });
}

int send_client_type_msg(int fd, uint8_t client_type, const std::string& shm_name, int passed_fd,
                         pid_t pid) {
    if (shm_name.size() > SHM_NAME_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    uint8_t record[CLIENT_TYPE_MSG_MAX + 1] = {};
    record[0] = client_type;
    size_t size = 2;
    if (!shm_name.empty()) {
        // The terminator only fits below 255 bytes; a 255-byte name ends with the record.
        memcpy(record + 2, shm_name.data(), shm_name.size());
        size += std::min(shm_name.size() + 1, SHM_NAME_MAX);
    }
    // The credentials name the session process; the service requires them together with
    // exactly one descriptor, so they are always sent explicitly.
    struct ucred creds {};
    creds.pid = pid != 0 ? pid : getpid();
    creds.uid = getuid();
    creds.gid = getgid();
    ssize_t n = send_record(fd, record, size, &passed_fd, 1, &creds);
    return n < 0 ? -1 : 0;
}

ClientError wait_readable(int fd, int timeout_ms) {
    pollfd pfd{fd, POLLIN, 0};
    const int ret = retry_on_eintr([&] { return ::poll(&pfd, 1, timeout_ms); });
    return ret > 0 ? ClientError::kOk : ret == 0 ? ClientError::kTimeout : ClientError::kSystem;
}

bool wait_closed(int fd, int timeout_ms) {
    // Only hang-up and errors wake this poll, so unread data does not end the wait early.
    pollfd pfd{fd, POLLRDHUP, 0};
    const int ret = retry_on_eintr([&] { return ::poll(&pfd, 1, timeout_ms); });
    return ret > 0 && (pfd.revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) != 0;
}

}  // namespace mediaclient
