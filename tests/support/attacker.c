// The attacker of the confinement tests: code that a decoder bug has smuggled into the daemon.
// Preloaded with the test hooks, it wraps avcodec_send_packet, and on a packet that reads
// "ATTACK <action>" tries that action from the client's worker, inside the call, where such code
// would run. Each attempt's outcome goes to standard error (the daemon's log in the tests) as
// "attack: <action> refused <errno>\n" or "attack: <action> SUCCEEDED\n": a confined worker can
// open no file of the test's. An action that the kernel answers by ending the worker writes
// nothing; the test sees the worker end by its signal.
//
// What the actions reach comes from the daemon's environment: HOME (a folder of the test's with a
// file "secret"), SVC_TEST_ATTACK_PID (another process of the user's), SVC_TEST_ATTACK_ADDR (an
// address in that process) and SVC_TEST_ATTACK_SHM (a POSIX shared memory object of the user's).

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libavcodec/avcodec.h>

#ifndef SYS_clone3
#define SYS_clone3 435
#endif

static pid_t victim(void) {
    const char* pid = getenv("SVC_TEST_ATTACK_PID");
    return pid != NULL ? (pid_t)atoi(pid) : -1;
}

// A file in the test's "home"; a negative errno when it cannot be opened.
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

// Hands a descriptor of the home folder to the client over the worker's connection to it.
static int send_home(void) {
    int home = open(getenv("HOME") ? getenv("HOME") : "/", O_PATH | O_CLOEXEC);
    if (home < 0) {
        home = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    char byte = 'Y';
    struct iovec iov = {&byte, 1};
    char control[CMSG_SPACE(sizeof(int))];
    memset(control, 0, sizeof(control));
    struct msghdr msg;
    memset(&msg, 0, sizeof(msg));
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(cmsg), &home, sizeof(int));
    int ret = 0;
    for (int fd = 3; fd < 16; ++fd) { /* whichever is the client's connection */
        ret = result(sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT));
        if (ret == 0) {
            break;
        }
    }
    close(home);
    return ret;
}

// Accepts on any descriptor that might be a listening socket.
static int accept_any(void) {
    int ret = -EBADF;
    for (int fd = 0; fd < 64 && ret != 0; ++fd) {
        int got = accept4(fd, NULL, NULL, SOCK_NONBLOCK);
        ret = got >= 0 ? (close(got), 0) : (errno == EBADF || errno == ENOTSOCK ? ret : -errno);
    }
    return ret;
}

// Makes descriptors until none is left.
static int descriptors(void) {
    int fds[20000];
    int n = 0, ret = 0;
    while (n < 20000 && (fds[n] = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)) >= 0) {
        ++n;
    }
    ret = n < 20000 ? -errno : 0;
    while (n > 0) {
        close(fds[--n]);
    }
    return ret;
}

static int rx_mprotect(void) {
    void* p = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    int ret = mprotect(p, 4096, PROT_READ | PROT_EXEC) == 0 ? 0 : -errno;
    munmap(p, 4096);
    return ret;
}

static int attack_more(const char* action) {
    const pid_t other = victim();
    if (strcmp(action, "home-opath") == 0) {
        return open_home("", O_PATH);
    } else if (strcmp(action, "send-fd") == 0) {
        return send_home();
    } else if (strcmp(action, "accept-any") == 0) {
        return accept_any();
    } else if (strcmp(action, "descriptors") == 0) {
        return descriptors();
    } else if (strcmp(action, "rx-mprotect") == 0) {
        return rx_mprotect();
    } else if (strcmp(action, "shm-open") == 0) {
        const char* name = getenv("SVC_TEST_ATTACK_SHM");
        return result(shm_open(name ? name : "/none", O_RDWR, 0));
    } else if (strcmp(action, "prlimit-other") == 0) {
        struct rlimit none = {0, 0};
        return result(prlimit(other, RLIMIT_NOFILE, &none, NULL));
    } else if (strcmp(action, "setpriority-user") == 0) {
        return result(setpriority(PRIO_USER, 0, 19));
    } else if (strcmp(action, "affinity-other") == 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(0, &set);
        return result(sched_setaffinity(other, sizeof(set), &set));
    } else if (strcmp(action, "ioprio-set") == 0) {
        return result(syscall(SYS_ioprio_set, 1 /* IOPRIO_WHO_PROCESS */, other, 7 << 13));
    } else if (strcmp(action, "chmod-home") == 0) {
        return result(chmod(getenv("HOME") ? getenv("HOME") : "/", 0777));
    } else if (strcmp(action, "inotify") == 0) {
        return result(inotify_init1(IN_CLOEXEC));
    } else if (strcmp(action, "sysv-shm") == 0) {
        return result(shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600));
    } else if (strcmp(action, "memfd") == 0) {
        return result(syscall(SYS_memfd_create, "code", 0));
    } else if (strcmp(action, "personality") == 0) {
        return result(personality(READ_IMPLIES_EXEC));
    } else if (strcmp(action, "segv") == 0) {
        raise(SIGSEGV);
    }
    return -ENOSYS;
}

// Each action returns 0 when it succeeded, else the negative errno it failed with.
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
    } else if (strcmp(action, "unshare") == 0) {
        return result(unshare(CLONE_NEWUSER));
    } else if (strcmp(action, "mount") == 0) {
        return result(mount("none", "/mnt", "tmpfs", 0, NULL));
    }
    return attack_more(action);
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
        char line[128];
        const int n = outcome == 0 ? snprintf(line, sizeof(line), "attack: %s SUCCEEDED\n", action)
                                   : snprintf(line, sizeof(line), "attack: %s refused %d\n", action,
                                              -outcome);
        ssize_t written = write(STDERR_FILENO, line, (size_t)n);
        (void)written;
    }
    return real(avctx, avpkt);
}
