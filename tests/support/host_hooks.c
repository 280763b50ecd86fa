/* Test hooks for the daemon under test only: preloaded with testhooks.c, never compiled into a
 * test program, where a sanitizer's runtime would meet them before it is set up.
 *
 * - sysconf(_SC_PHYS_PAGES): with SVC_TEST_MEMORY set, the host has that many bytes of memory, so
 *   that a test gets a small memory budget wherever it runs (a cgroup limit below it would still
 *   count, but no test machine has one that small).
 * - syslog(): with SVC_TEST_SYSLOG set, each line goes to standard error instead (the daemon's log
 *   in the tests), as "syslog: <priority> <text>\n" in one write, so that a test can read what the
 *   system log would have received, from every process of the service: a confined worker can
 *   open no file of the test's. */

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
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

static void svc_hook_syslog(int priority, const char* format, va_list args) {
    const char* copy = getenv("SVC_TEST_SYSLOG");
    if (copy == NULL || copy[0] == '\0') {
        void (*real)(int, const char*, va_list) =
            (void (*)(int, const char*, va_list))dlsym(RTLD_NEXT, "vsyslog");
        if (real != NULL) {
            real(priority, format, args);
        }
        return;
    }
    char line[1024];
    int n = snprintf(line, sizeof(line), "syslog: %d ", priority);
    n += vsnprintf(line + n, sizeof(line) - (size_t)n - 1, format, args);
    if (n > (int)sizeof(line) - 2) {
        n = (int)sizeof(line) - 2;
    }
    line[n] = '\n';
    ssize_t written = write(STDERR_FILENO, line, (size_t)n + 1);
    (void)written;
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
