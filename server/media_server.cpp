// The listening socket, the stop request, the removal of departed decoder clients and the
// ordered teardown; the handshake, the session and the decoder clients' channels have files of
// their own.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/eintr.h"
#include "server/media_server.h"
#include "server/server_internal.h"
#include "server/worker_launch.h"

namespace {

constexpr int LISTEN_BACKLOG = 10;
constexpr double ACCEPT_RETRY_DELAY = 0.25;
// How long the teardown waits for the workers to finish their requests and tear down.
constexpr std::chrono::seconds kWorkerEndBound(10);

}  // namespace

MediaServer::MediaServer(const std::string& path, UniqueFd program)
    : socket_path_(path),
      worker_program_(program.valid() ? std::move(program) : worker_launch::open_own_program()) {
    UniqueFd fd = listen();
    if (fd.valid()) {
        listen_handle_ = std::make_unique<listen_handle_t>(std::move(fd), this);
        session_terminate_io_.reset(new ev::io());
        session_terminate_io_->set<MediaServer, &MediaServer::on_session_terminate_io_event>(this);
    }
    decoder_purge_io_.reset(new ev::io());
    decoder_purge_io_->set<MediaServer, &MediaServer::on_decoder_purge_io_event>(this);
}

UniqueFd MediaServer::listen() {
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    if (!fd.valid()) {
        LOGE("socket open failed: %d %s", errno, strerror(errno));
        return UniqueFd();
    }
    int one = 1;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) < 0) {
        LOGE("listen fd set SO_REUSEADDR failed: [%d] %s", errno, strerror(errno));
        return UniqueFd();
    }
    if (setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &one, sizeof(one)) < 0) {
        LOGE("listen fd set SO_PASSCRED failed: [%d] %s", errno, strerror(errno));
        return UniqueFd();
    }
    if (fcntl(fd.get(), F_SETFD, FD_CLOEXEC) < 0) {
        LOGE("listen fd set FD_CLOEXEC failed: [%d] %s", errno, strerror(errno));
        return UniqueFd();
    }
    if (fcntl(fd.get(), F_SETFL, O_NONBLOCK) < 0) {
        LOGE("listen fd set O_NONBLOCK failed: [%d] %s", errno, strerror(errno));
        return UniqueFd();
    }

    sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, socket_path_.c_str(), sizeof(addr.sun_path));
    addr.sun_path[sizeof(addr.sun_path) - 1] = 0;

    // A socket file left by an earlier run would make the bind fail.
    unlink(socket_path_.c_str());
    socklen_t addr_len = static_cast<socklen_t>(strlen(addr.sun_path) + sizeof(addr.sun_family));
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), addr_len) < 0) {
        LOGE("bind failed: [%d] %s", errno, strerror(errno));
        return UniqueFd();
    }
    // Any local user may connect, whatever the umask.
    chmod(socket_path_.c_str(), 0777);
    if (::listen(fd.get(), LISTEN_BACKLOG) < 0) {
        LOGE("listen failed: [%d] %s", errno, strerror(errno));
        return UniqueFd();
    }
    return fd;
}

MediaServer::pending_io_t::pending_io_t(UniqueFd fd, MediaServer* server) : fd_(std::move(fd)) {
    io_.set<MediaServer, &MediaServer::on_pending_io_event>(server);
    io_.start(fd_.get(), EV_READ);
}

UniqueFd MediaServer::pending_io_t::release() {
    io_.stop();
    return std::move(fd_);
}

MediaServer::listen_handle_t::listen_handle_t(UniqueFd fd, MediaServer* server)
    : server_(server), fd_(std::move(fd)) {
    io_.set<listen_handle_t, &listen_handle_t::on_listen_event>(this);
    io_.start(fd_.get(), EV_READ);
    accept_retry_timer_.set<listen_handle_t, &listen_handle_t::on_accept_retry_timer_event>(this);
}

void MediaServer::listen_handle_t::stop() {
    io_.stop();
    accept_retry_timer_.stop();
}

