// media-bench: measures the media service against in-process FFmpeg on this machine and prints
// one table. bench/run makes the media and runs it; see --help.

#include <dirent.h>
#include <getopt.h>
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
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
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
#include "tools/service_link.h"

using namespace mediatools;
using Clock = std::chrono::steady_clock;

namespace {

const char kUsage[] =
    "Usage: media-bench --video FILE --audio FILE [options]\n"
    "\n"
    "Measures the media service against in-process FFmpeg and prints one table:\n"
    "  - throughput of the video (1080p H.264) decoded through the service to the same size in\n"
    "    yuv420p and in rgba, against the same work in-process (decode, conversion, a picture\n"
    "    buffer per picture, copy into a 16 MiB area, rest of the area zeroed; one thread, like\n"
    "    the service), and against a plain in-process decode + conversion without the copy;\n"
    "  - the round trip of a request that decodes nothing (flush without a decoder), median and\n"
    "    99th percentile, against a bare sequenced-packet ping-pong between two processes;\n"
    "  - aggregate throughput with 1, 2, 4 and 8 concurrent decoder clients (and, for scale, the\n"
    "    same number of in-process decoding threads);\n"
    "  - audio (AAC 48 kHz stereo) to s16 44.1 kHz stereo as a real-time factor, against\n"
    "    in-process;\n"
    "  - the service's resident memory idle, per registered decoder client, and per client\n"
    "    decoding 1080p.\n"
    "\n"
    "Options:\n"
    "  --video FILE        1080p H.264 clip\n"
    "  --audio FILE        AAC 48 kHz stereo clip\n"
    "  --socket PATH       service socket (default: the service's own path); a service that is\n"
    "                      not running there is started, and stopped at the end\n"
    "  --runs N            passes per figure; the best is reported (default 5)\n"
    "  --round-trips N     requests per round-trip figure (default 20000)\n"
    "  --clients-packets N packets per client in the concurrency test (default 120)\n"
    "  --only LIST         run only these sections: memory,rtt,video,clients,audio\n"
    "  -h, --help\n";

struct Options {
    std::string video, audio, socket;
    int runs = 5;
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

// Interference from other work on the machine only ever slows a pass down, so the best of
// several passes is the closest to the undisturbed figure.
double best(const std::vector<double>& v) {
    return v.empty() ? 0 : *std::max_element(v.begin(), v.end());
}
double least(const std::vector<double>& v) {
    return v.empty() ? 0 : *std::min_element(v.begin(), v.end());
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

struct Rss {
    long total = 0, anon = 0, file = 0, shmem = 0;  // KiB
};

Rss read_rss(pid_t pid) {
    Rss rss;
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    long value;
    while (in >> key) {
        if (key == "VmRSS:" && in >> value) {
            rss.total = value;
        } else if (key == "RssAnon:" && in >> value) {
            rss.anon = value;
        } else if (key == "RssFile:" && in >> value) {
            rss.file = value;
        } else if (key == "RssShmem:" && in >> value) {
            rss.shmem = value;
        }
        in.ignore(1 << 20, '\n');
    }
    return rss;
}

// CPU time of every thread of a process, in seconds (scheduler run time, nanosecond resolution).
// Threads that end in between are lost, so measure while the clients stay connected.
double process_cpu(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    double total = 0;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return 0;
    }
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') {
            continue;
        }
        std::ifstream in(dir + "/" + e->d_name + "/schedstat");
        double ns = 0;
        if (in >> ns) {
            total += ns / 1e9;
        }
    }
    closedir(d);
    return total;
}

double thread_cpu() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

struct Clip {
    StreamInfo info;
    std::vector<Packet> packets;
};

void init_video(mediaclient::DecoderClient& client, const Clip& clip, int pix_fmt) {
    mediaclient::VideoInitParams p;
    p.coded_width = clip.info.width;
    p.coded_height = clip.info.height;
    p.coded_pix_fmt = clip.info.pix_fmt;
    p.out_width = clip.info.width;
    p.out_height = clip.info.height;
    p.out_pix_fmt = pix_fmt;
    ExchangeResult r{};
    check(client.init_video(static_cast<uint32_t>(video_codec_index(clip.info.codec_name)), p,
                            clip.info.extradata.data(), clip.info.extradata.size(), &r),
          "video init");
    if (r.status != STATUS_OK) {
        die("the service could not set up the video decoder");
    }
}

