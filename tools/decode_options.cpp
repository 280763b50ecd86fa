#include "tools/decode_options.h"

#include <getopt.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace mediatools {

namespace {

const char kUsage[] =
    "Usage: media-decode [options] FILE\n"
    "       media-decode --probe\n"
    "\n"
    "Demuxes FILE, sends one of its streams packet by packet through the media service (starting\n"
    "the service when it is not running) and writes what the service answers.\n"
    "\n"
    "Stream:\n"
    "  -v N               decode video stream N (0 is the file's first video stream)\n"
    "  -a N               decode audio stream N\n"
    "                     (default: the first video stream, else the first audio stream)\n"
    "  -n, --packets N    stop after N packets\n"
    "\n"
    "Video output (FFmpeg names, as `ffmpeg -pix_fmts` lists them):\n"
    "  --size WxH         picture size (default: the stream's coded size)\n"
    "  --pix-fmt NAME     pixel format (default: yuv420p), e.g. rgba, nv12, bgr24\n"
    "\n"
    "Audio output (FFmpeg names, as `ffmpeg -sample_fmts` lists them):\n"
    "  --sample-fmt NAME  sample format (default: s16), e.g. flt, s32, s16p\n"
    "  --channels N       channel count (default: the stream's)\n"
    "  --rate HZ          sample rate (default: the stream's)\n"
    "\n"
    "What to write:\n"
    "  -o FILE            the decoded pictures or samples, one after the other ('-': standard\n"
    "                     output); planar audio is written plane after plane per answer\n"
    "  --md5              one line per answer on standard output:\n"
    "                       packet, status, size, pts, md5\n"
    "                     status 0 = output, 1 = need more data, -1 = failed; pts in\n"
    "                     microseconds as the service returns it; md5 of the output, '-' if none\n"
    "  --null             write nothing (the default)\n"
    "  --verify           decode the same packets in-process as well, with the service's own\n"
    "                     decoding in software, and report the first answer that differs\n"
    "  --in-process       decode in-process only, without the service (same outputs as above)\n"
    "\n"
    "Service:\n"
    "  --socket PATH      the service's socket (default: $XDG_RUNTIME_DIR/vessa/sockets/\n"
    "                     media-service.socket, or /run/user/<uid>/... without XDG_RUNTIME_DIR)\n"
    "  --no-start         do not start the service when nothing listens on the socket\n"
    "  --no-session       start the service, when nothing listens, without a session client:\n"
    "                     it then keeps running after the last run, until SIGTERM\n"
    "  --timeout SEC      longest wait for one answer (default: 20)\n"
    "\n"
    "Other:\n"
    "  -q, --quiet        no progress line, no summary\n"
    "  --probe            list the hardware device types that open on this host and the codecs\n"
    "                     that would get a hardware decoder, then exit (also: media-probe)\n"
    "  -h, --help         this text\n"
    "\n"
    "Runs share one service. A run that finds the service running uses it and leaves it\n"
    "alone. A run that finds none starts one, with a small process as its session client that\n"
    "ends the service once no run uses it any more; runs started meanwhile, in any order,\n"
    "share it (they meet in a lock file beside the socket, <socket>.lock).\n"
    "\n"
    "The service may decode on a hardware device (see --probe); --verify compares with software\n"
    "decoding and may then report differences that are not faults.\n"
    "\n"
    "On a terminal a progress line shows outputs, outputs per second and the part of the file\n"
    "read; a summary follows at the end (packets, outputs, need-more-data answers, failures,\n"
    "wall time). Errors are one line on standard error.\n"
    "\n"
    "Exit status: 0 done; 1 error (file, stream, codec, service); 2 bad usage; 3 --verify found\n"
    "a difference.\n";

long parse_number(const char* text, const char* option, long min) {
    char* end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < min || value > INT32_MAX) {
        fail(kExitUsage, "bad value '%s' for %s", text, option);
    }
    return value;
}

int parse_int(const char* text, const char* option, long min) {
    return static_cast<int>(parse_number(text, option, min));
}

void parse_size(DecodeOptions& o, const char* text) {
    int w = 0, h = 0;
    char extra = 0;
    if (sscanf(text, "%dx%d%c", &w, &h, &extra) != 2 || w <= 0 || h <= 0) {
        fail(kExitUsage, "bad size '%s' (want WxH, e.g. 1280x720)", text);
    }
    o.width = w;
    o.height = h;
}

void select_stream(DecodeOptions& o, bool video, const char* text) {
    if (o.stream_given) {
        fail(kExitUsage, "give one of -v and -a");
    }
    o.stream_given = true;
    o.want_video = video;
    o.stream = parse_int(text, video ? "-v" : "-a", 0);
}

