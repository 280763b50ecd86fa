// media-bench: measures the media service against in-process FFmpeg on this machine and prints
// one table. bench/run makes the media and runs it; see --help. The sections live in files of
// their own (sections.h); this file reads the options and runs them.

#include <getopt.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include "base/log.h"
#include "bench/bench.h"
#include "bench/sections.h"
#include "tools/media_file.h"

using namespace mediatools;
using namespace mediabench;

namespace {

const char kUsage[] =
    "Usage: media-bench --video FILE --audio FILE [options]\n"
    "\n"
    "Measures the media service against its own decoding in-process and prints one table:\n"
    "  - throughput of the video (1080p H.264) decoded through the service to the same size in\n"
    "    yuv420p and in rgba, against the same decoding and conversion in-process (the service's\n"
    "    codec over a 16 MiB area of its own, in software);\n"
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
    "    decoding 1080p;\n"
    "  - the memory ceiling: the peak of one client decoding 1080p, 4K and 8K H.264 and 8K HEVC\n"
    "    10-bit to 1080p, and a second service in a 1 GiB cgroup (--cgroup) decoding six 8K HEVC\n"
    "    clients and a 1080p one at once, the 1080p one compared with in-process decoding.\n"
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
    "  --video-4k, --video-8k, --hevc-8k FILE\n"
    "                      4K and 8K H.264 and 8K HEVC 10-bit clips for the memory ceiling\n"
    "  --cgroup DIR        a memory cgroup limited to 1 GiB for the ceiling's last row\n"
    "  --only LIST         run only these sections: memory,start,budget,rtt,idle,video,\n"
    "                      clients,audio\n"
    "  -h, --help\n";

struct Options {
    std::string video, audio, socket;
    std::string video_4k, video_8k, hevc_8k, cgroup;  // the memory ceiling's
    int runs = 3;
    int round_trips = 20000;
    int clients_packets = 120;
    std::string only;  // comma-separated sections; empty: all
    bool wants(const char* section) const {
        return only.empty() ||
               ("," + only + ",").find(std::string(",") + section + ",") != std::string::npos;
    }
};

const option kLongOptions[] = {
    {"video", required_argument, nullptr, 'V'},
    {"audio", required_argument, nullptr, 'A'},
    {"socket", required_argument, nullptr, 'S'},
    {"runs", required_argument, nullptr, 'r'},
    {"round-trips", required_argument, nullptr, 't'},
    {"clients-packets", required_argument, nullptr, 'c'},
    {"only", required_argument, nullptr, 'o'},
    {"video-4k", required_argument, nullptr, '4'},
    {"video-8k", required_argument, nullptr, '8'},
    {"hevc-8k", required_argument, nullptr, 'H'},
    {"cgroup", required_argument, nullptr, 'G'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

// Takes the value of option `c`; false when `c` is none that has one.
bool set_option(int c, const char* arg, Options* opt) {
    switch (c) {
        case 'V':
            opt->video = arg;
            return true;
        case 'A':
            opt->audio = arg;
            return true;
        case 'S':
            opt->socket = arg;
            return true;
        case 'r':
            opt->runs = std::max(1, atoi(arg));
            return true;
        case 't':
            opt->round_trips = std::max(100, atoi(arg));
            return true;
        case 'c':
            opt->clients_packets = std::max(10, atoi(arg));
            return true;
        case 'o':
            opt->only = arg;
            return true;
        case '4':
            opt->video_4k = arg;
            return true;
        case '8':
            opt->video_8k = arg;
            return true;
        case 'H':
            opt->hevc_8k = arg;
            return true;
        case 'G':
            opt->cgroup = arg;
            return true;
        default:
            return false;
    }
}

// False when main should end at once, with *exit_code: after --help or a bad command line.
bool parse_options(int argc, char** argv, Options* opt, int* exit_code) {
    int c;
    while ((c = getopt_long(argc, argv, "h", kLongOptions, nullptr)) != -1) {
        if (c == 'h') {
            fputs(kUsage, stdout);
            *exit_code = 0;
            return false;
        }
        if (!set_option(c, optarg, opt)) {
            fputs(kUsage, stderr);
            *exit_code = 2;
            return false;
        }
    }
    if (opt->video.empty() || opt->audio.empty() || optind != argc) {
        fputs(kUsage, stderr);
        *exit_code = 2;
        return false;
    }
    return true;
}

// What the sections work with.
struct Bench {
    Options opt;
    Stream video, audio;
    Stream video_4k, video_8k, hevc_8k;  // loaded when the ceiling's rows are asked for
    Service service;
};

// The ceiling's rows need their three clips.
void bench_budget(Bench& b) {
    std::string error;
    if (b.opt.video_4k.empty() || b.opt.video_8k.empty() || b.opt.hevc_8k.empty()) {
        note("memory ceiling skipped: no --video-4k, --video-8k and --hevc-8k");
        return;
    }
    if (!load_stream(b.opt.video_4k, true, 0, &b.video_4k, &error) ||
        !load_stream(b.opt.video_8k, true, 0, &b.video_8k, &error) ||
        !load_stream(b.opt.hevc_8k, true, 0, &b.hevc_8k, &error)) {
        die("%s", error.c_str());
    }
    bench_budget(b.service, {&b.video, &b.video_4k, &b.video_8k, &b.hevc_8k, b.opt.cgroup});
}

void load_media(Bench& b) {
    std::string error;
    if (!load_stream(b.opt.video, true, 0, &b.video, &error) ||
        !load_stream(b.opt.audio, false, 0, &b.audio, &error)) {
        die("%s", error.c_str());
    }
    if (video_codec_index(b.video.info.codec_name) < 0 ||
        audio_codec_index(b.audio.info.codec_name) < 0) {
        die("the clips' codecs must be in the service's tables");
    }
}

// On standard error, before the sections' progress lines.
void announce(const Bench& b) {
    fprintf(stderr, "media-bench: service pid %d%s; %zu video packets %dx%d, %zu audio packets\n",
            static_cast<int>(b.service.pid), b.service.started_here ? " (started here)" : "",
            b.video.packets.size(), b.video.info.width, b.video.info.height,
            b.audio.packets.size());
}

struct Section {
    const char* name;   // as --only names it
    const char* title;  // the progress line when it starts
    void (*run)(Bench& b);
};

// In the order of the table.
const Section kSections[] = {
    {"memory", "memory", [](Bench& b) { bench_memory(b.service, b.video); }},
    {"start", "registration", [](Bench& b) { bench_registration(b.service); }},
    {"budget", "memory ceiling", [](Bench& b) { bench_budget(b); }},
    {"rtt", "round trip", [](Bench& b) { bench_round_trip(b.service, b.opt.round_trips); }},
    {"idle", "idle clients", [](Bench& b) { bench_idle(b.service); }},
    {"video", "video throughput", [](Bench& b) { bench_video(b.service, b.video, b.opt.runs); }},
    {"clients", "concurrent clients",
     [](Bench& b) {
         bench_concurrency(b.service, b.video, static_cast<size_t>(b.opt.clients_packets),
                           b.opt.runs);
     }},
    {"audio", "audio", [](Bench& b) { bench_audio(b.service, b.audio, b.opt.runs); }},
};

void run_sections(Bench& b) {
    for (const Section& section : kSections) {
        if (b.opt.wants(section.name)) {
            note("%s", section.title);
            section.run(b);
        }
    }
}

// The machine and the media above the table.
void print_heading(const Bench& b, double load_before, Clock::time_point start) {
    const double load_after = load_average();
    printf(
        "media-bench: %u CPUs (%s), FFmpeg libavcodec %s; %zu packets of %dx%d %s, "
        "%.0f s of %s %d Hz\n",
        std::thread::hardware_concurrency(), cpu_model().c_str(), AV_STRINGIFY(LIBAVCODEC_VERSION),
        b.video.packets.size(), b.video.info.width, b.video.info.height,
        b.video.info.codec_name.c_str(), b.audio.info.duration_us / 1e6,
        b.audio.info.codec_name.c_str(), b.audio.info.sample_rate);
    printf("load average %.2f before, %.2f after; %.0f s in all\n\n", load_before, load_after,
           seconds_since(start));
}

}  // namespace

int main(int argc, char** argv) {
    SvcLogOff();  // the in-process decoding would write the service's log lines
    Bench b;
    int exit_code = 0;
    if (!parse_options(argc, argv, &b.opt, &exit_code)) {
        return exit_code;
    }
    av_log_set_level(AV_LOG_ERROR);
    // The service daemonises; as subreaper this process becomes its parent and can reap it.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    load_media(b);
    b.service.socket = b.opt.socket.empty() ? mediaclient::default_socket_path() : b.opt.socket;
    connect_service(&b.service);

    const double load_before = load_average();
    const auto start = Clock::now();
    announce(b);
    run_sections(b);
    print_heading(b, load_before, start);
    print_table();
    disconnect_service(&b.service);
    return 0;
}
