/* The ashmem driver's size request answered for memfd descriptors, so that type 2 clients can be
 * fuzzed on a host without the driver. Every other request goes to the C library. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <sys/stat.h>

#define ASHMEM_GET_SIZE_REQUEST 0x7704UL

int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (request == ASHMEM_GET_SIZE_REQUEST) {
        struct stat st;
        if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
            return (int)st.st_size;
        }
        errno = ENOTTY;
        return -1;
    }
    static int (*real_ioctl)(int, unsigned long, ...);
    if (real_ioctl == NULL) {
        real_ioctl = (int (*)(int, unsigned long, ...))dlsym(RTLD_NEXT, "ioctl");
    }
    return real_ioctl(fd, request, arg);
}