// Decodes `count` packets through the service; returns the pictures delivered.
long service_video_pass(mediaclient::DecoderClient& client, const Clip& clip, size_t count) {
    long outputs = 0;
    ExchangeResult r{};
    for (size_t i = 0; i < count && i < clip.packets.size(); ++i) {
        const Packet& p = clip.packets[i];
        check(client.decode_frame(p.data.data(), p.data.size(), p.pts_us, &r), "decode");
        outputs += r.status == STATUS_OK && r.output_size > 0;
    }
    return outputs;
}

long local_video_pass(LocalVideoDecoder& decoder, const Clip& clip, size_t count) {
    long outputs = 0;
    for (size_t i = 0; i < count && i < clip.packets.size(); ++i) {
        const Packet& p = clip.packets[i];
        Answer a = decoder.decode(p.data.data(), static_cast<int>(p.data.size()), p.pts_us);
        outputs += a.status == STATUS_OK && a.size > 0;
    }
    return outputs;
}

void open_local(LocalVideoDecoder& decoder, const Clip& clip, int pix_fmt,
                LocalVideoDecoder::Output mode) {
    std::string error;
    if (!decoder.open(clip.info, clip.info.width, clip.info.height, pix_fmt, mode, &error)) {
        die("in-process decoder: %s", error.c_str());
    }
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

void bench_memory(Service& s, const Clip& clip) {
    const int kClients = 4;
    Rss idle = read_rss(s.pid);
    rows.push_back(
        {"memory: service RSS, idle (session only)", fmt("%.1f MiB", idle.total / 1024.0),
         fmt("anon %.1f, file %.1f MiB", idle.anon / 1024.0, idle.file / 1024.0), "", ""});

    std::vector<std::unique_ptr<mediaclient::DecoderClient>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back(new mediaclient::DecoderClient());
        check(clients.back()->connect_posix(s.socket), "decoder client");
        // The answer proves the registration and a running worker.
        check(clients.back()->flush(), "flush");
    }
    Rss registered = read_rss(s.pid);
    rows.push_back({"memory: per registered decoder client",
                    fmt("%.0f KiB", double(registered.total - idle.total) / kClients),
                    fmt("%d clients, anon %+.0f KiB each", kClients,
                        double(registered.anon - idle.anon) / kClients),
                    "", ""});

    for (auto& c : clients) {
        init_video(*c, clip, AV_PIX_FMT_YUV420P);
        service_video_pass(*c, clip, 10);
    }
    Rss decoding = read_rss(s.pid);
    rows.push_back({"memory: per client decoding 1080p H.264 to yuv420p",
                    fmt("%.1f MiB", double(decoding.total - idle.total) / kClients / 1024.0),
                    fmt("anon %.1f + shared block %.1f MiB",
                        double(decoding.anon - idle.anon) / kClients / 1024.0,
                        double(decoding.shmem - idle.shmem) / kClients / 1024.0),
                    "", ""});
    clients.clear();
}

void bench_round_trip(Service& s, int count) {
    // Service: a flush on a client without a decoder executes nothing but the dispatch.
    mediaclient::DecoderClient client;
    check(client.connect_posix(s.socket), "decoder client");
    check(client.write_request_type(REQUEST_FLUSH), "request");
    std::vector<double> service_us;
    service_us.reserve(count);
    for (int i = 0; i < count / 10 + count; ++i) {
        auto t0 = Clock::now();
        check(client.call(), "round trip");
        if (i >= count / 10) {
            service_us.push_back(seconds_since(t0) * 1e6);
        }
    }
    client.close();

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
    std::vector<double> bare_us;
    bare_us.reserve(count);
    for (int i = 0; i < count / 10 + count; ++i) {
        char byte = 'D';
        auto t0 = Clock::now();
        if (write(sv[0], &byte, 1) != 1 || read(sv[0], &byte, 1) != 1) {
            die("ping-pong: %s", strerror(errno));
        }
        if (i >= count / 10) {
            bare_us.push_back(seconds_since(t0) * 1e6);
        }
    }
    close(sv[0]);
    waitpid(child, nullptr, 0);

    std::sort(service_us.begin(), service_us.end());
    std::sort(bare_us.begin(), bare_us.end());
    const double s50 = percentile(service_us, 0.5), b50 = percentile(bare_us, 0.5);
    const double s99 = percentile(service_us, 0.99), b99 = percentile(bare_us, 0.99);
    rows.push_back({fmt("round trip, empty request, median (%d)", count), fmt("%.1f us", s50),
                    fmt("ping-pong %.1f us", b50), fmt("%.2fx", s50 / b50),
                    verdict(s50 <= 3 * b50, "<= 3x")});
    rows.push_back({"round trip, empty request, 99th percentile", fmt("%.1f us", s99),
                    fmt("ping-pong %.1f us", b99), fmt("%.2fx", s99 / b99), ""});
}

