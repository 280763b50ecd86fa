#pragma once

// A decoder client's channel, on the worker's side: the worker process reads its client's
// doorbells, serves each request from the block and writes the sync msg itself, so that nothing
// stands between a client and its decoder. It ends when its client leaves, when the accepting
// process closes the control connection (the service stops), or when a request ends it.

#include <functional>
#include <memory>

#include "base/spin_wait.h"
#include "base/unique_fd.h"
#include "decoder/media_decoder.h"

class DecoderWorker {
  public:
    // `client` is the client's connection, `control` the connection to the accepting process;
    // `before_decoding` runs once, before the first request that is not a setup: the worker then
    // confines itself for decoding.
    DecoderWorker(UniqueFd client, UniqueFd control, std::unique_ptr<MediaDecoder> decoder,
                  std::function<void()> before_decoding);
    DecoderWorker(const DecoderWorker&) = delete;
    DecoderWorker& operator=(const DecoderWorker&) = delete;
    // The decoder goes first (its teardown lines, the block unmapped), then the connection closes:
    // a client never sees its connection closed while its block may still be written.
    ~DecoderWorker();

    // Serves until the worker must end.
    void run();

  private:
    enum class Event { kDoorbell, kWritable, kEnd };
    enum class Doorbell { kRung, kNone, kGone };
    // Waits for the client's doorbell (or, with `writable`, for room to send the sync msg), or
    // for the end of the service.
    Event wait(bool writable);
    // Reads one doorbell record: however many bytes it has, it asks for one request.
    Doorbell read_doorbell();
    bool send_sync();

    UniqueFd client_;
    UniqueFd control_;
    std::unique_ptr<MediaDecoder> decoder_;
    std::function<void()> before_decoding_;  // empty once it has run
    bool serving_ = true;  // false once a request ended the decoder: doorbells go unanswered
    // After a sync msg, how long to look for the next doorbell before sleeping in poll: a client
    // in a tight loop rings again within microseconds, and a sleeping worker would cost it a
    // wake-up.
    SpinWait doorbell_spin_{std::chrono::microseconds(100)};
};
