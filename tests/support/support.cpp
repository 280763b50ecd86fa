#include "support/support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "client/service_link.h"
#include "protocol/media_protocol.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>

using namespace mediaclient::protocol;
}

extern char** environ;

// The models and the demuxer meet garbage on purpose; FFmpeg's complaints would bury the output.
static const int kQuietFFmpeg = (av_log_set_level(AV_LOG_QUIET), 0);

bool wait_until(int timeout_ms, const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool remove_tree(const std::string& path) {
    return system(("rm -rf '" + path + "'").c_str()) == 0;
}

TempDir::TempDir() {
    char dir[] = "/tmp/svc-test-XXXXXX";
    path = mkdtemp(dir) != nullptr ? dir : "";
}

TempDir::~TempDir() {
    if (!path.empty() && !remove_tree(path)) {
        fprintf(stderr, "could not remove %s\n", path.c_str());
    }
}

// ---- the daemon ----

namespace {

// Generous: a daemon may run under valgrind (SVC_TEST_DAEMON_WRAPPER).
constexpr int kStartTimeoutMs = 60000;
// Generous: a sanitizer build checks the whole heap for leaks at exit.
constexpr int kStopTimeoutMs = 30000;

}  // namespace

Daemon::Daemon() = default;
Daemon::Daemon(Options options) : options_(std::move(options)) {}

Daemon::~Daemon() {
    if (pid_ > 0 && !reaped_) {
        // Only a daemon a test left frozen: a SIGCONT discards a pending SIGSTOP, which would
        // leave a sanitizer's leak check at exit waiting for a thread that never stops.
        if (frozen_) {
            kill(pid_, SIGCONT);
        }
        // A daemon on its way out (its session ended) has destroyed, or is about to destroy, its
        // signal watchers; a SIGTERM then would kill it instead of being handled.
        if (count("media server stopped, now quiting...") == 0) {
            kill(pid_, SIGTERM);
        }
        const int status = wait_exit(kStopTimeoutMs);
        if (status < 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            ADD_FAILURE() << "the daemon did not stop on SIGTERM and was killed";
        } else if (status != 0) {
            const std::string text = log();
            ADD_FAILURE() << "the daemon exited with status " << status << "; its log ends:\n"
                          << text.substr(text.size() > 4000 ? text.size() - 4000 : 0);
        }
    }
    const std::string log_text = options_.log && !runtime_dir_.empty() ? log() : "";
    for (const char* bad_end : {"ended by signal", "exited with status"}) {
        if (!options_.workers_may_fail && log_text.find(bad_end) != std::string::npos) {
            ADD_FAILURE() << "a decoder worker " << bad_end << "; the log ends:\n"
                          << log_text.substr(log_text.size() > 4000 ? log_text.size() - 4000 : 0);
        }
    }
    if (!runtime_dir_.empty() && !remove_tree(runtime_dir_)) {
        fprintf(stderr, "could not remove %s\n", runtime_dir_.c_str());
    }
}

std::string Daemon::socket_path() const {
    auto it = options_.env.find("XDG_RUNTIME_DIR");
    const std::string dir = it == options_.env.end() ? runtime_dir_
                            : it->second.empty()     ? "/run/user/" + std::to_string(geteuid())
                                                     : it->second;
    return dir + SOCKET_PATH_IN_RUNTIME_DIR;
}

bool Daemon::start() {
    char dir[] = "/tmp/svc-rt-XXXXXX";
    if (pid_ > 0 || mkdtemp(dir) == nullptr) {
        return false;
    }
    runtime_dir_ = dir;
    mkdir((runtime_dir_ + "/vessa").c_str(), 0700);
    mkdir((runtime_dir_ + "/vessa/sockets").c_str(), 0700);
    // Everything the child needs is made here: between fork and exec only async-signal-safe
    // calls are allowed, since other threads of the test may hold locks.
    std::map<std::string, std::string> env{{"XDG_RUNTIME_DIR", runtime_dir_},
                                           {"LD_PRELOAD", SVC_TESTHOOKS_LIB},
                                           {"LSAN_OPTIONS", "suppressions=" SVC_LSAN_SUPPRESSIONS}};
    for (const auto& kv : options_.env) {
        env[kv.first] = kv.second;
    }
    std::vector<std::string> strings;
    for (char** e = environ; *e != nullptr; ++e) {
        if (env.count(std::string(*e, strcspn(*e, "="))) == 0) {
            strings.push_back(*e);
        }
    }
    for (const auto& kv : env) {
        if (!kv.second.empty()) {
            strings.push_back(kv.first + "=" + kv.second);
        }
    }
    std::vector<char*> envp;
    for (auto& s : strings) {
        envp.push_back(&s[0]);
    }
    envp.push_back(nullptr);
    // A program that runs the daemon (valgrind in CI), its path and arguments split at spaces.
    const char* wrapper = getenv("SVC_TEST_DAEMON_WRAPPER");
    std::istringstream in(wrapper != nullptr ? wrapper : "");
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    words.push_back(MEDIA_SERVICE_BIN);
    std::vector<char*> argv;
    for (auto& w : words) {
        argv.push_back(&w[0]);
    }
    argv.push_back(nullptr);
    const std::string log_path = runtime_dir_ + "/daemon.log";
    int log_fd = open(options_.log ? log_path.c_str() : "/dev/null",
                      O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_t child = fork();
    if (child == 0) {
        dup2(null_fd, STDIN_FILENO);
        dup2(log_fd, STDOUT_FILENO);
        dup2(log_fd, STDERR_FILENO);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        umask(022);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(log_fd);
    close(null_fd);
    pid_ = child;
    if (child <= 0) {
        return false;
    }
    // Without its log (a long soak) the daemon is up once it answers on its socket.
    const bool up = options_.log ? wait_log("starting media service...", 1, kStartTimeoutMs)
                                 : wait_until(kStartTimeoutMs, [this] {
                                       return mediaclient::listener_pid(socket_path()) == pid_;
                                   });
    return up && running();
}

// The copies for the system log (see host_hooks.c) are left out of the log, and kept apart.
std::string Daemon::log() const {
    return log_lines(false);
}

std::string Daemon::system_log() const {
    return log_lines(true);
}

std::string Daemon::log_lines(bool system) const {
    static const std::string kMark = "syslog: ";
    std::istringstream in(read_file(runtime_dir_ + "/daemon.log"));
    std::string lines;
    for (std::string line; std::getline(in, line);) {
        if ((line.compare(0, kMark.size(), kMark) == 0) == system) {
            lines += (system ? line.substr(kMark.size()) : line) + "\n";
        }
    }
    return lines;
}

std::vector<pid_t> worker_pids(pid_t pid) {
    std::vector<pid_t> pids;
    const std::string p = std::to_string(pid);
    std::istringstream children(read_file("/proc/" + p + "/task/" + p + "/children"));
    for (pid_t child; children >> child;) {
        pids.push_back(child);
    }
    return pids;
}

std::vector<std::string> worker_names(pid_t pid) {
    std::vector<std::string> names;
    for (pid_t worker : worker_pids(pid)) {
        const std::string name = read_file("/proc/" + std::to_string(worker) + "/comm");
        names.push_back(name.substr(0, name.find('\n')));
    }
    return names;
}

// Xvfb writes its display number to -displayfd once it takes clients, the number and its newline
// in two writes: the pipe stays open until the newline came, since a server that finds it closed
// in between ends itself.
VirtualDisplay::VirtualDisplay() {
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        return;
    }
    const std::string fd = std::to_string(report[1]);
    const pid_t child = fork();
    if (child == 0) {
        const int null_fd = open("/dev/null", O_RDWR);
        dup2(null_fd, STDIN_FILENO);
        dup2(null_fd, STDOUT_FILENO);
        dup2(null_fd, STDERR_FILENO);
        fcntl(report[1], F_SETFD, 0);
        execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-nolisten", "tcp", "-screen", "0",
               "320x240x24", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(report[1]);
    pid_ = child;
    std::string number;
    pollfd ready{report[0], POLLIN, 0};
    char c = 0;
    while (child > 0 && c != '\n' && poll(&ready, 1, 10000) == 1 && read(report[0], &c, 1) == 1) {
        number += c;
    }
    if (c == '\n') {
        name_ = ":" + number.substr(0, number.size() - 1);
    }
    close(report[0]);
}

VirtualDisplay::~VirtualDisplay() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
}

bool have_virtual_vdpau() {
    return system(
               "command -v Xvfb >/dev/null && ls /usr/lib/*/vdpau/libvdpau_va_gl.so.1 "
               ">/dev/null 2>&1") == 0;
}

size_t occurrences(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++n;
    }
    return n;
}

size_t Daemon::count(const std::string& needle) const {
    return occurrences(log(), needle);
}

bool Daemon::wait_log(const std::string& needle, size_t occurrences, int timeout_ms) const {
    return wait_until(timeout_ms, [&] { return count(needle) >= occurrences; });
}

void Daemon::signal(int sig) {
    if (pid_ > 0 && !reaped_) {
        frozen_ = sig == SIGSTOP || (frozen_ && sig != SIGCONT);
        kill(pid_, sig);
    }
}

int Daemon::wait_exit(int timeout_ms) {
    wait_until(timeout_ms, [this] { return !running(); });
    return reaped_ ? status_ : -1;
}

bool Daemon::running() {
    if (pid_ <= 0 || reaped_) {
        return false;
    }
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_ || r < 0) {
        reaped_ = true;
        status_ = r != pid_ ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return !reaped_;
}

bool Daemon::barrier() const {
    int fd = mediaclient::connect_service(socket_path());
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    // Client type 0 is refused, and the refusal closes the connection from a later callback.
    bool ok =
        fd >= 0 && send_type_msg(fd, 0, "", {null_fd}) >= 0 && mediaclient::wait_closed(fd, 10000);
    close(null_fd);
    close(fd);
    return ok;
}

bool log_has(const std::string& log, const std::string& level, const std::string& text) {
    std::istringstream lines(log);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("[" + level + "]", 0) == 0 && line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// ---- clients ----

ScopedShm::ScopedShm(size_t size) {
    static std::atomic<unsigned> counter{0};
    name = "/svc-test-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        fd = -1;
    }
}

ScopedShm::~ScopedShm() {
    if (fd >= 0) {
        close(fd);
    }
    shm_unlink(name.c_str());
}

int make_memfd(size_t size, unsigned flags) {
    int fd = memfd_create("svc-test-block", MFD_CLOEXEC | flags);
    if (fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

ssize_t send_type_msg(int fd, uint8_t type, const std::string& name, const std::vector<int>& fds) {
    std::vector<uint8_t> record = {type, 0};
    record.insert(record.end(), name.begin(), name.end());
    return mediaclient::send_record(fd, record.data(), record.size(), fds.data(), fds.size(),
                                    nullptr);
}

// ---- media ----

uint32_t Clip::codec_index() const {
    return static_cast<uint32_t>(info.video ? mediatools::video_codec_index(info.codec_name)
                                            : mediatools::audio_codec_index(info.codec_name));
}

namespace {

const std::string& media_dir() {
    static TempDir dir;  // removed when the test program exits
    return dir.path;
}

}  // namespace

const Clip& clip(const std::string& file, const std::string& args, bool video) {
    static std::mutex mutex;
    static std::map<std::string, Clip> clips;
    std::lock_guard<std::mutex> lock(mutex);
    auto it = clips.find(file);
    if (it != clips.end()) {
        return it->second;
    }
    Clip& c = clips[file];
    c.path = media_dir() + "/" + file;
    const std::string cmd =
        "ffmpeg -nostdin -hide_banner -loglevel error -y " + args + " '" + c.path + "'";
    std::string error;
    if (system(cmd.c_str()) != 0 || !mediatools::load_stream(c.path, video, 0, &c, &error)) {
        ADD_FAILURE() << "could not make " << file << ": " << error;
    }
    return c;
}

int32_t set_up(mediaclient::DecoderClient& c, const Clip& s, int a, int b, int f, bool config) {
    ExchangeResult r{};
    const uint8_t* bytes = config ? s.info.extradata.data() : nullptr;
    const size_t size = config ? s.info.extradata.size() : 0;
    const auto e =
        s.info.video ? c.init_video(s.codec_index(), mediatools::video_init_params(s.info, a, b, f),
                                    bytes, size, &r, 60000)
                     : c.init_audio(s.codec_index(), mediatools::audio_init_params(s.info, a, b, f),
                                    bytes, size, &r, 60000);
    return e == mediaclient::ClientError::kOk ? r.status : STATUS_FAILED;
}

Decoded decode_packets(mediaclient::DecoderClient& c, const Clip& s, size_t from, size_t to,
                       Oracle* oracle) {
    Decoded d;
    for (size_t i = from; i < std::min(to, s.packets.size()); ++i) {
        const auto& p = s.packets[i];
        ExchangeResult r{};
        if (c.decode_frame(p.data.data(), p.data.size(), p.pts, &r, 60000) !=
            mediaclient::ClientError::kOk) {
            ++d.unanswered;
            continue;
        }
        if (oracle != nullptr) {
            EXPECT_EQ(differs(r, c.output(), oracle->decode(p.data, p.pts)), "") << "packet " << i;
        }
        d.outputs += r.status == STATUS_OK && r.output_size > 0;
        d.failures += r.status == STATUS_FAILED;
    }
    return d;
}

bool have_encoder(const std::string& encoder) {
    return avcodec_find_encoder_by_name(encoder.c_str()) != nullptr;
}
