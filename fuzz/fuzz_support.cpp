#include "fuzz_support.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavutil/log.h>
}

#include "base/log.h"

uint8_t FuzzReader::u8() {
    if (size_ == 0) {
        return 0;
    }
    --size_;
    return *data_++;
}

uint16_t FuzzReader::u16() {
    uint16_t lo = u8();
    return static_cast<uint16_t>(lo | (u8() << 8));
}

uint32_t FuzzReader::u32() {
    uint32_t lo = u16();
    return lo | (static_cast<uint32_t>(u16()) << 16);
}

std::vector<uint8_t> FuzzReader::bytes(size_t n) {
    if (n > size_) {
        n = size_;
    }
    std::vector<uint8_t> out(data_, data_ + n);
    data_ += n;
    size_ -= n;
    return out;
}

void put_u8(std::vector<uint8_t>* out, uint8_t v) {
    out->push_back(v);
}

void put_u16(std::vector<uint8_t>* out, uint16_t v) {
    put_u8(out, static_cast<uint8_t>(v));
    put_u8(out, static_cast<uint8_t>(v >> 8));
}

void put_u32(std::vector<uint8_t>* out, uint32_t v) {
    put_u16(out, static_cast<uint16_t>(v));
    put_u16(out, static_cast<uint16_t>(v >> 16));
}

void put_bytes(std::vector<uint8_t>* out, const void* data, size_t n) {
    const auto* p = static_cast<const uint8_t*>(data);
    out->insert(out->end(), p, p + n);
}

void fuzz_quiet_logs() {
    SvcLogFile("/dev/null");
    av_log_set_level(AV_LOG_QUIET);
}

int make_memfd(const char* name, size_t size) {
    int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        abort();
    }
    return fd;
}

void ensure_fuzz_shm() {
    int fd = shm_open(kFuzzShmName, O_RDWR | O_CREAT, 0600);
    if (fd < 0) {
        abort();
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || (st.st_size != static_cast<off_t>(SHM_BLOCK_SIZE) &&
                                ftruncate(fd, static_cast<off_t>(SHM_BLOCK_SIZE)) != 0)) {
        abort();
    }
    close(fd);
}
