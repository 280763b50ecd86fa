#pragma once

// The sections of the table. Each measures one thing and adds its rows.

#include <cstddef>
#include <string>

#include "bench/bench.h"
#include "tools/media_file.h"

namespace mediabench {

// The service's resident memory idle, per registered decoder client, and per client decoding.
void bench_memory(Service& s, const mediatools::Stream& clip);
// The time from a decoder client's registration to the answer of its first request.
void bench_registration(Service& s);
// The clips and the cgroup of the memory ceiling's rows.
struct BudgetMedia {
    const mediatools::Stream* hd = nullptr;   // 1080p H.264
    const mediatools::Stream* uhd = nullptr;  // 4K H.264
    const mediatools::Stream* h264_8k = nullptr;
    const mediatools::Stream* hevc_8k = nullptr;  // 10-bit
    std::string cgroup;                           // a memory cgroup limited to 1 GiB, or empty
};
// Peak memory of one client at 1080p, 4K and 8K; six 8K clients and a 1080p one under 1 GiB.
void bench_budget(Service& s, const BudgetMedia& media);
// Empty requests against a bare ping-pong, `count` of each (a quarter of that pinned to one CPU).
void bench_round_trip(Service& s, int count);
// What waiting clients cost: idle registered clients and a 30 fps player.
void bench_idle(Service& s);
// Video throughput to yuv420p and rgba against in-process decoding.
void bench_video(Service& s, const mediatools::Stream& clip, int runs);
// Aggregate throughput of 1, 2, 4 and 8 decoder clients over the first `packets` of the clip.
void bench_concurrency(Service& s, const mediatools::Stream& clip, size_t packets, int runs);
// Audio as a real-time factor against in-process decoding.
void bench_audio(Service& s, const mediatools::Stream& clip, int runs);

}  // namespace mediabench
