#pragma once

// Client library of the media service.
//
// The service listens on a local sequenced-packet socket. Every client opens with one record, the
// client type msg, which carries the client's credentials and exactly one descriptor as ancillary
// data. Nothing is answered: a refused client sees its connection closed.
//
// - SessionClient stands for the container session. The service pings it with one byte every
//   2 seconds and stops itself when the session client disconnects or stays silent for more than
//   8 seconds. A session client that does not answer within 2 seconds of registering ends the
//   service at once, so answer right away (start_answering() does).
// - DecoderClient owns one exchange block (exchange_block.h) in shared memory and gets a
//   decoder instance of its own. It writes a request into the block, rings the doorbell, waits
//   for the sync msg, and reads the result and output areas. One request is in flight per block.
//
// Nothing here throws. Operations report a ClientError; when it is kSystem, last_errno() tells
// the system error. Objects are not thread-safe: use one object from one thread at a time (the
// session client's answering thread is the only thread the library starts).

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

// Installed, exchange_block.h lies beside this header (include/media-service); in the source tree
// it is decoder/exchange_block.h, which the library's include directories make visible.
#include "exchange_block.h"

struct ucred;

namespace mediaclient {

enum class ClientError {
    kOk = 0,
    kTimeout,          // no answer within the given time
    kDisconnected,     // the service closed the connection
    kNotConnected,     // the object has no connection (or no block)
    kInvalidArgument,  // e.g. data larger than the input area
    kSystem,           // a system call failed: see last_errno()
};

const char* error_text(ClientError error);

// Default wait for one request: a video init probes hardware devices and can take a while.
constexpr int kDefaultTimeoutMs = 20000;

// Socket path as the service composes it: $XDG_RUNTIME_DIR/vessa/sockets/media-service.socket,
// or /run/user/<euid>/vessa/sockets/media-service.socket when the variable is unset.
std::string default_socket_path();

// ---- Low-level protocol primitives (also what the classes below are built from) ----

// Opens a sequenced-packet socket connected to `path` (the default path when empty), close-on-exec.
// Returns the descriptor, or -1 with errno set.
int connect_service(const std::string& path = "");

// Sends one record with `size` data bytes (0 is allowed: an empty record), `fd_count` descriptors
// as SCM_RIGHTS (none when 0) and, when `creds` is not null, explicit SCM_CREDENTIALS. Without
// explicit credentials the kernel attaches the sender's own, since the service has SO_PASSCRED on.
// Another process's pid is accepted by the kernel only from a privileged sender.
// Returns the bytes sent or -1 with errno set. Never raises SIGPIPE.
ssize_t send_record(int fd, const void* data, size_t size, const int* fds, size_t fd_count,
                    const struct ucred* creds);

// Sends a client type msg: `client_type`, a reserved zero byte and, when `shm_name` is not empty,
// the name with its terminator; one descriptor `passed_fd`, and credentials naming `pid` (own pid
// when 0). Returns 0, or -1 with errno set.
int send_client_type_msg(int fd, uint8_t client_type, const std::string& shm_name, int passed_fd,
                         pid_t pid = 0);

// Waits until `fd` is readable. kOk, kTimeout, or kSystem.
ClientError wait_readable(int fd, int timeout_ms);

// Whether the peer closed the connection within `timeout_ms` (unread data does not count and is
// not consumed).
bool wait_closed(int fd, int timeout_ms);

// ---- Session client ----

class SessionClient {
  public:
    SessionClient() = default;
    SessionClient(const SessionClient&) = delete;
    SessionClient& operator=(const SessionClient&) = delete;
    virtual ~SessionClient();  // stops the answering thread, closes the connection

    // Connects and registers as the session client for process `pid` (own pid when 0).
    ClientError connect(const std::string& socket_path = "", pid_t pid = 0);

    // Sends one response without waiting for a ping.
    ClientError respond();

    // Waits up to `timeout_ms` for one ping msg and answers it unless `answer` is false.
    ClientError answer_ping(int timeout_ms, bool answer = true);

    // Answers at once and then every ping on a background thread until stop_answering(), the
    // destructor, or the end of the connection. Do not call answer_ping() meanwhile.
    ClientError start_answering();
    void stop_answering();

    bool connected() const { return fd_ >= 0; }
    // Set once the service closed the connection (seen by answer_ping or the answering thread).
    bool disconnected() const { return disconnected_.load(); }
    int pings() const { return pings_.load(); }
    // Descriptors that came with each ping: the first ping carries one, later pings none.
    int first_ping_fd_count() const { return first_ping_fd_count_.load(); }
    int later_ping_fd_count() const { return later_ping_fd_count_.load(); }
    int last_errno() const { return errno_; }
    int fd() const { return fd_; }
    void close();

  private:
    ClientError read_ping(bool answer);
    void answering_loop();

