// The system call filter: a list of what is refused, on top of the calls everything else makes.
// The decoders' own needs (FFmpeg, the hardware drivers, the C library and, in test builds, the
// sanitizers' runtimes) are too varied, across architectures, libc versions and driver stacks,
// to be listed call by call without breaking one of them; what a taken-over decoder would need
// to escape is listed instead.

#include <errno.h>
#include <sched.h>
#include <sys/mman.h>

#include <seccomp.h>

#include <cstring>
#include <string>

#include "service/confinement.h"

// LeakSanitizer stops the process's threads at exit with ptrace, from a tracer it clones with
// CLONE_VM but without CLONE_THREAD. Builds with it keep both open; files and other processes
// stay out of reach of ptrace through the file system policy, which lets a process trace only
// the threads of its own domain.
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

// A library may try these and must get an error it can take: the VDPAU driver connects to the X
// server, a driver may start a helper program. They fail with EACCES.
const char* const kRefused[] = {
    "socket",
    "connect",
    "bind",
    "listen",
};

// Only an attacker calls these here: the process ends at once (SIGSYS).
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

// A call this libseccomp or architecture does not know is left out: the kernel has no such call
// either, or it cannot be asked for by name here.
int add(scmp_filter_ctx filter, uint32_t action, const char* name, unsigned count = 0,
        scmp_arg_cmp cmp = scmp_arg_cmp{}) {
    const int nr = seccomp_syscall_resolve_name(name);
    if (nr == __NR_SCMP_ERROR) {
        return 0;
    }
    return count == 0 ? seccomp_rule_add(filter, action, nr, 0)
                      : seccomp_rule_add(filter, action, nr, 1, cmp);
}

// New processes: clone without CLONE_THREAD (fork and vfork on architectures without their own
// calls); clone3 hides its flags in memory the filter cannot read, so it is answered ENOSYS, which
// makes the C library fall back to clone. Writable and executable memory: no code can be written
// and then run. Returns the first error.
int add_argument_rules(scmp_filter_ctx filter) {
    const uint32_t refused = SCMP_ACT_ERRNO(EACCES);
    const uint64_t write_exec = PROT_WRITE | PROT_EXEC;
    int error = 0;
    error = error != 0 ? error : add(filter, SCMP_ACT_ERRNO(ENOSYS), "clone3");
    for (const char* call : {"mmap", "mprotect", "pkey_mprotect"}) {
        error = error != 0 ? error
                           : add(filter, refused, call, 1,
                                 SCMP_A2(SCMP_CMP_MASKED_EQ, write_exec, write_exec));
    }
    return error;
}

}  // namespace

namespace confinement {

std::string restrict_system_calls() {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    if (filter == nullptr) {
        return "no system call filter (seccomp_init failed)";
    }
    // Every thread, the ones that run already included; the filter also sets no_new_privs.
    int error = seccomp_attr_set(filter, SCMP_FLTATR_CTL_TSYNC, 1);
    for (const char* call : kRefused) {
        error = error != 0 ? error : add(filter, SCMP_ACT_ERRNO(EACCES), call);
    }
    for (const char* call : kFatal) {
        error = error != 0 ? error : add(filter, SCMP_ACT_KILL_PROCESS, call);
    }
    error = error != 0 ? error : add_argument_rules(filter);
    error = error != 0 ? error : seccomp_load(filter);
    seccomp_release(filter);
    return error == 0 ? "" : std::string("no system call filter: ") + strerror(-error);
}

}  // namespace confinement
