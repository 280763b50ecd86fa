// media-bench: measures the media service against in-process FFmpeg on this machine and prints
// one table. bench/run makes the media and runs it; see --help.

#include <dirent.h>
#include <getopt.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include "client/media_client.h"
#include "decoder/exchange_block.h"
#include "tools/local_decoder.h"
#include "tools/media_file.h"
#include "tools/proc_stat.h"
#include "tools/service_link.h"

using namespace mediatools;
using Clock = std::chrono::steady_clock;

namespace {

const char kUsage[] =
    "Usage: media-bench --video FILE --audio FILE [options]\n"
    "\n"
    "Measures the media service against in-process FFmpeg and prints one table:\n"
    "  - throughput of the video (1080p H.264) decoded through the service to the same size in\n"
    "    yuv420p and in rgba, against a plain in-process decode + conversion into a buffer, and\n"
    "    against the same work in-process as the service did it before it released pages\n"
    "    (decode, conversion into a 16 MiB area, rest of the area written with zeros);\n"
    "  - the round trip of a request that decodes nothing (flush without a decoder), median and\n"
    "    99th percentile, against a bare sequenced-packet ping-pong between two processes, with\n"
    "    the threads where the scheduler puts them and with every thread on one CPU, and the CPU\n"
    "    time both sides spend per request;\n"
    "  - the service's CPU time with 4 registered idle clients, and per request of a client that\n"
    "    sends one every 33 ms (a 30 fps player);\n"
    "  - aggregate throughput with 1, 2, 4 and 8 concurrent decoder clients (and, for scale, the\n"
    "    same number of in-process decoding threads);\n"
    "  - audio (AAC 48 kHz stereo) to s16 44.1 kHz stereo as a real-time factor, against\n"
    "    in-process;\n"
    "  - the service's resident memory idle, per registered decoder client, and per client\n"
    "    decoding 1080p.\n"
    "All ways of decoding that a figure compares advance through the clip together, 10 packets\n"
    "(audio: 100) at a time in rotating order, so that other load on the machine hits them alike.\n"
    "CPU times are the threads' scheduler run times (/proc/PID/task/*/schedstat).\n"
    "\n"
    "Options:\n"
    "  --video FILE        1080p H.264 clip\n"
    "  --audio FILE        AAC 48 kHz stereo clip\n"
    "  --socket PATH       service socket (default: the service's own path); a service that is\n"
    "                      not running there is started, and stopped at the end\n"
    "  --runs N            passes over the clip per figure (default 3)\n"
    "  --round-trips N     requests per round-trip figure (default 20000)\n"
    "  --clients-packets N packets per client in the concurrency test (default 120)\n"
    "  --only LIST         run only these sections: memory,rtt,idle,video,clients,audio\n"
    "  -h, --help\n";

struct Options {
    std::string video, audio, socket;
    int runs = 3;
    int round_trips = 20000;
    int clients_packets = 120;
    std::string only;  // comma-separated sections; empty: all
    bool wants(const char* section) const {
        return only.empty() ||
               ("," + only + ",").find(std::string(",") + section + ",") != std::string::npos;
    }
};

[[noreturn]] void die(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("media-bench: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    exit(1);
}

void note(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("  .. ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
}

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double percentile(std::vector<double>& sorted, double p) {
    if (sorted.empty()) {
        return 0;
    }
    size_t rank = static_cast<size_t>(p * sorted.size() + 0.999999);
    return sorted[std::min(sorted.size(), std::max<size_t>(rank, 1)) - 1];
}

void check(mediaclient::ClientError e, const char* what) {
    if (e != mediaclient::ClientError::kOk) {
        die("%s: %s", what, mediaclient::error_text(e));
    }
}

// ---- the service ----

struct Service {
    std::string socket;
    bool started_here = false;
    pid_t pid = -1;
    mediaclient::SessionClient session;
};

void connect_service(Service* s) {
    std::string error;
    if (!service_listening(s->socket)) {
        if (!start_service(s->socket, "", 5000, &error)) {
            die("%s", error.c_str());
        }
        s->started_here = true;
    }
    check(s->session.connect(s->socket), "registering the session client");
    check(s->session.start_answering(), "answering the session pings");
    s->pid = peer_pid(s->session.fd());
    if (s->pid <= 0) {
        die("cannot tell the service's process id");
    }
}

// CPU time of every thread of a process, in seconds. Threads that end in between are lost, so
// measure while the clients stay connected.
double process_cpu(pid_t pid) {
    return proc_stat(pid).cpu_s;
}

double thread_cpu() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Sets the CPU affinity of every thread of process `pid`.
void set_affinity(pid_t pid, const cpu_set_t& cpus) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return;
    }
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            sched_setaffinity(atoi(e->d_name), sizeof(cpus), &cpus);
        }
    }
    closedir(d);
}

