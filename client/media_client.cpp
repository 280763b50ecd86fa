#include "client/media_client.h"

#include <fcntl.h>
#include <poll.h>
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

namespace mediaclient {

namespace {

constexpr size_t kMaxPassedFds = 16;
// The service reads at most 256 bytes of a signal; a sync msg or ping is one byte.
constexpr size_t kSignalBufferSize = 256;

std::atomic<unsigned> shm_counter{0};

ssize_t read_retry(int fd, void* buf, size_t size) {
    ssize_t n;
    do {
        n = ::read(fd, buf, size);
    } while (n < 0 && errno == EINTR);
    return n;
}

ssize_t send_retry(int fd, const void* buf, size_t size) {
    ssize_t n;
    do {
        n = ::send(fd, buf, size, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
}

bool is_disconnect_errno(int err) {
    // The peer closing with our bytes still unread shows as a reset rather than end of file.
    return err == ECONNRESET || err == EPIPE || err == ENOTCONN;
}

void close_fd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

}  // namespace

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
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    std::string dir;
    if (runtime != nullptr) {
        dir = runtime;
    } else {
        dir = "/run/user/" + std::to_string(geteuid());
    }
    return dir + SOCKET_PATH_IN_RUNTIME_DIR;
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
    int ret;
    do {
        ret = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    } while (ret < 0 && errno == EINTR);
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
    if (fd_count > kMaxPassedFds || (fd_count > 0 && fds == nullptr) ||
        (size > 0 && data == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    union {
        cmsghdr align;
        char buf[CMSG_SPACE(sizeof(struct ucred)) + CMSG_SPACE(sizeof(int) * kMaxPassedFds)];
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

    ssize_t n;
    do {
        n = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
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
    for (;;) {
        int ret = ::poll(&pfd, 1, timeout_ms);
        if (ret > 0) {
            return ClientError::kOk;
        }
        if (ret == 0) {
            return ClientError::kTimeout;
        }
        if (errno != EINTR) {
            return ClientError::kSystem;
        }
    }
}

bool wait_closed(int fd, int timeout_ms) {
    // Only hang-up and errors wake this poll, so unread data does not end the wait early.
    pollfd pfd{fd, POLLRDHUP, 0};
    for (;;) {
        int ret = ::poll(&pfd, 1, timeout_ms);
        if (ret > 0) {
            return (pfd.revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) != 0;
        }
        if (ret == 0 || errno != EINTR) {
            return false;
        }
    }
}

// ---- SessionClient ----

SessionClient::~SessionClient() {
    close();
}

void SessionClient::close() {
    stop_answering();
    close_fd(fd_);
}

ClientError SessionClient::connect(const std::string& socket_path, pid_t pid) {
    close();
    disconnected_ = false;
    pings_ = 0;
    first_ping_fd_count_ = -1;
    later_ping_fd_count_ = 0;

    fd_ = connect_service(socket_path);
    if (fd_ < 0) {
        errno_ = errno;
        return ClientError::kSystem;
    }
    // The service wants one descriptor with every client type msg; the session has no use for
    // it, so pass /dev/null.
    int null_fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null_fd < 0) {
        errno_ = errno;
        close_fd(fd_);
        return ClientError::kSystem;
    }
    int ret = send_client_type_msg(fd_, CLIENT_TYPE_SESSION, "", null_fd, pid);
    errno_ = errno;
    ::close(null_fd);
    if (ret < 0) {
        close_fd(fd_);
        return ClientError::kSystem;
    }
    return ClientError::kOk;
}

ClientError SessionClient::respond() {
    if (fd_ < 0) {
        return ClientError::kNotConnected;
    }
    const uint8_t byte = PING_MSG_BYTE;
    if (send_retry(fd_, &byte, 1) < 0) {
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

    ssize_t n;
    do {
        n = ::recvmsg(fd_, &msg, MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
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
    return answer ? respond() : ClientError::kOk;
}

ClientError SessionClient::answer_ping(int timeout_ms, bool answer) {
    if (fd_ < 0) {
        return ClientError::kNotConnected;
    }
    ClientError ready = wait_readable(fd_, timeout_ms);
    if (ready != ClientError::kOk) {
        errno_ = errno;
        return ready;
    }
    return read_ping(answer);
}

ClientError SessionClient::start_answering() {
    if (fd_ < 0) {
        return ClientError::kNotConnected;
    }
    if (thread_.joinable()) {
        return ClientError::kOk;
    }
    ClientError first = respond();
    if (first != ClientError::kOk) {
        return first;
    }
    if (::pipe2(stop_fd_, O_CLOEXEC) < 0) {
        errno_ = errno;
        return ClientError::kSystem;
    }
    thread_ = std::thread(&SessionClient::answering_loop, this);
    return ClientError::kOk;
}

void SessionClient::stop_answering() {
    if (thread_.joinable()) {
        const char byte = 0;
        ssize_t n;
        do {
            n = ::write(stop_fd_[1], &byte, 1);
        } while (n < 0 && errno == EINTR);
        thread_.join();
    }
    close_fd(stop_fd_[0]);
    close_fd(stop_fd_[1]);
}

void SessionClient::answering_loop() {
    for (;;) {
        pollfd pfds[2] = {{fd_, POLLIN, 0}, {stop_fd_[0], POLLIN, 0}};
        int ret = ::poll(pfds, 2, -1);
        if (ret < 0) {
            if (errno == EINTR) {
                continue;
            }
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

// ---- DecoderClient ----

DecoderClient::~DecoderClient() {
    close();
}

void DecoderClient::close() {
    close_fd(fd_);
    if (block_ != nullptr) {
        ::munmap(block_, SHM_BLOCK_SIZE);
        block_ = nullptr;
    }
    close_fd(shm_fd_);
    if (own_shm_name_) {
        ::shm_unlink(shm_name_.c_str());
        own_shm_name_ = false;
    }
    shm_name_.clear();
}

ClientError DecoderClient::map_block(int fd) {
    void* mapped = ::mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        errno_ = errno;
        return ClientError::kSystem;
    }
    block_ = static_cast<uint8_t*>(mapped);
    return ClientError::kOk;
}

ClientError DecoderClient::connect_posix(const std::string& socket_path,
                                         const std::string& shm_name) {
    close();
    if (shm_name.size() > SHM_NAME_MAX) {
        return ClientError::kInvalidArgument;
    }
    std::string name = shm_name;
    // A generated name may collide with an object left behind by a dead process of the same pid.
    for (int attempt = 0; attempt < 16; ++attempt) {
        if (shm_name.empty()) {
            char buf[64];
            snprintf(buf, sizeof(buf), "/mediaclient-%d-%u", static_cast<int>(getpid()),
                     shm_counter.fetch_add(1));
            name = buf;
        }
        shm_fd_ = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (shm_fd_ >= 0 || errno != EEXIST || !shm_name.empty()) {
            break;
        }
    }
    if (shm_fd_ < 0) {
        errno_ = errno;
        return ClientError::kSystem;
    }
    shm_name_ = name;
    own_shm_name_ = true;
    if (::ftruncate(shm_fd_, SHM_BLOCK_SIZE) < 0) {
        errno_ = errno;
        close();
        return ClientError::kSystem;
    }
    ClientError mapped = map_block(shm_fd_);
    if (mapped != ClientError::kOk) {
        close();
        return mapped;
    }
    fd_ = connect_service(socket_path);
    if (fd_ < 0 || send_client_type_msg(fd_, CLIENT_TYPE_SHM_DECODER, name, shm_fd_) < 0) {
        errno_ = errno;
        close();
        return ClientError::kSystem;
    }
    return ClientError::kOk;
}

ClientError DecoderClient::connect_descriptor(const std::string& socket_path, int shm_fd) {
    close();
    if (shm_fd < 0) {
        shm_fd_ = ::memfd_create("mediaclient-block", MFD_CLOEXEC);
        if (shm_fd_ < 0 || ::ftruncate(shm_fd_, SHM_BLOCK_SIZE) < 0) {
            errno_ = errno;
            close();
            return ClientError::kSystem;
        }
    } else {
        shm_fd_ = ::fcntl(shm_fd, F_DUPFD_CLOEXEC, 0);
        if (shm_fd_ < 0) {
            errno_ = errno;
            return ClientError::kSystem;
        }
        // Touching a mapping beyond the end of a file faults; ashmem regions report no size here.
        struct stat st;
        if (::fstat(shm_fd_, &st) == 0 && S_ISREG(st.st_mode) &&
            st.st_size < static_cast<off_t>(SHM_BLOCK_SIZE)) {
            close();
            return ClientError::kInvalidArgument;
        }
    }
    ClientError mapped = map_block(shm_fd_);
    if (mapped != ClientError::kOk) {
        close();
        return mapped;
    }
    fd_ = connect_service(socket_path);
    if (fd_ < 0 || send_client_type_msg(fd_, CLIENT_TYPE_ASHMEM_DECODER, "", shm_fd_) < 0) {
        errno_ = errno;
        close();
        return ClientError::kSystem;
    }
    return ClientError::kOk;
}

ExchangeResult DecoderClient::result() const {
    ExchangeResult result{};
    if (block_ != nullptr) {
        memcpy(&result, block_ + SHM_RESULT_OFFSET, sizeof(result));
    }
    return result;
}

void DecoderClient::set_result(const ExchangeResult& result) {
    if (block_ != nullptr) {
        memcpy(block_ + SHM_RESULT_OFFSET, &result, sizeof(result));
    }
}

ClientError DecoderClient::write_header(const void* header, size_t size) {
    if (block_ == nullptr) {
        return ClientError::kNotConnected;
    }
    memcpy(block_ + SHM_REQUEST_OFFSET, header, size);
    return ClientError::kOk;
}

// The configuration bytes go to the input area and their count to param4; no bytes, no count.
ClientError DecoderClient::write_config(const void* config, size_t config_size,
                                        int32_t* size_field) {
    if (block_ == nullptr) {
        return ClientError::kNotConnected;
    }
    if (config != nullptr) {
        if (config_size > SHM_AREA_SIZE) {
            return ClientError::kInvalidArgument;
        }
        memmove(input(), config, config_size);
        *size_field = static_cast<int32_t>(config_size);
    }
    return ClientError::kOk;
}

ClientError DecoderClient::write_init(uint32_t media_type, uint32_t codec_index,
                                      const std::array<int32_t, 7>& params, const void* config,
                                      size_t config_size) {
    ExchangeInitRequest request{REQUEST_INIT_CODEC, media_type, codec_index, {}};
    std::copy(params.begin(), params.end(), request.param);
    ClientError e = write_config(config, config_size, &request.param[3]);
    return e == ClientError::kOk ? write_header(&request, sizeof(request)) : e;
}

ClientError DecoderClient::write_init_video(uint32_t codec_index, const VideoInitParams& p,
                                            const void* config, size_t config_size) {
    ExchangeVideoInit request{REQUEST_INIT_CODEC,
                              static_cast<uint32_t>(MEDIA_TYPE_VIDEO),
                              codec_index,
                              p.coded_width,
                              p.coded_height,
                              p.coded_pix_fmt,
                              0,
                              p.out_width,
                              p.out_height,
                              p.out_pix_fmt};
    ClientError e = write_config(config, config_size, &request.config_size);
    return e == ClientError::kOk ? write_header(&request, sizeof(request)) : e;
}

ClientError DecoderClient::write_init_audio(uint32_t codec_index, const AudioInitParams& p,
                                            const void* config, size_t config_size) {
    ExchangeAudioInit request{REQUEST_INIT_CODEC,
                              static_cast<uint32_t>(MEDIA_TYPE_AUDIO),
                              codec_index,
                              p.in_sample_fmt,
                              p.in_channels,
                              p.in_sample_rate,
                              0,
                              p.out_sample_fmt,
                              p.out_channels,
                              p.out_sample_rate};
    ClientError e = write_config(config, config_size, &request.config_size);
    return e == ClientError::kOk ? write_header(&request, sizeof(request)) : e;
}

ClientError DecoderClient::write_decode_frame(const void* data, size_t size, int64_t pts) {
    if (block_ == nullptr) {
        return ClientError::kNotConnected;
    }
    if (size > SHM_AREA_SIZE) {
        return ClientError::kInvalidArgument;
    }
    if (data != nullptr) {
        memmove(input(), data, size);
    }
    ExchangeDataRequest request{};
    request.request_type = REQUEST_DECODE_FRAME;
    request.data_size = static_cast<int32_t>(size);
    request.pts = pts;
    memcpy(block_ + SHM_REQUEST_OFFSET, &request, sizeof(request));
    return ClientError::kOk;
}

ClientError DecoderClient::write_codec_config(const void* data, size_t size) {
    ClientError written = write_decode_frame(data, size, 0);
    if (written == ClientError::kOk) {
        write_request_type(REQUEST_CODEC_CONFIG);
    }
    return written;
}

ClientError DecoderClient::write_reset_video(int32_t out_width, int32_t out_height,
                                             int32_t out_pix_fmt) {
    ExchangeVideoReset request{REQUEST_RESET_CONTEXT, 0, out_width, out_height, out_pix_fmt};
    return write_header(&request, sizeof(request));
}

ClientError DecoderClient::write_reset_audio(int32_t out_sample_fmt, int32_t out_channels,
                                             int32_t out_sample_rate) {
    ExchangeAudioReset request{REQUEST_RESET_CONTEXT, 0, out_sample_fmt, out_channels,
                               out_sample_rate};
    return write_header(&request, sizeof(request));
}

ClientError DecoderClient::write_request_type(uint32_t request_type) {
    if (block_ == nullptr) {
        return ClientError::kNotConnected;
    }
    memcpy(block_ + SHM_REQUEST_OFFSET + REQ_TYPE_OFFSET, &request_type, sizeof(request_type));
    return ClientError::kOk;
}

ClientError DecoderClient::ring(size_t bytes) {
    if (fd_ < 0) {
        return ClientError::kNotConnected;
    }
    if (bytes == 0) {
        // An empty record reads as end of file on the service side.
        return ClientError::kInvalidArgument;
    }
    uint8_t small[kSignalBufferSize];
    std::unique_ptr<uint8_t[]> large;
    uint8_t* buf = small;
    if (bytes > sizeof(small)) {
        large.reset(new uint8_t[bytes]);
        buf = large.get();
    }
    memset(buf, 'D', bytes);
    if (send_retry(fd_, buf, bytes) < 0) {
        errno_ = errno;
        return is_disconnect_errno(errno_) ? ClientError::kDisconnected : ClientError::kSystem;
    }
    return ClientError::kOk;
}

ClientError DecoderClient::wait_sync(int timeout_ms) {
    if (fd_ < 0) {
        return ClientError::kNotConnected;
    }
    ClientError ready = wait_readable(fd_, timeout_ms);
    if (ready != ClientError::kOk) {
        errno_ = errno;
        return ready;
    }
    uint8_t buf[kSignalBufferSize];
    ssize_t n = read_retry(fd_, buf, sizeof(buf));
    if (n < 0) {
        errno_ = errno;
        return is_disconnect_errno(errno_) ? ClientError::kDisconnected : ClientError::kSystem;
    }
    return n == 0 ? ClientError::kDisconnected : ClientError::kOk;
}

ClientError DecoderClient::call(int timeout_ms) {
    ClientError rung = ring();
    return rung == ClientError::kOk ? wait_sync(timeout_ms) : rung;
}

ClientError DecoderClient::finish(ClientError written, ExchangeResult* result, int timeout_ms) {
    if (written != ClientError::kOk) {
        return written;
    }
    ClientError done = call(timeout_ms);
    if (done == ClientError::kOk && result != nullptr) {
        *result = this->result();
    }
    return done;
}

ClientError DecoderClient::init_video(uint32_t codec_index, const VideoInitParams& params,
                                      const void* config, size_t config_size,
                                      ExchangeResult* result, int timeout_ms) {
    return finish(write_init_video(codec_index, params, config, config_size), result, timeout_ms);
}

ClientError DecoderClient::init_audio(uint32_t codec_index, const AudioInitParams& params,
                                      const void* config, size_t config_size,
                                      ExchangeResult* result, int timeout_ms) {
    return finish(write_init_audio(codec_index, params, config, config_size), result, timeout_ms);
}

ClientError DecoderClient::decode_frame(const void* data, size_t size, int64_t pts,
                                        ExchangeResult* result, int timeout_ms) {
    return finish(write_decode_frame(data, size, pts), result, timeout_ms);
}

ClientError DecoderClient::flush(int timeout_ms) {
    return finish(write_request_type(REQUEST_FLUSH), nullptr, timeout_ms);
}

ClientError DecoderClient::codec_config(const void* data, size_t size, int timeout_ms) {
    return finish(write_codec_config(data, size), nullptr, timeout_ms);
}

ClientError DecoderClient::reset_video(int32_t out_width, int32_t out_height, int32_t out_pix_fmt,
                                       int timeout_ms) {
    return finish(write_reset_video(out_width, out_height, out_pix_fmt), nullptr, timeout_ms);
}

ClientError DecoderClient::reset_audio(int32_t out_sample_fmt, int32_t out_channels,
                                       int32_t out_sample_rate, int timeout_ms) {
    return finish(write_reset_audio(out_sample_fmt, out_channels, out_sample_rate), nullptr,
                  timeout_ms);
}

ClientError DecoderClient::destroy(int timeout_ms) {
    return finish(write_request_type(REQUEST_DESTROY_CONTEXT), nullptr, timeout_ms);
}

}  // namespace mediaclient
