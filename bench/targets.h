#pragma once

// The figures the service is held to, in one place. Each keeps the text the table prints for it,
// so that the two change together; the comparison stays with the section that measures it.

namespace mediabench {

struct Target {
    double limit;
    const char* text;  // the table's target column, before " (met)" or " (MISSED)"
};

// Service RSS per client decoding 1080p H.264 to yuv420p, MiB above the idle service. The output
// area's pages are released behind each picture, so a client costs its decoder's pictures and
// little of the area.
constexpr Target kMemoryPerDecodingClient{28, "<= 28 MiB"};

// Median round trip of an empty request, at most this multiple of a bare ping-pong between two
// processes: the dispatch may add wake-ups, not an order of magnitude.
constexpr Target kRoundTripMedian{6, "<= 6x"};
// The same at the 99th percentile, where the scheduler's delays weigh on both alike.
constexpr Target kRoundTripP99{15, "<= 15x"};
// CPU time of service and client together per empty request, us.
constexpr Target kRoundTripCpu{25, "<= 25 us"};

// CPU seconds the workers of registered idle clients may use: a spin ends 100 us after the last
// request, and then they sleep.
constexpr Target kIdleWorkersCpu{0, "0 s"};

// Video frames per second through the service against the same decoding and conversion
// in-process (the service's codec over an area of its own): the exchange may cost no more than
// 5 %.
constexpr Target kVideoAgainstInProcess{0.95, ">= 0.95"};

// Aggregate frames per second of 2 concurrent decoder clients, as a multiple of 1 client: about
// what 2 in-process threads reach.
constexpr Target kTwoClients{1.8, ">= 1.8x of 1 client"};

// Audio real-time factor through the service against in-process. An AAC packet is little work,
// so the round trip of each request takes most of the time.
constexpr Target kAudioAgainstInProcess{0.3, ">= 0.3"};

}  // namespace mediabench
