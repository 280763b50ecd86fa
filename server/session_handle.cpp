// The session client: pinged every 2 seconds; its end, or 8 seconds of silence, stops the server.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

// POSIX basename: an empty string gives ".", and the argument is not modified.
#include <libgen.h>

#include "base/defer_action.h"
#include "base/eintr.h"
#include "base/system_log.h"
#include "protocol/media_protocol.h"
#include "server/media_server.h"
#include "server/server_internal.h"

using namespace mediaclient::protocol;

using server_detail::CLIENT_READ_SIZE;
using server_detail::set_write_interest;

namespace {

constexpr double SESSION_PING_INTERVAL = 2.0;
constexpr double SESSION_RESPONSE_TIMEOUT = 8.0;

// The first ping msg carries one descriptor, the service's standard input (/dev/null once
// daemonised); later pings are the byte alone. MSG_NOSIGNAL: a peer that has shut down its
// reading side must not kill the service with SIGPIPE; the failure ends the session instead.
ssize_t send_ping(int fd, bool first) {
    uint8_t ping = PING_MSG_BYTE;
    iovec iov;
    iov.iov_base = &ping;
    iov.iov_len = 1;
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(int))] = {};
    msghdr msg;
    memset(&msg, 0, sizeof(msg));
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    if (first) {
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_len = CMSG_LEN(sizeof(int));
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        int passed_fd = STDIN_FILENO;
        memcpy(CMSG_DATA(cmsg), &passed_fd, sizeof(passed_fd));
    }
    return retry_on_eintr([&] { return sendmsg(fd, &msg, MSG_NOSIGNAL); });
}

}  // namespace

std::string get_process_exe_name(int pid) {
    char path[4096] = {};
    snprintf(path, sizeof(path), "/proc/%u/cmdline", static_cast<unsigned>(pid));
    if (access(path, F_OK) != 0) {
        return std::string();
    }
    std::ifstream file(path);
    if (!file.is_open() || file.fail()) {
        return std::string();
    }
    std::string line;
    std::getline(file, line);
    // Arguments are separated by NUL bytes, so the duplicate ends with the first one.
    char* first_arg = strndup(line.data(), line.size());
    if (first_arg == nullptr) {
        return std::string();
    }
    std::string result(basename(first_arg));
    free(first_arg);
    return result;
}

MediaServer::session_handle_t::session_handle_t(int pid, UniqueFd fd,
                                                std::function<void()> on_terminate)
    : pid_(pid),
      exe_name_(get_process_exe_name(pid)),
      fd_(std::move(fd)),
      on_terminate_(std::move(on_terminate)) {
    io_.set<session_handle_t, &session_handle_t::on_session_io_event>(this);
    io_.start(fd_.get(), EV_READ);
    timer_.set<session_handle_t, &session_handle_t::on_session_timer_event>(this);
    timer_.set(0.0, SESSION_PING_INTERVAL);
    timer_.again();
}

void MediaServer::session_handle_t::end_session() {
    io_.stop();
    timer_.stop();
    on_terminate_();
}

void MediaServer::session_handle_t::on_session_io_event(ev::io& watcher, int revents) {
    LogClientScope log_client(watcher.fd);
    DeferAction session_end([this] { end_session(); });

    if (revents & EV_READ) {
        char buffer[CLIENT_READ_SIZE] = {};
        const ssize_t n = retry_on_eintr([&] { return read(watcher.fd, buffer, sizeof(buffer)); });
        if (n < 0) {
            LOGE("read session ping msg failed: [%d] %s", errno, strerror(errno));
            return;
        }
        if (n == 0) {
            LOGD("session client disconnected");
            return;
        }
        last_response_time_ = ev_time();
        session_end.cancel();
        return;
    }

    if (revents & EV_WRITE) {
        LOGD("send ping msg to session");
        if (send_ping(watcher.fd, !first_ping_sent_) != 1) {
            LOGE("send ping msg to session failed: [%d] %s", errno, strerror(errno));
            return;
        }
        first_ping_sent_ = true;
        set_write_interest(watcher, false);
        watcher.start();
        session_end.cancel();
        return;
    }

    if (revents & EV_ERROR) {
        LOGE("session io event error");
    }
}

void MediaServer::session_handle_t::on_session_timer_event(ev::timer& /*watcher*/,
                                                           int /*revents*/) {
    double now = ev_time();
    if (now - last_response_time_ <= SESSION_RESPONSE_TIMEOUT) {
        set_write_interest(io_, true);
        io_.start();
        timer_.again();
        return;
    }
    if (get_process_exe_name(pid_) == exe_name_) {
        LOGD(
            "session process exists, but no response from session client in a period of time, "
            "now force ending...");
    } else {
        LOGD("session process not found, now quiting...");  // sic: verbatim log text
    }
    end_session();
}

void MediaServer::on_session_terminate_io_event(ev::io& /*watcher*/, int revents) {
    if (revents & EV_READ) {
        stop();
    }
}
