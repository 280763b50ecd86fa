#include "client/service_link.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/eintr.h"
#include "base/unique_fd.h"
#include "client/media_client.h"

extern char** environ;

namespace mediaclient {

using protocol::SOCKET_PATH_IN_RUNTIME_DIR;

namespace {

const std::string kSocketSuffix = SOCKET_PATH_IN_RUNTIME_DIR;

bool executable(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

void sleep_ms(int ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    retry_on_eintr([&] { return nanosleep(&ts, &ts); });
}

// The state letter of /proc/PID/stat (R, S, Z, ...); 0 when the process is gone.
char process_state(pid_t pid) {
    FILE* stat = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "re");
    char state = 0;
    if (stat != nullptr) {
        // The program name in parentheses may hold spaces and parentheses itself.
        char line[512] = {};
        const char* end = fgets(line, sizeof(line), stat) ? strrchr(line, ')') : nullptr;
        state = end != nullptr && end[1] == ' ' ? end[2] : 0;
        fclose(stat);
    }
    return state;
}

bool ends_with(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

void close_all_but(int keep) {
    // The kernel's call by number, since glibc before 2.34 does not name close_range.
    if (syscall(__NR_close_range, 3, keep - 1, 0) < 0 ||
        syscall(__NR_close_range, keep + 1, ~0U, 0) < 0) {
        for (int fd = 3; fd < 1024; ++fd) {
            if (fd != keep) {
                close(fd);
            }
        }
    }
}

bool make_dirs(const std::string& dir) {
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos == dir.size() || dir[pos] == '/') {
            std::string part = dir.substr(0, pos);
            if (mkdir(part.c_str(), 0700) < 0 && errno != EEXIST) {
                return false;
            }
        }
    }
    return true;
}

std::string find_service_binary() {
    char self[PATH_MAX] = {};
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n > 0) {
        std::string dir(self, static_cast<size_t>(n));
        dir.erase(dir.rfind('/'));
        if (executable(dir + "/media-service")) {
            return dir + "/media-service";
        }
    }
    const char* path = getenv("PATH");
    std::string rest = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    while (start <= rest.size()) {
        size_t end = rest.find(':', start);
        if (end == std::string::npos) {
            end = rest.size();
        }
        std::string dir = rest.substr(start, end - start);
        if (!dir.empty() && executable(dir + "/media-service")) {
            return dir + "/media-service";
        }
        start = end + 1;
    }
    return "";
}

bool service_listening(const std::string& socket_path) {
    int fd = connect_service(socket_path);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

namespace {

// The service's environment: ours, with XDG_RUNTIME_DIR pointing at the socket's runtime
// directory where the default path would not be this socket.
std::vector<std::string> service_environment(const std::string& socket_path) {
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        if (strncmp(*e, "XDG_RUNTIME_DIR=", 16) != 0) {
            env.push_back(*e);
        }
    }
    if (default_socket_path() != socket_path || getenv("XDG_RUNTIME_DIR") != nullptr) {
        env.push_back("XDG_RUNTIME_DIR=" +
                      socket_path.substr(0, socket_path.size() - kSocketSuffix.size()));
    }
    return env;
}

// In the forked child, which may only make async-signal-safe calls: closes everything but
// `report`, joins the cgroup whose cgroup.procs is given, and executes the service; on failure
// writes errno to `report`.
[[noreturn]] void exec_service(const char* binary, char* const envp[], const char* cgroup_procs,
                               int report) {
    close_all_but(report);
    // "0" moves the writer itself; its children (the daemon) stay where it is.
    const int procs = cgroup_procs[0] == 0 ? -1 : open(cgroup_procs, O_WRONLY | O_CLOEXEC);
    if (cgroup_procs[0] == 0 || (procs >= 0 && write(procs, "0", 1) == 1)) {
        char* const argv[] = {const_cast<char*>(binary), nullptr};
        execve(binary, argv, envp);
    }
    const int err = errno;
    ssize_t ignored = write(report, &err, sizeof(err));
    (void)ignored;
    _exit(127);
}

// Runs the binary, which daemonises at once; false with `error` set when it could not be run.
bool run_service(const std::string& binary, const std::string& socket_path,
                 const std::string& cgroup, std::string* error) {
    // The child may only make async-signal-safe calls, so its environment is built here.
    std::vector<std::string> env = service_environment(socket_path);
    std::vector<char*> envp;
    for (auto& s : env) {
        envp.push_back(&s[0]);
    }
    envp.push_back(nullptr);
    const std::string cgroup_procs = cgroup.empty() ? "" : cgroup + "/cgroup.procs";
    // The exec error, if any, comes back through a pipe that a successful exec closes.
    int report[2];
    if (pipe2(report, O_CLOEXEC) < 0) {
        *error = std::string("pipe: ") + strerror(errno);
        return false;
    }
    UniqueFd reader(report[0]), writer(report[1]);
    const pid_t child = fork();
    if (child == 0) {
        exec_service(binary.c_str(), envp.data(), cgroup_procs.c_str(), writer.get());
    }
    writer.reset();
    if (child < 0) {
        *error = std::string("fork: ") + strerror(errno);
        return false;
    }
    int exec_errno = 0;
    const ssize_t got =
        retry_on_eintr([&] { return read(reader.get(), &exec_errno, sizeof(exec_errno)); });
    // The process we started exits at once and the daemon goes on.
    retry_on_eintr([&] { return waitpid(child, nullptr, 0); });
    if (got == static_cast<ssize_t>(sizeof(exec_errno))) {
        *error = "cannot run " + binary + ": " + strerror(exec_errno);
        return false;
    }
    return true;
}

}  // namespace