// Every figure decodes the clip at its own size.
mediaclient::VideoInitParams video_params(const Stream& clip, int pix_fmt) {
    return video_init_params(clip.info, clip.info.width, clip.info.height, pix_fmt);
}

void init_video(mediaclient::DecoderClient& client, const Stream& clip, int pix_fmt) {
    ExchangeResult r{};
    check(client.init_video(static_cast<uint32_t>(video_codec_index(clip.info.codec_name)),
                            video_params(clip, pix_fmt), clip.info.extradata.data(),
                            clip.info.extradata.size(), &r),
          "video init");
    if (r.status != STATUS_OK) {
        die("the service could not set up the video decoder");
    }
}

void open_local(LocalVideoDecoder& decoder, const Stream& clip, int pix_fmt,
                LocalVideoDecoder::Output mode) {
    std::string error;
    if (!decoder.open(clip.info.codec_id, video_params(clip, pix_fmt), clip.info.extradata, mode,
                      &error)) {
        die("in-process decoder: %s", error.c_str());
    }
}

// Decodes one packet, through the service or in-process, and returns the answer.
using DecodeOne = std::function<Answer(const Packet& packet)>;

DecodeOne through_service(mediaclient::DecoderClient& client) {
    return [&client](const Packet& p) {
        ExchangeResult r{};
        check(client.decode_frame(p.data.data(), p.data.size(), p.pts_us, &r), "decode");
        return answer_of(r);
    };
}

// The decoder is looked up per packet: contenders replace it when they start the clip again.
template <typename Decoder>
DecodeOne in_process(const std::unique_ptr<Decoder>& decoder) {
    return [&decoder](const Packet& p) {
        return decoder->decode(p.data.data(), static_cast<int>(p.data.size()), p.pts_us);
    };
}

// Decodes packets [from, to) of the clip; returns the answers that delivered output.
long count_outputs(const Stream& clip, size_t from, size_t to, const DecodeOne& decode) {
    long outputs = 0;
    for (size_t i = from; i < std::min(to, clip.packets.size()); ++i) {
        const Answer a = decode(clip.packets[i]);
        outputs += a.status == STATUS_OK && a.size > 0;
    }
    return outputs;
}

// ---- the table ----

struct Row {
    std::string what, service, baseline, ratio, target;
};

std::vector<Row> rows;

std::string fmt(const char* f, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof(buf), f, ap);
    va_end(ap);
    return buf;
}

void print_table() {
    size_t w[5] = {0, 0, 0, 0, 0};
    const Row header{"measurement", "service", "baseline", "ratio", "target"};
    std::vector<Row> all = {header};
    all.insert(all.end(), rows.begin(), rows.end());
    for (const Row& r : all) {
        w[0] = std::max(w[0], r.what.size());
        w[1] = std::max(w[1], r.service.size());
        w[2] = std::max(w[2], r.baseline.size());
        w[3] = std::max(w[3], r.ratio.size());
        w[4] = std::max(w[4], r.target.size());
    }
    auto line = [&](const Row& r) {
        printf("| %-*s | %*s | %-*s | %*s | %-*s |\n", static_cast<int>(w[0]), r.what.c_str(),
               static_cast<int>(w[1]), r.service.c_str(), static_cast<int>(w[2]),
               r.baseline.c_str(), static_cast<int>(w[3]), r.ratio.c_str(), static_cast<int>(w[4]),
               r.target.c_str());
    };
    line(header);
    printf("|%s|%s|%s|%s|%s|\n", std::string(w[0] + 2, '-').c_str(),
           std::string(w[1] + 2, '-').c_str(), std::string(w[2] + 2, '-').c_str(),
           std::string(w[3] + 2, '-').c_str(), std::string(w[4] + 2, '-').c_str());
    for (const Row& r : rows) {
        line(r);
    }
}

