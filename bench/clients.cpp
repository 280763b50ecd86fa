// Aggregate throughput of 1, 2, 4 and 8 concurrent decoder clients of the service and, for scale,
// of the same number of in-process decoding threads.

#include <algorithm>
#include <memory>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "bench/bench.h"
#include "bench/race.h"
#include "bench/sections.h"
#include "bench/targets.h"

using namespace mediatools;

namespace mediabench {

namespace {

// One level of concurrency: `n` decoder clients of the service, or `n` in-process decoders.
struct Level {
    std::vector<std::unique_ptr<mediaclient::DecoderClient>> clients;
    std::vector<std::unique_ptr<InProcessDecoder>> decoders;
    std::vector<DecodeOne> members;  // how each member of the team decodes
    std::unique_ptr<Team> team;
    Contender contender;
};

// Through the service when `s` is given, else in-process.
void make_level(Level* level, Service* s, const Stream& clip, int n) {
    const int pix_fmt = AV_PIX_FMT_YUV420P;
    for (int i = 0; i < n; ++i) {
        if (s != nullptr) {
            level->clients.emplace_back(new mediaclient::DecoderClient());
            check(level->clients.back()->connect_posix(s->socket), "decoder client");
        } else {
            level->decoders.emplace_back();
        }
    }
    Contender& c = level->contender;
    if (s != nullptr) {
        c.reset = [level, &clip] {
            for (auto& client : level->clients) {
                init_video(*client, clip, pix_fmt);
            }
        };
        const pid_t pid = s->pid;
        c.cpu = [pid] { return process_cpu(pid) + own_process_cpu(); };
    } else {
        c.reset = [level, &clip] {
            for (auto& decoder : level->decoders) {
                decoder.reset(new InProcessDecoder());
                init_video(*decoder, clip, pix_fmt);
            }
        };
        c.cpu = own_process_cpu;
    }
    for (auto& client : level->clients) {
        level->members.push_back(through_service(*client));
    }
    for (auto& decoder : level->decoders) {
        level->members.push_back(in_process(decoder));
    }
    level->team.reset(new Team(n, [level, &clip](int member, size_t from, size_t to) {
        return count_outputs(clip, from, to, level->members[member]);
    }));
    c.run = [level](size_t from, size_t to) { return level->team->run(from, to); };
}

}  // namespace

void bench_concurrency(Service& s, const Stream& clip, size_t packets, int runs) {
    const int counts[] = {1, 2, 4, 8};
    Level service[4], local[4];
    std::vector<Contender*> contenders;
    for (int i = 0; i < 4; ++i) {
        make_level(&service[i], &s, clip, counts[i]);
        make_level(&local[i], nullptr, clip, counts[i]);
        contenders.push_back(&service[i].contender);
        contenders.push_back(&local[i].contender);
    }
    race(contenders, std::min(packets, clip.packets.size()), 10, runs);
    const double one = service[0].contender.per_second();
    const double local_one = local[0].contender.per_second();
    for (int i = 0; i < 4; ++i) {
        const Contender& sv = service[i].contender;
        const Contender& lo = local[i].contender;
        note(
            "%d clients: service %.1f fps (%.2f ms CPU/picture), in-process threads %.1f fps "
            "(%.2f ms)",
            counts[i], sv.per_second(), sv.cpu_per_output_ms(), lo.per_second(),
            lo.cpu_per_output_ms());
        add_row({fmt("%d concurrent decoder client%s, aggregate (yuv420p)", counts[i],
                     counts[i] > 1 ? "s" : ""),
                 fmt("%.1f fps", sv.per_second()),
                 fmt("%d in-process thread%s %.1f fps (%.2fx)", counts[i], counts[i] > 1 ? "s" : "",
                     lo.per_second(), lo.per_second() / local_one),
                 fmt("%.2fx", sv.per_second() / one),
                 counts[i] == 2
                     ? verdict(sv.per_second() / one >= kTwoClients.limit, kTwoClients.text)
                     : ""});
    }
    add_row({"1 / 2 clients, CPU per picture (service + client)",
             fmt("%.2f / %.2f ms", service[0].contender.cpu_per_output_ms(),
                 service[1].contender.cpu_per_output_ms()),
             fmt("%.2f / %.2f ms in-process", local[0].contender.cpu_per_output_ms(),
                 local[1].contender.cpu_per_output_ms()),
             "", ""});
}

}  // namespace mediabench
