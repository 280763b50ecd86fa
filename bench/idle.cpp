// What waiting clients cost: registered clients that send nothing, and a client that sends one
// request every 33 ms, as a 30 fps player does.

#include <memory>
#include <vector>

#include "bench/bench.h"
#include "bench/sections.h"
#include "bench/targets.h"
#include "tools/proc_stat.h"

using namespace mediatools;

namespace mediabench {

void bench_idle(Service& s) {
    const int kClients = 4;
    std::vector<std::unique_ptr<mediaclient::DecoderClient>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back(new mediaclient::DecoderClient());
        check(clients.back()->connect_posix(s.socket), "decoder client");
        for (int j = 0; j < 100; ++j) {  // back to back, so that the workers spin at first
            check(clients.back()->flush(), "flush");
        }
    }
    // The workers are what registered clients cost; the loop thread pings the session meanwhile.
    // Any spin ends within 100 us of the last request.
    sleep_seconds(0.1);
    const double idle_seconds = 10;
    const ProcStat before = service_stat(s.pid);
    sleep_seconds(idle_seconds);
    const ProcStat after = service_stat(s.pid);
    const double workers = (after.cpu_s - after.main_cpu_s) - (before.cpu_s - before.main_cpu_s);
    add_row(
        {fmt("idle: CPU of %d registered idle clients' workers in %.0f s", kClients, idle_seconds),
         fmt("%.6f s", workers),
         fmt("whole service %.6f s (session pings)", after.cpu_s - before.cpu_s), "",
         // Below a microsecond: the sums of the threads' times differ in their last digits.
         verdict(workers < kIdleWorkersCpu.limit + 1e-6, kIdleWorkersCpu.text)});

    const int requests = 90;
    mediaclient::DecoderClient& player = *clients.front();
    const double cpu0 = process_cpu(s.pid);
    for (int i = 0; i < requests; ++i) {
        check(player.flush(), "flush");
        sleep_seconds(1.0 / 30);
    }
    const double player_cpu = process_cpu(s.pid) - cpu0;
    add_row({"30 fps player: service CPU per empty request, one every 33 ms",
             fmt("%.1f us", player_cpu * 1e6 / requests), "", "", ""});
}

}  // namespace mediabench
