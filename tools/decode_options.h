#pragma once

// media-decode's command line: what it asks for, and how a run ends when it cannot go on.

#include <string>

namespace mediatools {

constexpr int kExitError = 1;
constexpr int kExitUsage = 2;
constexpr int kExitMismatch = 3;

struct DecodeOptions {
    std::string file;
    bool want_video = true;
    bool stream_given = false;
    int stream = 0;
    long max_packets = -1;
    int width = 0, height = 0;
    std::string pix_fmt = "yuv420p";
    std::string sample_fmt = "s16";
    int channels = 0, rate = 0;
    std::string out_path;
    bool md5 = false;
    bool null_output = false;
    bool verify = false;
    bool in_process = false;
    std::string socket;
    bool no_start = false;
    bool no_session = false;
    int timeout_ms = 20000;
    bool quiet = false;
    bool probe = false;
};

// Parses the command line; prints the help and exits for -h, fails with kExitUsage on a bad one.
DecodeOptions parse_options(int argc, char** argv);

// "media-decode: <message>" on standard error, then exit(code).
[[noreturn]] void fail(int code, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace mediatools
