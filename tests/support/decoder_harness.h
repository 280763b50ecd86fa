#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include <ev++.h>

#include "decoder/exchange_block.h"
#include "decoder/media_decoder.h"

// Drives one MediaDecoder in-process through a real exchange block (a memfd of SHM_BLOCK_SIZE),
// playing both the client (writing requests) and the loop thread (request signal, completion
// through an ev::async on a private loop).
class DecoderHarness {
  public:
    DecoderHarness();
    ~DecoderHarness();  // gives the quit signal, destroys the decoder, unmaps the block

    MediaDecoder& decoder() { return *decoder_; }
    uint8_t* block() { return block_; }
    uint8_t* input() { return block_ + SHM_INPUT_OFFSET; }
    const uint8_t* output() const { return block_ + SHM_OUTPUT_OFFSET; }

    void write_init(int32_t media_type, uint32_t codec_index, const std::array<int32_t, 7>& params,
                    const void* extradata = nullptr, size_t extradata_size = 0);
    void write_decode(const void* data, int32_t size, int64_t pts);
    void write_codec_config(const void* data, int32_t size);
    void write_reset(int32_t a, int32_t b, int32_t c);
    void write_request_type(uint32_t type);

    // Rings the doorbell and waits for the completion signal; false on timeout.
    bool request(int timeout_ms = 20000);
    // Only rings (request signal) without waiting.
    void signal_request();
    void signal_quit();
    // Waits for `count` more completions; false on timeout.
    bool wait_completions(int count, int timeout_ms);
    int completions() const { return completions_; }

    ExchangeResult result() const;
    void set_result(const ExchangeResult& r);

  private:
    void on_notify(ev::async& watcher, int revents);
    void on_timeout(ev::timer& watcher, int revents);

    int fd_ = -1;
    uint8_t* block_ = nullptr;
    ev::dynamic_loop loop_;
    std::shared_ptr<ev::async> notify_;
    std::unique_ptr<MediaDecoder> decoder_;
    int completions_ = 0;
    int wanted_ = 0;
    bool timed_out_ = false;
};

// Sends the process-wide log to a temporary file for the lifetime of the object.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::string text() const;
    bool contains(const std::string& needle) const;
    size_t count(const std::string& needle) const;

  private:
    std::string path_;
};