std::string verdict(bool met, const std::string& target) {
    return target + (met ? " (met)" : " (MISSED)");
}

// ---- the measurements ----

void bench_memory(Service& s, const Stream& clip) {
    const int kClients = 4;
    ProcStat idle = proc_stat(s.pid);
    rows.push_back(
        {"memory: service RSS, idle (session only)", fmt("%.1f MiB", idle.rss_kb / 1024.0),
         fmt("anon %.1f, file %.1f MiB", idle.rss_anon_kb / 1024.0, idle.rss_file_kb / 1024.0), "",
         ""});

    std::vector<std::unique_ptr<mediaclient::DecoderClient>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back(new mediaclient::DecoderClient());
        check(clients.back()->connect_posix(s.socket), "decoder client");
        // The answer proves the registration and a running worker.
        check(clients.back()->flush(), "flush");
    }
    ProcStat registered = proc_stat(s.pid);
    rows.push_back({"memory: per registered decoder client",
                    fmt("%.0f KiB", double(registered.rss_kb - idle.rss_kb) / kClients),
                    fmt("%d clients, anon %+.0f KiB each", kClients,
                        double(registered.rss_anon_kb - idle.rss_anon_kb) / kClients),
                    "", ""});

    for (auto& c : clients) {
        init_video(*c, clip, AV_PIX_FMT_YUV420P);
        count_outputs(clip, 0, 10, through_service(*c));
    }
    ProcStat decoding = proc_stat(s.pid);
    const double per_client = double(decoding.rss_kb - idle.rss_kb) / kClients / 1024.0;
    rows.push_back({"memory: per client decoding 1080p H.264 to yuv420p",
                    fmt("%.1f MiB", per_client),
                    fmt("anon %.1f + shared block %.1f MiB",
                        double(decoding.rss_anon_kb - idle.rss_anon_kb) / kClients / 1024.0,
                        double(decoding.rss_shmem_kb - idle.rss_shmem_kb) / kClients / 1024.0),
                    "", verdict(per_client <= 28, "<= 28 MiB")});
    clients.clear();
}

struct RoundTrips {
    std::vector<double> service_us, bare_us;  // sorted once measured
    double service_cpu = 0, bare_cpu = 0;     // seconds, both sides
};

// Empty requests through the service and bare ping-pongs take turns, 100 at a time; the first
// tenth is warm-up.
RoundTrips measure_round_trips(Service& s, mediaclient::DecoderClient& client, int ping_fd,
                               pid_t ping_child, int count) {
    RoundTrips rt;
    const int block = 100;
    for (int done = 0; done < count / 10 + count; done += block) {
        const bool counted = done >= count / 10;
        double cpu0 = process_cpu(s.pid) + thread_cpu();
        for (int i = 0; i < block; ++i) {
            auto t0 = Clock::now();
            check(client.call(), "round trip");
            if (counted) {
                rt.service_us.push_back(seconds_since(t0) * 1e6);
            }
        }
        if (counted) {
            rt.service_cpu += process_cpu(s.pid) + thread_cpu() - cpu0;
        }
        cpu0 = process_cpu(ping_child) + thread_cpu();
        for (int i = 0; i < block; ++i) {
            char byte = 'D';
            auto t0 = Clock::now();
            if (write(ping_fd, &byte, 1) != 1 || read(ping_fd, &byte, 1) != 1) {
                die("ping-pong: %s", strerror(errno));
            }
            if (counted) {
                rt.bare_us.push_back(seconds_since(t0) * 1e6);
            }
        }
        if (counted) {
            rt.bare_cpu += process_cpu(ping_child) + thread_cpu() - cpu0;
        }
    }
    std::sort(rt.service_us.begin(), rt.service_us.end());
    std::sort(rt.bare_us.begin(), rt.bare_us.end());
    return rt;
}

