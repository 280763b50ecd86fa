// Test hooks for the daemon under test only: preloaded with testhooks.c, never compiled into a
// test program, where a sanitizer's runtime would meet them before it is set up.
//
// - sysconf(_SC_PHYS_PAGES): with SVC_TEST_MEMORY set, the host has that many bytes of memory, so
//   that a test gets a small memory budget wherever it runs (a cgroup limit below it would still
//   count, but no test machine has one that small).
// - sd_journal_sendv(): with SVC_TEST_JOURNAL set, the journal runs, and each entry goes to
//   standard error instead (the daemon's log in the tests) in one write, its other fields after the
//   message, each behind a tab: "syslog: <PRIORITY> <MESSAGE>\tCLIENT=7\tCODEC=h264\n", so that a
//   test can read what the journal would have received. Without it the real journal is asked.
// - munmap(): with SVC_TEST_STOP_AT_UNMAP=<length> set, a process stops itself (SIGSTOP) before it
//   unmaps a mapping of that length, so that a test sees what it had done before, until it sends
//   SIGCONT.

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

long sysconf(int name) {
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

// The field `name` of an entry ("PRIORITY="), its value; NULL when the entry has none.
static const char* svc_hook_field(const struct iovec* iov, int n, const char* name, int* length) {
    for (int i = 0; i < n; ++i) {
        if (strncmp((const char*)iov[i].iov_base, name, strlen(name)) == 0) {
            *length = (int)(iov[i].iov_len - strlen(name));
            return (const char*)iov[i].iov_base + strlen(name);
        }
    }
    return NULL;
}

int sd_journal_sendv(const struct iovec* iov, int n) {
    const char* journal = getenv("SVC_TEST_JOURNAL");
    if (journal == NULL || journal[0] == '\0') {
        int (*real)(const struct iovec*, int) =
            (int (*)(const struct iovec*, int))dlsym(RTLD_NEXT, "sd_journal_sendv");
        return real != NULL ? real(iov, n) : -1;
    }
    char line[2048];
    int priority_length = 0, message_length = 0;
    const char* priority = svc_hook_field(iov, n, "PRIORITY=", &priority_length);
    const char* message = svc_hook_field(iov, n, "MESSAGE=", &message_length);
    int used =
        snprintf(line, sizeof(line), "syslog: %.*s %.*s", priority_length,
                 priority != NULL ? priority : "", message_length, message != NULL ? message : "");
    for (int i = 0; i < n && used < (int)sizeof(line) - 2; ++i) {
        const char* field = (const char*)iov[i].iov_base;
        if (strncmp(field, "PRIORITY=", 9) != 0 && strncmp(field, "MESSAGE=", 8) != 0 &&
            strncmp(field, "SYSLOG_IDENTIFIER=", 18) != 0) {
            used += snprintf(line + used, sizeof(line) - (size_t)used - 1, "\t%.*s",
                             (int)iov[i].iov_len, field);
        }
    }
    if (used > (int)sizeof(line) - 2) {
        used = (int)sizeof(line) - 2;
    }
    line[used] = '\n';
    ssize_t written = write(STDERR_FILENO, line, (size_t)used + 1);
    (void)written;
    return 0;
}

int munmap(void* addr, size_t length) {
    const char* stop_at = getenv("SVC_TEST_STOP_AT_UNMAP");
    if (stop_at != NULL && stop_at[0] != '\0' && strtoull(stop_at, NULL, 10) == length) {
        raise(SIGSTOP);
    }
    return (int)syscall(SYS_munmap, addr, length);
}