void bench_video(Service& s, const Clip& clip, int runs) {
    for (int pix_fmt : {static_cast<int>(AV_PIX_FMT_YUV420P), static_cast<int>(AV_PIX_FMT_RGBA)}) {
        const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(pix_fmt));
        std::vector<double> service_fps, same_fps, plain_fps, direct_fps, service_cpu, same_cpu;
        mediaclient::DecoderClient client;
        check(client.connect_posix(s.socket), "decoder client");
        // Warm-up: page faults of the areas, conversion tables, code.
        init_video(client, clip, pix_fmt);
        service_video_pass(client, clip, 20);
        {
            LocalVideoDecoder warm;
            open_local(warm, clip, pix_fmt, LocalVideoDecoder::Output::kLikeService);
            local_video_pass(warm, clip, 20);
        }
        for (int run = 0; run < runs; ++run) {
            // Passes interleave so that drift in the machine's speed hits all three alike.
            init_video(client, clip, pix_fmt);
            double cpu0 = process_cpu(s.pid) + thread_cpu();
            auto t0 = Clock::now();
            long n = service_video_pass(client, clip, clip.packets.size());
            service_fps.push_back(n / seconds_since(t0));
            service_cpu.push_back((process_cpu(s.pid) + thread_cpu() - cpu0) * 1e3 / n);

            LocalVideoDecoder same;
            open_local(same, clip, pix_fmt, LocalVideoDecoder::Output::kLikeService);
            cpu0 = thread_cpu();
            t0 = Clock::now();
            n = local_video_pass(same, clip, clip.packets.size());
            same_fps.push_back(n / seconds_since(t0));
            same_cpu.push_back((thread_cpu() - cpu0) * 1e3 / n);

            LocalVideoDecoder plain;
            open_local(plain, clip, pix_fmt, LocalVideoDecoder::Output::kScaleOnly);
            t0 = Clock::now();
            n = local_video_pass(plain, clip, clip.packets.size());
            plain_fps.push_back(n / seconds_since(t0));

            LocalVideoDecoder direct;
            open_local(direct, clip, pix_fmt, LocalVideoDecoder::Output::kDirect);
            t0 = Clock::now();
            n = local_video_pass(direct, clip, clip.packets.size());
            direct_fps.push_back(n / seconds_since(t0));
            note(
                "%s run %d: service %.1f fps (%.2f ms CPU/picture), in-process same work %.1f "
                "fps (%.2f ms), decode+convert %.1f fps, converting into the area %.1f fps",
                name, run + 1, service_fps.back(), service_cpu.back(), same_fps.back(),
                same_cpu.back(), plain_fps.back(), direct_fps.back());
        }
        const double sv = best(service_fps), same = best(same_fps), plain = best(plain_fps);
        rows.push_back({fmt("%dp H.264 -> %s, same work in-process", clip.info.height, name),
                        fmt("%.1f fps", sv), fmt("%.1f fps", same), fmt("%.3f", sv / same),
                        verdict(sv / same >= 0.95, ">= 0.95")});
        rows.push_back(
            {fmt("%dp H.264 -> %s, in-process decode+convert only", clip.info.height, name),
             fmt("%.1f fps", sv), fmt("%.1f fps", plain), fmt("%.3f", sv / plain), ""});
        const double direct = best(direct_fps);
        rows.push_back(
            {fmt("%dp H.264 -> %s, in-process converting into the area", clip.info.height, name),
             fmt("%.1f fps", sv), fmt("%.1f fps", direct), fmt("%.3f", sv / direct), ""});
        const double scpu = least(service_cpu), lcpu = least(same_cpu);
        rows.push_back(
            {fmt("%dp H.264 -> %s, CPU per picture (service+client)", clip.info.height, name),
             fmt("%.2f ms", scpu), fmt("%.2f ms same work", lcpu), fmt("%.3f", lcpu / scpu), ""});
    }
}

