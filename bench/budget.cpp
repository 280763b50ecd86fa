// The memory ceiling: what one client decoding 1080p, 4K and 8K costs the service at its peak,
// and a second service in a 1 GiB cgroup under six 8K HEVC clients and a 1080p one.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "base/memory_limit.h"
#include "bench/bench.h"
#include "bench/sections.h"
#include "tools/proc_stat.h"
#include "client/service_link.h"

using namespace mediaclient;
using namespace mediatools;

namespace mediabench {

namespace {

constexpr long kMiB = 1024;  // in kB, as /proc counts
constexpr int kGreedyClients = 6;

// Resident memory's high-water mark of `pid` (VmHWM), kB.
long peak_kb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return atol(line.c_str() + 6);
        }
    }
    return 0;
}

// Decodes the whole clip through `client`, scaled to 1080p yuv420p; the answers that failed.
long decode_all(mediaclient::DecoderClient& client, const Stream& clip) {
    ExchangeResult r{};
    check(client.init_video(static_cast<uint32_t>(video_codec_index(clip.info.codec_name)),
                            video_init_params(clip.info, 1920, 1080, AV_PIX_FMT_YUV420P),
                            clip.info.extradata.data(), clip.info.extradata.size(), &r),
          "video init");
    long failed = r.status == STATUS_FAILED;
    for (const Packet& p : clip.packets) {
        check(client.decode_frame(p.data.data(), p.data.size(), p.pts_us, &r), "decode");
        failed += r.status == STATUS_FAILED;
    }
    return failed;
}

// The 1080p client: every answer and picture against the same decoding in-process; the first
// mismatch.
long decode_exact(mediaclient::DecoderClient& client, const Stream& clip) {
    InProcessDecoder in_process;
    init_video(in_process, clip, AV_PIX_FMT_YUV420P);
    init_video(client, clip, AV_PIX_FMT_YUV420P);
    for (size_t i = 0; i < clip.packets.size(); ++i) {
        const Packet& p = clip.packets[i];
        ExchangeResult r{};
        check(client.decode_frame(p.data.data(), p.data.size(), p.pts_us, &r), "decode");
        const Answer want = in_process.decode(p);
        if (!(answer_of(r) == want) ||
            memcmp(client.output(), in_process.output(), want.size) != 0) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

// A number from a cgroup file, or the value after `key` in it; -1 when there is none.
long long cgroup_value(const std::string& path, const std::string& key = "") {
    std::ifstream in(path);
    std::string word;
    while (in >> word) {
        if (key.empty()) {
            return atoll(word.c_str());
        }
        if (word == key && in >> word) {
            return atoll(word.c_str());
        }
    }
    return -1;
}

void peak_rows(Service& s, const std::vector<const Stream*>& clips) {
    for (const Stream* clip : clips) {
        mediaclient::DecoderClient client;
        check(client.connect_posix(s.socket), "decoder client");
        check(client.flush(), "flush");
        // The client's worker: the newest child of the service.
        pid_t worker = s.pid;
        const std::string p = std::to_string(s.pid);
        std::ifstream children("/proc/" + p + "/task/" + p + "/children");
        for (pid_t child; children >> child;) {
            worker = child;
        }
        const long failed = decode_all(client, *clip);
        const long peak = peak_kb(worker);
        add_row({fmt("memory: peak of one client's worker, %dx%d %s to 1080p", clip->info.width,
                     clip->info.height, clip->info.codec_name.c_str()),
                 fmt("%.0f MiB", double(peak) / kMiB),
                 fmt("%zu packets%s", clip->packets.size(), failed > 0 ? ", some refused" : ""), "",
                 ""});
    }
}

}  // namespace

void bench_budget(Service& s, const BudgetMedia& media) {
    peak_rows(s, {media.hd, media.uhd, media.h264_8k, media.hevc_8k});
    if (media.cgroup.empty()) {
        add_row({"memory: six 8K HEVC clients and a 1080p one in a 1 GiB cgroup", "skipped", "", "",
                 "no cgroup (bench/run makes one as root)"});
        return;
    }
    char dir[] = "/tmp/media-bench-budget.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        die("mkdtemp: %s", strerror(errno));
    }
    Service capped;
    capped.socket = std::string(dir) + "/vessa/sockets/media-service.socket";
    std::string error;
    if (!start_service(capped.socket, "", 5000, &error, media.cgroup)) {
        die("%s", error.c_str());
    }
    capped.pid = listener_pid(capped.socket);
    std::atomic<long> refused{0};
    std::vector<std::thread> greedy;
    for (int i = 0; i < kGreedyClients; ++i) {
        greedy.emplace_back([&] {
            mediaclient::DecoderClient client;
            check(client.connect_posix(capped.socket), "decoder client");
            refused += decode_all(client, *media.hevc_8k);
        });
    }
    mediaclient::DecoderClient small;
    check(small.connect_posix(capped.socket), "decoder client");
    const long mismatch = decode_exact(small, *media.hd);
    for (std::thread& t : greedy) {
        t.join();
    }
    const bool alive = kill(capped.pid, 0) == 0;
    const long long kills = cgroup_value(media.cgroup + "/memory.events", "oom_kill") >= 0
                                ? cgroup_value(media.cgroup + "/memory.events", "oom_kill")
                                : cgroup_value(media.cgroup + "/memory.oom_control", "oom_kill");
    long long cgroup_peak = cgroup_value(media.cgroup + "/memory.peak");
    cgroup_peak =
        cgroup_peak >= 0 ? cgroup_peak : cgroup_value(media.cgroup + "/memory.max_usage_in_bytes");
    stop_process(capped.pid, 5000);
    long long limit = cgroup_value(media.cgroup + "/memory.max");
    limit = limit > 0 ? limit : cgroup_value(media.cgroup + "/memory.limit_in_bytes");
    const double budget_mib = double(decoding_budget(limit)) / (1 << 20);
    add_row({"memory: six 8K HEVC clients and a 1080p one in a 1 GiB cgroup",
             fmt("cgroup peak %.0f MiB", double(cgroup_peak) / (1 << 20)),
             fmt("budget %.0f MiB; %ld 8K answers refused", budget_mib, refused.load()),
             fmt("%.2f of the budget", double(cgroup_peak) / (1 << 20) / budget_mib),
             verdict(alive && kills == 0 && mismatch < 0, "alive, no OOM kill, 1080p exact")});
    std::string rm = std::string("rm -rf '") + dir + "'";
    if (system(rm.c_str()) != 0) {
        note("could not remove %s", dir);
    }
}

}  // namespace mediabench
