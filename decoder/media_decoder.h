#pragma once

// The service side of one decoder client: the transport around its codec. It maps the client's
// exchange block, serves the requests the client writes there on a worker thread of its own, and
// tells the loop when each is done; the decoding itself is the codec's (MediaCodec).

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include <ev++.h>

#include "base/ashmem.h"
#include "base/spin_wait.h"
#include "base/unique_fd.h"
#include "decoder/exchange_block.h"
#include "decoder/media_codec.h"

class MediaDecoder {
  public:
    // Takes `fd` and maps it as the block (an ashmem region when `is_ashmem`, else a POSIX shared
    // memory object).
    MediaDecoder(const std::weak_ptr<ev::async>& notify, int fd, bool is_ashmem);
    MediaDecoder(const MediaDecoder&) = delete;
    MediaDecoder& operator=(const MediaDecoder&) = delete;
    virtual ~MediaDecoder();

    // Whether the block is mapped: the server starts only a valid instance.
    bool valid() const { return valid_; }

    // The client's number (its connection's descriptor), which names the worker thread and the
    // worker's system-log lines. Set before run().
    void name_client(int client) { client_number = client; }

    // Starts the worker. False when the thread cannot be created (out of threads or memory):
    // the instance then has no worker and the client must be refused.
    bool run();

    // Loop thread: a request waits in the block (a doorbell). Signals that arrive before the
    // worker takes the request merge into one; one that arrives while a request runs makes the
    // worker run the request header again afterwards.
    void signal_request();
    // Loop thread: the worker ends after the request it may be running. Idempotent; it must have
    // been given before the instance is destroyed, since the destructor only joins.
    void signal_quit();
    // Whether the worker has been told to end, or ended on its own after a fatal request.
    bool quitting() const { return quit.load() != 0; }
    // Requests the worker has finished so far; it counts one before each completion signal.
    uint64_t completed_requests() const { return requests_done.load(std::memory_order_acquire); }
    // Whether the client's object shrank under the mapping (the block now reads zero): the worker
    // has ended and the client must be dropped.
    bool block_lost() const { return lost.load() != 0; }
    // The mapped block, for the fuzz target, which plays the clients in the service's process.
    uint8_t* exchange_block() const { return block; }

  private:
    void media_decoding_thread();
    bool wait_for_request();
    void dispatch(uint32_t request_type);
    void init_codec();
    bool check_block_lost();
    void name_worker();
    void clear_output_after(size_t used);
    bool release_pages(size_t offset, size_t length);
    template <typename T>
    T read_request(size_t offset) const {
        T value;
        memcpy(&value, block + SHM_REQUEST_OFFSET + offset, sizeof(T));
        return value;
    }

    // Set at construction on the loop thread, constant afterwards.
    bool valid_ = false;
    UniqueFd shm_fd;
    uint8_t* block = nullptr;
    std::unique_ptr<AshMemory> ashmem;
    int guard_slot = -1;
    int client_number = -1;
    std::weak_ptr<ev::async> notify;

    // The worker's alone while it runs; the destructor's after the join.
    std::unique_ptr<MediaCodec> codec;
    char worker_name[16] = {};                              // the name last given to its thread
    SpinWait request_spin{std::chrono::microseconds(100)};  // how long it spins before it sleeps

    // The loop thread's: started by run(), joined by the destructor.
    std::unique_ptr<std::thread> worker;

    // Between the two threads. The loop thread stores quit and request_ready only under
    // request_mutex, where the worker tests them before it sleeps, so no signal can fall between
    // the worker's test and its wait.
    std::atomic<int> quit{0};
    std::atomic<int> request_ready{0};
    std::mutex request_mutex;
    std::condition_variable request_cond;
    // Set by the worker, read by the loop thread after the completion signal.
    std::atomic<int> lost{0};
    // Counts finished requests. Stored with release before the completion signal, so a thread that
    // loads it with acquire after the signal sees everything the request wrote; the signal itself
    // orders memory too, but in a way race detectors cannot follow.
    std::atomic<uint64_t> requests_done{0};
};