bool start_service(const std::string& socket_path, const std::string& binary_arg, int timeout_ms,
                   std::string* error, const std::string& cgroup) {
    if (!ends_with(socket_path, kSocketSuffix)) {
        *error = "nothing listens on " + socket_path +
                 ", and the service cannot be started there: it listens only on <runtime dir>" +
                 kSocketSuffix;
        return false;
    }
    const std::string binary = binary_arg.empty() ? find_service_binary() : binary_arg;
    if (binary.empty()) {
        *error =
            "the service is not running and no media-service binary was found next to "
            "this program or in PATH";
        return false;
    }
    const std::string socket_dir = socket_path.substr(0, socket_path.rfind('/'));
    if (!make_dirs(socket_dir)) {
        *error = "cannot create " + socket_dir + ": " + strerror(errno);
        return false;
    }
    if (!run_service(binary, socket_path, cgroup, error)) {
        return false;
    }
    for (int waited = 0; waited <= timeout_ms; waited += 20) {
        if (service_listening(socket_path)) {
            return true;
        }
        sleep_ms(20);
    }
    *error = "started " + binary + " but nothing listens on " + socket_path + " after " +
             std::to_string(timeout_ms / 1000) + " s";
    return false;
}

pid_t peer_pid(int fd) {
    struct ucred cred {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) < 0 || cred.pid <= 0) {
        return -1;
    }
    return cred.pid;
}

pid_t listener_pid(const std::string& socket_path) {
    const int fd = connect_service(socket_path);
    if (fd < 0) {
        return -1;
    }
    const pid_t pid = peer_pid(fd);
    close(fd);
    return pid;
}

bool stop_process(pid_t pid, int timeout_ms) {
    if (pid <= 0) {
        return false;
    }
    if (kill(pid, SIGTERM) < 0) {
        return errno == ESRCH;
    }
    return wait_process_gone(pid, timeout_ms);
}

bool wait_process_gone(pid_t pid, int timeout_ms) {
    if (pid <= 0) {
        return false;
    }
    for (int waited = 0; waited <= timeout_ms; waited += 10) {
        // Our own child would linger as a zombie; reap it if it is one.
        waitpid(pid, nullptr, WNOHANG);
        // An ended process whose parent has not reaped it yet still answers kill(pid, 0).
        const char state = process_state(pid);
        if ((kill(pid, 0) < 0 && errno == ESRCH) || state == 'Z' || state == 'X') {
            return true;
        }
        sleep_ms(10);
    }
    return false;
}

}  // namespace mediaclient
