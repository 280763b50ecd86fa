// The system call filters: allow-lists per stage, as data. Everything not listed fails with EPERM
// (or ENOSYS where a library probes and falls back); the calls that only an attack on the kernel
// or another process makes end the process at once (SIGSYS), which costs a worker its own client.
// A name this libseccomp or architecture does not know is left out: the kernel has no such call.
// The lists come from traces of the service (strace -f) decoding H.264, HEVC, VP9, MPEG-4, AAC,
// Opus and MP3 with the VDPAU stack, and from the C library's and FFmpeg's needs beyond them
// (thread start, realloc, sleeps).

#include <errno.h>
#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <seccomp.h>

#include <cstring>
#include <string>
#include <vector>

#include "service/confinement.h"

// LeakSanitizer stops the process's threads at exit with ptrace, from a tracer it clones with
// CLONE_VM but without CLONE_THREAD, and waits for them. Builds with it keep these open; other
// processes stay out of reach of ptrace through the file system policy, which lets a process
// trace only the threads of its own domain.
#if defined(__SANITIZE_ADDRESS__)
#define SVC_LEAK_CHECKER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SVC_LEAK_CHECKER 1
#endif
#endif
#ifndef SVC_LEAK_CHECKER
#define SVC_LEAK_CHECKER 0
#endif

