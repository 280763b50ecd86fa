#define LOG_MODULE "media server"
#define LOG_FILE "media_server"

#include "server/media_server.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

// POSIX basename: an empty string gives ".", and the argument is not modified.
#include <libgen.h>

#include "base/defer_action.h"
#include "base/log.h"
#include "base/system_log.h"
#include "decoder/exchange_block.h"

namespace {

constexpr double SESSION_PING_INTERVAL = 2.0;
constexpr double SESSION_RESPONSE_TIMEOUT = 8.0;
constexpr int LISTEN_BACKLOG = 10;
constexpr double ACCEPT_RETRY_DELAY = 0.25;
// A doorbell this soon after the client's last sync msg comes from a client in a tight loop.
constexpr std::chrono::microseconds kBackToBack(100);

// Space of one SCM_CREDENTIALS and one SCM_RIGHTS message with one or two descriptors: the only
// control data a well-formed client type msg carries.
constexpr size_t CLIENT_CONTROL_SIZE = 56;
constexpr size_t CLIENT_HEADER_SIZE = 2;
constexpr size_t CLIENT_READ_SIZE = 256;

int events_of(const ev::io& io) {
    return io.events & (EV_READ | EV_WRITE);
}

// Adds EV_WRITE to or removes it from an io watcher's events; the descriptor and EV_READ stay, and
// an active watcher is restarted with the new set (ev::io::set does the stop and start).
void set_write_interest(ev::io& io, bool on) {
    int events = events_of(io);
    io.set(on ? (events | EV_WRITE) : (events & ~EV_WRITE));
}

// Payload bytes of a control message, bounded by the control data the kernel reported, so that a
// truncated buffer is never read past its end.
size_t cmsg_payload_size(const msghdr& msg, const cmsghdr* cmsg) {
    const uint8_t* begin = reinterpret_cast<const uint8_t*>(cmsg);
    const uint8_t* end = static_cast<const uint8_t*>(msg.msg_control) + msg.msg_controllen;
    size_t len = std::min<size_t>(cmsg->cmsg_len, static_cast<size_t>(end - begin));
    return len > CMSG_LEN(0) ? len - CMSG_LEN(0) : 0;
}

// Takes ownership of every descriptor the kernel installed with a record, whatever becomes of the
// record: refused clients, truncated control data and descriptors the protocol does not use are
// all closed when the owners go away, so a misbehaving client cannot make the service leak.
void adopt_received_fds(msghdr& msg, std::vector<UniqueFd>& owners) {
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        size_t count = cmsg_payload_size(msg, cmsg) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(fd));
            if (fd >= 0) {
                owners.emplace_back(fd);
            }
        }
    }
}

// Gives up ownership of `fd` among the received descriptors, for the one handed on.
UniqueFd take_received_fd(std::vector<UniqueFd>& owners, int fd) {
    for (auto& owner : owners) {
        if (owner.get() == fd) {
            return UniqueFd(owner.release());
        }
    }
    return UniqueFd();
}

void close_received_fd(std::vector<UniqueFd>& owners, int fd) {
    for (auto& owner : owners) {
        if (owner.get() == fd) {
            owner.reset();
        }
    }
}

// Reads the control messages of a well-formed record: the one descriptor passed (two are closed
// and count as none) and the sender's pid from its credentials.
void read_ancillary_data(msghdr& msg, std::vector<UniqueFd>& received_fds,
                         MediaServer::client_type_msg_t* out) {
    int shm_fd = -1;
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET) {
            continue;
        }
        if (cmsg->cmsg_type == SCM_RIGHTS) {
            size_t payload = cmsg_payload_size(msg, cmsg);
            if (payload % sizeof(int) != 0) {
                abort();  // the kernel forms this message; a remainder means memory is corrupt
            }
            size_t count = payload / sizeof(int);
            const uint8_t* data = CMSG_DATA(cmsg);
            if (count == 1) {
                memcpy(&shm_fd, data, sizeof(int));
                LOGD("shared memory fd: %d rececived", shm_fd);  // sic: the log text as specified
            } else {
                for (size_t i = 0; i < count; ++i) {
                    int extra;
                    memcpy(&extra, data + i * sizeof(int), sizeof(int));
                    close_received_fd(received_fds, extra);
                }
            }
        } else if (cmsg->cmsg_type == SCM_CREDENTIALS) {
            if (cmsg_payload_size(msg, cmsg) < sizeof(ucred)) {
                continue;
            }
            ucred cred;
            memcpy(&cred, CMSG_DATA(cmsg), sizeof(cred));
            LOGD("pid: %d rececived", cred.pid);  // sic: the log text as specified
            out->session_pid = cred.pid;
        }
    }
    out->shm_fd = take_received_fd(received_fds, shm_fd);
}