// One option: its long name (null for a short one alone), whether it takes a value, its short
// letter or a number of its own, and what it sets.
struct Rule {
    const char* name;
    int has_arg;
    int code;
    void (*apply)(DecodeOptions& o, const char* value);
};

const Rule kRules[] = {
    {nullptr, required_argument, 'v',
     [](DecodeOptions& o, const char* v) { select_stream(o, true, v); }},
    {nullptr, required_argument, 'a',
     [](DecodeOptions& o, const char* v) { select_stream(o, false, v); }},
    {"packets", required_argument, 'n',
     [](DecodeOptions& o, const char* v) { o.max_packets = parse_number(v, "--packets", 0); }},
    {"size", required_argument, 256, parse_size},
    {"pix-fmt", required_argument, 257, [](DecodeOptions& o, const char* v) { o.pix_fmt = v; }},
    {"sample-fmt", required_argument, 258,
     [](DecodeOptions& o, const char* v) { o.sample_fmt = v; }},
    {"channels", required_argument, 259,
     [](DecodeOptions& o, const char* v) { o.channels = parse_int(v, "--channels", 1); }},
    {"rate", required_argument, 260,
     [](DecodeOptions& o, const char* v) { o.rate = parse_int(v, "--rate", 1); }},
    {nullptr, required_argument, 'o', [](DecodeOptions& o, const char* v) { o.out_path = v; }},
    {"md5", no_argument, 261, [](DecodeOptions& o, const char*) { o.md5 = true; }},
    {"null", no_argument, 262, [](DecodeOptions& o, const char*) { o.null_output = true; }},
    {"verify", no_argument, 263, [](DecodeOptions& o, const char*) { o.verify = true; }},
    {"in-process", no_argument, 264, [](DecodeOptions& o, const char*) { o.in_process = true; }},
    {"socket", required_argument, 265, [](DecodeOptions& o, const char* v) { o.socket = v; }},
    {"no-start", no_argument, 266, [](DecodeOptions& o, const char*) { o.no_start = true; }},
    {"no-session", no_argument, 267, [](DecodeOptions& o, const char*) { o.no_session = true; }},
    {"timeout", required_argument, 268,
     [](DecodeOptions& o, const char* v) { o.timeout_ms = parse_int(v, "--timeout", 1) * 1000; }},
    {"quiet", no_argument, 'q', [](DecodeOptions& o, const char*) { o.quiet = true; }},
    {"probe", no_argument, 269, [](DecodeOptions& o, const char*) { o.probe = true; }},
    {"help", no_argument, 'h',
     [](DecodeOptions&, const char*) {
         fputs(kUsage, stdout);
         exit(0);
     }},
};

// The options that cannot go together, and the one input file.
void check_combination(DecodeOptions& o, int argc, char** argv) {
    if (optind != argc - 1) {
        fail(kExitUsage, optind >= argc ? "no input file (see --help)"
                                        : "give exactly one input file (see --help)");
    }
    o.file = argv[optind];
    if (o.null_output + o.md5 + !o.out_path.empty() > 1) {
        fail(kExitUsage, "give only one of -o, --md5 and --null");
    }
    if (o.verify && o.in_process) {
        fail(kExitUsage, "--verify compares with the service; it cannot go with --in-process");
    }
    if (o.md5 && o.out_path == "-") {
        fail(kExitUsage, "--md5 and -o - both write to standard output");
    }
}

}  // namespace

void fail(int code, const char* fmt, ...) {
    fputs("media-decode: ", stderr);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputc('\n', stderr);
    exit(code);
}

DecodeOptions parse_options(int argc, char** argv) {
    std::vector<option> long_options;
    std::string short_options = ":";
    for (const Rule& r : kRules) {
        if (r.name != nullptr) {
            long_options.push_back({r.name, r.has_arg, nullptr, r.code});
        }
        if (r.code < 256) {
            short_options += static_cast<char>(r.code);
            short_options += r.has_arg == required_argument ? ":" : "";
        }
    }
    long_options.push_back({nullptr, 0, nullptr, 0});
    DecodeOptions o;
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, short_options.c_str(), long_options.data(), nullptr)) !=
           -1) {
        const Rule* rule = nullptr;
        for (const Rule& r : kRules) {
            rule = r.code == c ? &r : rule;
        }
        if (c == ':') {
            fail(kExitUsage, "option %s needs a value (see --help)", argv[optind - 1]);
        } else if (rule == nullptr) {
            fail(kExitUsage, "unknown option %s (see --help)", argv[optind - 1]);
        }
        rule->apply(o, optarg);
    }
    if (!o.probe) {
        check_combination(o, argc, argv);
    }
    return o;
}

}  // namespace mediatools
