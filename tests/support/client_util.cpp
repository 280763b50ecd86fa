#include <algorithm>
#include "support/client_util.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "decoder/exchange_block.h"
#include "support/daemon_process.h"

namespace {

std::atomic<unsigned> shm_counter{0};

}  // namespace

ScopedShm::ScopedShm(size_t size, const std::string& name) : name_(name) {
    if (name_.empty()) {
        char buf[64];
        snprintf(buf, sizeof(buf), "/svc-test-%d-%u", static_cast<int>(getpid()),
                 shm_counter.fetch_add(1));
        name_ = buf;
    }
    shm_unlink(name_.c_str());
    fd_ = shm_open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd_ >= 0 && ftruncate(fd_, static_cast<off_t>(size)) < 0) {
        close(fd_);
        fd_ = -1;
    }
    if (fd_ < 0) {
        const int err = errno;  // the caller reports why creating failed
        shm_unlink(name_.c_str());
        errno = err;
    }
}

ScopedShm::~ScopedShm() {
    if (block_ != nullptr) {
        munmap(block_, SHM_BLOCK_SIZE);
    }
    if (fd_ >= 0) {
        close(fd_);
        shm_unlink(name_.c_str());
    }
}

uint8_t* ScopedShm::map_block() {
    if (block_ == nullptr && fd_ >= 0) {
        void* mapped = mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        block_ = mapped == MAP_FAILED ? nullptr : static_cast<uint8_t*>(mapped);
    }
    return block_;
}

int make_memfd(size_t size) {
    int fd = memfd_create("svc-test-block", MFD_CLOEXEC);
    if (fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

struct ucred own_creds() {
    struct ucred creds {};
    creds.pid = getpid();
    creds.uid = getuid();
    creds.gid = getgid();
    return creds;
}

ssize_t send_with_fds(int fd, const std::vector<uint8_t>& record, const std::vector<int>& fds) {
    struct ucred creds = own_creds();
    return mediaclient::send_record(fd, record.data(), record.size(), fds.data(), fds.size(),
                                    &creds);
}

std::vector<uint8_t> type_msg(uint8_t type, const std::string& name, uint8_t reserved) {
    // Sized up front: GCC 12 warns falsely about inserting into a two-byte vector.
    std::vector<uint8_t> record(2 + name.size());
    record[0] = type;
    record[1] = reserved;
    std::copy(name.begin(), name.end(), record.begin() + 2);
    return record;
}

bool log_has_line(const std::string& log, const std::string& level, const std::string& text) {
    std::istringstream lines(log);
    std::string line;
    const std::string tag = "[" + level + "]";
    while (std::getline(lines, line)) {
        if (line.compare(0, tag.size(), tag) == 0 && line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool loop_barrier(const DaemonProcess& daemon) {
    int fd = mediaclient::connect_service(daemon.socket_path());
    if (fd < 0) {
        return false;
    }
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    // Client type 0 is refused, and the refusal closes the connection from a later callback.
    bool ok = send_with_fds(fd, type_msg(0), {null_fd}) >= 0 && mediaclient::wait_closed(fd, 10000);
    close(null_fd);
    close(fd);
    return ok;
}

const DemuxedStream* aac_stream() {
    static DemuxedStream stream;
    static bool ok = [] {
        std::string path = make_media(
            "sine_stereo_aac.m4a",
            "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=1 -ac 2 -c:a aac -b:a 128k");
        return !path.empty() && demux_first_stream(path, false, &stream) &&
               !stream.packets.empty() && !stream.extradata.empty();
    }();
    return ok ? &stream : nullptr;
}

std::array<int32_t, 7> audio_init_array(const mediaclient::AudioInitParams& p, size_t config_size) {
    return {p.in_sample_fmt,  p.in_channels,  p.in_sample_rate, static_cast<int32_t>(config_size),
            p.out_sample_fmt, p.out_channels, p.out_sample_rate};
}
