#include "server/worker_launch.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "base/close_descriptors.h"

namespace worker_launch {

namespace {

// In the child, between fork and exec: only async-signal-safe calls.
[[noreturn]] void become_worker(const Launch& l, pid_t parent, char* const argv[]) {
    // The worker dies with the service (the loop thread, which forks, lives as long as it).
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
        _exit(127);
    }
    // Out of the way of the numbers they go to, then to them.
    const int moved[] = {fcntl(l.client, F_DUPFD, 16), fcntl(l.block, F_DUPFD, 16),
                         fcntl(l.control, F_DUPFD, 16), fcntl(l.program, F_DUPFD_CLOEXEC, 16)};
    for (int fd : moved) {
        if (fd < 0) {
            _exit(127);
        }
    }
    if (dup2(moved[0], kClientFd) < 0 || dup2(moved[1], kBlockFd) < 0 ||
        dup2(moved[2], kControlFd) < 0) {
        _exit(127);
    }
    // The program stays open through the exec: an interpreter that the kernel starts for it
    // (qemu, through binfmt_misc) opens it by its /proc/self/fd path. The worker closes it first.
    const int program = dup2(moved[3], kProgramFd);
    if (program < 0) {
        _exit(127);
    }
    // The accepting process holds other clients' connections and blocks, and descriptors
    // received from clients are not close-on-exec.
    close_from(program + 1);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    fexecve(program, argv, environ);
    _exit(127);
}

}  // namespace

pid_t launch(const Launch& l) {
    // Made before the fork: the child may not allocate.
    std::string number = std::to_string(l.client_number);
    std::string type = l.is_ashmem ? "ashmem" : "posix";
    std::string budget = std::to_string(l.budget);
    char name[] = "media-service";
    char argument[64];
    snprintf(argument, sizeof(argument), "%s", kWorkerArgument);
    char* const argv[] = {name, argument, &number[0], &type[0], &budget[0], nullptr};
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        become_worker(l, parent, argv);
    }
    return pid;
}

UniqueFd open_own_program() {
    return UniqueFd(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
}

}  // namespace worker_launch