// CPU time of a whole process in seconds, threads that have ended included (clock ticks).
double process_cpu_total(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t paren = text.rfind(')');
    if (paren == std::string::npos) {
        return 0;
    }
    // Fields after the command name: state is field 3, utime 14 and stime 15.
    std::istringstream fields(text.substr(paren + 2));
    std::string field;
    double utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) {
            utime = atof(field.c_str());
        } else if (i == 15) {
            stime = atof(field.c_str());
        }
    }
    return (utime + stime) / sysconf(_SC_CLK_TCK);
}

double own_process_cpu() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

struct PassResult {
    double fps = 0;
    double cpu_ms = 0;  // per picture: the service's (with its clients) or this process's
};

// Runs `clients` decoders at once, each on its own thread, through the service or in-process
// (`s` null).
PassResult concurrent_pass(Service* s, const Clip& clip, int clients, size_t packets) {
    std::mutex m;
    std::condition_variable cv;
    int ready = 0;
    bool go = false;
    std::atomic<long> outputs{0};
    std::vector<std::thread> threads;
    std::vector<Clock::time_point> finished(clients);
    Clock::time_point start;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            std::unique_ptr<mediaclient::DecoderClient> client;
            std::unique_ptr<LocalVideoDecoder> local;
            if (s != nullptr) {
                client.reset(new mediaclient::DecoderClient());
                check(client->connect_posix(s->socket), "decoder client");
                init_video(*client, clip, AV_PIX_FMT_YUV420P);
            } else {
                local.reset(new LocalVideoDecoder());
                open_local(*local, clip, AV_PIX_FMT_YUV420P,
                           LocalVideoDecoder::Output::kLikeService);
            }
            {
                std::unique_lock<std::mutex> lock(m);
                ++ready;
                cv.notify_all();
                cv.wait(lock, [&] { return go; });
            }
            outputs += client ? service_video_pass(*client, clip, packets)
                              : local_video_pass(*local, clip, packets);
            finished[i] = Clock::now();
        });
    }
    double cpu0;
    {
        std::unique_lock<std::mutex> lock(m);
        cv.wait(lock, [&] { return ready == clients; });
        cpu0 = own_process_cpu() + (s != nullptr ? process_cpu_total(s->pid) : 0);
        go = true;
        start = Clock::now();
        cv.notify_all();
    }
    for (auto& t : threads) {
        t.join();
    }
    const double cpu = own_process_cpu() + (s != nullptr ? process_cpu_total(s->pid) : 0) - cpu0;
    const double wall =
        std::chrono::duration<double>(*std::max_element(finished.begin(), finished.end()) - start)
            .count();
    return PassResult{outputs / wall, cpu * 1e3 / std::max(1L, outputs.load())};
}

void bench_concurrency(Service& s, const Clip& clip, size_t packets, int runs) {
    double one = 0;
    for (int clients : {1, 2, 4, 8}) {
        std::vector<double> service_fps, local_fps, service_cpu, local_cpu;
        for (int run = 0; run < runs; ++run) {
            PassResult r = concurrent_pass(&s, clip, clients, packets);
            service_fps.push_back(r.fps);
            service_cpu.push_back(r.cpu_ms);
            r = concurrent_pass(nullptr, clip, clients, packets);
            local_fps.push_back(r.fps);
            local_cpu.push_back(r.cpu_ms);
            note(
                "%d clients run %d: service %.1f fps (%.2f ms CPU/picture), in-process threads "
                "%.1f fps (%.2f ms)",
                clients, run + 1, service_fps.back(), service_cpu.back(), local_fps.back(),
                local_cpu.back());
        }
        const double sv = best(service_fps), local = best(local_fps);
        if (clients == 1) {
            one = sv;
        }
        rows.push_back({fmt("%d concurrent decoder client%s, aggregate (yuv420p)", clients,
                            clients > 1 ? "s" : ""),
                        fmt("%.1f fps", sv), fmt("%d in-process threads %.1f fps", clients, local),
                        clients == 1 ? "1.00x" : fmt("%.2fx", sv / one),
                        clients == 2 ? verdict(sv / one >= 1.8, ">= 1.8x of 1 client") : ""});
        rows.push_back(
            {fmt("%d client%s, CPU per picture (service+client)", clients, clients > 1 ? "s" : ""),
             fmt("%.2f ms", least(service_cpu)), fmt("%.2f ms in-process", least(local_cpu)), "",
             ""});
    }
}

