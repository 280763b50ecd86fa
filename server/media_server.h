#pragma once

// The socket server of the service. Everything here runs on the loop thread; the only other
// threads are the decoder workers, which meet the loop through their decoder's flags (stored under
// its request_mutex) and the handle's ev::async.
//
// Each registered decoder client is served by a worker process of its own (server/worker_launch.h,
// server/decoder_worker.h), which reads the client's doorbells and writes its sync msgs; this
// process keeps the handshake, the session and, per worker, its control connection and its
// account in the memory budget.
//
// Why things are ordered as they are:
// - No handle is destroyed inside its own callback. A session or decoder client that ends feeds an
//   event to a never-started watcher (session_terminate_io_, decoder_purge_io_); its callback runs
//   later in the same loop iteration, after the handler has returned, and does the destruction.
//   (A pending connection is the exception: its watcher does nothing after the handler that drops
//   it, so the handler drops it at once.)
// - The teardown tells every worker to end and waits for them, in registration order, within one
//   bound for all (a worker stopped by a debugger would hold the stop forever; one still there
//   when the service exits is ended by the kernel, its parent-death signal). The worker holds the
//   client's connection and unmaps the block before it closes it, so a client never sees its
//   connection closed while its block may still be written. stop() only reaches the workers
//   registered when it runs; the teardown reaches one that registers after stop() in the same
//   iteration.
// - The server destroys the listening handle first (no new or pending clients can appear), then
//   the session, then the decoders in registration order.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <ev++.h>

#include "base/unique_fd.h"
#include "decoder/memory_budget.h"

// Program name (basename of argv[0]) of process `pid`, or an empty string when it cannot be read.
std::string get_process_exe_name(int pid);

class MediaServer {
  public:
    // Listens on `path`; decoder clients are served by workers of `program`, by default the
    // running program, opened here (the fuzz target names the service's).
    explicit MediaServer(const std::string& path, UniqueFd program = UniqueFd());
    MediaServer(const MediaServer&) = delete;
    MediaServer& operator=(const MediaServer&) = delete;
    ~MediaServer();

    void on_media_server_stopped(const std::function<void()>& callback);
    void stop();

    // The registered decoder clients' workers, in order of registration.
    std::vector<pid_t> workers() const;

  private:
    // The handles below own their descriptors before their watchers: members go in reverse
    // order, so each watcher (which stops itself when destroyed) stops before its descriptor
    // closes, and no destructor needs to stop one.

    // A connection that has not sent its client type msg, from its acceptance until it registers
    // (its descriptor moves into a handle) or is dropped; its events go to on_pending_io_event.
    class pending_io_t {
      public:
        pending_io_t(UniqueFd fd, MediaServer* server);
        pending_io_t(const pending_io_t&) = delete;
        pending_io_t& operator=(const pending_io_t&) = delete;

        int fd() const { return fd_.get(); }
        // The connection, for its new owner; this one no longer watches it.
        UniqueFd release();

      private:
        UniqueFd fd_;
        ev::io io_;
    };

    // The listening socket and the connections accepted on it that have not registered yet.
    class listen_handle_t {
      public:
        listen_handle_t(UniqueFd fd, MediaServer* server);
        listen_handle_t(const listen_handle_t&) = delete;
        listen_handle_t& operator=(const listen_handle_t&) = delete;

        // No connection is accepted from here on; the pending ones stay until the handle goes.
        void stop();
        // The pending connection of descriptor `fd`, out of the list; null when it is not there.
        std::unique_ptr<pending_io_t> take_pending(int fd);
        // Back into the list, for a connection that has sent nothing yet.
        void keep_pending(std::unique_ptr<pending_io_t> pending);

      private:
        void on_listen_event(ev::io& watcher, int revents);
        void on_accept_retry_timer_event(ev::timer& watcher, int revents);

        MediaServer* const server_;
        UniqueFd fd_;
        ev::io io_;
        // Pauses accepting for a moment when the process is out of descriptors or memory:
        // the listening socket stays readable then, and retrying at once would spin.
        ev::timer accept_retry_timer_;
        std::vector<std::unique_ptr<pending_io_t>> pending_ios_;
    };

