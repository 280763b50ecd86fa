/* Test hooks, preloaded into the daemon under test (LD_PRELOAD) and compiled into the ashmem test
 * program and the fuzz target. The production binary is never changed for tests; these
 * replacements stand in for what a test machine lacks or what would hide the process from the
 * test:
 *
 * - daemon(): neither forks nor touches the standard streams, so the test keeps the process as
 *   its child and reads its log. It records its arguments ("<nochdir> <noclose>\n") in the file
 *   named by SVC_TEST_DAEMON_ARGS when that is set, and still honours nochdir.
 * - ioctl(): answers the ashmem driver's ASHMEM_GET_SIZE (the size of the file) and ASHMEM_SET_SIZE
 *   (ftruncate) on memfd descriptors, which stand in for ashmem regions; every other request, and
 *   every other descriptor, goes to the kernel unchanged.
 * - fallocate()/madvise(): with SVC_TEST_REFUSE_PAGE_RELEASE set, punching a hole and
 *   MADV_REMOVE fail with EPERM, as they do on a sealed object on some kernels and not on others.
 * - syslog(): with SVC_TEST_SYSLOG set, each line goes to the file it names instead, as
 *   "<priority> <text>\n", so that a test can read what the system log would have received. The
 *   file is opened when the hooks are loaded: the confined daemon may no longer open it later.
 * - sysconf(_SC_PHYS_PAGES): with SVC_TEST_MEMORY set, the host has that many bytes of memory, so
 *   that a test gets a small memory budget wherever it runs (a cgroup limit below it would still
 *   count, but no test machine has one that small).
 *
 * The file compiles as C and as C++. */

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include <dlfcn.h>
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

/* Both names: a caller built with 64-bit file offsets on a 32-bit system calls the second. */
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

long sysconf(int name) SVC_HOOK_NOTHROW {
    static long (*real)(int) = NULL;
    if (real == NULL) {
        real = (long (*)(int))dlsym(RTLD_NEXT, "sysconf");
    }
    const char* memory = getenv("SVC_TEST_MEMORY");
    if (name == _SC_PHYS_PAGES && memory != NULL && memory[0] != '\0') {
        return (long)(strtoll(memory, NULL, 10) / real(_SC_PAGESIZE));
    }
    return real(name);
}

static FILE* svc_hook_syslog_file = NULL;

__attribute__((constructor)) static void svc_hook_open_syslog_file(void) {
    const char* path = getenv("SVC_TEST_SYSLOG");
    if (path != NULL && path[0] != '\0') {
        svc_hook_syslog_file = fopen(path, "ae");
    }
}

static void svc_hook_syslog(int priority, const char* format, va_list args) {
    if (svc_hook_syslog_file == NULL) {
        void (*real)(int, const char*, va_list) =
            (void (*)(int, const char*, va_list))dlsym(RTLD_NEXT, "vsyslog");
        if (real != NULL) {
            real(priority, format, args);
        }
        return;
    }
    fprintf(svc_hook_syslog_file, "%d ", priority);
    vfprintf(svc_hook_syslog_file, format, args);
    fputc('\n', svc_hook_syslog_file);
    fflush(svc_hook_syslog_file);
}

void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    svc_hook_syslog(priority, format, args);
    va_end(args);
}

/* What a caller built with _FORTIFY_SOURCE calls instead. */
void __syslog_chk(int priority, int flag, const char* format, ...) {
    (void)flag;
    va_list args;
    va_start(args, format);
    svc_hook_syslog(priority, format, args);
    va_end(args);
}

#ifdef __cplusplus
}
#endif
