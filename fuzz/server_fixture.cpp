#include "server_fixture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include <ev++.h>

#include "fuzz_support.h"

namespace {

// Descriptors the harness opens for one record; closed once the record is sent (the kernel has
// its own references by then).
struct RecordFds {
    std::vector<int> fds;
    ~RecordFds() {
        for (int fd : fds) {
            close(fd);
        }
    }
    void add(int fd) {
        if (fd >= 0) {
            fds.push_back(fd);
        }
    }
};

void open_fds(FdKind kind, RecordFds* out) {
    switch (kind) {
        case kNoFd:
            break;
        case kBlockMemfd:
            out->add(make_memfd("fuzz-client-block", SHM_BLOCK_SIZE));
            break;
        case kSmallMemfd:
            out->add(make_memfd("fuzz-client-small", 4096));
            break;
        case kDevNull:
            out->add(open("/dev/null", O_RDWR | O_CLOEXEC));
            break;
        case kPipe: {
            int p[2];
            if (pipe2(p, O_CLOEXEC) == 0) {
                out->add(p[0]);
                close(p[1]);
            }
            break;
        }
        case kTwoFds:
            out->add(make_memfd("fuzz-client-block", SHM_BLOCK_SIZE));
            out->add(open("/dev/null", O_RDWR | O_CLOEXEC));
            break;
        case kThreeFds:
            for (int i = 0; i < 3; ++i) {
                out->add(open("/dev/null", O_RDWR | O_CLOEXEC));
            }
            break;
        case kShmObject:
            out->add(shm_open(kFuzzShmName, O_RDWR | O_CLOEXEC, 0600));
            break;
    }
}

}  // namespace

ServerFixture::ServerFixture() {
    ev_default_loop(0);
    char path[] = "/tmp/svc-fuzz-XXXXXX";
    if (mkdtemp(path) == nullptr) {
        abort();
    }
    dir_ = path;
    socket_path_ = dir_ + "/media-service.socket";
    ensure_fuzz_shm();
}

ServerFixture::~ServerFixture() {
    unlink(socket_path_.c_str());
    rmdir(dir_.c_str());
}

void ServerFixture::start_server() {
    server_.reset(new MediaServer(socket_path_));
    server_->on_media_server_stopped([] {});
    if (!server_->listen_handle || !server_->listen_handle->fd.valid()) {
        abort();
    }
}

void ServerFixture::stop_server() {
    if (server_) {
        server_->stop();
        server_.reset();
    }
}

void ServerFixture::drain() {
    for (int i = 0; i < 4; ++i) {
        ev_run(EV_DEFAULT_UC, EVRUN_NOWAIT);
    }
}

int ServerFixture::connect_client() const {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, socket_path_.c_str(), sizeof(addr.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

ssize_t ServerFixture::send_record(int fd, const void* data, size_t size, FdKind kind,
                                   const Credentials* creds) {
    RecordFds fds;
    open_fds(kind, &fds);

    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(ucred)) + CMSG_SPACE(3 * sizeof(int))] = {};
    msghdr msg = {};
    iovec iov = {const_cast<void*>(data), size};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    size_t control_len = 0;
    cmsghdr* cmsg = reinterpret_cast<cmsghdr*>(control);
    if (creds != nullptr) {
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_CREDENTIALS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(ucred));
        ucred cred = {creds->pid, creds->uid, creds->gid};
        memcpy(CMSG_DATA(cmsg), &cred, sizeof(cred));
        control_len += CMSG_SPACE(sizeof(ucred));
        cmsg = reinterpret_cast<cmsghdr*>(control + control_len);
    }
    if (!fds.fds.empty()) {
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(fds.fds.size() * sizeof(int));
        memcpy(CMSG_DATA(cmsg), fds.fds.data(), fds.fds.size() * sizeof(int));
        control_len += CMSG_SPACE(fds.fds.size() * sizeof(int));
    }
    msg.msg_controllen = control_len;
    if (control_len == 0) {
        msg.msg_control = nullptr;
    }
    ssize_t n;
    do {
        n = sendmsg(fd, &msg, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
}
