#pragma once

// The figures the service is held to, in one place. Each keeps the text the table prints for it,
// so that the two change together; the comparison stays with the section that measures it.

namespace mediabench {

struct Target {
    double limit;
    const char* text;  // the table's target column, before " (met)" or " (MISSED)"
};

// The service's memory per client decoding 1080p H.264 to yuv420p, MiB above the idle service,
// proportional (PSS), its worker process included. The output area's pages are released behind
// each picture, so a client costs its decoder's pictures, little of the area, and its worker's
// own pages.
constexpr Target kMemoryPerDecodingClient{32, "<= 32 MiB"};

// Median round trip of an empty request, at most this multiple of a bare ping-pong between two
// processes: a worker reads its doorbell and writes its sync msg itself, as the ping-pong does.
constexpr Target kRoundTripMedian{1.5, "<= 1.5x"};
// The same at the 99th percentile, where the scheduler's delays weigh on both alike.
constexpr Target kRoundTripP99{15, "<= 15x"};
// CPU time of service and client together per empty request, as a multiple of the ping-pong's.
constexpr Target kRoundTripCpu{1.5, "<= 1.5x"};

// CPU seconds the workers of registered idle clients may use: a spin ends 100 us after the last
// request, and then they sleep.
constexpr Target kIdleWorkersCpu{0, "0 s"};

// Video frames per second through the service against the same decoding and conversion
// in-process (the service's codec over an area of its own): the exchange may cost no more than
// 3 %.
constexpr Target kVideoAgainstInProcess{0.97, ">= 0.97"};

// Aggregate frames per second of 2 concurrent decoder clients, as a multiple of 1 client: about
// what 2 in-process threads reach.
constexpr Target kTwoClients{1.8, ">= 1.8x of 1 client"};

// Audio real-time factor through the service against in-process. An AAC packet is little work,
// so the round trip of each request takes most of the time.
constexpr Target kAudioAgainstInProcess{0.5, ">= 0.5"};

}  // namespace mediabench
