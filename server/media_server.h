#pragma once

// The socket server of the service. Everything here runs on the loop thread; the only other
// threads are the decoder workers, which meet the loop through their decoder's flags (stored under
// its request_mutex) and the handle's ev::async.
//
// Why things are ordered as they are:
// - No handle is destroyed inside its own callback. A session or decoder client that ends feeds an
//   event to a never-started watcher (session_terminate_io, decoder_purge_io); its callback runs
//   later in the same loop iteration, after the handler has returned, and does the destruction.
//   (A pending connection is the exception: its watcher does nothing after the handler that drops
//   it, so the handler drops it at once.)
// - A decoder handle declares fd first and decoder before io and notify, so on destruction the
//   notify watcher is released and io stopped first, then the decoder joins its worker, and only
//   then is the client's socket closed: a client never sees its connection closed while a worker
//   may still write into its block. The decoder's destructor only joins, so the handle's
//   destructor gives the quit signal first, whatever path destroys it: the end of the client and
//   stop() give it earlier, but a client that registers after stop() in the same loop iteration
//   is reached by nothing else.
// - notify is shared with the worker for the length of one ev_async_send; the handle stops it on
//   the loop thread before letting go, so whichever side drops the last reference frees an
//   inactive watcher.
// - The server destroys the listening handle first (no new or pending clients can appear), then
//   the session, then the decoders in registration order.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <ev++.h>

#include "base/spin_wait.h"
#include "base/unique_fd.h"
#include "decoder/media_decoder.h"

// Program name (basename of argv[0]) of process `pid`, or an empty string when it cannot be read.
std::string get_process_exe_name(int pid);

class MediaServer {
  public:
    // The first record of a connection, once received: what the client asks to be, and what
    // its ancillary data brought.
    struct client_type_msg_t {
        uint8_t client_type = 0;
        char shm_name[SHM_NAME_MAX + 1] = {};  // type 3: the POSIX shared memory object's name
        UniqueFd shm_fd;                       // the one descriptor passed; none when two came
        int session_pid = -1;                  // from the sender's credentials
    };

    explicit MediaServer(const std::string& path);
    MediaServer(const MediaServer&) = delete;
    MediaServer& operator=(const MediaServer&) = delete;
    virtual ~MediaServer();

    void on_media_server_stopped(const std::function<void()>& callback);
    void stop();

    // The registered decoder clients' decoders, in order of registration: for the fuzz target,
    // which plays the clients in the server's own process.
    std::vector<const MediaDecoder*> decoders() const;

  private:
    // A connection that has not sent its client type msg: its descriptor and its read watcher,
    // owned together from its acceptance until it registers (both move into a handle) or is
    // dropped (the watcher stops, then the descriptor closes).
    struct pending_io_t {
        UniqueFd fd;
        std::unique_ptr<ev::io> io;

        pending_io_t() = default;
        pending_io_t(const pending_io_t&) = delete;
        pending_io_t& operator=(const pending_io_t&) = delete;
        virtual ~pending_io_t();
    };

    struct listen_handle_t {
        UniqueFd fd;
        std::unique_ptr<ev::io> io;
        std::vector<std::unique_ptr<pending_io_t>> pending_ios;
        // Pauses accepting for a moment when the process is out of descriptors or memory:
        // the listening socket stays readable then, and retrying at once would spin.
        std::unique_ptr<ev::timer> accept_retry_timer;

        listen_handle_t() = default;
        listen_handle_t(const listen_handle_t&) = delete;
        listen_handle_t& operator=(const listen_handle_t&) = delete;
        virtual ~listen_handle_t();
    };

    struct session_handle_t {
        int pid = -1;
        int first_ping_sent = 0;
        std::string exe_name;
        UniqueFd fd;
        std::unique_ptr<ev::io> io;
        std::unique_ptr<ev::timer> timer;
        double last_response_time = 0.0;
        std::function<void(const session_handle_t*)> on_terminate;

        session_handle_t();
        session_handle_t(const session_handle_t&) = delete;
        session_handle_t& operator=(const session_handle_t&) = delete;
        virtual ~session_handle_t();

        void on_session_io_event(ev::io& watcher, int revents);
        void on_session_timer_event(ev::timer& watcher, int revents);

      private:
        void end_session();
    };

    struct decoder_handle_t {
        UniqueFd fd;
        std::unique_ptr<MediaDecoder> decoder;
        std::unique_ptr<ev::io> io;
        std::shared_ptr<ev::async> notify;
        std::function<void(const decoder_handle_t*)> on_terminate;
        // For the loop's completion spin: the request in flight from its doorbell to the worker's
        // completion signal, whether that doorbell came right after the last sync msg, and how
        // long the last request took.
        bool request_in_flight = false;
        bool back_to_back = false;
        uint64_t completions_before = 0;
        SpinWait::Clock::time_point rung_at;
        SpinWait::Clock::time_point synced_at;
        SpinWait::Clock::duration last_request{};

        decoder_handle_t() = default;
        decoder_handle_t(const decoder_handle_t&) = delete;
        decoder_handle_t& operator=(const decoder_handle_t&) = delete;
        virtual ~decoder_handle_t();

        void on_decoder_client_io_event(ev::io& io, int revents);
        void on_decoder_notify_event(ev::async& watcher, int revents);
        // Whether the loop should spin for this request's completion rather than sleep.
        bool awaited(SpinWait::Clock::duration short_request) const;

      private:
        void decoder_gone();
        void doorbell();
    };

    UniqueFd listen();
    void on_server_listen_event(ev::io& watcher, int revents);
    void on_accept_retry_timer_event(ev::timer& watcher, int revents);
    void on_pending_io_event(ev::io& io, int revents);
    void on_session_terminate_io_event(ev::io& watcher, int revents);
    void on_decoder_purge_io_event(ev::io& watcher, int revents);
    void on_loop_prepare_event(ev::prepare& watcher, int revents);

    // The pending connection of descriptor `fd`, out of the pending list; null when it is not
    // there.
    std::unique_ptr<pending_io_t> take_pending(int fd);
    // Each takes the connection over, or drops it with the reason logged.
    void register_session(std::unique_ptr<pending_io_t> pending, int session_pid);
    void register_decoder(std::unique_ptr<pending_io_t> pending, client_type_msg_t msg);
    // The shared memory descriptor of a decoder client; -1, with the reason logged, when none.
    int shared_memory_of(client_type_msg_t& msg);

    // All of it on the loop thread.
    std::string socket_path;
    std::unique_ptr<listen_handle_t> listen_handle;
    std::unique_ptr<session_handle_t> session_handle;
    std::vector<std::unique_ptr<decoder_handle_t>> decoder_handles;
    std::unique_ptr<ev::io> session_terminate_io;
    std::unique_ptr<ev::io> decoder_purge_io;
    std::vector<const decoder_handle_t*> purge_list;
    std::function<void()> stopped_callback;
    // Runs before the loop goes to sleep; see on_loop_prepare_event.
    std::unique_ptr<ev::prepare> loop_prepare;
    SpinWait completion_spin{std::chrono::microseconds(100)};
};
