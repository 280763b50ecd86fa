#include "fuzz_support.h"

#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavutil/log.h>
}

#include "base/log.h"
#include "decoder/exchange_block.h"

const uint8_t* FuzzReader::bytes(size_t* n) {
    *n = std::min(*n, left_);
    const uint8_t* start = data_;
    data_ += *n;
    left_ -= *n;
    return start;
}

bool read_request(FuzzReader& in, uint8_t* block) {
    size_t header_size = sizeof(ExchangeInitRequest);
    const uint8_t* header = in.bytes(&header_size);
    if (header_size < sizeof(ExchangeInitRequest)) {
        return false;
    }
    size_t input_size = in.u16();
    const uint8_t* input = in.bytes(&input_size);
    if (block != nullptr) {
        memcpy(block + SHM_REQUEST_OFFSET, header, header_size);
        memcpy(block + SHM_INPUT_OFFSET, input, input_size);
    }
    return true;
}

int make_memfd(size_t size) {
    int fd = memfd_create("svc-fuzz", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        abort();
    }
    return fd;
}

// The log of every input would cost more than the input itself.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SvcLogFile("/dev/null");
    av_log_set_level(AV_LOG_QUIET);
    return 0;
}

// The host has no ashmem driver: its size request, _IO(0x77, 4), is answered for memfds, which
// stand in for ashmem regions. --wrap=ioctl sends the service's calls here; FFmpeg's stay as they
// are.
extern "C" int __real_ioctl(int fd, unsigned long request, ...);
extern "C" int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    struct stat st;
    if (request != _IO(0x77, 4)) {
        return __real_ioctl(fd, request, arg);
    }
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        return static_cast<int>(st.st_size);
    }
    errno = ENOTTY;
    return -1;
}
