#pragma once

// Helpers for tests that drive the real daemon through its socket with the client library.

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "client/media_client.h"
#include "support/media_fixtures.h"

class DaemonProcess;

// A POSIX shared memory object owned by the test: created with `size` bytes (a unique name when
// `name` is empty), unlinked and closed on destruction.
class ScopedShm {
  public:
    explicit ScopedShm(size_t size, const std::string& name = "");
    ScopedShm(const ScopedShm&) = delete;
    ScopedShm& operator=(const ScopedShm&) = delete;
    ~ScopedShm();

    bool valid() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    const std::string& name() const { return name_; }
    // Maps the first SHM_BLOCK_SIZE bytes (null on failure); unmapped on destruction.
    uint8_t* map_block();

  private:
    int fd_ = -1;
    std::string name_;
    uint8_t* block_ = nullptr;
};

// A memfd of `size` bytes, or -1.
int make_memfd(size_t size);

// The caller's own credentials, as the kernel would attach them.
struct ucred own_creds();

// Sends one record (see mediaclient::send_record) with the caller's credentials attached.
ssize_t send_with_fds(int fd, const std::vector<uint8_t>& record, const std::vector<int>& fds);

// Client type msg bytes: type, reserved byte, then `name` (no terminator added).
std::vector<uint8_t> type_msg(uint8_t type, const std::string& name = "", uint8_t reserved = 0);

// Whether the log has a line of `level` ("DEBUG", "INFO", "WARN", "ERROR") holding `text`.
bool log_has_line(const std::string& log, const std::string& level, const std::string& text);

// Returns once every loop callback that the daemon had begun before the call has returned: a
// throwaway client is refused in a later callback. False when that did not happen in time.
bool loop_barrier(const DaemonProcess& daemon);

// Waits until `condition()` holds, polling; false on timeout.
template <typename F>
bool eventually(F condition, int timeout_ms);

// The test AAC stream: stereo 44100 Hz sine in an MP4 container, so the decoder needs the
// extradata. Null when it could not be made.
const DemuxedStream* aac_stream();

// The init parameters (param1..param7) of an audio init request, as the client library sends them.
std::array<int32_t, 7> audio_init_array(const mediaclient::AudioInitParams& params,
                                        size_t config_size);

// ---- template definitions ----

#include <chrono>
#include <thread>

template <typename F>
bool eventually(F condition, int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}
