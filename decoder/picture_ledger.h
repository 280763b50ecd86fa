#pragma once

// Charges the pictures (or audio frames) of one software decoder context to its client's account,
// before its frame pool allocates them.
//
// FFmpeg's default get_buffer2 draws every frame from a pool per frame geometry (format and size,
// or format, channels and sample count) and allocates a new pool entry only when every entry is in
// use; entries live until the pool is replaced (the geometry changed) or the context is freed. The
// ledger wraps that callback: it tells the entries apart by their memory, wraps each handed-out
// buffer to learn when it comes back, and so knows before each call whether the pool will
// allocate, and what the pool holds. A picture the budget refuses fails the decode instead of
// being allocated; a picture beyond the largest size any decoder honours is refused outright.
//
// Decoders keep tables of their own beside each picture (motion vectors, macroblock types), which
// FFmpeg allocates outside the pool: each picture entry is charged `side_bytes_per_pixel` more for
// each of its pixels to cover them.
//
// Threads: none of its own and no lock. Its methods and both callbacks run on the thread that
// drives the decoder context (a worker's), since the contexts decode without threads of their own
// (FFmpeg's default of one) and every picture is given back on that thread, by the codec. A
// context given decoding threads would need a lock around `entries_` and the charge.

#include <cstdint>
#include <map>
#include <memory>
#include <tuple>

#include "decoder/ffmpeg_compat.h"
#include "decoder/memory_budget.h"

class PictureLedger : public std::enable_shared_from_this<PictureLedger> {
  public:
    // The largest picture side any setup or stream may have.
    static constexpr int kMaxSide = 16384;

    // A ledger for `ctx`, charging `account`; installs itself as the context's get_buffer2 (the
    // context's opaque points to it). The caller keeps the ledger until the context is freed.
    static std::shared_ptr<PictureLedger> attach(AVCodecContext* ctx, MemoryAccount* account,
                                                 double side_bytes_per_pixel);

    PictureLedger(MemoryAccount* account, double side_bytes_per_pixel);
    PictureLedger(const PictureLedger&) = delete;
    PictureLedger& operator=(const PictureLedger&) = delete;
    ~PictureLedger() = default;

    int64_t charged() const { return charge_.bytes(); }

  private:
    using Geometry = std::tuple<int, int, int>;  // format and size, or format, channels, samples
    struct Entry {
        int64_t bytes;
        bool in_use;
        bool retired;  // its pool was replaced: freed once it comes back
    };
    struct Loan;  // one handed-out buffer, for its release callback

    static int get_buffer(AVCodecContext* ctx, AVFrame* frame, int flags);
    static void returned(void* opaque, uint8_t* data);

    int take(AVCodecContext* ctx, AVFrame* frame, int flags);
    void start_pool(const Geometry& geometry);
    bool pool_has_free_entry() const;
    int64_t predicted_bytes(const AVCodecContext* ctx, const AVFrame* frame) const;
    int64_t side_bytes(const AVFrame* frame) const;
    void give_back(const uint8_t* id);

    MemoryCharge charge_;
    const double side_bytes_per_pixel_;
    Geometry geometry_{-1, 0, 0};
    std::map<const uint8_t*, Entry> entries_;  // by the memory of the entry's first buffer
};
