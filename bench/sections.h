#pragma once

// The sections of the table. Each measures one thing and adds its rows.

#include <cstddef>

#include "bench/bench.h"
#include "tools/media_file.h"

namespace mediabench {

// The service's resident memory idle, per registered decoder client, and per client decoding.
void bench_memory(Service& s, const mediatools::Stream& clip);
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
