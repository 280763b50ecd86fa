/* The attacker of the confinement tests: code that a decoder bug has smuggled into the daemon.
 * Preloaded with the test hooks, it wraps avcodec_send_packet, and on a packet that reads
 * "ATTACK <action>" tries that action from the decoder worker, inside the call, where such code
 * would run. Each attempt's outcome goes to the file named by SVC_TEST_ATTACKS as
 * "<action> refused <errno>\n" or "<action> SUCCEEDED\n" (the file is opened when the hooks are
 * loaded: the confined daemon may no longer open it). An action that the kernel answers by ending
 * the process writes nothing; the test sees the daemon end by SIGSYS.
 *
 * What the actions reach comes from the daemon's environment: HOME (a folder of the test's with a
 * file "secret"), SVC_TEST_ATTACK_PID (another process of the user's) and SVC_TEST_ATTACK_ADDR
 * (an address in that process). */

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/perf_event.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libavcodec/avcodec.h>

#ifndef SYS_clone3
#define SYS_clone3 435
#endif

static FILE* attack_log = NULL;

__attribute__((constructor)) static void attacker_open_log(void) {
    const char* path = getenv("SVC_TEST_ATTACKS");
    if (path != NULL && path[0] != '\0') {
        attack_log = fopen(path, "ae");
    }
}

static pid_t victim(void) {
    const char* pid = getenv("SVC_TEST_ATTACK_PID");
    return pid != NULL ? (pid_t)atoi(pid) : -1;
}

/* A file in the test's "home"; a negative errno when it cannot be opened. */
static int open_home(const char* name, int flags) {
    char path[4096];
    snprintf(path, sizeof(path), "%s/%s", getenv("HOME") ? getenv("HOME") : "/nonexistent", name);
    int fd = open(path, flags | O_CLOEXEC, 0600);
    return fd >= 0 ? (close(fd), 0) : -errno;
}

static int result(long ret) {
    return ret >= 0 ? 0 : -errno;
}

static int new_process(unsigned long flags) {
    long pid = syscall(SYS_clone, flags, 0, 0, 0, 0);
    if (pid == 0) {
        _exit(0);
    }
    return pid > 0 ? (waitpid((pid_t)pid, NULL, 0), 0) : -errno;
}

