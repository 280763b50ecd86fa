#pragma once

// media-decode's command line: what it asks for, and how a run ends when it cannot go on.

#include <string>

namespace mediatools {

constexpr int kExitError = 1;
constexpr int kExitUsage = 2;
constexpr int kExitMismatch = 3;
// No -v NAME given; not one of FFmpeg's levels (AV_LOG_QUIET is -8).
constexpr int kNoLogLevel = -1;

struct DecodeOptions {
    std::string file;  // the input: -i FILE or the one argument
    bool want_video = true;
    bool stream_given = false;
    int stream = 0;
    long max_packets = -1;
    int width = 0, height = 0;
    std::string pix_fmt = "yuv420p";
    std::string sample_fmt = "s16";
    int channels = 0, rate = 0;
    std::string out_path;
    bool overwrite = false;  // -y: -o may replace an existing file
    bool md5 = false;
    bool framemd5 = false;
    bool null_output = false;
    bool verify = false;
    bool in_process = false;
    std::string socket;
    bool no_start = false;
    bool no_session = false;
    int timeout_ms = 20000;
    bool quiet = false;           // also set by a log level below info
    int log_level = kNoLogLevel;  // FFmpeg's AV_LOG_* value of -v NAME / -loglevel NAME
    bool probe = false;
};

// Parses the command line; prints the help and exits for -h, fails with kExitUsage on a bad one.
DecodeOptions parse_options(int argc, char** argv);

// "media-decode: <message>" on standard error (not with -v quiet or panic), then exit(code).
[[noreturn]] void fail(int code, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace mediatools
