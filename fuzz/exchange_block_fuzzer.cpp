// Arbitrary request headers and input bytes (the exchange block input of fuzz_support.h) against
// one decoder instance with the real FFmpeg decoders. Each input gets a fresh instance on the same
// block, plays the client (write a request, signal it, wait for its completion) and ends the
// instance as the server does: quit signal, then destruction.

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include <ev++.h>

#include "decoder/media_decoder.h"
#include "fuzz_support.h"

namespace {

constexpr uint64_t kMaxRequests = 48;

void on_completion(ev::async&, int) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The worker signals it after every request; waiting on the loop sleeps until it does.
    static std::shared_ptr<ev::async> notify = [] {
        auto watcher = std::make_shared<ev::async>(EV_DEFAULT);
        watcher->set<on_completion>();
        watcher->start();
        return watcher;
    }();
    // A fresh block per input would cost as much as the input's decoding.
    static int block = make_memfd(SHM_BLOCK_SIZE);
    MediaDecoder decoder(notify, dup(block), false);
    if (!decoder.valid || !decoder.run()) {
        abort();
    }
    // Requests read only what inputs write; the rest of the block stays zero.
    memset(decoder.block + SHM_INPUT_OFFSET, 0, UINT16_MAX);
    FuzzReader in(data, size);
    // An unknown request, codec or media type, or a failed setup ends the worker after its answer;
    // like a client, stop there, since nothing would answer. A request that never completes is a
    // hang, which libFuzzer's -timeout reports.
    for (uint64_t n = 1;
         n <= kMaxRequests && !decoder.quitting() && read_request(in, decoder.block); ++n) {
        decoder.signal_request();
        while (decoder.completed_requests() < n) {
            ev_run(EV_DEFAULT, EVRUN_ONCE);
        }
    }
    decoder.signal_quit();
    return 0;
}