namespace {

using confinement::Stage;

// An argument check: the call is allowed when (argument `arg` & mask) == value, or with
// `differs`, when the argument is anything but `value`.
struct Check {
    unsigned arg;
    uint64_t mask;
    uint64_t value;
    bool differs = false;
};
// A call allowed, with up to two checks that must both hold; several rows of one call are
// alternatives.
struct Allowed {
    const char* name;
    std::vector<Check> checks;
};

constexpr uint64_t kAll = ~0ULL;
// A value that stands for the process's own id, filled in when the filter is made.
constexpr uint64_t kOwnPid = ~0ULL - 1;
constexpr uint64_t kExec = PROT_EXEC, kWriteExec = PROT_WRITE | PROT_EXEC;
// Opens that make or truncate a file, or give a handle without access (O_PATH, which Landlock
// does not check and which could be handed on).
// (O_TMPFILE includes O_DIRECTORY, which a directory's open may use.)
constexpr uint64_t kCreatingOpen = O_CREAT | O_TRUNC | O_PATH | (O_TMPFILE & ~O_DIRECTORY);

// What every process of the service calls: memory, threads, time, signals to itself, reading and
// writing what it holds, and opening (never creating) what its file system policy allows.
const Allowed kEveryProcess[] = {
    {"read", {}},
    {"write", {}},
    {"readv", {}},
    {"writev", {}},
    {"pread64", {}},
    {"lseek", {}},
    {"close", {}},
    {"fstat", {}},
    {"newfstatat", {}},
    {"statx", {}},
    {"statfs", {}},
    {"fstatfs", {}},
    {"readlink", {}},
    {"readlinkat", {}},
    {"access", {}},
    {"faccessat", {}},
    {"faccessat2", {}},
    {"getdents64", {}},
    {"fcntl", {}},
    {"dup3", {}},
    {"open", {{1, kCreatingOpen, 0}}},
    {"openat", {{2, kCreatingOpen, 0}}},
    {"mmap", {{2, kExec, 0}}},
    {"mprotect", {{2, kExec, 0}}},
    {"munmap", {}},
    {"mremap", {}},
    {"madvise", {}},
    {"brk", {}},
    {"fallocate", {}},
    {"get_mempolicy", {}},
    {"set_mempolicy", {}},
    {"futex", {}},
    {"set_robust_list", {}},
    {"rseq", {}},
    {"set_tid_address", {}},
    {"arch_prctl", {}},
    {"sched_yield", {}},
    // Reading a thread's CPUs (the C library asks with the thread's id, which the filter cannot
    // tell from another process's); setting them is refused.
    {"sched_getaffinity", {}},
    // Threads only (a new process in the accepting process's own list).
    {"clone", {{0, CLONE_THREAD, CLONE_THREAD}}},
    {"exit", {}},
    {"exit_group", {}},
    {"restart_syscall", {}},
    {"rt_sigaction", {}},
    {"rt_sigprocmask", {}},
    {"rt_sigreturn", {}},
    {"sigaltstack", {}},
    {"clock_gettime", {}},
    {"clock_getres", {}},
    {"clock_nanosleep", {}},
    {"nanosleep", {}},
    {"gettimeofday", {}},
    {"getpid", {}},
    {"gettid", {}},
    {"getppid", {}},
    {"getuid", {}},
    {"geteuid", {}},
    {"getgid", {}},
    {"getegid", {}},
    {"getrandom", {}},
    {"uname", {}},
    {"sysinfo", {}},
    // Its own limits read, none set: prlimit64(0, resource, NULL, old).
    {"prlimit64", {{0, kAll, 0}, {2, kAll, 0}}},
    {"getrlimit", {}},
    {"prctl", {{0, kAll, PR_SET_NAME}}},
    {"prctl", {{0, kAll, PR_GET_NAME}}},
    {"prctl", {{0, kAll, PR_SET_VMA}}},
    {"prctl", {{0, kAll, PR_GET_DUMPABLE}}},
    // Querying the personality, never changing it (READ_IMPLIES_EXEC would make data executable).
    {"personality", {{0, kAll, 0xffffffff}}},
    // Signals to itself and its own threads (abort, raise); not to other processes.
    {"tgkill", {{0, kAll, kOwnPid}}},
    {"tkill", {}},
    {"kill", {{0, kAll, kOwnPid}}},
    {"poll", {}},
    {"ppoll", {}},
    // Sockets it holds: no descriptors passed (sendmsg is listed where it is needed).
    {"recvfrom", {}},
    {"sendto", {}},
    {"recvmsg", {}},
    {"getsockopt", {}},
    // The devices' requests are the drivers'; a terminal's that injects input is refused.
    {"ioctl", {{1, kAll, TIOCSTI, true}}},
};

// A worker's first stage adds what opening its hardware devices needs: driver libraries mapped
// executable (never writable and executable at once) and the X server's socket; and what confining
// itself further needs.
const Allowed kDeviceOpening[] = {
    {"mmap", {{2, kWriteExec, kExec}}},
    {"mprotect", {{2, kWriteExec, kExec}}},
    {"socket", {{0, kAll, AF_UNIX}}},
    {"connect", {}},
    {"setsockopt", {}},
    {"eventfd2", {}},
    {"pipe2", {}},
    // Confining itself further: a filter or a file system policy can only take rights away.
    {"seccomp", {}},
    {"prctl", {{0, kAll, PR_SET_NO_NEW_PRIVS}}},
    {"landlock_create_ruleset", {}},
    {"landlock_add_rule", {}},
    {"landlock_restrict_self", {}},
    // Its own limits, set before its first setup.
    {"prlimit64", {{0, kAll, 0}}},
    {"setrlimit", {}},
};

// The accepting process: its loop, the handshake, the session's command line, and starting a
// worker: a new process that only exec's the service's program from the descriptor opened at
// start (execveat with AT_EMPTY_PATH; the C library falls back to execve of /proc/self/fd/N only
// where execveat is missing).
const Allowed kAccepting[] = {
    {"epoll_wait", {}},
    {"epoll_pwait", {}},
    {"epoll_ctl", {}},
    {"epoll_create1", {}},
    {"accept", {}},
    {"accept4", {}},
    {"socketpair", {{0, kAll, AF_UNIX}}},
    // The first ping hands the session client a descriptor.
    {"sendmsg", {}},
    {"wait4", {}},
    {"waitid", {}},
    {"clone", {{0, CLONE_THREAD, 0}}},
    {"fork", {}},
    {"vfork", {}},
    {"execveat", {{4, kAll, AT_EMPTY_PATH}}},
    {"execve", {}},
    {"close_range", {}},
    {"dup2", {}},
    {"prctl", {{0, kAll, PR_SET_PDEATHSIG}}},
    {"getsockopt", {}},
    {"setsockopt", {}},
    // A worker's own pid is not this process's: the workers' own filters hold them to themselves
    // (here, a signal to another process can only probe that it exists).
    {"tgkill", {}},
    {"kill", {{1, kAll, 0}}},
};

// Only an attack calls these: the process ends at once.
const char* const kFatal[] = {
#if !SVC_LEAK_CHECKER
    "ptrace",
#endif
    "process_vm_readv",
    "process_vm_writev",
    "bpf",
    "userfaultfd",
    "io_uring_setup",
    "io_uring_enter",
    "io_uring_register",
    "perf_event_open",
    "keyctl",
    "add_key",
    "request_key",
    "unshare",
    "setns",
    "mount",
    "umount2",
    "pivot_root",
    "move_mount",
    "open_tree",
    "fsopen",
    "fsconfig",
    "fsmount",
    "fspick",
    "mount_setattr",
    "chroot",
    "init_module",
    "finit_module",
    "delete_module",
    "kexec_load",
    "kexec_file_load",
};

#if SVC_LEAK_CHECKER
const Allowed kLeakChecker[] = {
    {"ptrace", {}},
    {"clone", {{0, CLONE_THREAD | CLONE_VM, CLONE_VM}}},
    {"wait4", {}},
    {"prctl", {{0, kAll, PR_SET_PTRACER}}},
    {"prctl", {{0, kAll, PR_SET_DUMPABLE}}},
    {"sched_getaffinity", {}},
    {"getdents", {}},
    {"getppid", {}},
    {"prctl", {{0, kAll, PR_GET_DUMPABLE}}},
    {"prctl", {{0, kAll, PR_SET_PDEATHSIG}}},
    // The undefined-behaviour checks of the same builds test that memory is readable by writing
    // it into a pipe.
    {"pipe", {}},
    {"pipe2", {}},
};
#endif

#ifdef SVC_COVERAGE_DIR
// A coverage build writes its counts at exit into files it makes beside its objects: opens that
// create or truncate (the file system policy holds them to the build folder), never a handle
// without access or an unnamed file.
constexpr uint64_t kCountsOpen = kCreatingOpen & ~uint64_t(O_CREAT | O_TRUNC);
const Allowed kCoverageCounts[] = {
    {"open", {{1, kCountsOpen, 0}}},
    {"openat", {{2, kCountsOpen, 0}}},
    {"mkdir", {}},
    {"mkdirat", {}},
};
#endif

int add(scmp_filter_ctx filter, uint32_t action, const Allowed& call) {
    const int nr = seccomp_syscall_resolve_name(call.name);
    if (nr == __NR_SCMP_ERROR) {
        return 0;
    }
    std::vector<scmp_arg_cmp> checks;
    for (Check c : call.checks) {
        c.value = c.value == kOwnPid ? static_cast<uint64_t>(getpid()) : c.value;
        const scmp_compare op = c.differs        ? SCMP_CMP_NE
                                : c.mask == kAll ? SCMP_CMP_EQ
                                                 : SCMP_CMP_MASKED_EQ;
        // The mask comes first where the comparison has one.
        checks.push_back(op == SCMP_CMP_MASKED_EQ ? scmp_arg_cmp{c.arg, op, c.mask, c.value}
                                                  : scmp_arg_cmp{c.arg, op, c.value, 0});
    }
    return seccomp_rule_add_array(filter, action, nr, static_cast<unsigned>(checks.size()),
                                  checks.data());
}

template <size_t N>
int allow(scmp_filter_ctx filter, const Allowed (&calls)[N]) {
    int error = 0;
    for (const Allowed& call : calls) {
        error = error != 0 ? error : add(filter, SCMP_ACT_ALLOW, call);
    }
    return error;
}

// The lists of a stage. The accepting process's filter stays on every worker it starts, so it
// holds what a worker's first stage needs too.
int add_stage(scmp_filter_ctx filter, Stage stage) {
    int error = allow(filter, kEveryProcess);
    if (stage != Stage::kWorkerDecoding) {
        error = error != 0 ? error : allow(filter, kDeviceOpening);
    }
    if (stage == Stage::kAccepting) {
        error = error != 0 ? error : allow(filter, kAccepting);
    }
#if SVC_LEAK_CHECKER
    error = error != 0 ? error : allow(filter, kLeakChecker);
#endif
#ifdef SVC_COVERAGE_DIR
    error = error != 0 ? error : allow(filter, kCoverageCounts);
#endif
    // clone3 hides its flags in memory the filter cannot read: ENOSYS makes the C library fall
    // back to clone, whose flags are checked.
    error = error != 0 ? error : add(filter, SCMP_ACT_ERRNO(ENOSYS), Allowed{"clone3", {}});
    for (const char* call : kFatal) {
        error = error != 0 ? error : add(filter, SCMP_ACT_KILL_PROCESS, Allowed{call, {}});
    }
    return error;
}

}  // namespace

namespace confinement {

std::string restrict_system_calls(Stage stage) {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(EPERM));
    if (filter == nullptr) {
        return "no system call filter (seccomp_init failed)";
    }
    // Every thread, the ones that run already included; the filter also sets no_new_privs.
    int error = seccomp_attr_set(filter, SCMP_FLTATR_CTL_TSYNC, 1);
    error = error != 0 ? error : add_stage(filter, stage);
    error = error != 0 ? error : seccomp_load(filter);
    seccomp_release(filter);
    return error == 0 ? "" : std::string("no system call filter: ") + strerror(-error);
}

}  // namespace confinement
