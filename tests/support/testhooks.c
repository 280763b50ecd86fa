// Test hooks, preloaded into the daemon under test (LD_PRELOAD) and compiled into the ashmem test
// program and the fuzz target. The production binary is never changed for tests; these
// replacements stand in for what a test machine lacks or what would hide the process from the
// test:
//
// - daemon(): neither forks nor touches the standard streams, so the test keeps the process as
//   its child and reads its log. It records its arguments ("<nochdir> <noclose>\n") in the file
//   named by SVC_TEST_DAEMON_ARGS when that is set, and still honours nochdir.
// - ioctl(): answers the ashmem driver's ASHMEM_GET_SIZE (the size of the file) and ASHMEM_SET_SIZE
//   (ftruncate) on memfd descriptors, which stand in for ashmem regions; every other request, and
//   every other descriptor, goes to the kernel unchanged.
// - fallocate()/madvise(): with SVC_TEST_REFUSE_PAGE_RELEASE set, punching a hole and
//   MADV_REMOVE fail with EPERM, as they do on a sealed object on some kernels and not on others.
// The preloaded library also has host_hooks.c (the host's memory and system log as the daemon
// sees them) and attacker.c (the confinement test's attacker), which test programs leave out.
//
// The file compiles as C and as C++.

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifdef __cplusplus
#define SVC_HOOK_NOTHROW noexcept
extern "C" {
#else
#define SVC_HOOK_NOTHROW
#endif

#define SVC_ASHMEM_SET_SIZE _IOW(0x77, 3, size_t)
#define SVC_ASHMEM_GET_SIZE _IO(0x77, 4)

static int svc_hook_is_memfd(int fd) {
    char link[64];
    char target[256];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof(target) - 1);
    if (n < 0) {
        return 0;
    }
    target[n] = '\0';
    return strncmp(target, "/memfd:", 7) == 0;
}

int daemon(int nochdir, int noclose) SVC_HOOK_NOTHROW {
    const char* record = getenv("SVC_TEST_DAEMON_ARGS");
    if (record != NULL && record[0] != '\0') {
        FILE* file = fopen(record, "w");
        if (file != NULL) {
            fprintf(file, "%d %d\n", nochdir, noclose);
            fclose(file);
        }
    }
    if (nochdir == 0 && chdir("/") != 0) {
        return -1;
    }
    return 0;
}

int ioctl(int fd, unsigned long request, ...) SVC_HOOK_NOTHROW {
    va_list args;
    va_start(args, request);
    unsigned long arg = va_arg(args, unsigned long);
    va_end(args);

    if ((request == SVC_ASHMEM_GET_SIZE || request == SVC_ASHMEM_SET_SIZE) &&
        svc_hook_is_memfd(fd)) {
        if (request == SVC_ASHMEM_SET_SIZE) {
            return ftruncate(fd, (off_t)arg);
        }
        struct stat st;
        if (fstat(fd, &st) != 0) {
            return -1;
        }
        return (int)st.st_size;
    }
    return (int)syscall(SYS_ioctl, fd, request, arg);
}

static int svc_hook_refuses_page_release(void) {
    const char* refuse = getenv("SVC_TEST_REFUSE_PAGE_RELEASE");
    return refuse != NULL && refuse[0] != '\0';
}

static int svc_hook_fallocate(int fd, int mode, off64_t offset, off64_t length) {
    if ((mode & FALLOC_FL_PUNCH_HOLE) != 0 && svc_hook_refuses_page_release()) {
        errno = EPERM;
        return -1;
    }
    return (int)syscall(SYS_fallocate, fd, mode, offset, length);
}

// Both names: a caller built with 64-bit file offsets on a 32-bit system calls the second.
int fallocate(int fd, int mode, off_t offset, off_t length) {
    return svc_hook_fallocate(fd, mode, offset, length);
}

int fallocate64(int fd, int mode, off64_t offset, off64_t length) {
    return svc_hook_fallocate(fd, mode, offset, length);
}

int madvise(void* addr, size_t length, int advice) SVC_HOOK_NOTHROW {
    if (advice == MADV_REMOVE && svc_hook_refuses_page_release()) {
        errno = EPERM;
        return -1;
    }
    return (int)syscall(SYS_madvise, addr, length, advice);
}

#ifdef __cplusplus
}
#endif
