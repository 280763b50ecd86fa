// The session client: registers for the container session and answers the service's pings.
#include "client/client_internal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/eintr.h"

namespace mediaclient {

using namespace protocol;
using internal::is_disconnect_errno;
using internal::kMaxPassedFds;
using internal::kSignalBufferSize;
using internal::send_retry;

namespace {

// How long a registration waits to see whether the service refuses it.
constexpr int kRefusalWaitMs = 100;

}  // namespace

SessionClient::~SessionClient() {
    close();
}

void SessionClient::close() {
    stop_answering();
    fd_.reset();
}

ClientError SessionClient::connect(const std::string& socket_path, pid_t pid) {
    close();
    error_text_.clear();
    disconnected_ = false;
    pings_ = 0;
    first_ping_fd_count_ = -1;
    later_ping_fd_count_ = 0;

    const std::string path = socket_path.empty() ? default_socket_path() : socket_path;
    fd_.reset(connect_service(path));
    if (!fd_) {
        errno_ = errno;
        return fail(ClientError::kSystem, "connect to " + path);
    }
    // The service wants one descriptor with every client type msg; the session has no use for
    // it, so pass /dev/null.
    const UniqueFd null_fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!null_fd) {
        errno_ = errno;
        fd_.reset();
        return fail(ClientError::kSystem, "open /dev/null");
    }
    const int ret = send_client_type_msg(fd_.get(), CLIENT_TYPE_SESSION, "", null_fd.get(), pid);
    errno_ = errno;
    if (ret < 0) {
        fd_.reset();
        return fail(ClientError::kSystem, "register as the session client at " + path);
    }
    return ClientError::kOk;
}

const std::string& SessionClient::last_error_text() const {
    // The answering thread sees the end of the connection but may not write the text.
    static const std::string kClosed =
        "the service closed the session connection (it ends a session that has not answered "
        "for 8 seconds)";
    return error_text_.empty() && disconnected_.load() ? kClosed : error_text_;
}

ClientError SessionClient::respond() {
    error_text_.clear();
    const ClientError sent = send_response();
    return sent == ClientError::kOk ? sent : fail(sent, "answer a ping");
}

// Also on the answering thread: no error text here.
ClientError SessionClient::send_response() {
    if (!fd_) {
        return ClientError::kNotConnected;
    }
    const uint8_t byte = PING_MSG_BYTE;
    if (send_retry(fd_.get(), &byte, 1) < 0) {
        errno_ = errno;
        if (is_disconnect_errno(errno_)) {
            disconnected_ = true;
            return ClientError::kDisconnected;
        }
        return ClientError::kSystem;
    }
    return ClientError::kOk;
}

ClientError SessionClient::read_ping(bool answer) {
    uint8_t buf[kSignalBufferSize];
    iovec iov{buf, sizeof(buf)};
    union {
        cmsghdr align;
        char buf[CMSG_SPACE(sizeof(int) * kMaxPassedFds)];
    } control;
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.buf;
    msg.msg_controllen = sizeof(control.buf);

    const ssize_t n = retry_on_eintr([&] { return ::recvmsg(fd_.get(), &msg, MSG_CMSG_CLOEXEC); });
    if (n < 0) {
        errno_ = errno;
        if (is_disconnect_errno(errno_)) {
            disconnected_ = true;
            return ClientError::kDisconnected;
        }
        return ClientError::kSystem;
    }

    // The service passes a descriptor with the first ping only; nothing here uses it.
    int fd_count = 0;
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        if (cmsg->cmsg_level == SOL_SOCKET && cmsg->cmsg_type == SCM_RIGHTS) {
            size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int passed;
                memcpy(&passed, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
                ::close(passed);
            }
            fd_count += static_cast<int>(count);
        }
    }
    if (n == 0) {
        disconnected_ = true;
        return ClientError::kDisconnected;
    }
    if (pings_.load() == 0) {
        first_ping_fd_count_ = fd_count;
    } else {
        later_ping_fd_count_ += fd_count;
    }
    ++pings_;
    return answer ? send_response() : ClientError::kOk;
}

ClientError SessionClient::answer_ping(int timeout_ms, bool answer) {
    const std::string doing = "wait " + std::to_string(timeout_ms) + " ms for a ping";
    error_text_.clear();
    if (!fd_) {
        return fail(ClientError::kNotConnected, doing);
    }
    ClientError ready = wait_readable(fd_.get(), timeout_ms);
    if (ready != ClientError::kOk) {
        errno_ = errno;
        return fail(ready, doing);
    }
    ClientError read = read_ping(answer);
    return read == ClientError::kOk ? read : fail(read, "read and answer a ping");
}

ClientError SessionClient::start_answering() {
    if (!fd_) {
        return fail(ClientError::kNotConnected, "start answering pings");
    }
    if (thread_.joinable()) {
        return ClientError::kOk;
    }
    ClientError first = respond();
    if (first != ClientError::kOk) {
        return first;
    }
    // The service answers a registration with nothing, but closes a refused one at once; a
    // registered session hears its first ping only 2 seconds later.
    if (wait_closed(fd_.get(), kRefusalWaitMs)) {
        fd_.reset();
        disconnected_ = true;
        error_text_ =
            "start answering pings: the service has closed the connection: it refused the "
            "registration (a service serves one session client and has one already; its log says "
            "why)";
        return ClientError::kDisconnected;
    }
    int stop[2];
    if (::pipe2(stop, O_CLOEXEC) < 0) {
        errno_ = errno;
        return fail(ClientError::kSystem, "make the answering thread's stop pipe");
    }
    stop_read_.reset(stop[0]);
    stop_write_.reset(stop[1]);
    thread_ = std::thread(&SessionClient::answering_loop, this);
    return ClientError::kOk;
}

void SessionClient::stop_answering() {
    if (thread_.joinable()) {
        const char byte = 0;
        retry_on_eintr([&] { return ::write(stop_write_.get(), &byte, 1); });
        thread_.join();
    }
    stop_read_.reset();
    stop_write_.reset();
}

void SessionClient::answering_loop() {
    for (;;) {
        pollfd pfds[2] = {{fd_.get(), POLLIN, 0}, {stop_read_.get(), POLLIN, 0}};
        const int ret = retry_on_eintr([&] { return ::poll(pfds, 2, -1); });
        if (ret < 0) {
            errno_ = errno;
            return;
        }
        if (pfds[1].revents != 0) {
            return;
        }
        if (pfds[0].revents != 0 && read_ping(true) != ClientError::kOk) {
            return;
        }
    }
}

ClientError SessionClient::fail(ClientError error, const std::string& doing) {
    error_text_ = internal::error_text_of(error, doing, errno_);
    return error;
}

}  // namespace mediaclient
