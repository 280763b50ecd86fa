// The service's memory, its decoder clients' workers included: idle, per registered decoder
// client, per client decoding; and the time from a registration to its first answer, which is a
// worker's start.

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "bench/bench.h"
#include "bench/sections.h"
#include "bench/targets.h"
#include "tools/proc_stat.h"

using namespace mediatools;

namespace mediabench {

void bench_memory(Service& s, const Stream& clip) {
    const int kClients = 4;
    ProcStat idle = service_stat(s.pid);
    add_row({"memory: service RSS, idle (session only)", fmt("%.1f MiB", idle.rss_kb / 1024.0),
             fmt("anon %.1f, file %.1f MiB", idle.rss_anon_kb / 1024.0, idle.rss_file_kb / 1024.0),
             "", ""});

    std::vector<std::unique_ptr<mediaclient::DecoderClient>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back(new mediaclient::DecoderClient());
        check(clients.back()->connect_posix(s.socket), "decoder client");
        // The answer proves the registration and a running worker.
        check(clients.back()->flush(), "flush");
    }
    ProcStat registered = service_stat(s.pid);
    add_row({"memory: per registered decoder client",
             fmt("%.0f KiB", double(registered.rss_kb - idle.rss_kb) / kClients),
             fmt("%d clients, anon %+.0f KiB each", kClients,
                 double(registered.rss_anon_kb - idle.rss_anon_kb) / kClients),
             "", ""});

    for (auto& c : clients) {
        init_video(*c, clip, AV_PIX_FMT_YUV420P);
        count_outputs(clip, 0, 10, through_service(*c));
    }
    ProcStat decoding = service_stat(s.pid);
    // Proportional: the libraries every worker maps count in parts, as they take memory once.
    const double per_client = double(decoding.pss_kb - idle.pss_kb) / kClients / 1024.0;
    add_row({"memory: per client decoding 1080p H.264 to yuv420p (PSS, its worker included)",
             fmt("%.1f MiB", per_client),
             fmt("RSS %.1f: anon %.1f + shared block %.1f MiB",
                 double(decoding.rss_kb - idle.rss_kb) / kClients / 1024.0,
                 double(decoding.rss_anon_kb - idle.rss_anon_kb) / kClients / 1024.0,
                 double(decoding.rss_shmem_kb - idle.rss_shmem_kb) / kClients / 1024.0),
             "",
             verdict(per_client <= kMemoryPerDecodingClient.limit, kMemoryPerDecodingClient.text)});
    clients.clear();
}

void bench_registration(Service& s) {
    const int kRegistrations = 40;
    std::vector<double> ms;
    for (int i = 0; i < kRegistrations; ++i) {
        const auto start = std::chrono::steady_clock::now();
        mediaclient::DecoderClient c;
        check(c.connect_posix(s.socket), "decoder client");
        check(c.flush(), "flush");
        ms.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count());
    }
    std::sort(ms.begin(), ms.end());
    add_row({"registration to the answer of a first empty request, median / 99th percentile",
             fmt("%.1f / %.1f ms", percentile(ms, 0.5), percentile(ms, 0.99)),
             fmt("%d registrations, each a worker's start", kRegistrations), "", ""});
}

}  // namespace mediabench