void bench_round_trip(Service& s, int count) {
    // Service: a flush on a client without a decoder executes nothing but the dispatch.
    mediaclient::DecoderClient client;
    check(client.connect_posix(s.socket), "decoder client");
    check(client.write_request_type(REQUEST_FLUSH), "request");
    check(client.call(), "round trip");  // the worker exists from here on

    // Bare ping-pong: one byte each way over a sequenced-packet socket pair between two
    // processes, blocking reads on both sides.
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0) {
        die("socketpair: %s", strerror(errno));
    }
    pid_t child = fork();
    if (child < 0) {
        die("fork: %s", strerror(errno));
    }
    if (child == 0) {
        close(sv[0]);
        char byte;
        while (read(sv[1], &byte, 1) == 1) {
            if (write(sv[1], &byte, 1) != 1) {
                break;
            }
        }
        _exit(0);
    }
    close(sv[1]);

    RoundTrips free_rt = measure_round_trips(s, client, sv[0], child, count);
    // Every thread of both pairs on the first CPU this process may use: no wake-up crosses CPUs.
    cpu_set_t all, one;
    sched_getaffinity(0, sizeof(all), &all);
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &all)) {
            CPU_SET(cpu, &one);
            break;
        }
    }
    for (pid_t pid : {s.pid, child, getpid()}) {
        set_affinity(pid, one);
    }
    RoundTrips pinned_rt = measure_round_trips(s, client, sv[0], child, count / 4);
    for (pid_t pid : {s.pid, child, getpid()}) {
        set_affinity(pid, all);
    }
    close(sv[0]);
    waitpid(child, nullptr, 0);
    client.close();

    const size_t n = free_rt.service_us.size();
    const double s50 = percentile(free_rt.service_us, 0.5), b50 = percentile(free_rt.bare_us, 0.5);
    const double s99 = percentile(free_rt.service_us, 0.99);
    const double b99 = percentile(free_rt.bare_us, 0.99);
    const double p50 = percentile(pinned_rt.service_us, 0.5);
    const double q50 = percentile(pinned_rt.bare_us, 0.5);
    const double cpu = free_rt.service_cpu * 1e6 / n;
    rows.push_back({fmt("round trip, empty request, median (%zu)", n), fmt("%.1f us", s50),
                    fmt("ping-pong %.1f us", b50), fmt("%.2fx", s50 / b50),
                    verdict(s50 <= 6 * b50, "<= 6x")});
    rows.push_back({"round trip, 99th percentile", fmt("%.1f us", s99),
                    fmt("ping-pong %.1f us", b99), fmt("%.2fx", s99 / b99),
                    verdict(s99 <= 15 * b99, "<= 15x")});
    rows.push_back({"round trip, median, every thread on one CPU", fmt("%.1f us", p50),
                    fmt("ping-pong %.1f us", q50), fmt("%.2fx", p50 / q50), ""});
    rows.push_back({"round trip, CPU per request (service + client)", fmt("%.1f us", cpu),
                    fmt("ping-pong %.1f us", free_rt.bare_cpu * 1e6 / n),
                    fmt("%.2fx", free_rt.service_cpu / free_rt.bare_cpu),
                    verdict(cpu <= 25, "<= 25 us")});
}

