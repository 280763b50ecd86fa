#include "base/ashmem.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

// The lines this class writes to standard error are verbatim, leftovers included: the source line
// numbers of the original and the ioctl requests as their macros expand. Tools match them.

// The Linux ashmem driver's requests (ioctl magic 0x77).
#define ASHMEM_SET_SIZE _IOW(0x77, 3, size_t)
#define ASHMEM_GET_SIZE _IO(0x77, 4)

AshMemory::AshMemory(int fd) : fd_(fd), size_(_getInitSize(fd)), memory_(nullptr), device_name_() {}

AshMemory::AshMemory(size_t size, const char* name)
    : fd_(-1), size_(size), memory_(nullptr), device_name_(name != nullptr ? name : "") {}

AshMemory::~AshMemory() {
    _destroy();
}

void AshMemory::_destroy() {
    if (memory_ != nullptr) {
        int result = munmap(memory_, size_);
        if (result != 0) {
            fprintf(stderr, "[WRN] ashmem:28 munmap(mMemory, mSize) result(%d) errno(%d) %s\n",
                    result, errno, strerror(errno));
        }
        memory_ = nullptr;
    }
    if (fd_ < 0) {
        return;
    }
    int result = close(fd_);
    if (result != 0) {
        fprintf(stderr, "[WRN] ashmem:32 close(mFd) result(%d) errno(%d) %s\n", result, errno,
                strerror(errno));
    }
    fd_ = -1;
}

size_t AshMemory::_getInitSize(int fd) {
    int result = ioctl(fd, ASHMEM_GET_SIZE);
    if (result < 0) {
        fprintf(stderr,
                "[WRN] ashmem:38 ioctl(fd, (((0U) << (((0+8)+8)+14)) | (((0x77)) << (0+8)) | "
                "(((4)) << 0) | ((0) << ((0+8)+8)))) result(%d) errno(%d) %s\n",
                result, errno, strerror(errno));
        return 0;
    }
    return static_cast<size_t>(result);
}

void* AshMemory::MapMemory() {
    if (memory_ != nullptr) {
        return memory_;
    }
    if (fd_ < 0) {
        if (device_name_.empty()) {
            return nullptr;
        }
        int fd = open(device_name_.c_str(), O_RDWR);
        if (fd < 0) {
            fprintf(stderr,
                    "[WRN] ashmem:53 open(mDeviceName.c_str(), 02) result(%d) errno(%d) %s\n", fd,
                    errno, strerror(errno));
            fd_ = fd;
            return nullptr;
        }
        fd_ = fd;
        int result = ioctl(fd_, ASHMEM_SET_SIZE, size_);
        if (result < 0) {
            fprintf(stderr,
                    "[WRN] ashmem:57 ioctl(mFd, (((1U) << (((0+8)+8)+14)) | (((0x77)) << (0+8)) | "
                    "(((3)) << 0) | ((((sizeof(size_t)))) << ((0+8)+8))), mSize) result(%d) "
                    "errno(%d) %s\n",
                    result, errno, strerror(errno));
            return nullptr;
        }
    } else if (size_ == 0) {
        static const char kZeroSize[] = "[ERR] ashmem:60 bad descriptor ??? zero size\n";
        fwrite(kZeroSize, 1, sizeof(kZeroSize) - 1, stderr);
        return nullptr;
    }

    void* memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (memory != nullptr && memory != MAP_FAILED) {
        memory_ = memory;
        return memory;
    }
    fprintf(stderr, "[ERR] ashmem:66 mmap result(%p) errno(%d)\n", memory, errno);
    memory_ = nullptr;
    return nullptr;
}
