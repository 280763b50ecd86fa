#include "tools/decode_options.h"

#include <getopt.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace mediatools {

namespace {

const char kUsage[] =
    "Usage: media-decode [options] FILE  (or -i FILE)\n"
    "       media-decode --probe\n"
    "\n"
    "Demuxes FILE, sends one of its streams packet by packet through the media service (starting\n"
    "the service when it is not running) and writes what the service answers.\n"
    "\n"
    "Stream:\n"
    "  -i FILE            the input file, as ffmpeg takes it (or FILE alone)\n"
    "  -v N               decode video stream N (0 is the file's first video stream; -v NAME\n"
    "                     is a log level, see below)\n"
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
    "                     output); planar audio is written plane after plane per answer.\n"
    "                     FILE.y4m: a YUV4MPEG2 file (yuv420p, yuv422p, yuv444p or gray);\n"
    "                     FILE.wav: a WAVE file (PCM for u8, s16, s32; IEEE float for flt,\n"
    "                     dbl; planar formats are interleaved)\n"
    "  -y                 let -o replace an existing file (without -y it is refused)\n"
    "  --md5              one line per answer on standard output:\n"
    "                       packet, status, size, pts, md5\n"
    "                     status 0 = output, 1 = need more data, -1 = failed; pts in\n"
    "                     microseconds as the service returns it; md5 of the output, '-' if none\n"
    "  --framemd5         what `ffmpeg -i FILE -f framemd5 -` prints for the same output, line\n"
    "                     for line (ffmpeg's -pix_fmt, -s with -sws_flags bilinear, -c:a\n"
    "                     pcm_s16le, pcm_f32le, pcm_s16le_planar, ...), except where the\n"
    "                     service differs: it cannot drain a decoder, so the last pictures a\n"
    "                     video decoder holds back are missing; it has no gapless trimming,\n"
    "                     so audio keeps the encoder's first frame (AAC's priming frame, which\n"
    "                     ffmpeg drops) and whole first and last frames where ffmpeg shortens\n"
    "                     them (MP3), and audio timestamps are the service's, shifted from\n"
    "                     ffmpeg's by what it trims; at another --rate the frames differ\n"
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
    "  -q, --quiet        no stream lines, no progress line, no summary\n"
    "  -v LEVEL, -loglevel LEVEL\n"
    "                     quiet, panic, fatal, error, warning, info, verbose, debug or trace:\n"
    "                     FFmpeg's log level; below info as -q, and quiet or panic also\n"
    "                     silence the error line (the exit status remains); a number after\n"
    "                     -v selects a video stream (default: media-decode's lines as at info,\n"
    "                     FFmpeg's own messages at error)\n"
    "  --probe            list the hardware device types that open on this host and the codecs\n"
    "                     that would get a hardware decoder, then exit (also: media-probe)\n"
    "  --version          media-decode's version and the FFmpeg libraries', as built / as run\n"
    "  -h, --help         this text\n"
    "\n"
    "Runs share one service. A run that finds the service running uses it and leaves it\n"
    "alone. A run that finds none starts one, with a small process as its session client that\n"
    "ends the service once no run uses it any more; runs started meanwhile, in any order,\n"
    "share it (they meet in a lock file beside the socket, <socket>.lock).\n"
    "\n"
    "The service may decode on a hardware device (see --probe); --verify compares with software\n"
    "decoding and may then report differences that are not faults. A line names the decoder:\n"
    "software, or the device types the service tries first (it does not say which served).\n"
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

// FFmpeg's log level names (ffmpeg -v), with their AV_LOG_* values.
struct LogLevel {
    const char* name;
    int level;
};
const LogLevel kLogLevels[] = {
    {"quiet", AV_LOG_QUIET},     {"panic", AV_LOG_PANIC},     {"fatal", AV_LOG_FATAL},
    {"error", AV_LOG_ERROR},     {"warning", AV_LOG_WARNING}, {"info", AV_LOG_INFO},
    {"verbose", AV_LOG_VERBOSE}, {"debug", AV_LOG_DEBUG},     {"trace", AV_LOG_TRACE},
};

// Whether fail() stays silent: -v quiet or panic, as in ffmpeg.
bool errors_silenced = false;

void set_log_level(DecodeOptions& o, const char* text, const char* option) {
    for (const LogLevel& l : kLogLevels) {
        if (strcmp(text, l.name) == 0) {
            o.log_level = l.level;
            o.quiet = o.quiet || l.level < AV_LOG_INFO;
            errors_silenced = l.level < AV_LOG_FATAL;
            return;
        }
    }
    fail(kExitUsage,
         "bad value '%s' for %s (a log level: quiet, panic, fatal, error, warning, info, verbose, "
         "debug, trace%s)",
         text, option, strcmp(option, "-v") == 0 ? "; or a video stream number" : "");
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

// -v takes what ffmpeg's -v does, a log level name, or a video stream number.
void video_or_level(DecodeOptions& o, const char* text) {
    if (*text >= '0' && *text <= '9') {
        select_stream(o, true, text);
    } else {
        set_log_level(o, text, "-v");
    }
}

void set_input(DecodeOptions& o, const char* text) {
    if (!o.file.empty()) {
        fail(kExitUsage, "give one input file (see --help)");
    }
    o.file = text;
}

// The versions, in ffmpeg -version's layout: each library as built / as run.
[[noreturn]] void print_version() {
    printf("media-decode %s\nFFmpeg %s\n", MEDIA_DECODE_VERSION, av_version_info());
    const struct {
        const char* name;
        unsigned built, running;
    } libs[] = {
        {"avutil", LIBAVUTIL_VERSION_INT, avutil_version()},
        {"avcodec", LIBAVCODEC_VERSION_INT, avcodec_version()},
        {"avformat", LIBAVFORMAT_VERSION_INT, avformat_version()},
        {"swscale", LIBSWSCALE_VERSION_INT, swscale_version()},
        {"swresample", LIBSWRESAMPLE_VERSION_INT, swresample_version()},
    };
    for (const auto& l : libs) {
        printf("lib%-11s %2u.%3u.%3u / %2u.%3u.%3u\n", l.name, l.built >> 16, (l.built >> 8) & 0xff,
               l.built & 0xff, l.running >> 16, (l.running >> 8) & 0xff, l.running & 0xff);
    }
    exit(0);
}

const Rule kRules[] = {
    {nullptr, required_argument, 'i', set_input},
    {nullptr, required_argument, 'v', video_or_level},
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
    {nullptr, no_argument, 'y', [](DecodeOptions& o, const char*) { o.overwrite = true; }},
    {"md5", no_argument, 261, [](DecodeOptions& o, const char*) { o.md5 = true; }},
    {"framemd5", no_argument, 270, [](DecodeOptions& o, const char*) { o.framemd5 = true; }},
    {"loglevel", required_argument, 271,
     [](DecodeOptions& o, const char* v) { set_log_level(o, v, "-loglevel"); }},
    {"version", no_argument, 272, [](DecodeOptions&, const char*) { print_version(); }},
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
    for (int i = optind; i < argc; ++i) {
        set_input(o, argv[i]);
    }
    if (o.file.empty()) {
        fail(kExitUsage, "no input file (see --help)");
    }
    if (o.null_output + o.md5 + o.framemd5 + !o.out_path.empty() > 1) {
        fail(kExitUsage, "give only one of -o, --md5, --framemd5 and --null");
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
    if (errors_silenced) {
        exit(code);
    }
    fputs("media-decode: ", stderr);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputc('\n', stderr);
    exit(code);
}

// FFmpeg's spellings with one dash, as its users type them.
void accept_single_dash(int argc, char** argv) {
    static char loglevel[] = "--loglevel", version[] = "--version";
    for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; ++i) {
        if (strcmp(argv[i], "-loglevel") == 0) {
            argv[i] = loglevel;
        } else if (strcmp(argv[i], "-version") == 0) {
            argv[i] = version;
        }
    }
}

DecodeOptions parse_options(int argc, char** argv) {
    accept_single_dash(argc, argv);
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