void sleep_seconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// What waiting clients cost: registered clients that send nothing, and a client that sends one
// request every 33 ms, as a 30 fps player does.
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
    const ProcStat before = proc_stat(s.pid);
    sleep_seconds(idle_seconds);
    const ProcStat after = proc_stat(s.pid);
    const double workers = (after.cpu_s - after.main_cpu_s) - (before.cpu_s - before.main_cpu_s);
    rows.push_back(
        {fmt("idle: CPU of %d registered idle clients' workers in %.0f s", kClients, idle_seconds),
         fmt("%.6f s", workers),
         fmt("whole service %.6f s (session pings)", after.cpu_s - before.cpu_s), "",
         verdict(workers == 0, "0 s")});

    const int requests = 90;
    mediaclient::DecoderClient& player = *clients.front();
    const double cpu0 = process_cpu(s.pid);
    for (int i = 0; i < requests; ++i) {
        check(player.flush(), "flush");
        sleep_seconds(1.0 / 30);
    }
    const double player_cpu = process_cpu(s.pid) - cpu0;
    rows.push_back({"30 fps player: service CPU per empty request, one every 33 ms",
                    fmt("%.1f us", player_cpu * 1e6 / requests), "", "", ""});
}

// ---- contenders that take turns ----
//
// The machine may be shared. Instead of timing each way of decoding in a block of its own, all
// of them advance through the clip together, a slice of packets at a time, in an order that
// rotates with every slice: load that comes and goes then falls on all of them alike.

struct Contender {
    std::function<void()> reset;                      // back to the start of the clip
    std::function<long(size_t from, size_t to)> run;  // decodes packets [from, to): outputs
    std::function<double()> cpu;  // CPU seconds spent so far by everything this one uses
    double secs = 0, cpu_secs = 0;
    long outputs = 0;
    size_t packets = 0;

    double per_second() const { return secs > 0 ? outputs / secs : 0; }
    double cpu_per_output_ms() const { return outputs > 0 ? cpu_secs * 1e3 / outputs : 0; }
};

void race(std::vector<Contender*> contenders, size_t total, size_t slice, int runs) {
    // Warm-up, not counted: page faults of the areas, conversion tables, code.
    for (Contender* c : contenders) {
        c->reset();
        c->run(0, std::min(total, slice));
    }
    size_t turn = 0;
    for (int run = 0; run < runs; ++run) {
        for (Contender* c : contenders) {
            c->reset();
        }
        for (size_t from = 0; from < total; from += slice, ++turn) {
            const size_t to = std::min(total, from + slice);
            for (size_t j = 0; j < contenders.size(); ++j) {
                Contender* c = contenders[(j + turn) % contenders.size()];
                const double cpu0 = c->cpu();
                const auto t0 = Clock::now();
                c->outputs += c->run(from, to);
                c->secs += seconds_since(t0);
                c->cpu_secs += c->cpu() - cpu0;
                c->packets += to - from;
            }
        }
    }
}

Contender service_video(Service& s, mediaclient::DecoderClient& client, const Stream& clip,
                        int pix_fmt) {
    Contender c;
    c.reset = [&client, &clip, pix_fmt] { init_video(client, clip, pix_fmt); };
    c.run = [&clip, decode = through_service(client)](size_t from, size_t to) {
        return count_outputs(clip, from, to, decode);
    };
    const pid_t pid = s.pid;
    c.cpu = [pid] { return process_cpu(pid) + thread_cpu(); };
    return c;
}

Contender local_video(std::unique_ptr<LocalVideoDecoder>& decoder, const Stream& clip, int pix_fmt,
                      LocalVideoDecoder::Output mode) {
    Contender c;
    c.reset = [&decoder, &clip, pix_fmt, mode] {
        decoder.reset(new LocalVideoDecoder());
        open_local(*decoder, clip, pix_fmt, mode);
    };
    c.run = [&clip, decode = in_process(decoder)](size_t from, size_t to) {
        return count_outputs(clip, from, to, decode);
    };
    c.cpu = thread_cpu;
    return c;
}

