// The service lease of media_client.h.
//
// Runs meet in open file description locks on "<socket>.lock":
//   byte 0: held exclusively while a run looks for the service and starts it, so that runs that
//           start together start one service;
//   byte 1: read-locked by each run for as long as it uses a service: its lease. The keeper waits
//           for a write lock, which it gets once the last lease is gone; it then ends the session
//           and waits for the service to exit before it lets go, so that a run arriving meanwhile
//           starts a fresh service instead of joining one that is stopping.
// The kernel drops a run's lease when the run ends, however it ends.
#include "client/client_internal.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/eintr.h"
#include "client/service_link.h"

namespace mediaclient {

namespace {

constexpr off_t kStartByte = 0;
constexpr off_t kLeaseByte = 1;
constexpr int kServiceStartMs = 5000;
// How long the keeper waits for its service to exit after ending the session.
constexpr int kServiceExitMs = 10000;

// An open file description lock on one byte: F_RDLCK, F_WRLCK (both waited for) or F_UNLCK.
bool lock_byte(int fd, short type, off_t byte) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return retry_on_eintr(
               [&] { return fcntl(fd, type == F_UNLCK ? F_OFD_SETLK : F_OFD_SETLKW, &lock); }) == 0;
}

// Nothing of the run may stay open in the keeper: a descriptor of the run's lock file would keep
// the run's lease alive, and its standard streams would keep whoever reads them waiting.
void detach_from_run(int keep) {
    const int null_fd = open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3; ++fd) {
        dup2(null_fd, fd);
    }
    close_all_but(keep);
}

// The keeper: the service's session client until the last lease is gone; then it ends the
// session, which stops the service, and waits for the service to exit. Reports 'y' on `report`
// once it is the session client, or closes it without a word when it could not become one.
[[noreturn]] void run_keeper(const std::string& socket_path, const std::string& lock_path,
                             int report) {
    detach_from_run(report);
    UniqueFd lock(open(lock_path.c_str(), O_RDWR | O_CLOEXEC));
    SessionClient session;
    // Refused when the service has a session already.
    if (!lock.valid() || session.connect(socket_path) != ClientError::kOk ||
        session.start_answering() != ClientError::kOk) {
        _exit(1);
    }
    const pid_t service = peer_pid(session.fd());
    const char registered = 'y';
    ssize_t written = write(report, &registered, 1);
    (void)written;
    close(report);
    lock_byte(lock.get(), F_WRLCK, kLeaseByte);
    session.close();
    wait_process_gone(service, kServiceExitMs);
    _exit(0);
}

// Starts the keeper in a session of its own, as nobody's child here, and waits until it is the
// service's session client.
bool spawn_keeper(const std::string& socket_path, const std::string& lock_path,
                  std::string* error) {
    int report[2];
    if (pipe2(report, O_CLOEXEC) < 0) {
        *error = std::string("pipe: ") + strerror(errno);
        return false;
    }
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        if (fork() == 0) {
            close(report[0]);
            run_keeper(socket_path, lock_path, report[1]);
        }
        _exit(0);
    }
    close(report[1]);
    UniqueFd reader(report[0]);
    if (child < 0) {
        *error = std::string("fork: ") + strerror(errno);
        return false;
    }
    retry_on_eintr([&] { return waitpid(child, nullptr, 0); });
    char registered = 0;
    const ssize_t n = retry_on_eintr([&] { return read(reader.get(), &registered, 1); });
    if (n != 1) {
        *error = "started the service at " + socket_path + " but could not become its session";
        return false;
    }
    return true;
}

}  // namespace

ServiceLease::~ServiceLease() = default;

ClientError ServiceLease::acquire(const std::string& socket_path_arg, Start start) {
    const std::string socket_path =
        socket_path_arg.empty() ? default_socket_path() : socket_path_arg;
    const bool may_start = start != Start::kNever;
    error_text_.clear();
    const std::string lock_path = socket_path + ".lock";
    const std::string dir = socket_path.substr(0, socket_path.rfind('/'));
    if (!lock_.valid()) {
        if (may_start && !make_dirs(dir)) {
            return fail(ClientError::kSystem, "create " + dir + ": " + strerror(errno));
        }
        lock_.reset(open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    }
    if (!lock_.valid()) {
        if (!may_start && service_listening(socket_path)) {
            return ClientError::kOk;  // a service to use, though runs cannot meet here
        }
        return may_start ? fail(ClientError::kSystem, "open " + lock_path + ": " + strerror(errno))
                         : fail(ClientError::kNotConnected,
                                "the service is not running: nothing listens on " + socket_path);
    }
    if (!lock_byte(lock_.get(), F_WRLCK, kStartByte) ||
        !lock_byte(lock_.get(), F_RDLCK, kLeaseByte)) {
        return fail(ClientError::kSystem, "lock " + lock_path + ": " + strerror(errno));
    }
    const ClientError found = find_or_start(socket_path, lock_path, start);
    lock_byte(lock_.get(), F_UNLCK, kStartByte);
    return found;
}

// With the start lock held: a service listens, or one is started with its keeper.
ClientError ServiceLease::find_or_start(const std::string& socket_path,
                                        const std::string& lock_path, Start start) {
    if (service_listening(socket_path)) {
        return ClientError::kOk;
    }
    if (start == Start::kNever) {
        return fail(ClientError::kNotConnected,
                    "the service is not running: nothing listens on " + socket_path);
    }
    std::string error;
    bool ok = start_service(socket_path, "", kServiceStartMs, &error);
    if (ok && start == Start::kShared && !spawn_keeper(socket_path, lock_path, &error)) {
        // Without its keeper the service would outlive every run.
        stop_process(listener_pid(socket_path), kServiceExitMs);
        ok = false;
    }
    started_ = ok;
    return ok ? ClientError::kOk : fail(ClientError::kSystem, error);
}

ClientError ServiceLease::fail(ClientError error, const std::string& text) {
    error_text_ = text;
    return error;
}

}  // namespace mediaclient