/* Each action returns 0 when it succeeded, else the negative errno it failed with. */
static int attack(const char* action) {
    char* const argv[] = {(char*)"true", NULL};
    if (strcmp(action, "execve") == 0) {
        return result(execve("/bin/true", argv, environ));
    } else if (strcmp(action, "execveat") == 0) {
        return result(syscall(SYS_execveat, AT_FDCWD, "/bin/true", argv, environ, 0));
    } else if (strcmp(action, "fork") == 0) {
        return new_process(SIGCHLD);
    } else if (strcmp(action, "vfork") == 0) {
        pid_t pid = vfork();
        if (pid == 0) {
            _exit(0);
        }
        return pid > 0 ? (waitpid(pid, NULL, 0), 0) : -errno;
    } else if (strcmp(action, "clone3") == 0) {
        uint64_t args[11] = {0};
        args[4] = SIGCHLD; /* exit_signal: a fork */
        long pid = syscall(SYS_clone3, args, sizeof(args));
        if (pid == 0) {
            _exit(0);
        }
        return pid > 0 ? (waitpid((pid_t)pid, NULL, 0), 0) : -errno;
    } else if (strcmp(action, "inet-socket") == 0) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        return fd >= 0 ? (close(fd), 0) : -errno;
    } else if (strcmp(action, "unix-connect") == 0) {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        return fd >= 0 ? (close(fd), 0) : -errno;
    } else if (strcmp(action, "home-read") == 0) {
        return open_home("secret", O_RDONLY);
    } else if (strcmp(action, "home-create") == 0) {
        return open_home("created", O_WRONLY | O_CREAT);
    } else if (strcmp(action, "tmp-create") == 0) {
        return result(open("/tmp/svc-attacker-file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    } else if (strcmp(action, "var-read") == 0) {
        return result(open("/var/lib/dpkg/status", O_RDONLY | O_CLOEXEC));
    } else if (strcmp(action, "ptrace") == 0) {
        long ret = ptrace(PTRACE_ATTACH, victim(), 0, 0);
        return ret == 0 ? (ptrace(PTRACE_DETACH, victim(), 0, 0), 0) : -errno;
    } else if (strcmp(action, "process_vm_readv") == 0) {
        char byte;
        struct iovec local = {&byte, 1};
        struct iovec remote = {(void*)strtoull(getenv("SVC_TEST_ATTACK_ADDR"), NULL, 0), 1};
        return result(process_vm_readv(victim(), &local, 1, &remote, 1, 0));
    } else if (strcmp(action, "wx-memory") == 0) {
        void* p = mmap(NULL, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS,
                       -1, 0);
        return p != MAP_FAILED ? (munmap(p, 4096), 0) : -errno;
    } else if (strcmp(action, "wx-mprotect") == 0) {
        void* p = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        int ret = mprotect(p, 4096, PROT_READ | PROT_WRITE | PROT_EXEC) == 0 ? 0 : -errno;
        munmap(p, 4096);
        return ret;
    } else if (strcmp(action, "io_uring") == 0) {
        char params[120] = {0};
        return result(syscall(SYS_io_uring_setup, 1, params));
    } else if (strcmp(action, "bpf") == 0) {
        char attr[128] = {0};
        return result(syscall(SYS_bpf, 0 /* BPF_MAP_CREATE */, attr, sizeof(attr)));
    } else if (strcmp(action, "userfaultfd") == 0) {
        return result(syscall(SYS_userfaultfd, O_CLOEXEC));
    } else if (strcmp(action, "perf_event_open") == 0) {
        struct perf_event_attr attr;
        memset(&attr, 0, sizeof(attr));
        attr.type = PERF_TYPE_SOFTWARE;
        attr.size = sizeof(attr);
        attr.config = PERF_COUNT_SW_CPU_CLOCK;
        return result(syscall(SYS_perf_event_open, &attr, 0, -1, -1, 0));
    } else if (strcmp(action, "keyctl") == 0) {
        return result(syscall(SYS_keyctl, 0 /* KEYCTL_GET_KEYRING_ID */, -4, 0));
    } else if (strcmp(action, "unshare") == 0) {
        return result(unshare(CLONE_NEWUSER));
    } else if (strcmp(action, "mount") == 0) {
        return result(mount("none", "/mnt", "tmpfs", 0, NULL));
    } else if (strcmp(action, "init_module") == 0) {
        return result(syscall(SYS_finit_module, -1, "", 0));
    } else if (strcmp(action, "kexec_load") == 0) {
        return result(syscall(SYS_kexec_load, 0, 0, NULL, 0));
    }
    return -ENOSYS;
}

int avcodec_send_packet(AVCodecContext* avctx, const AVPacket* avpkt) {
    static int (*real)(AVCodecContext*, const AVPacket*) = NULL;
    if (real == NULL) {
        real = (int (*)(AVCodecContext*, const AVPacket*))dlsym(RTLD_NEXT, "avcodec_send_packet");
    }
    static const char kMark[] = "ATTACK ";
    if (avpkt != NULL && avpkt->data != NULL && avpkt->size > (int)sizeof(kMark) &&
        avpkt->size < 64 && memcmp(avpkt->data, kMark, sizeof(kMark) - 1) == 0) {
        char action[64] = {0};
        memcpy(action, avpkt->data + sizeof(kMark) - 1, (size_t)avpkt->size - sizeof(kMark) + 1);
        const int outcome = attack(action);
        if (attack_log != NULL) {
            if (outcome == 0) {
                fprintf(attack_log, "%s SUCCEEDED\n", action);
            } else {
                fprintf(attack_log, "%s refused %d\n", action, -outcome);
            }
            fflush(attack_log);
        }
    }
    return real(avctx, avpkt);
}
