#include "support/daemon_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "decoder/exchange_block.h"
#include "support/test_util.h"

extern char** environ;

namespace {

constexpr int kStartTimeoutMs = 10000;
// Generous: a sanitizer build checks the whole heap for leaks at exit.
constexpr int kStopTimeoutMs = 30000;

bool poll_until(int timeout_ms, const std::function<bool()>& done) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (done()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

int count_entries(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return -1;
    }
    int n = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            ++n;
        }
    }
    closedir(d);
    return n;
}

int decode_status(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

DaemonProcess::DaemonProcess() = default;

DaemonProcess::DaemonProcess(Options options) : options_(std::move(options)) {}

DaemonProcess::~DaemonProcess() {
    stop_in_order();
    if (!runtime_dir_.empty() && !remove_tree(runtime_dir_)) {
        fprintf(stderr, "could not remove %s\n", runtime_dir_.c_str());
    }
}

void DaemonProcess::stop_in_order() {
    if (pid_ <= 0 || reaped_) {
        return;
    }
    kill(pid_, SIGCONT);  // a test may have left it frozen
    // A daemon already on its way out (its session client ended) has destroyed or is about to
    // destroy its signal watchers; a SIGTERM then would kill it instead of being handled.
    if (count_in_log("media server stopped, now quiting...") == 0) {
        kill(pid_, SIGTERM);
    }
    const int status = wait_exit(kStopTimeoutMs);
    if (status == 0) {
        return;
    }
    if (status < 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        reaped_ = true;
        ADD_FAILURE() << "the daemon did not stop within " << kStopTimeoutMs / 1000
                      << " s of SIGTERM and was killed";
        return;
    }
    const std::string text = log();
    ADD_FAILURE() << "the daemon exited with status " << status << " on SIGTERM; its log ends:\n"
                  << text.substr(text.size() > 4000 ? text.size() - 4000 : 0);
}

std::string DaemonProcess::socket_path() const {
    auto it = options_.env.find("XDG_RUNTIME_DIR");
    if (it != options_.env.end()) {
        return it->second + SOCKET_PATH_IN_RUNTIME_DIR;
    }
    if (options_.unset_xdg_runtime_dir) {
        return "/run/user/" + std::to_string(geteuid()) + SOCKET_PATH_IN_RUNTIME_DIR;
    }
    return runtime_dir_ + SOCKET_PATH_IN_RUNTIME_DIR;
}

bool DaemonProcess::start() {
    if (pid_ > 0) {
        return false;  // one process per object
    }
    char dir[] = "/tmp/svc-rt-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        return false;
    }
    runtime_dir_ = dir;
    if (options_.create_socket_dir && !make_dirs(runtime_dir_ + "/vessa/sockets", 0700)) {
        return false;
    }
    log_path_ = runtime_dir_ + "/daemon.log";

    // Everything the child needs is prepared here: between fork and exec it may only make
    // async-signal-safe calls, since other threads of the test may hold locks.
    std::map<std::string, std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const char* eq = strchr(*e, '=');
        if (eq != nullptr) {
            env[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
        }
    }
    env.erase("XDG_RUNTIME_DIR");
    env.erase("LD_PRELOAD");
    if (!options_.unset_xdg_runtime_dir) {
        env["XDG_RUNTIME_DIR"] = runtime_dir_;
    }
    if (options_.preload_hooks) {
        env["LD_PRELOAD"] = SVC_TESTHOOKS_LIB;
    }
    for (const auto& kv : options_.env) {
        env[kv.first] = kv.second;
    }
    std::vector<std::string> env_strings;
    for (const auto& kv : env) {
        env_strings.push_back(kv.first + "=" + kv.second);
    }
    std::vector<char*> envp;
    for (auto& s : env_strings) {
        envp.push_back(&s[0]);
    }
    envp.push_back(nullptr);
    const char* cwd = options_.cwd.empty() ? nullptr : options_.cwd.c_str();
    char* const argv[] = {const_cast<char*>(MEDIA_SERVICE_BIN), nullptr};

    int log = open(log_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (log < 0 || null < 0) {
        close(log);
        close(null);
        return false;
    }
    if (!options_.preload_hooks) {
        // The real daemon() orphans the service; it must come back to us to be reaped.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }

    pid_t child = fork();
    if (child == 0) {
        dup2(null, STDIN_FILENO);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        // The service starts with the dispositions and mask of a fresh process.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        ::signal(SIGPIPE, SIG_DFL);
        umask(options_.umask_value);
        if (cwd != nullptr && chdir(cwd) != 0) {
            _exit(126);
        }
        execve(MEDIA_SERVICE_BIN, argv, envp.data());
        _exit(127);
    }
    close(log);
    close(null);
    if (child < 0) {
        return false;
    }
    pid_ = child;
    reaped_ = false;

    if (options_.preload_hooks) {
        return wait_for_log("starting media service...", kStartTimeoutMs) && running();
    }

    // daemon() returns in the parent at once; the service runs on in the forked child.
    int status = 0;
    if (waitpid(child, &status, 0) != child) {
        return false;
    }
    reaped_ = true;
    exit_status_ = launcher_status_ = decode_status(status);
    if (launcher_status_ != 0) {
        return false;
    }
    const std::string path = socket_path();
    pid_t service = -1;
    if (!poll_until(kStartTimeoutMs, [&] { return (service = listener_pid(path)) > 0; })) {
        return false;
    }
    pid_ = service;
    reaped_ = false;
    exit_status_ = -1;
    return true;
}

std::string DaemonProcess::log() const {
    return read_file(log_path_);
}

size_t DaemonProcess::count_in_log(const std::string& needle) const {
    const std::string text = log();
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size())) {
        ++n;
    }
    return n;
}

bool DaemonProcess::wait_for_log(const std::string& needle, int timeout_ms,
                                 size_t occurrences) const {
    return poll_until(timeout_ms, [&] { return count_in_log(needle) >= occurrences; });
}

void DaemonProcess::signal(int sig) const {
    if (pid_ > 0 && !reaped_) {
        kill(pid_, sig);
    }
}

int DaemonProcess::wait_exit(int timeout_ms) {
    if (pid_ <= 0) {
        return -1;
    }
    poll_until(timeout_ms, [&] { return !running(); });
    return reaped_ ? exit_status_ : -1;
}

bool DaemonProcess::running() {
    if (pid_ <= 0 || reaped_) {
        return false;
    }
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
        reaped_ = true;
        exit_status_ = decode_status(status);
        return false;
    }
    if (r < 0) {
        reaped_ = true;  // not our child: nothing left to wait for
        return false;
    }
    return true;
}

int DaemonProcess::open_fd_count() const {
    return count_entries("/proc/" + std::to_string(pid_) + "/fd");
}

int DaemonProcess::thread_count() const {
    return count_entries("/proc/" + std::to_string(pid_) + "/task");
}