    // The registered session client, made whole from its connection; on the loop thread only.
    class session_handle_t {
      public:
        // Pings the session client of process `pid` on `fd`; `on_terminate` hears of the
        // session's end.
        session_handle_t(int pid, UniqueFd fd, std::function<void()> on_terminate);
        session_handle_t(const session_handle_t&) = delete;
        session_handle_t& operator=(const session_handle_t&) = delete;

      private:
        void on_session_io_event(ev::io& watcher, int revents);
        void on_session_timer_event(ev::timer& watcher, int revents);
        void end_session();

        const int pid_;
        const std::string exe_name_;  // the session process's, to tell it from a later one
        bool first_ping_sent_ = false;
        double last_response_time_ = 0.0;
        UniqueFd fd_;
        ev::io io_;  // after its descriptor: stops before the descriptor closes
        ev::timer timer_;
        std::function<void()> on_terminate_;
    };

    // A registered decoder client as this process sees it: the worker that serves it, the control
    // connection to that worker (it carries the worker's memory grants; closing it ends the
    // worker), and the worker's account in the service's memory budget.
    // Made whole by start_worker; on the loop thread only.
    class decoder_handle_t {
      public:
        // Watches worker `pid` of client `client` (its number, which the worker's lines carry;
        // `client_pid`: its process, as its credentials named it) through the control connection
        // `control`; `on_terminate` hears of the worker's end.
        decoder_handle_t(int client, pid_t client_pid, pid_t pid, UniqueFd control,
                         std::function<void(const decoder_handle_t*)> on_terminate);
        decoder_handle_t(const decoder_handle_t&) = delete;
        decoder_handle_t& operator=(const decoder_handle_t&) = delete;
        // Tells the worker to end; the server's teardown waits for it first (wait_for_end).
        ~decoder_handle_t();

        int client() const { return client_; }
        pid_t pid() const { return pid_; }
        // The worker ends after the request it may be running. Idempotent.
        void signal_quit();
        // Waits until the worker (told to end) has ended; false when `deadline` passed first.
        bool wait_for_end(std::chrono::steady_clock::time_point deadline);

      private:
        void on_control_io_event(ev::io& watcher, int revents);
        void answer_grant(int fd, int64_t wanted);
        void on_worker_exit_event(ev::child& watcher, int revents);

        const int client_;
        const pid_t client_pid_;
        const pid_t pid_;
        bool reaped_ = false;
        UniqueFd control_;
        ev::io control_io_;  // after its descriptor: stops before the descriptor closes
        ev::child exit_watcher_;
        MemoryAccount account_{MemoryBudget::service()};
        MemoryCharge grant_{&account_};  // after its account: given back first
        std::function<void(const decoder_handle_t*)> on_terminate_;
    };

    UniqueFd listen();
    void on_pending_io_event(ev::io& io, int revents);
    void on_session_terminate_io_event(ev::io& watcher, int revents);
    void on_decoder_purge_io_event(ev::io& watcher, int revents);

    // Each takes the connection over, or drops it with the reason logged.
    void register_session(std::unique_ptr<pending_io_t> pending, int session_pid);
    void register_decoder(std::unique_ptr<pending_io_t> pending, pid_t client_pid, UniqueFd block,
                          bool is_ashmem);
    // Starts the worker of a registered decoder client; null, with the reason logged, when none.
    std::unique_ptr<decoder_handle_t> start_worker(int client, pid_t client_pid, UniqueFd block,
                                                   bool is_ashmem);

    // All of it on the loop thread.
    std::string socket_path_;
    UniqueFd worker_program_;
    std::unique_ptr<listen_handle_t> listen_handle_;
    std::unique_ptr<session_handle_t> session_handle_;
    std::vector<std::unique_ptr<decoder_handle_t>> decoder_handles_;
    std::unique_ptr<ev::io> session_terminate_io_;
    std::unique_ptr<ev::io> decoder_purge_io_;
    std::vector<const decoder_handle_t*> purge_list_;
    std::function<void()> stopped_callback_;
};