void bench_video(Service& s, const Stream& clip, int runs) {
    for (int pix_fmt : {static_cast<int>(AV_PIX_FMT_YUV420P), static_cast<int>(AV_PIX_FMT_RGBA)}) {
        const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(pix_fmt));
        mediaclient::DecoderClient client;
        check(client.connect_posix(s.socket), "decoder client");
        std::unique_ptr<LocalVideoDecoder> same_decoder, plain_decoder;
        Contender service = service_video(s, client, clip, pix_fmt);
        Contender same =
            local_video(same_decoder, clip, pix_fmt, LocalVideoDecoder::Output::kLikeService);
        Contender plain =
            local_video(plain_decoder, clip, pix_fmt, LocalVideoDecoder::Output::kScaleOnly);
        race({&service, &same, &plain}, clip.packets.size(), 10, runs);

        const double sv = service.per_second(), sm = same.per_second(), pl = plain.per_second();
        note("%s: service %.1f fps, decode+convert %.1f, same work %.1f", name, sv, pl, sm);
        const int h = clip.info.height;
        rows.push_back({fmt("%dp H.264 -> %s, against in-process decode + convert", h, name),
                        fmt("%.1f fps", sv), fmt("%.1f fps", pl), fmt("%.3f", sv / pl),
                        verdict(sv / pl >= 0.95, ">= 0.95")});
        rows.push_back({fmt("%dp H.264 -> %s, same work in-process, area written", h, name),
                        fmt("%.1f fps", sv), fmt("%.1f fps", sm), fmt("%.3f", sv / sm),
                        verdict(sv / sm >= 1.0, ">= 1.0")});
        rows.push_back({fmt("%dp H.264 -> %s, CPU per picture (service + client)", h, name),
                        fmt("%.2f ms", service.cpu_per_output_ms()),
                        fmt("%.2f ms decode + convert", plain.cpu_per_output_ms()),
                        fmt("%.3f", plain.cpu_per_output_ms() / service.cpu_per_output_ms()), ""});
    }
}

double own_process_cpu() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Threads that each decode the same slice of packets at the same time.
class Team {
  public:
    Team(int members, std::function<long(int member, size_t from, size_t to)> work)
        : work_(std::move(work)) {
        for (int i = 0; i < members; ++i) {
            threads_.emplace_back(&Team::loop, this, i);
        }
    }
    Team(const Team&) = delete;
    Team& operator=(const Team&) = delete;
    virtual ~Team() {
        {
            std::lock_guard<std::mutex> lock(m_);
            quit_ = true;
        }
        cv_.notify_all();
        for (auto& t : threads_) {
            t.join();
        }
    }

    // Every member decodes [from, to); returns when all are done, with their outputs.
    long run(size_t from, size_t to) {
        std::unique_lock<std::mutex> lock(m_);
        from_ = from;
        to_ = to;
        done_ = 0;
        outputs_ = 0;
        ++generation_;
        cv_.notify_all();
        done_cv_.wait(lock, [this] { return done_ == static_cast<int>(threads_.size()); });
        return outputs_;
    }

  private:
    void loop(int member) {
        int seen = 0;
        for (;;) {
            size_t from, to;
            {
                std::unique_lock<std::mutex> lock(m_);
                cv_.wait(lock, [&] { return quit_ || generation_ != seen; });
                if (quit_) {
                    return;
                }
                seen = generation_;
                from = from_;
                to = to_;
            }
            long n = work_(member, from, to);
            std::lock_guard<std::mutex> lock(m_);
            outputs_ += n;
            if (++done_ == static_cast<int>(threads_.size())) {
                done_cv_.notify_one();
            }
        }
    }

    std::function<long(int, size_t, size_t)> work_;
    std::mutex m_;
    std::condition_variable cv_, done_cv_;
    int generation_ = 0, done_ = 0;
    bool quit_ = false;
    size_t from_ = 0, to_ = 0;
    long outputs_ = 0;
    std::vector<std::thread> threads_;
};