// Receives the first record of a pending connection. False, with the reason logged, when there is
// no usable message: the connection is then dropped. Every descriptor that came with the record
// is owned from the moment it is received; all but the one handed on in `msg` are closed here.
bool receive_client_type_msg(int fd, MediaServer::client_type_msg_t* msg) {
    uint8_t header[CLIENT_HEADER_SIZE] = {};
    alignas(cmsghdr) uint8_t control[CLIENT_CONTROL_SIZE] = {};
    iovec iov[2];
    iov[0].iov_base = header;
    iov[0].iov_len = sizeof(header);
    iov[1].iov_base = msg->shm_name;
    iov[1].iov_len = SHM_NAME_MAX;  // the last byte stays 0, so the name is always terminated
    msghdr mh;
    memset(&mh, 0, sizeof(mh));
    mh.msg_iov = iov;
    mh.msg_iovlen = 2;
    mh.msg_control = control;
    mh.msg_controllen = sizeof(control);

    ssize_t received;
    do {
        received = recvmsg(fd, &mh, 0);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        LOGE("recvmsg failed: [%d] %s", errno, strerror(errno));
        return false;
    }
    std::vector<UniqueFd> received_fds;
    adopt_received_fds(mh, received_fds);

    if (received == 0) {
        LOGI("client disconnected: %d", fd);
        return false;
    }
    // Credentials plus one or two descriptors fill exactly this space; anything else (no
    // descriptor, more of them, a cut-off control buffer) is refused.
    if (mh.msg_controllen != CLIENT_CONTROL_SIZE || (mh.msg_flags & ~MSG_TRUNC) != 0) {
        LOGE("malformed control msg received");
        return false;
    }
    msg->client_type = header[0];
    read_ancillary_data(mh, received_fds, msg);
    return true;
}

// Whether two descriptors refer to one file.
bool same_object(int a, int b) {
    struct stat sa, sb;
    return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

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
    ssize_t n;
    do {
        n = sendmsg(fd, &msg, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
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

// ---------------------------------------------------------------------------------------------
// Listening and accepting

MediaServer::listen_handle_t::~listen_handle_t() {
    if (io && io->is_active()) {
        io->stop();
    }
    if (accept_retry_timer && accept_retry_timer->is_active()) {
        accept_retry_timer->stop();
    }
    // A pending watcher does not own its descriptor; the connection is closed here.
    for (auto& pending : pending_ios) {
        if (pending) {
            pending->stop();
            if (pending->fd >= 0) {
                ::close(pending->fd);
            }
        }
    }
}

MediaServer::MediaServer(const std::string& path)
    : socket_path(path), listen_handle(new listen_handle_t) {
    UniqueFd fd = listen();
    if (fd.valid()) {
        listen_handle->fd = std::move(fd);
        listen_handle->io.reset(new ev::io());
        listen_handle->io->set<MediaServer, &MediaServer::on_server_listen_event>(this);
        listen_handle->io->set(listen_handle->fd.get(), EV_READ);
        listen_handle->io->start();

        listen_handle->accept_retry_timer.reset(new ev::timer());
        listen_handle->accept_retry_timer
            ->set<MediaServer, &MediaServer::on_accept_retry_timer_event>(this);

        session_terminate_io.reset(new ev::io());
        session_terminate_io->set<MediaServer, &MediaServer::on_session_terminate_io_event>(this);
    }
    decoder_purge_io.reset(new ev::io());
    decoder_purge_io->set<MediaServer, &MediaServer::on_decoder_purge_io_event>(this);
    loop_prepare.reset(new ev::prepare());
    loop_prepare->set<MediaServer, &MediaServer::on_loop_prepare_event>(this);
    loop_prepare->start();
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
    strncpy(addr.sun_path, socket_path.c_str(), sizeof(addr.sun_path));
    addr.sun_path[sizeof(addr.sun_path) - 1] = 0;

    // A socket file left by an earlier run would make the bind fail.
    unlink(socket_path.c_str());
    socklen_t addr_len = static_cast<socklen_t>(strlen(addr.sun_path) + sizeof(addr.sun_family));
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), addr_len) < 0) {
        LOGE("bind failed: [%d] %s", errno, strerror(errno));
        return UniqueFd();
    }
    // Any local user may connect, whatever the umask.
    chmod(socket_path.c_str(), 0777);
    if (::listen(fd.get(), LISTEN_BACKLOG) < 0) {
        LOGE("listen failed: [%d] %s", errno, strerror(errno));
        return UniqueFd();
    }
    return fd;
}

