#pragma once

// What the tests share: waiting, the daemon under test, clients' raw handshakes, and real media.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "client/media_client.h"
#include "support/oracle.h"
#include "tools/in_process.h"
#include "tools/media_file.h"
#include "tools/proc_stat.h"

// Polls `done` every 10 ms until it holds; false when `timeout_ms` passed first.
bool wait_until(int timeout_ms, const std::function<bool()>& done);

std::string read_file(const std::string& path);
// rm -rf; true when nothing is left.
bool remove_tree(const std::string& path);

// A fresh directory under /tmp, removed with everything in it on destruction.
struct TempDir {
    TempDir();
    ~TempDir();
    std::string path;
};

using mediatools::proc_stat;
using mediatools::ProcStat;

// The real media-service binary with the test hooks preloaded (daemon() keeps it in the
// foreground with its standard streams; memfds stand in for ashmem regions), in a private runtime
// directory, its log in a file. The destructor stops it as a user would, with SIGTERM, and fails
// the test unless it exits with status 0 in time (then it is killed): so every daemon's orderly
// exit is checked, by the sanitizers' exit checks too. SVC_TEST_DAEMON_WRAPPER, where set, names a
// program and its arguments (space-separated, the program by its path) that run the daemon:
// valgrind in CI, whose error exit status then fails the test.
class Daemon {
  public:
    struct Options {
        // Extra or overriding environment; an empty value removes the variable.
        std::map<std::string, std::string> env;
        bool log = true;  // false: the daemon's output goes to /dev/null (a long soak)
        // Whether a test makes workers end by a signal or a failure status: otherwise such an end
        // (a crash, a sanitizer's or memcheck's report in a worker) fails the test.
        bool workers_may_fail = false;
    };
    Daemon();
    explicit Daemon(Options options);
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();

    // What the daemon will be started with; change it before start().
    Options& options() { return options_; }
    // Starts it and waits until its loop runs.
    bool start();
    pid_t pid() const { return pid_; }
    const std::string& runtime_dir() const { return runtime_dir_; }
    std::string socket_path() const;
    std::string log() const;
    // What the daemon sent to the journal, when SVC_TEST_JOURNAL copies it into its log.
    std::string system_log() const;
    size_t count(const std::string& needle) const;
    bool wait_log(const std::string& needle, size_t occurrences = 1, int timeout_ms = 10000) const;
    // SIGSTOP and SIGCONT are tracked: the destructor resumes a daemon left frozen, and only one.
    void signal(int sig);
    // Exit status (128 + signal when killed) once it ended; -1 on timeout.
    int wait_exit(int timeout_ms = 10000);
    bool running();
    // Returns once every loop callback begun before the call has returned: a throwaway client is
    // refused in a later callback.
    bool barrier() const;

  private:
    std::string log_lines(bool system) const;

    Options options_;
    pid_t pid_ = -1;
    bool reaped_ = false;
    bool frozen_ = false;
    int status_ = -1;
    std::string runtime_dir_;
};

// The daemon's decoder workers: its child processes, and their names (/proc/PID/comm).
std::vector<pid_t> worker_pids(pid_t pid);
std::vector<std::string> worker_names(pid_t pid);

// An X server of the test's own (Xvfb, on a display number it picks), for the VDPAU stack that
// runs without a GPU: libvdpau with the VA-API/OpenGL driver. Stopped on destruction.
class VirtualDisplay {
  public:
    VirtualDisplay();
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;
    ~VirtualDisplay();
    // ":N", or empty when Xvfb could not be started.
    const std::string& name() const { return name_; }

  private:
    pid_t pid_ = -1;
    std::string name_;
};
// Whether this host has Xvfb and the VDPAU driver that works without a GPU (va_gl).
bool have_virtual_vdpau();

size_t occurrences(const std::string& text, const std::string& needle);
// Whether the log has a line of `level` ("DEBUG", "INFO", "WARN", "ERROR") holding `text`.
bool log_has(const std::string& log, const std::string& level, const std::string& text);

// A POSIX shared memory object of the test: unlinked and closed on destruction.
struct ScopedShm {
    explicit ScopedShm(size_t size);
    ~ScopedShm();
    int fd = -1;
    std::string name;
};
int make_memfd(size_t size, unsigned flags = 0);

// Sends a raw client type msg record: type, reserved byte, `name`; `fds` as SCM_RIGHTS.
ssize_t send_type_msg(int fd, uint8_t type, const std::string& name, const std::vector<int>& fds);

// A stream of a file made once per test process with the ffmpeg command line
// (`ffmpeg -y <args> <file>`, the extension picks the container), demuxed into memory.
struct Clip : mediatools::Stream {
    std::string path;
    uint32_t codec_index() const;
};
// The clip lives as long as the test program, whatever its arguments were: GCC 14 would otherwise
// take a reference to it for one into the temporary strings passed.
#if defined(__has_cpp_attribute) && __has_cpp_attribute(gnu::no_dangling)
#define SVC_LIVES_ON [[gnu::no_dangling]]
#else
#define SVC_LIVES_ON
#endif
SVC_LIVES_ON const Clip& clip(const std::string& file, const std::string& args, bool video = true);

// Sets the client's decoder up for the clip, with its configuration bytes unless `config` is false:
// video output `a`x`b` in pixel format `f`, or audio in sample format `a`, `b` channels at `f` Hz.
// The answer's status; STATUS_FAILED when none came.
int32_t set_up(mediaclient::DecoderClient& c, const Clip& s, int a, int b, int f,
               bool config = true);

// Packets [from, to) of the clip (at most to its end) through `c` with their own timestamps, each
// answer compared with the oracle's where one is given: the answers with output, the failed ones,
// and the requests that got no answer.
struct Decoded {
    size_t outputs = 0, failures = 0, unanswered = 0;
};
Decoded decode_packets(mediaclient::DecoderClient& c, const Clip& s, size_t from = 0,
                       size_t to = SIZE_MAX, Oracle* oracle = nullptr);

// Whether the ffmpeg command line here has the encoder: it uses the FFmpeg libraries the tests do.
bool have_encoder(const std::string& encoder);