// One level of concurrency: `n` decoder clients of the service, or `n` in-process decoders.
struct Level {
    std::vector<std::unique_ptr<mediaclient::DecoderClient>> clients;
    std::vector<std::unique_ptr<LocalVideoDecoder>> decoders;
    std::vector<DecodeOne> members;  // how each member of the team decodes
    std::unique_ptr<Team> team;
    Contender contender;
};

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
                decoder.reset(new LocalVideoDecoder());
                open_local(*decoder, clip, pix_fmt, LocalVideoDecoder::Output::kLikeService);
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
        rows.push_back(
            {fmt("%d concurrent decoder client%s, aggregate (yuv420p)", counts[i],
                 counts[i] > 1 ? "s" : ""),
             fmt("%.1f fps", sv.per_second()),
             fmt("%d in-process thread%s %.1f fps (%.2fx)", counts[i], counts[i] > 1 ? "s" : "",
                 lo.per_second(), lo.per_second() / local_one),
             fmt("%.2fx", sv.per_second() / one),
             counts[i] == 2 ? verdict(sv.per_second() / one >= 1.8, ">= 1.8x of 1 client") : ""});
    }
    rows.push_back({"1 / 2 clients, CPU per picture (service + client)",
                    fmt("%.2f / %.2f ms", service[0].contender.cpu_per_output_ms(),
                        service[1].contender.cpu_per_output_ms()),
                    fmt("%.2f / %.2f ms in-process", local[0].contender.cpu_per_output_ms(),
                        local[1].contender.cpu_per_output_ms()),
                    "", ""});
}

void bench_audio(Service& s, const Stream& clip, int runs) {
    const int out_fmt = AV_SAMPLE_FMT_S16, out_channels = 2, out_rate = 44100;
    mediaclient::DecoderClient client;
    check(client.connect_posix(s.socket), "decoder client");
    std::unique_ptr<LocalAudioDecoder> local_decoder;

    Contender service;
    const mediaclient::AudioInitParams params =
        audio_init_params(clip.info, out_fmt, out_channels, out_rate);
    service.reset = [&] {
        ExchangeResult r{};
        check(client.init_audio(static_cast<uint32_t>(audio_codec_index(clip.info.codec_name)),
                                params, clip.info.extradata.data(), clip.info.extradata.size(), &r),
              "audio init");
        if (r.status != STATUS_OK) {
            die("the service could not set up the audio decoder");
        }
    };
    service.run = [&clip, decode = through_service(client)](size_t from, size_t to) {
        return count_outputs(clip, from, to, decode);
    };
    const pid_t pid = s.pid;
    service.cpu = [pid] { return process_cpu(pid) + thread_cpu(); };

    Contender local;
    local.reset = [&] {
        local_decoder.reset(new LocalAudioDecoder());
        std::string error;
        if (!local_decoder->open(clip.info.codec_id, params, clip.info.extradata, &error)) {
            die("in-process audio decoder: %s", error.c_str());
        }
    };
    local.run = [&clip, decode = in_process(local_decoder)](size_t from, size_t to) {
        return count_outputs(clip, from, to, decode);
    };
    local.cpu = thread_cpu;

    race({&service, &local}, clip.packets.size(), 100, runs);
    // Media seconds decoded per second of wall time.
    const double media = clip.info.duration_us / 1e6 * runs;
    const double sv = media / service.secs, lo = media / local.secs;
    rows.push_back({fmt("AAC %d Hz %d ch -> s16 44100 Hz 2 ch, x real time", clip.info.sample_rate,
                        clip.info.channels),
                    fmt("%.0fx", sv), fmt("%.0fx in-process", lo), fmt("%.3f", sv / lo),
                    verdict(sv / lo >= 0.3, ">= 0.3")});
    const double scpu = service.cpu_secs * 1e6 / service.packets;
    const double lcpu = local.cpu_secs * 1e6 / local.packets;
    rows.push_back({"AAC, CPU per packet (service + client)", fmt("%.0f us", scpu),
                    fmt("%.0f us same work", lcpu), fmt("%.3f", lcpu / scpu), ""});
}

std::string cpu_model() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("model name", 0) == 0) {
            size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    }
    return "unknown CPU";
}

