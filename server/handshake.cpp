// The handshake: the first record of a pending connection, the client type msg, makes it the
// session client or a decoder client, or ends it.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/eintr.h"
#include "base/system_log.h"
#include "protocol/media_protocol.h"
#include "server/media_server.h"
#include "server/server_internal.h"

using namespace mediaclient::protocol;

namespace {

// The first record of a connection, once received: what the client asks to be, and what its
// ancillary data brought.
struct ClientTypeMsg {
    uint8_t client_type = 0;
    char shm_name[SHM_NAME_MAX + 1] = {};  // type 3: the POSIX shared memory object's name
    UniqueFd shm_fd;                       // the one descriptor passed; none when two came
    int session_pid = -1;                  // from the sender's credentials
};

// Space of one SCM_CREDENTIALS and one SCM_RIGHTS message with one or two descriptors: the only
// control data a well-formed client type msg carries.
constexpr size_t CLIENT_CONTROL_SIZE = 56;
constexpr size_t CLIENT_HEADER_SIZE = 2;

// Payload bytes of a control message, bounded by the control data the kernel reported, so that a
// truncated buffer is never read past its end.
size_t cmsg_payload_size(const msghdr& msg, const cmsghdr* cmsg) {
    const uint8_t* begin = reinterpret_cast<const uint8_t*>(cmsg);
    const uint8_t* end = static_cast<const uint8_t*>(msg.msg_control) + msg.msg_controllen;
    size_t len = std::min<size_t>(cmsg->cmsg_len, static_cast<size_t>(end - begin));
    return len > CMSG_LEN(0) ? len - CMSG_LEN(0) : 0;
}

// The descriptors of an SCM_RIGHTS message.
std::vector<int> passed_fds(const msghdr& msg, const cmsghdr* cmsg) {
    std::vector<int> fds(cmsg_payload_size(msg, cmsg) / sizeof(int));
    memcpy(fds.data(), CMSG_DATA(cmsg), fds.size() * sizeof(int));
    return fds;
}

// Takes ownership of every descriptor the kernel installed with a record, whatever becomes of the
// record: refused clients, truncated control data and descriptors the protocol does not use are
// all closed when the owners go away, so a misbehaving client cannot make the service leak.
std::vector<UniqueFd> adopt_received_fds(msghdr& msg) {
    std::vector<UniqueFd> owners;
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        if (cmsg->cmsg_level == SOL_SOCKET && cmsg->cmsg_type == SCM_RIGHTS) {
            for (int fd : passed_fds(msg, cmsg)) {
                if (fd >= 0) {
                    owners.emplace_back(fd);
                }
            }
        }
    }
    return owners;
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

// Reads the control messages of a well-formed record: the one descriptor passed (two are closed
// with the other received ones and count as none) and the sender's pid from its credentials.
void read_ancillary_data(msghdr& msg, std::vector<UniqueFd>& received_fds, ClientTypeMsg* out) {
    int shm_fd = -1;
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET) {
            continue;
        }
        if (cmsg->cmsg_type == SCM_RIGHTS) {
            if (cmsg_payload_size(msg, cmsg) % sizeof(int) != 0) {
                abort();  // the kernel forms this message; a remainder means memory is corrupt
            }
            const std::vector<int> fds = passed_fds(msg, cmsg);
            if (fds.size() == 1) {
                shm_fd = fds[0];
                LOGD("shared memory fd: %d rececived", shm_fd);  // sic: the log text as specified
            }
        } else if (cmsg->cmsg_type == SCM_CREDENTIALS &&
                   cmsg_payload_size(msg, cmsg) >= sizeof(ucred)) {
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
bool receive_client_type_msg(int fd, ClientTypeMsg* msg) {
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

    const ssize_t received = retry_on_eintr([&] { return recvmsg(fd, &mh, 0); });
    if (received < 0) {
        LOGE("recvmsg failed: [%d] %s", errno, strerror(errno));
        return false;
    }
    std::vector<UniqueFd> received_fds = adopt_received_fds(mh);
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

// The shared memory descriptor of a decoder client; none, with the reason logged, when none.
// Type 2: the descriptor passed. Type 3: the object opened by name, which must be the object of
// the descriptor passed, so that a client can map only an object it holds; another object of the
// user's is refused without being mapped.
UniqueFd shared_memory_of(ClientTypeMsg& msg) {
    if (!msg.shm_fd.valid()) {
        LOGE("no ashmem file descriptor or posix shared memory descriptor sent with msg");
        return UniqueFd();
    }
    if (msg.client_type == CLIENT_TYPE_ASHMEM_DECODER) {
        return std::move(msg.shm_fd);
    }
    UniqueFd named(shm_open(msg.shm_name, O_RDWR | O_CLOEXEC, 0600));
    int error = errno;
    if (named.valid() && !same_object(named.get(), msg.shm_fd.get())) {
        named.reset();
        error = EACCES;
    }
    if (!named.valid()) {
        LOGE("shared memory object open failed: [%d] %s", error, strerror(error));
    }
    return named;
}

}  // namespace

// The connection is taken out of the pending list once, here, and either handed on to a
// registration or dropped when the handler returns: its watcher is not touched after that.
void MediaServer::on_pending_io_event(ev::io& io, int revents) {
    const int fd = io.fd;
    LogClientScope log_client(fd);
    LOGD("client io event: sock#[%d]", fd);

    std::unique_ptr<pending_io_t> pending = listen_handle_->take_pending(fd);
    if (!pending) {
        LOGE("unknown client message received, disconnecting...");
        io.stop();
        ::close(fd);
        return;
    }
    if (!(revents & EV_READ)) {
        if (revents & EV_ERROR) {
            LOGE("pending io event error");
            return;
        }
        listen_handle_->keep_pending(std::move(pending));  // nothing for it yet
        return;
    }

    ClientTypeMsg msg;
    if (!receive_client_type_msg(fd, &msg)) {
        return;
    }
    switch (msg.client_type) {
        case CLIENT_TYPE_SESSION:
            register_session(std::move(pending), msg.session_pid);
            break;
        case CLIENT_TYPE_ASHMEM_DECODER:
        case CLIENT_TYPE_SHM_DECODER:
            register_decoder(std::move(pending), msg.session_pid, shared_memory_of(msg),
                             msg.client_type == CLIENT_TYPE_ASHMEM_DECODER);
            break;
        default:
            LOGE("unknown client type message received");
            break;
    }
}

void MediaServer::register_session(std::unique_ptr<pending_io_t> pending, int session_pid) {
    if (session_handle_) {
        LOGW("client already registered");
        return;
    }
    if (session_pid == -1) {
        LOGE("no session pid sent with msg");
        return;
    }
    session_handle_ = std::make_unique<session_handle_t>(session_pid, pending->release(), [this] {
        if (session_terminate_io_) {
            ev_feed_event(EV_DEFAULT_UC, session_terminate_io_.get(), EV_READ);
        }
    });
}

// The client's connection and block go to its worker; this process keeps neither.
void MediaServer::register_decoder(std::unique_ptr<pending_io_t> pending, pid_t client_pid,
                                   UniqueFd block, bool is_ashmem) {
    if (!block.valid()) {
        return;
    }
    std::unique_ptr<decoder_handle_t> handle =
        start_worker(pending->fd(), client_pid, std::move(block), is_ashmem);
    if (!handle) {
        LOGE("decoder instance create failed");
        return;
    }
    SvcSystemLogNewClient(handle->client());
    decoder_handles_.push_back(std::move(handle));
}