void MediaServer::on_server_listen_event(ev::io& watcher, int /*revents*/) {
    int client;
    do {
        client = accept(watcher.fd, nullptr, nullptr);
    } while (client < 0 && errno == EINTR);
    if (client < 0) {
        int err = errno;
        LOGE("media server accept failed: [%d] %s", err, strerror(err));
        // Out of descriptors or memory the backlog stays readable: pause instead of spinning.
        if ((err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) &&
            listen_handle->accept_retry_timer) {
            watcher.stop();
            listen_handle->accept_retry_timer->start(ACCEPT_RETRY_DELAY, 0.0);
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

    std::unique_ptr<ev::io> pending(new ev::io());
    pending->set<MediaServer, &MediaServer::on_pending_io_event>(this);
    pending->set(client_fd.release(), EV_READ);
    pending->start();
    listen_handle->pending_ios.push_back(std::move(pending));
}

void MediaServer::on_accept_retry_timer_event(ev::timer& /*watcher*/, int /*revents*/) {
    if (listen_handle && listen_handle->io) {
        listen_handle->io->start();
    }
}

void MediaServer::on_media_server_stopped(const std::function<void()>& callback) {
    stopped_callback = callback;
}

void MediaServer::stop() {
    if (listen_handle) {
        if (listen_handle->io) {
            listen_handle->io->stop();
        }
        if (listen_handle->accept_retry_timer) {
            listen_handle->accept_retry_timer->stop();
        }
    }
    for (auto& handle : decoder_handles) {
        if (handle && handle->decoder) {
            handle->decoder->signal_quit();
        }
    }
    stopped_callback();
}

// ---------------------------------------------------------------------------------------------
// Handshake

std::unique_ptr<ev::io> MediaServer::take_pending(int fd) {
    auto& pending = listen_handle->pending_ios;
    auto it = std::find_if(pending.begin(), pending.end(),
                           [fd](const std::unique_ptr<ev::io>& w) { return w && w->fd == fd; });
    if (it == pending.end()) {
        return nullptr;
    }
    std::unique_ptr<ev::io> watcher = std::move(*it);
    pending.erase(it);
    return watcher;
}

void MediaServer::on_pending_io_event(ev::io& io, int revents) {
    const int fd = io.fd;
    LogClientScope log_client(fd);
    LOGD("client io event: sock#[%d]", fd);

    auto& pending = listen_handle->pending_ios;
    bool known = std::any_of(pending.begin(), pending.end(),
                             [fd](const std::unique_ptr<ev::io>& w) { return w && w->fd == fd; });
    if (!known) {
        LOGE("unknown client message received, disconnecting...");
        io.stop();
        ::close(fd);
        return;
    }

    // Drops the connection on every path that neither registers it nor leaves it pending. It
    // destroys the watcher whose callback this is, so `io` is not touched after it has run.
    DeferAction drop_pending([this, fd] {
        std::unique_ptr<ev::io> watcher = take_pending(fd);
        if (watcher) {
            watcher->stop();
            ::close(fd);
        }
    });

    if (!(revents & EV_READ)) {
        if (revents & EV_ERROR) {
            LOGE("pending io event error");
            return;
        }
        drop_pending.cancel();
        return;
    }

    client_type_msg_t msg;
    if (!receive_client_type_msg(fd, &msg)) {
        return;
    }
    switch (msg.client_type) {
        case CLIENT_TYPE_SESSION:
            register_session(io, msg.session_pid, drop_pending);
            break;
        case CLIENT_TYPE_ASHMEM_DECODER:
        case CLIENT_TYPE_SHM_DECODER:
            register_decoder(io, msg.client_type, msg.shm_name, std::move(msg.shm_fd),
                             drop_pending);
            break;
        default:
            LOGE("unknown client type message received");
            break;
    }
}

void MediaServer::register_session(ev::io& io, int session_pid, DeferAction& drop_pending) {
    if (!session_handle) {
        session_handle.reset(new session_handle_t);
    }
    session_handle_t* session = session_handle.get();
    if (session->pid != -1) {
        LOGW("client already registered");
        return;
    }
    if (session_pid == -1) {
        LOGE("no session pid sent with msg");
        return;
    }
    session->pid = session_pid;
    session->exe_name = get_process_exe_name(session_pid);
    session->last_response_time = 0.0;

    const int fd = io.fd;
    std::unique_ptr<ev::io> watcher = take_pending(fd);
    session->fd = UniqueFd(fd);
    watcher->stop();
    watcher->set<session_handle_t, &session_handle_t::on_session_io_event>(session);
    session->io = std::move(watcher);
    session->io->set(fd, EV_READ);
    session->io->start();

    session->on_terminate = [this](const session_handle_t*) {
        if (session_terminate_io) {
            ev_feed_event(EV_DEFAULT_UC, session_terminate_io.get(), EV_READ);
        }
    };
    session->timer->again();
    drop_pending.cancel();
}

void MediaServer::register_decoder(ev::io& io, uint8_t client_type, const char* shm_name,
                                   UniqueFd received_fd, DeferAction& drop_pending) {
    if (!received_fd.valid()) {
        LOGE("no ashmem file descriptor or posix shared memory descriptor sent with msg");
        return;
    }

    std::unique_ptr<decoder_handle_t> handle(new decoder_handle_t);
    const int fd = io.fd;
    std::unique_ptr<ev::io> watcher = take_pending(fd);
    watcher->stop();
    watcher->set<decoder_handle_t, &decoder_handle_t::on_decoder_client_io_event>(handle.get());
    handle->fd = UniqueFd(fd);
    handle->io = std::move(watcher);
    handle->io->set(EV_READ);
    handle->io->start();

    // Started before the worker exists, so the worker's first signal always finds it running.
    handle->notify = std::make_shared<ev::async>();
    handle->notify->set<decoder_handle_t, &decoder_handle_t::on_decoder_notify_event>(handle.get());
    handle->notify->start();

    handle->on_terminate = [this](const decoder_handle_t* gone) {
        purge_list.push_back(gone);
        ev_feed_event(EV_DEFAULT_UC, decoder_purge_io.get(), EV_READ);
    };

    int shm_fd;
    const bool is_ashmem = client_type == CLIENT_TYPE_ASHMEM_DECODER;
    if (is_ashmem) {
        shm_fd = received_fd.release();
    } else {
        // The object is opened by name, and a client may name only the object it holds: the one
        // whose descriptor it passed. Another object of the user's is refused unmapped.
        shm_fd = shm_open(shm_name, O_RDWR, 0600);
        int error = errno;
        if (shm_fd >= 0 && !same_object(shm_fd, received_fd.get())) {
            ::close(shm_fd);
            shm_fd = -1;
            error = EACCES;
        }
        received_fd.reset();
        if (shm_fd < 0) {
            LOGE("shared memory object open failed: [%d] %s", error, strerror(error));
            return;
        }
    }

    // The decoder owns the descriptor from here on, whether or not it can map it.
    handle->decoder.reset(new MediaDecoder(handle->notify, shm_fd, is_ashmem));
    handle->decoder->name_client(fd);
    if (!handle->decoder->valid) {
        LOGE("decoder instance create failed");
        return;
    }
    if (!handle->decoder->run()) {
        LOGE("decoder instance create failed");
        return;
    }
    decoder_handles.push_back(std::move(handle));
    drop_pending.cancel();
}

// ---------------------------------------------------------------------------------------------
// Session client

MediaServer::session_handle_t::session_handle_t() : timer(new ev::timer()) {
    timer->set<session_handle_t, &session_handle_t::on_session_timer_event>(this);
    timer->set(0.0, SESSION_PING_INTERVAL);
}

MediaServer::session_handle_t::~session_handle_t() {
    if (timer && timer->is_active()) {
        timer->stop();
    }
    if (io && io->is_active()) {
        io->stop();
    }
}

void MediaServer::session_handle_t::end_session() {
    if (io) {
        io->stop();
    }
    if (timer) {
        timer->stop();
    }
    on_terminate(this);
}

void MediaServer::session_handle_t::on_session_io_event(ev::io& watcher, int revents) {
    LogClientScope log_client(watcher.fd);
    DeferAction session_end([this] { end_session(); });

    if (revents & EV_READ) {
        char buffer[CLIENT_READ_SIZE] = {};
        ssize_t n;
        do {
            n = read(watcher.fd, buffer, sizeof(buffer));
        } while (n < 0 && errno == EINTR);
        if (n < 0) {
            LOGE("read session ping msg failed: [%d] %s", errno, strerror(errno));
            return;
        }
        if (n == 0) {
            LOGD("session client disconnected");
            return;
        }
        last_response_time = ev_time();
        session_end.cancel();
        return;
    }

    if (revents & EV_WRITE) {
        LOGD("send ping msg to session");
        if (send_ping(watcher.fd, first_ping_sent == 0) != 1) {
            LOGE("send ping msg to session failed: [%d] %s", errno, strerror(errno));
            return;
        }
        first_ping_sent = 1;
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
    if (now - last_response_time <= SESSION_RESPONSE_TIMEOUT) {
        if (io) {
            set_write_interest(*io, true);
            io->start();
        }
        timer->again();
        return;
    }
    if (get_process_exe_name(pid) == exe_name) {
        LOGD(
            "session process exists, but no response from session client in a period of time, "
            "now force ending...");
    } else {
        LOGD("session process not found, now quiting...");  // sic: verbatim log text
    }
    timer->stop();
    if (io) {
        io->stop();
    }
    on_terminate(this);
}

void MediaServer::on_session_terminate_io_event(ev::io& /*watcher*/, int revents) {
    if (revents & EV_READ) {
        stop();
    }
}

// ---------------------------------------------------------------------------------------------
// Decoder clients

MediaServer::decoder_handle_t::~decoder_handle_t() {
    if (io && io->is_active()) {
        io->stop();
    }
    // Stopped here on the loop thread, so that a worker holding the last reference for a moment
    // only ever frees an inactive watcher.
    if (notify && notify->is_active()) {
        notify->stop();
    }
    // The decoder's destructor joins its worker, so the worker is told to end here, whatever led
    // to this destruction: stop() only reaches the decoders registered when it runs, and a
    // registration that libev runs later in the same loop iteration (its client type msg was
    // already pending) would otherwise be joined forever. A second quit signal is harmless.
    if (decoder) {
        decoder->signal_quit();
    }
}

void MediaServer::decoder_handle_t::decoder_gone() {
    if (io) {
        io->stop();
    }
    if (decoder) {
        decoder->signal_quit();
    }
    on_terminate(this);
}

void MediaServer::decoder_handle_t::on_decoder_client_io_event(ev::io& io, int revents) {
    LogClientScope log_client(io.fd);
    DeferAction gone([this] { decoder_gone(); });

    if (revents & EV_READ) {
        char buffer[CLIENT_READ_SIZE] = {};
        ssize_t n;
        do {
            n = read(io.fd, buffer, sizeof(buffer));
        } while (n < 0 && errno == EINTR);
        if (n < 0) {
            LOGE("read decoder client msg failed: [%d] %s", errno, strerror(errno));
            return;
        }
        if (n == 0) {
            LOGD("decoder client disconnected");
            return;
        }
        if (decoder) {
            if (!request_in_flight) {
                request_in_flight = true;
                rung_at = SpinWait::Clock::now();
                back_to_back = rung_at - synced_at <= kBackToBack;
                completions_before = decoder->completed_requests();
            }
            decoder->signal_request();
        }
        gone.cancel();
        return;
    }

    if (revents & EV_WRITE) {
        uint8_t sync = SYNC_MSG_BYTE;
        ssize_t n;
        do {
            // MSG_NOSIGNAL: a client that shut down its reading side ends itself, not the service.
            n = send(io.fd, &sync, 1, MSG_NOSIGNAL);
        } while (n < 0 && errno == EINTR);
        if (n < 0) {
            LOGE("send sync msg to decoder client failed: [%d] %s", errno, strerror(errno));
            return;
        }
        if (n == 1) {
            synced_at = SpinWait::Clock::now();
            set_write_interest(io, false);
            io.start();
        }
        gone.cancel();
        return;
    }

    if (revents & EV_ERROR) {
        LOGE("decoder io event error");
        return;
    }
    gone.cancel();
}

void MediaServer::decoder_handle_t::on_decoder_notify_event(ev::async& /*watcher*/,
                                                            int /*revents*/) {
    LOGD("decoder notify event");
    // A client whose shared memory shrank under the mapping has lost its block; its worker has
    // ended and no result will ever be valid, so the client is dropped instead of synced.
    if (decoder && decoder->block_lost.load() != 0) {
        decoder_gone();
        return;
    }
    if (request_in_flight) {
        request_in_flight = false;
        last_request = SpinWait::Clock::now() - rung_at;
    }
    if (io) {
        set_write_interest(*io, true);
        io->start();
    }
}

void MediaServer::on_decoder_purge_io_event(ev::io& /*watcher*/, int /*revents*/) {
    LOGD("cleaning disconnected and/or error decoder clients");
    for (const decoder_handle_t* gone : purge_list) {
        if (gone == nullptr) {
            continue;
        }
        auto it = std::find_if(
            decoder_handles.begin(), decoder_handles.end(),
            [gone](const std::unique_ptr<decoder_handle_t>& h) { return h.get() == gone; });
        if (it != decoder_handles.end()) {
            decoder_handles.erase(it);
        }
    }
    purge_list.clear();
}

// Before the loop sleeps: while a client that sends short requests (empty ones, audio packets)
// back to back has one in flight, spin until a worker completes one. Its completion signal then
// finds the loop awake instead of having to wake it, which would cost more than the request.
// Long requests (a video picture) and clients that pause between requests (a player keeping to
// its frame rate) are waited for asleep.
void MediaServer::on_loop_prepare_event(ev::prepare& /*watcher*/, int /*revents*/) {
    const SpinWait::Clock::duration short_request = completion_spin.bound();
    const auto awaited = [short_request](const std::unique_ptr<decoder_handle_t>& h) {
        return h && h->request_in_flight && h->back_to_back && h->decoder &&
               !h->decoder->quitting() && h->last_request <= short_request;
    };
    if (std::none_of(decoder_handles.begin(), decoder_handles.end(), awaited)) {
        return;
    }
    completion_spin.spin([this, &awaited] {
        return std::any_of(decoder_handles.begin(), decoder_handles.end(),
                           [&awaited](const std::unique_ptr<decoder_handle_t>& h) {
                               return awaited(h) &&
                                      h->decoder->completed_requests() != h->completions_before;
                           });
    });
}

// ---------------------------------------------------------------------------------------------
// Teardown

MediaServer::~MediaServer() {
    // No connection can be accepted or classified from here on.
    listen_handle.reset();
    // The session client's socket is closed before any decoder is destroyed.
    session_handle.reset();
    // Each decoder joins its worker (told to quit by stop()) before its client's socket closes.
    for (auto& handle : decoder_handles) {
        handle.reset();
    }
    decoder_handles.clear();
}