    int fd_ = -1;
    int stop_fd_[2] = {-1, -1};
    std::thread thread_;
    std::atomic<bool> disconnected_{false};
    std::atomic<int> pings_{0};
    std::atomic<int> first_ping_fd_count_{-1};
    std::atomic<int> later_ping_fd_count_{0};
    std::atomic<int> errno_{0};  // also set by the answering thread
};

// ---- Decoder client ----

struct VideoInitParams {
    int32_t coded_width = 0;
    int32_t coded_height = 0;
    int32_t coded_pix_fmt = -1;  // AVPixelFormat
    int32_t out_width = 0;
    int32_t out_height = 0;
    int32_t out_pix_fmt = 0;  // AVPixelFormat; 0 is yuv420p
};

struct AudioInitParams {
    int32_t in_sample_fmt = -1;  // AVSampleFormat
    int32_t in_channels = 0;
    int32_t in_sample_rate = 0;  // 0 or less: left to the decoder
    int32_t out_sample_fmt = 1;  // AVSampleFormat; 1 is signed 16-bit packed
    int32_t out_channels = 2;
    int32_t out_sample_rate = 0;  // 0 or less: 44100
};

class DecoderClient {
  public:
    DecoderClient() = default;
    DecoderClient(const DecoderClient&) = delete;
    DecoderClient& operator=(const DecoderClient&) = delete;
    virtual ~DecoderClient();  // closes the connection, unmaps the block, unlinks its own object

    // Creates a POSIX shared memory object of SHM_BLOCK_SIZE bytes (a unique name when
    // `shm_name` is empty), maps it, connects and registers as a type 3 client. The object is
    // unlinked by close() or the destructor.
    ClientError connect_posix(const std::string& socket_path = "",
                              const std::string& shm_name = "");

    // Registers as a type 2 client with a shared memory descriptor: `shm_fd` (duplicated; the
    // caller keeps its own), an ashmem region of at least SHM_BLOCK_SIZE bytes on an Android host,
    // or, when -1, a new memfd of SHM_BLOCK_SIZE bytes. The block is mapped here as well.
    ClientError connect_descriptor(const std::string& socket_path = "", int shm_fd = -1);

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    const std::string& shm_name() const { return shm_name_; }
    int last_errno() const { return errno_; }
    void close();

    // The mapped block and its areas (null without a block).
    uint8_t* block() { return block_; }
    uint8_t* input() { return block_ ? block_ + SHM_INPUT_OFFSET : nullptr; }
    const uint8_t* output() const { return block_ ? block_ + SHM_OUTPUT_OFFSET : nullptr; }
    ExchangeResult result() const;
    // Overwrites the result area, e.g. with a marker to see whether a request wrote it.
    void set_result(const ExchangeResult& result);

    // Request writers: fill the header (and the input area) without ringing. `config` bytes go to
    // the input area and their count to param4. kInvalidArgument when data exceeds the input area.
    ClientError write_init_video(uint32_t codec_index, const VideoInitParams& params,
                                 const void* config = nullptr, size_t config_size = 0);
    ClientError write_init_audio(uint32_t codec_index, const AudioInitParams& params,
                                 const void* config = nullptr, size_t config_size = 0);
    ClientError write_init(uint32_t media_type, uint32_t codec_index,
                           const std::array<int32_t, 7>& params, const void* config = nullptr,
                           size_t config_size = 0);
    // `data` null: the first `size` bytes of the input area already hold the packet.
    ClientError write_decode_frame(const void* data, size_t size, int64_t pts);
    ClientError write_codec_config(const void* data, size_t size);
    // A reset context request: the new output of the video or audio decoder in use.
    ClientError write_reset_video(int32_t out_width, int32_t out_height, int32_t out_pix_fmt);
    ClientError write_reset_audio(int32_t out_sample_fmt, int32_t out_channels,
                                  int32_t out_sample_rate);
    ClientError write_request_type(uint32_t request_type);

    // Rings the doorbell with a record of `bytes` bytes (at least 1).
    ClientError ring(size_t bytes = 1);
    // Waits for one sync msg. kTimeout leaves a late sync msg unread: the next wait would take it.
    ClientError wait_sync(int timeout_ms = kDefaultTimeoutMs);
    // ring() then wait_sync().
    ClientError call(int timeout_ms = kDefaultTimeoutMs);

    // Write, ring and wait in one step; `result` (optional) receives the result area.
    ClientError init_video(uint32_t codec_index, const VideoInitParams& params,
                           const void* config = nullptr, size_t config_size = 0,
                           ExchangeResult* result = nullptr, int timeout_ms = kDefaultTimeoutMs);
    ClientError init_audio(uint32_t codec_index, const AudioInitParams& params,
                           const void* config = nullptr, size_t config_size = 0,
                           ExchangeResult* result = nullptr, int timeout_ms = kDefaultTimeoutMs);
    ClientError decode_frame(const void* data, size_t size, int64_t pts,
                             ExchangeResult* result = nullptr, int timeout_ms = kDefaultTimeoutMs);
    ClientError flush(int timeout_ms = kDefaultTimeoutMs);
    ClientError codec_config(const void* data, size_t size, int timeout_ms = kDefaultTimeoutMs);
    ClientError reset_video(int32_t out_width, int32_t out_height, int32_t out_pix_fmt,
                            int timeout_ms = kDefaultTimeoutMs);
    ClientError reset_audio(int32_t out_sample_fmt, int32_t out_channels, int32_t out_sample_rate,
                            int timeout_ms = kDefaultTimeoutMs);
    ClientError destroy(int timeout_ms = kDefaultTimeoutMs);

  private:
    ClientError map_block(int fd);
    ClientError write_header(const void* header, size_t size);
    ClientError write_config(const void* config, size_t config_size, int32_t* size_field);
    ClientError finish(ClientError written, ExchangeResult* result, int timeout_ms);

    int fd_ = -1;
    int shm_fd_ = -1;
    uint8_t* block_ = nullptr;
    std::string shm_name_;
    bool own_shm_name_ = false;
    int errno_ = 0;
};

}  // namespace mediaclient
