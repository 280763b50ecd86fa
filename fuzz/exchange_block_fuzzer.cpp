// Arbitrary request headers and input bytes against one decoder instance with the real FFmpeg
// video and audio decoders. Each input gets a fresh MediaDecoder on the same block, plays the
// client (write a request, ring, wait for completion) and ends the instance the way the server
// does (quit signal, then destruction).

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <ev++.h>

#include "decoder/media_decoder.h"
#include "fuzz_support.h"

namespace {

class Exchange {
  public:
    Exchange() : loop_(EVFLAG_AUTO) {
        fd_ = make_memfd("fuzz-exchange-block", SHM_BLOCK_SIZE);
        void* mapped = mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        if (mapped == MAP_FAILED) {
            abort();
        }
        block_ = static_cast<uint8_t*>(mapped);
        notify_ = std::make_shared<ev::async>(loop_);
        notify_->set<Exchange, &Exchange::on_notify>(this);
        notify_->start();
    }

    void run(const uint8_t* data, size_t size) {
        // Every input starts from the same block: header, result and the input bytes written by
        // the previous input back to zero. The decoder never reads the output area.
        memset(block_, 0, kRequestHeaderSize);
        memset(block_ + SHM_RESULT_OFFSET, 0, SHM_RESULT_SIZE);
        memset(block_ + SHM_INPUT_OFFSET, 0, dirty_input_);
        dirty_input_ = 0;

        MediaDecoder decoder(notify_, dup(fd_), false);
        if (!decoder.valid) {
            abort();
        }
        decoder.run();

        FuzzReader in(data, size);
        for (int i = 0; i < kMaxRequests && in.left() >= kRequestHeaderSize; ++i) {
            std::vector<uint8_t> header = in.bytes(kRequestHeaderSize);
            memcpy(block_, header.data(), header.size());
            size_t n = in.u16();
            std::vector<uint8_t> input = in.bytes(n);
            if (!input.empty()) {
                memcpy(block_ + SHM_INPUT_OFFSET, input.data(), input.size());
            }
            dirty_input_ = std::max(dirty_input_, input.size());

            signal(decoder, false);
            wait_completion();
            // An unknown request, codec or media type, or a failed setup ends the worker after
            // answering; like a client, stop ringing (nothing would answer).
            if (decoder.quitting()) {
                break;
            }
        }
        signal(decoder, true);
        // ~MediaDecoder joins the worker.
    }

  private:
    static void signal(MediaDecoder& decoder, bool quit) {
        if (quit) {
            decoder.signal_quit();
        } else {
            decoder.signal_request();
        }
    }

    // A worker that never completes is a hang; libFuzzer's -timeout reports it.
    void wait_completion() {
        int wanted = completions_ + 1;
        while (completions_ < wanted) {
            loop_.run(EVRUN_ONCE);
        }
    }

    void on_notify(ev::async&, int) { ++completions_; }

    int fd_ = -1;
    uint8_t* block_ = nullptr;
    size_t dirty_input_ = 0;
    ev::dynamic_loop loop_;
    std::shared_ptr<ev::async> notify_;
    int completions_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_logs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Exchange* exchange = new Exchange();
    exchange->run(data, size);
    return 0;
}
