#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>

// Runs the real media-service binary for a test: a private XDG_RUNTIME_DIR with the socket
// directory made, standard output captured to a file so the log can be read, and the test hooks
// preloaded (daemon() keeps the process in the foreground with its streams; ashmem requests are
// answered on memfd descriptors). The destructor stops a process still running as a user would,
// with SIGTERM, and fails the test unless it exits with status 0 in time (then it is killed): so
// every daemon's orderly exit is checked, by the sanitizers' exit checks too. It then removes the
// temporary directory.
//
// With preload_hooks = false the unmodified binary daemonises: daemon() forks, the started process
// exits and the service runs on in its child, with its standard streams on /dev/null (the log
// stays empty). The test process then makes itself a child subreaper (PR_SET_CHILD_SUBREAPER, for
// the rest of its life) so that the orphaned service is reparented to it and can be reaped, and
// start() learns the service's pid from the peer credentials (SO_PEERCRED) of a connection to the
// socket; that connection shows up in the service as one pending client that goes away at once.
// start() then needs the socket directory to exist.
class DaemonProcess {
  public:
    struct Options {
        std::map<std::string, std::string> env;  // extra or overriding environment
        bool unset_xdg_runtime_dir = false;      // start without XDG_RUNTIME_DIR
        bool preload_hooks = true;               // false: the unmodified binary (it daemonises)
        bool create_socket_dir = true;           // make <runtime>/vessa/sockets
        std::string cwd;                         // working directory; empty: the test's own
        mode_t umask_value = 022;
    };

    DaemonProcess();
    explicit DaemonProcess(Options options);
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;
    ~DaemonProcess();

    // Starts the process and waits (bounded) until the log says the loop runs (for the
    // daemonising binary: until its socket answers). False when that did not happen.
    bool start();
    pid_t pid() const { return pid_; }
    const std::string& runtime_dir() const { return runtime_dir_; }
    std::string socket_path() const;

    std::string log() const;
    // Waits until `needle` occurs at least `occurrences` times in the log.
    bool wait_for_log(const std::string& needle, int timeout_ms, size_t occurrences = 1) const;
    size_t count_in_log(const std::string& needle) const;

    void signal(int sig) const;
    // Exit status (WEXITSTATUS, or 128 + signal) once the process ended, -1 on timeout.
    int wait_exit(int timeout_ms);
    bool running();
    int open_fd_count() const;
    int thread_count() const;

    const std::string& log_path() const { return log_path_; }
    // Exit status of the process that start() ran when it daemonised (preload_hooks = false): the
    // parent that daemon() leaves. -1 until then.
    int launcher_status() const { return launcher_status_; }

  private:
    void stop_in_order();

    Options options_;
    pid_t pid_ = -1;
    bool reaped_ = false;
    int exit_status_ = -1;
    int launcher_status_ = -1;
    std::string runtime_dir_;
    std::string log_path_;
};