double load_average() {
    double load = -1;
    FILE* f = fopen("/proc/loadavg", "re");
    if (f != nullptr) {
        if (fscanf(f, "%lf", &load) != 1) {
            load = -1;
        }
        fclose(f);
    }
    return load;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    static const option long_options[] = {
        {"video", required_argument, nullptr, 'V'},
        {"audio", required_argument, nullptr, 'A'},
        {"socket", required_argument, nullptr, 'S'},
        {"runs", required_argument, nullptr, 'r'},
        {"round-trips", required_argument, nullptr, 't'},
        {"clients-packets", required_argument, nullptr, 'c'},
        {"only", required_argument, nullptr, 'o'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "h", long_options, nullptr)) != -1) {
        switch (c) {
            case 'V':
                opt.video = optarg;
                break;
            case 'A':
                opt.audio = optarg;
                break;
            case 'S':
                opt.socket = optarg;
                break;
            case 'r':
                opt.runs = std::max(1, atoi(optarg));
                break;
            case 't':
                opt.round_trips = std::max(100, atoi(optarg));
                break;
            case 'c':
                opt.clients_packets = std::max(10, atoi(optarg));
                break;
            case 'o':
                opt.only = optarg;
                break;
            case 'h':
                fputs(kUsage, stdout);
                return 0;
            default:
                fputs(kUsage, stderr);
                return 2;
        }
    }
    if (opt.video.empty() || opt.audio.empty() || optind != argc) {
        fputs(kUsage, stderr);
        return 2;
    }
    av_log_set_level(AV_LOG_ERROR);
    // The service daemonises; as subreaper this process becomes its parent and can reap it.
    prctl(PR_SET_CHILD_SUBREAPER, 1);

    Stream video, audio;
    std::string error;
    if (!load_stream(opt.video, true, 0, &video, &error) ||
        !load_stream(opt.audio, false, 0, &audio, &error)) {
        die("%s", error.c_str());
    }
    if (video_codec_index(video.info.codec_name) < 0 ||
        audio_codec_index(audio.info.codec_name) < 0) {
        die("the clips' codecs must be in the service's tables");
    }

    Service service;
    service.socket = opt.socket.empty() ? mediaclient::default_socket_path() : opt.socket;
    connect_service(&service);

    const double load_before = load_average();
    const auto start = Clock::now();
    fprintf(stderr, "media-bench: service pid %d%s; %zu video packets %dx%d, %zu audio packets\n",
            static_cast<int>(service.pid), service.started_here ? " (started here)" : "",
            video.packets.size(), video.info.width, video.info.height, audio.packets.size());

    if (opt.wants("memory")) {
        note("memory");
        bench_memory(service, video);
    }
    if (opt.wants("rtt")) {
        note("round trip");
        bench_round_trip(service, opt.round_trips);
    }
    if (opt.wants("idle")) {
        note("idle clients");
        bench_idle(service);
    }
    if (opt.wants("video")) {
        note("video throughput");
        bench_video(service, video, opt.runs);
    }
    if (opt.wants("clients")) {
        note("concurrent clients");
        bench_concurrency(service, video, static_cast<size_t>(opt.clients_packets), opt.runs);
    }
    if (opt.wants("audio")) {
        note("audio");
        bench_audio(service, audio, opt.runs);
    }

    const double load_after = load_average();
    printf(
        "media-bench: %u CPUs (%s), FFmpeg libavcodec %s; %zu packets of %dx%d %s, "
        "%.0f s of %s %d Hz\n",
        std::thread::hardware_concurrency(), cpu_model().c_str(), AV_STRINGIFY(LIBAVCODEC_VERSION),
        video.packets.size(), video.info.width, video.info.height, video.info.codec_name.c_str(),
        audio.info.duration_us / 1e6, audio.info.codec_name.c_str(), audio.info.sample_rate);
    printf("load average %.2f before, %.2f after; %.0f s in all\n\n", load_before, load_after,
           seconds_since(start));
    print_table();

    service.session.close();
    if (service.started_here && !stop_process(service.pid, 5000)) {
        fprintf(stderr, "media-bench: the service (pid %d) did not stop\n",
                static_cast<int>(service.pid));
    }
    return 0;
}