void MediaServer::listen_handle_t::on_listen_event(ev::io& watcher, int /*revents*/) {
    const int client = retry_on_eintr([&] { return accept(watcher.fd, nullptr, nullptr); });
    if (client < 0) {
        int err = errno;
        LOGE("media server accept failed: [%d] %s", err, strerror(err));
        // Out of descriptors or memory the backlog stays readable: pause instead of spinning.
        if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
            watcher.stop();
            accept_retry_timer_.start(ACCEPT_RETRY_DELAY, 0.0);
        }
        return;
    }
    UniqueFd client_fd(client);
    if (fcntl(client, F_SETFD, FD_CLOEXEC) < 0) {
        LOGE("client fd set FD_CLOEXEC failed: [%d] %s", errno, strerror(errno));
        return;
    }
    if (fcntl(client, F_SETFL, O_NONBLOCK) < 0) {
        LOGE("client fd set O_NONBLOCK failed: [%d] %s", errno, strerror(errno));
        return;
    }
    int one = 1;
    if (setsockopt(client, SOL_SOCKET, SO_PASSCRED, &one, sizeof(one)) < 0) {
        LOGE("client connection fd set SO_PASSCRED failed: [%d] %s", errno, strerror(errno));
        // Verbatim: 51 x's on standard output, outside the log, as the protocol's log has it.
        puts("xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx");
        return;
    }
    LOGI("client connect: sock#[%d]", client);
    pending_ios_.push_back(std::make_unique<pending_io_t>(std::move(client_fd), server_));
}

void MediaServer::listen_handle_t::on_accept_retry_timer_event(ev::timer& /*watcher*/,
                                                               int /*revents*/) {
    io_.start();
}

std::unique_ptr<MediaServer::pending_io_t> MediaServer::listen_handle_t::take_pending(int fd) {
    auto it = std::find_if(pending_ios_.begin(), pending_ios_.end(),
                           [fd](const std::unique_ptr<pending_io_t>& p) { return p->fd() == fd; });
    if (it == pending_ios_.end()) {
        return nullptr;
    }
    std::unique_ptr<pending_io_t> taken = std::move(*it);
    pending_ios_.erase(it);
    return taken;
}

void MediaServer::listen_handle_t::keep_pending(std::unique_ptr<pending_io_t> pending) {
    pending_ios_.push_back(std::move(pending));
}

void MediaServer::on_media_server_stopped(const std::function<void()>& callback) {
    stopped_callback_ = callback;
}

void MediaServer::stop() {
    if (listen_handle_) {
        listen_handle_->stop();
    }
    for (auto& handle : decoder_handles_) {
        handle->signal_quit();
    }
    stopped_callback_();
}

std::vector<pid_t> MediaServer::workers() const {
    std::vector<pid_t> registered;
    for (const auto& handle : decoder_handles_) {
        registered.push_back(handle->pid());
    }
    return registered;
}

// The worker has logged its client's departure and its own cleaning; this is the handle's end.
void MediaServer::on_decoder_purge_io_event(ev::io& /*watcher*/, int /*revents*/) {
    for (const decoder_handle_t* gone : purge_list_) {
        if (gone == nullptr) {
            continue;
        }
        auto it = std::find_if(
            decoder_handles_.begin(), decoder_handles_.end(),
            [gone](const std::unique_ptr<decoder_handle_t>& h) { return h.get() == gone; });
        if (it != decoder_handles_.end()) {
            decoder_handles_.erase(it);
        }
    }
    purge_list_.clear();
}

MediaServer::~MediaServer() {
    // No connection can be accepted or classified from here on.
    listen_handle_.reset();
    // The session client's socket is closed before any decoder is destroyed.
    session_handle_.reset();
    // Each worker ends, its client's connection with it: a picture takes milliseconds.
    const auto deadline = std::chrono::steady_clock::now() + kWorkerEndBound;
    for (auto& handle : decoder_handles_) {
        handle->signal_quit();
    }
    for (auto& handle : decoder_handles_) {
        handle->wait_for_end(deadline);
        handle.reset();
    }
    decoder_handles_.clear();
}