void bench_audio(Service& s, const Clip& clip, int runs) {
    const int out_fmt = AV_SAMPLE_FMT_S16, out_channels = 2, out_rate = 44100;
    mediaclient::DecoderClient client;
    check(client.connect_posix(s.socket), "decoder client");
    const double duration = clip.info.duration_us > 0 ? clip.info.duration_us / 1e6 : 0;
    std::vector<double> service_rtf, local_rtf, service_cpu, local_cpu;
    for (int run = 0; run < runs + 1; ++run) {
        mediaclient::AudioInitParams p;
        p.in_sample_fmt = clip.info.sample_fmt;
        p.in_channels = clip.info.channels;
        p.in_sample_rate = clip.info.sample_rate;
        p.out_sample_fmt = out_fmt;
        p.out_channels = out_channels;
        p.out_sample_rate = out_rate;
        ExchangeResult r{};
        check(client.init_audio(static_cast<uint32_t>(audio_codec_index(clip.info.codec_name)), p,
                                clip.info.extradata.data(), clip.info.extradata.size(), &r),
              "audio init");
        if (r.status != STATUS_OK) {
            die("the service could not set up the audio decoder");
        }
        double cpu0 = process_cpu(s.pid) + thread_cpu();
        auto t0 = Clock::now();
        for (const Packet& pk : clip.packets) {
            check(client.decode_frame(pk.data.data(), pk.data.size(), pk.pts_us, &r), "decode");
        }
        const double sv = duration / seconds_since(t0);
        const double scpu = (process_cpu(s.pid) + thread_cpu() - cpu0) * 1e6 / clip.packets.size();

        LocalAudioDecoder local;
        std::string error;
        if (!local.open(clip.info, out_fmt, out_channels, out_rate, &error)) {
            die("in-process audio decoder: %s", error.c_str());
        }
        cpu0 = thread_cpu();
        t0 = Clock::now();
        for (const Packet& pk : clip.packets) {
            local.decode(pk.data.data(), static_cast<int>(pk.data.size()), pk.pts_us);
        }
        const double lo = duration / seconds_since(t0);
        const double lcpu = (thread_cpu() - cpu0) * 1e6 / clip.packets.size();
        if (run > 0) {  // the first run warms up
            service_rtf.push_back(sv);
            local_rtf.push_back(lo);
            service_cpu.push_back(scpu);
            local_cpu.push_back(lcpu);
        }
    }
    const double sv = best(service_rtf), lo = best(local_rtf);
    rows.push_back({fmt("AAC %d Hz %d ch -> s16 44100 Hz 2 ch, x real time", clip.info.sample_rate,
                        clip.info.channels),
                    fmt("%.0fx", sv), fmt("%.0fx in-process", lo), fmt("%.3f", sv / lo), ""});
    const double scpu = least(service_cpu), lcpu = least(local_cpu);
    rows.push_back({"AAC, CPU per packet (service+client)", fmt("%.0f us", scpu),
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

    Clip video, audio;
    std::string error;
    if (!load_stream(opt.video, true, 0, &video.info, &video.packets, &error) ||
        !load_stream(opt.audio, false, 0, &audio.info, &audio.packets, &error)) {
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
    if (opt.wants("video")) {
        note("video throughput");
        bench_video(service, video, opt.runs);
    }
    if (opt.wants("clients")) {
        note("concurrent clients");
        bench_concurrency(service, video, static_cast<size_t>(opt.clients_packets),
                          std::min(opt.runs, 3));
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
