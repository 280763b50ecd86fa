// A decoder client as the accepting process sees it: its worker's start, memory grants and end.

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "base/eintr.h"
#include "base/system_log.h"
#include "server/media_server.h"
#include "server/server_internal.h"
#include "server/worker_launch.h"

MediaServer::decoder_handle_t::decoder_handle_t(
    int client, pid_t client_pid, pid_t pid, UniqueFd control,
    std::function<void(const decoder_handle_t*)> on_terminate)
    : client_(client),
      client_pid_(client_pid),
      pid_(pid),
      control_(std::move(control)),
      on_terminate_(std::move(on_terminate)) {
    control_io_.set<decoder_handle_t, &decoder_handle_t::on_control_io_event>(this);
    control_io_.start(control_.get(), EV_READ);
    exit_watcher_.set<decoder_handle_t, &decoder_handle_t::on_worker_exit_event>(this);
    exit_watcher_.start(pid_, 0);
}

MediaServer::decoder_handle_t::~decoder_handle_t() {
    signal_quit();
}

bool MediaServer::decoder_handle_t::wait_for_end(std::chrono::steady_clock::time_point deadline) {
    while (pid_ > 0 && !reaped_) {
        const pid_t ended = waitpid(pid_, nullptr, WNOHANG);
        reaped_ = ended != 0;  // ended, or (-1) reaped already
        if (!reaped_ && std::chrono::steady_clock::now() > deadline) {
            LOGE("decoder worker %d did not end; it ends with the service", static_cast<int>(pid_));
            return false;
        }
        if (!reaped_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return true;
}

void MediaServer::decoder_handle_t::signal_quit() {
    control_io_.stop();  // a no-op on a stopped watcher
    control_.reset();
}

// One record of the worker: a memory grant it asks for (a 64-bit total), or a note for the system
// log; told apart by their sizes.
void MediaServer::decoder_handle_t::on_control_io_event(ev::io& watcher, int /*revents*/) {
    union {
        int64_t wanted;
        SystemLogNote note;
    } record;
    const ssize_t n =
        retry_on_eintr([&] { return recv(watcher.fd, &record, sizeof(record), MSG_DONTWAIT); });
    if (n == 0 || (n < 0 && errno != EAGAIN)) {
        watcher.stop();  // the worker is gone; its end is reported by the exit watcher
        return;
    }
    if (n == static_cast<ssize_t>(sizeof(record.wanted))) {
        answer_grant(watcher.fd, record.wanted);
    } else if (n == static_cast<ssize_t>(sizeof(record.note))) {
        SvcSystemLogFromWorker(record.note, client_, client_pid_);
    }
}

// The worker asks to hold a new total; the answer is what it may hold, whatever the budget says.
void MediaServer::decoder_handle_t::answer_grant(int fd, int64_t wanted) {
    grant_.set(wanted, nullptr);
    const MemoryGrant answer{grant_.bytes(), MemoryBudget::service().total(),
                             MemoryBudget::service().limit()};
    retry_on_eintr([&] { return send(fd, &answer, sizeof(answer), MSG_NOSIGNAL); });
}

// A worker that ends by itself has logged why; one that a signal ended (a crash, a refused system
// call, the kernel out of memory) cost its own client, and the operator hears of it.
void MediaServer::decoder_handle_t::on_worker_exit_event(ev::child& watcher, int /*revents*/) {
    LogClientScope log_client(client_);
    const int status = watcher.rstatus;
    reaped_ = true;
    watcher.stop();
    if (WIFSIGNALED(status)) {
        LOGE("decoder worker of client %d ended by signal %d (%s)", client_, WTERMSIG(status),
             strsignal(WTERMSIG(status)));
    } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        LOGE("decoder worker of client %d exited with status %d", client_, WEXITSTATUS(status));
    }
    signal_quit();
    on_terminate_(this);
}

std::unique_ptr<MediaServer::decoder_handle_t> MediaServer::start_worker(int client,
                                                                         pid_t client_pid,
                                                                         UniqueFd block,
                                                                         bool is_ashmem) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        LOGE("decoder worker control socket failed: [%d] %s", errno, strerror(errno));
        return nullptr;
    }
    UniqueFd mine(pair[0]), theirs(pair[1]);
    worker_launch::Launch launch{
        worker_program_.get(),          client, block.get(), theirs.get(), client, is_ashmem,
        MemoryBudget::service().limit()};
    const pid_t pid = worker_launch::launch(launch);
    if (pid < 0) {
        LOGE("decoder worker process create failed: [%d] %s", errno, strerror(errno));
        return nullptr;
    }
    return std::make_unique<decoder_handle_t>(
        client, client_pid, pid, std::move(mine), [this](const decoder_handle_t* gone) {
            purge_list_.push_back(gone);
            ev_feed_event(EV_DEFAULT_UC, decoder_purge_io_.get(), EV_READ);
        });
}
