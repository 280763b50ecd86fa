// media-decode: decodes one stream of a media file through the media service.

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

extern "C" {
#include <libavutil/log.h>
#include <libavutil/md5.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include "client/media_client.h"
#include "decoder/exchange_block.h"
#include "decoder/ffmpeg_protocol.h"
#include "tools/hw_probe.h"
#include "tools/local_decoder.h"
#include "tools/media_file.h"
#include "tools/service_lease.h"
#include "tools/service_link.h"

using namespace mediatools;

namespace {

constexpr int kExitError = 1;
constexpr int kExitUsage = 2;
constexpr int kExitMismatch = 3;

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
    "  --verify           decode the same packets in-process with FFmpeg as well, doing what the\n"
    "                     service does in software, and report the first answer that differs\n"
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

struct Options {
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
    bool verify = false;
    bool in_process = false;
    std::string socket;
    bool no_start = false;
    bool no_session = false;
    int timeout_ms = 20000;
    bool quiet = false;
    bool probe = false;
};

void print_error(const char* fmt, va_list ap) {
    fputs("media-decode: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
}

[[noreturn]] void fail(int code, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    print_error(fmt, ap);
    va_end(ap);
    exit(code);
}

long parse_number(const char* text, const char* option, long min) {
    char* end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < min || value > INT32_MAX) {
        fail(kExitUsage, "bad value '%s' for %s", text, option);
    }
    return value;
}

Options parse_options(int argc, char** argv) {
    enum {
        kSize = 256,
        kPixFmt,
        kSampleFmt,
        kChannels,
        kRate,
        kMd5,
        kNull,
        kVerify,
        kInProcess,
        kSocket,
        kNoStart,
        kNoSession,
        kTimeout,
        kProbe,
    };
    static const option long_options[] = {
        {"packets", required_argument, nullptr, 'n'},
        {"size", required_argument, nullptr, kSize},
        {"pix-fmt", required_argument, nullptr, kPixFmt},
        {"sample-fmt", required_argument, nullptr, kSampleFmt},
        {"channels", required_argument, nullptr, kChannels},
        {"rate", required_argument, nullptr, kRate},
        {"md5", no_argument, nullptr, kMd5},
        {"null", no_argument, nullptr, kNull},
        {"verify", no_argument, nullptr, kVerify},
        {"in-process", no_argument, nullptr, kInProcess},
        {"socket", required_argument, nullptr, kSocket},
        {"no-start", no_argument, nullptr, kNoStart},
        {"no-session", no_argument, nullptr, kNoSession},
        {"timeout", required_argument, nullptr, kTimeout},
        {"quiet", no_argument, nullptr, 'q'},
        {"probe", no_argument, nullptr, kProbe},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    Options o;
    bool null_given = false;
    int c;
    opterr = 0;
    while ((c = getopt_long(argc, argv, ":v:a:n:o:qh", long_options, nullptr)) != -1) {
        switch (c) {
            case 'v':
            case 'a':
                if (o.stream_given) {
                    fail(kExitUsage, "give one of -v and -a");
                }
                o.stream_given = true;
                o.want_video = c == 'v';
                o.stream = static_cast<int>(parse_number(optarg, c == 'v' ? "-v" : "-a", 0));
                break;
            case 'n':
                o.max_packets = parse_number(optarg, "--packets", 0);
                break;
            case kSize: {
                int w = 0, h = 0;
                char extra = 0;
                if (sscanf(optarg, "%dx%d%c", &w, &h, &extra) != 2 || w <= 0 || h <= 0) {
                    fail(kExitUsage, "bad size '%s' (want WxH, e.g. 1280x720)", optarg);
                }
                o.width = w;
                o.height = h;
                break;
            }
            case kPixFmt:
                o.pix_fmt = optarg;
                break;
            case kSampleFmt:
                o.sample_fmt = optarg;
                break;
            case kChannels:
                o.channels = static_cast<int>(parse_number(optarg, "--channels", 1));
                break;
            case kRate:
                o.rate = static_cast<int>(parse_number(optarg, "--rate", 1));
                break;
            case 'o':
                o.out_path = optarg;
                break;
            case kMd5:
                o.md5 = true;
                break;
            case kNull:
                null_given = true;
                break;
            case kVerify:
                o.verify = true;
                break;
            case kInProcess:
                o.in_process = true;
                break;
            case kSocket:
                o.socket = optarg;
                break;
            case kNoStart:
                o.no_start = true;
                break;
            case kNoSession:
                o.no_session = true;
                break;
            case kTimeout:
                o.timeout_ms = static_cast<int>(parse_number(optarg, "--timeout", 1)) * 1000;
                break;
            case 'q':
                o.quiet = true;
                break;
            case kProbe:
                o.probe = true;
                break;
            case 'h':
                fputs(kUsage, stdout);
                exit(0);
            case ':':
                fail(kExitUsage, "option %s needs a value (see --help)", argv[optind - 1]);
            default:
                fail(kExitUsage, "unknown option %s (see --help)", argv[optind - 1]);
        }
    }
    if (o.probe) {
        return o;
    }
    if (optind != argc - 1) {
        fail(kExitUsage, optind >= argc ? "no input file (see --help)"
                                        : "give exactly one input file (see --help)");
    }
    o.file = argv[optind];
    if (null_given + o.md5 + !o.out_path.empty() > 1) {
        fail(kExitUsage, "give only one of -o, --md5 and --null");
    }
    if (o.verify && o.in_process) {
        fail(kExitUsage, "--verify compares with the service; it cannot go with --in-process");
    }
    if (o.md5 && o.out_path == "-") {
        fail(kExitUsage, "--md5 and -o - both write to standard output");
    }
    return o;
}

std::string md5_hex(const uint8_t* data, size_t size) {
    uint8_t sum[16];
    av_md5_sum(sum, data, static_cast<int>(size));
    char hex[33];
    for (int i = 0; i < 16; ++i) {
        snprintf(hex + 2 * i, 3, "%02x", sum[i]);
    }
    return std::string(hex, 32);
}

// What an answer delivered, as contiguous bytes. Planar audio lies in the area as one plane per
// channel, each starting at the decoded frame's sample count rounded up to 32; the frame size of
// the stream stands in for that count when it is known.
class Payload {
  public:
    void set_audio_layout(int channels, int sample_fmt, int frame_size) {
        planar_ = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(sample_fmt)) != 0;
        channels_ = channels;
        bytes_per_sample_ = av_get_bytes_per_sample(static_cast<AVSampleFormat>(sample_fmt));
        frame_size_ = frame_size;
    }

    // Returns a pointer valid until the next call.
    const uint8_t* get(const uint8_t* area, uint32_t size) {
        if (!planar_ || channels_ <= 1 || size == 0) {
            return area;
        }
        const size_t plane = size / static_cast<size_t>(channels_);
        const size_t samples = plane / static_cast<size_t>(bytes_per_sample_);
        const size_t basis = frame_size_ > 0 ? static_cast<size_t>(frame_size_) : samples;
        const size_t stride = ((std::max(basis, samples) + 31) & ~size_t(31)) * bytes_per_sample_;
        if (stride * (channels_ - 1) + plane > SHM_AREA_SIZE) {
            return area;
        }
        buffer_.resize(size);
        for (int c = 0; c < channels_; ++c) {
            memcpy(buffer_.data() + c * plane, area + c * stride, plane);
        }
        return buffer_.data();
    }

  private:
    bool planar_ = false;
    int channels_ = 0, bytes_per_sample_ = 1, frame_size_ = 0;
    std::vector<uint8_t> buffer_;
};

std::string describe(const Answer& a, const uint8_t* payload) {
    char text[160];
    snprintf(text, sizeof(text), "status %d, size %u, pts %" PRId64 ", md5 %s", a.status, a.size,
             a.pts, a.size > 0 ? md5_hex(payload, a.size).c_str() : "-");
    return text;
}

class Progress {
  public:
    Progress(bool enabled, int64_t duration_us, int64_t file_size)
        : enabled_(enabled),
          duration_us_(duration_us),
          file_size_(file_size),
          start_(std::chrono::steady_clock::now()),
          last_(start_) {}

    void update(long outputs, const Packet& packet, bool force = false) {
        if (!enabled_) {
            return;
        }
        auto now = std::chrono::steady_clock::now();
        if (!force && now - last_ < std::chrono::milliseconds(250)) {
            return;
        }
        last_ = now;
        double secs = std::chrono::duration<double>(now - start_).count();
        double percent = -1;
        if (duration_us_ > 0 && packet.pts_us != INT64_MIN) {
            percent = 100.0 * static_cast<double>(packet.pts_us) / duration_us_;
        } else if (file_size_ > 0 && packet.pos >= 0) {
            percent = 100.0 * static_cast<double>(packet.pos) / file_size_;
        }
        if (percent > 100) {
            percent = 100;
        }
        char pct[16] = "";
        if (percent >= 0) {
            snprintf(pct, sizeof(pct), "  %3.0f%%", percent);
        }
        int n = fprintf(stderr, "\routputs %ld  %.1f/s%s   ", outputs,
                        secs > 0 ? outputs / secs : 0.0, pct);
        width_ = std::max(width_, n);
    }

    void clear() {
        if (width_ > 0) {
            fprintf(stderr, "\r%*s\r", width_, "");
            width_ = 0;
        }
    }

  private:
    bool enabled_;
    int64_t duration_us_;
    int64_t file_size_;
    std::chrono::steady_clock::time_point start_, last_;
    int width_ = 0;  // of the longest progress line shown, 0 when none is shown
};

std::string client_error(const mediaclient::DecoderClient& client, mediaclient::ClientError e,
                         int timeout_ms) {
    switch (e) {
        case mediaclient::ClientError::kTimeout:
            return "the service did not answer within " + std::to_string(timeout_ms / 1000) + " s";
        case mediaclient::ClientError::kDisconnected:
            return "the service closed the connection";
        default:  // what the library was doing, and why it failed or refused the request
            return client.last_error_text();
    }
}

// ---- the steps ----

// The input file, its selected stream and that stream's row of the service's codec table.
struct Input {
    MediaFile file;
    StreamInfo info;
    int codec_index = -1;
};

// The output asked for, as init codec parameters for the service and the model alike (only those
// of the stream's kind are used).
struct Setup {
    mediaclient::VideoInitParams video;
    mediaclient::AudioInitParams audio;
};

struct Service {
    std::string socket_path;
    ServiceLease lease;
    mediaclient::DecoderClient client;
};

// The in-process model, for --verify and --in-process.
struct Model {
    std::unique_ptr<LocalVideoDecoder> video;
    std::unique_ptr<LocalAudioDecoder> audio;

    bool open() const { return video || audio; }
    Answer decode(const Packet& p) {
        const int size = static_cast<int>(p.data.size());
        return video ? video->decode(p.data.data(), size, p.pts_us)
                     : audio->decode(p.data.data(), size, p.pts_us);
    }
    const uint8_t* output() const { return video ? video->output() : audio->output(); }
};

// Opens the file and selects the stream (-v/-a, else its first video stream, else its first audio
// stream), which must have a codec of the service's tables.
void open_input(const Options& opt, Input* input) {
    std::string error;
    if (!input->file.open(opt.file, &error)) {
        fail(kExitError, "%s", error.c_str());
    }
    const bool video = opt.stream_given ? opt.want_video : input->file.stream_count(true) > 0;
    if (!input->file.select(video, opt.stream, &input->info, &error)) {
        if (!opt.stream_given && input->file.stream_count(false) == 0) {
            fail(kExitError, "%s has no audio or video stream", opt.file.c_str());
        }
        fail(kExitError, "%s: %s", opt.file.c_str(), error.c_str());
    }
    const StreamInfo& info = input->info;
    input->codec_index =
        info.video ? video_codec_index(info.codec_name) : audio_codec_index(info.codec_name);
    if (input->codec_index < 0) {
        fail(kExitError, "codec %s of %s stream %d is not in the service's %s codec table (%s)",
             info.codec_name.c_str(), info.video ? "video" : "audio", info.kind_index,
             info.video ? "video" : "audio", codec_table_names(info.video).c_str());
    }
}

// The options' output, with the stream's own size, channel count and rate where none is given.
Setup output_format(const Options& opt, const StreamInfo& info) {
    const int width = opt.width > 0 ? opt.width : info.width;
    const int height = opt.height > 0 ? opt.height : info.height;
    const int pix_fmt = av_get_pix_fmt(opt.pix_fmt.c_str());
    const int sample_fmt = av_get_sample_fmt(opt.sample_fmt.c_str());
    const int channels = opt.channels > 0 ? opt.channels : (info.channels > 0 ? info.channels : 2);
    const int rate = opt.rate > 0 ? opt.rate : info.sample_rate;
    if (info.video) {
        if (pix_fmt == AV_PIX_FMT_NONE) {
            fail(kExitUsage, "unknown pixel format '%s' (see ffmpeg -pix_fmts)",
                 opt.pix_fmt.c_str());
        }
        if (width <= 0 || height <= 0) {
            fail(kExitUsage, "the stream has no picture size; give --size");
        }
    } else if (sample_fmt == AV_SAMPLE_FMT_NONE) {
        fail(kExitUsage, "unknown sample format '%s' (see ffmpeg -sample_fmts)",
             opt.sample_fmt.c_str());
    }
    return Setup{video_init_params(info, width, height, pix_fmt),
                 audio_init_params(info, sample_fmt, channels, rate)};
}

// Takes a lease on the service, starting it when nothing listens on the socket, then registers
// a decoder client.
void connect_service(const Options& opt, Service* s) {
    std::string error;
    if (!s->lease.acquire(s->socket_path, !opt.no_start, opt.no_session, &error)) {
        fail(kExitError, "%s", error.c_str());
    }
    const mediaclient::ClientError e = s->client.connect_posix(s->socket_path);
    if (e != mediaclient::ClientError::kOk) {
        fail(kExitError, "cannot register a decoder client at %s: %s", s->socket_path.c_str(),
             client_error(s->client, e, opt.timeout_ms).c_str());
    }
}

mediaclient::ClientError init_decoder(const Options& opt, const Input& input, const Setup& setup,
                                      Service* s, ExchangeResult* result) {
    const StreamInfo& info = input.info;
    const void* config = info.extradata.empty() ? nullptr : info.extradata.data();
    const uint32_t row = static_cast<uint32_t>(input.codec_index);
    return info.video ? s->client.init_video(row, setup.video, config, info.extradata.size(),
                                             result, opt.timeout_ms)
                      : s->client.init_audio(row, setup.audio, config, info.extradata.size(),
                                             result, opt.timeout_ms);
}

// Connects to the service and sets up its decoder; a second try when the service drops the
// connection.
void set_up_service(const Options& opt, const Input& input, const Setup& setup, Service* s) {
    if (input.info.extradata.size() > SHM_AREA_SIZE) {
        fail(kExitError, "the stream's codec configuration does not fit the input area");
    }
    ExchangeResult result{};
    mediaclient::ClientError e = mediaclient::ClientError::kOk;
    // A service that is stopping (the session of a service we did not start just ended) still
    // takes connections into its backlog and then drops them; one more try finds it gone and
    // starts a new one.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (attempt > 0) {
            s->client.close();
            usleep(300 * 1000);
        }
        connect_service(opt, s);
        e = init_decoder(opt, input, setup, s, &result);
        if (e != mediaclient::ClientError::kDisconnected || opt.no_start) {
            break;
        }
    }
    const char* codec = input.info.codec_name.c_str();
    if (e == mediaclient::ClientError::kDisconnected) {
        fail(kExitError, "the service refused the decoder client (closed the connection)");
    }
    if (e != mediaclient::ClientError::kOk) {
        fail(kExitError, "setting up the %s decoder: %s", codec,
             client_error(s->client, e, opt.timeout_ms).c_str());
    }
    if (result.status != STATUS_OK) {
        fail(kExitError, "the service could not set up the %s decoder (status %d)", codec,
             result.status);
    }
}

void open_model(const Input& input, const Setup& setup, Model* model) {
    const StreamInfo& info = input.info;
    std::string error;
    bool ok;
    if (info.video) {
        model->video.reset(new LocalVideoDecoder());
        ok = model->video->open(info.codec_id, setup.video, info.extradata,
                                LocalVideoDecoder::Output::kLikeService, &error);
    } else {
        model->audio.reset(new LocalAudioDecoder());
        ok = model->audio->open(info.codec_id, setup.audio, info.extradata, &error);
    }
    if (!ok) {
        fail(kExitError, "in-process decoder: %s", error.c_str());
    }
}

FILE* open_output(const Options& opt) {
    if (opt.out_path.empty()) {
        return nullptr;
    }
    FILE* out = opt.out_path == "-" ? stdout : fopen(opt.out_path.c_str(), "wbe");
    if (out == nullptr) {
        fail(kExitError, "cannot write %s: %s", opt.out_path.c_str(), strerror(errno));
    }
    return out;
}

// The stream, the output and where it is decoded, unless --quiet; the --md5 header.
void announce(const Options& opt, const StreamInfo& info, const Setup& setup,
              const std::string& socket_path) {
    const bool service = !opt.in_process;
    const char* where = service ? " via " : " in-process";
    const char* socket = service ? socket_path.c_str() : "";
    if (!opt.quiet && info.video) {
        const char* in_fmt = av_get_pix_fmt_name(static_cast<AVPixelFormat>(info.pix_fmt));
        fprintf(stderr, "media-decode: video stream %d: %s %dx%d %s -> %dx%d %s%s%s\n",
                info.kind_index, info.codec_name.c_str(), info.width, info.height,
                in_fmt != nullptr ? in_fmt : "?", setup.video.out_width, setup.video.out_height,
                opt.pix_fmt.c_str(), where, socket);
    } else if (!opt.quiet) {
        const char* in_fmt = av_get_sample_fmt_name(static_cast<AVSampleFormat>(info.sample_fmt));
        fprintf(stderr, "media-decode: audio stream %d: %s %d Hz %d ch %s -> %d Hz %d ch %s%s%s\n",
                info.kind_index, info.codec_name.c_str(), info.sample_rate, info.channels,
                in_fmt != nullptr ? in_fmt : "?",
                effective_out_sample_rate(setup.audio.out_sample_rate), setup.audio.out_channels,
                opt.sample_fmt.c_str(), where, socket);
    }
    if (opt.md5) {
        printf("#%s stream %d: %s\n#packet, status, size, pts, md5\n",
               info.video ? "video" : "audio", info.kind_index, info.codec_name.c_str());
    }
}

struct Tally {
    long packets = 0, outputs = 0, need_more = 0, failed = 0;
    long mismatch_at = -1;  // first packet whose answers differ (--verify), -1 when none
    std::string mismatch_text;
};

// The decode loop: every packet through the service and the model, compared, counted and
// written.
class DecodeLoop {
  public:
    DecodeLoop(const Options& opt, const Input& input, const Setup& setup, Service* service,
               Model* model, FILE* out)
        : opt_(opt),
          service_(service),
          model_(model),
          out_(out),
          progress_(!opt.quiet && isatty(STDERR_FILENO), input.info.duration_us,
                    input.file.file_size()) {
        if (!input.info.video) {
            const mediaclient::AudioInitParams& a = setup.audio;
            payload_.set_audio_layout(a.out_channels, a.out_sample_fmt, input.info.frame_size);
            model_payload_.set_audio_layout(a.out_channels, a.out_sample_fmt,
                                            input.info.frame_size);
        }
    }

    // Returns the wall time.
    double run(MediaFile& file) {
        const auto start = std::chrono::steady_clock::now();
        Packet packet;
        while ((opt_.max_packets < 0 || tally_.packets < opt_.max_packets) && file.next(&packet)) {
            step(packet);
        }
        progress_.clear();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    const Tally& tally() const { return tally_; }

  private:
    void step(const Packet& packet) {
        if (packet.data.size() > SHM_AREA_SIZE) {
            stop("packet %ld has %zu bytes, more than the input area holds", tally_.packets,
                 packet.data.size());
        }
        Answer answer;
        const uint8_t* area = nullptr;
        if (!opt_.in_process) {
            answer = ask_service(packet);
            area = service_->client.output();
        }
        if (model_->open()) {
            const Answer local = model_->decode(packet);
            if (opt_.in_process) {
                answer = local;
                area = model_->output();
            } else {
                compare(answer, area, local, model_->output());
            }
        }
        count(answer);
        write(answer, payload_.get(area, answer.size));
        ++tally_.packets;
        progress_.update(tally_.outputs, packet);
    }

    Answer ask_service(const Packet& packet) {
        ExchangeResult r{};
        auto e = service_->client.decode_frame(packet.data.data(), packet.data.size(),
                                               packet.pts_us, &r, opt_.timeout_ms);
        if (e != mediaclient::ClientError::kOk) {
            stop("packet %ld: %s", tally_.packets,
                 client_error(service_->client, e, opt_.timeout_ms).c_str());
        }
        if (r.output_size > SHM_AREA_SIZE) {
            stop("packet %ld: the service reports %u output bytes", tally_.packets, r.output_size);
        }
        return answer_of(r);
    }

    // Keeps the first difference only.
    void compare(const Answer& answer, const uint8_t* area, const Answer& local,
                 const uint8_t* local_area) {
        if (tally_.mismatch_at >= 0) {
            return;
        }
        const uint8_t* a = payload_.get(area, answer.size);
        const uint8_t* b = model_payload_.get(local_area, local.size);
        if (!(answer == local) || memcmp(a, b, answer.size) != 0) {
            tally_.mismatch_at = tally_.packets;
            tally_.mismatch_text =
                "service: " + describe(answer, a) + "; in-process: " + describe(local, b);
        }
    }

    void count(const Answer& answer) {
        if (answer.status == STATUS_OK && answer.size > 0) {
            ++tally_.outputs;
        } else if (answer.status == STATUS_NEED_MORE_DATA) {
            ++tally_.need_more;
        } else if (answer.status == STATUS_FAILED) {
            ++tally_.failed;
        }
    }

    void write(const Answer& answer, const uint8_t* bytes) {
        if (opt_.md5) {
            printf("%ld, %d, %u, %" PRId64 ", %s\n", tally_.packets, answer.status, answer.size,
                   answer.pts, answer.size > 0 ? md5_hex(bytes, answer.size).c_str() : "-");
        } else if (out_ != nullptr && answer.size > 0 &&
                   fwrite(bytes, 1, answer.size, out_) != answer.size) {
            stop("writing %s: %s", opt_.out_path.c_str(), strerror(errno));
        }
    }

    // Fails with the progress line cleared.
    [[noreturn]] void stop(const char* fmt, ...) {
        progress_.clear();
        va_list ap;
        va_start(ap, fmt);
        print_error(fmt, ap);
        va_end(ap);
        exit(kExitError);
    }

    const Options& opt_;
    Service* service_;
    Model* model_;
    FILE* out_;
    Progress progress_;
    Payload payload_, model_payload_;
    Tally tally_;
};

// The summary and the verdict of --verify; returns the exit status.
int finish(const Options& opt, const Input& input, FILE* out, const Tally& t, double wall) {
    if (input.file.read_error() && !opt.quiet) {
        fprintf(stderr, "media-decode: read error in %s; stopped after %ld packets\n",
                opt.file.c_str(), t.packets);
    }
    if (out != nullptr && out != stdout && fclose(out) != 0) {
        fail(kExitError, "writing %s: %s", opt.out_path.c_str(), strerror(errno));
    }
    fflush(stdout);
    if (!opt.quiet) {
        fprintf(stderr,
                "media-decode: %ld packets, %ld outputs, %ld need more data, %ld failed; "
                "%.2f s, %.1f outputs/s\n",
                t.packets, t.outputs, t.need_more, t.failed, wall,
                wall > 0 ? t.outputs / wall : 0.0);
    }
    if (!opt.verify) {
        return 0;
    }
    if (t.mismatch_at >= 0) {
        fprintf(stderr, "media-decode: verify: first difference at packet %ld: %s\n", t.mismatch_at,
                t.mismatch_text.c_str());
        return kExitMismatch;
    }
    if (!opt.quiet) {
        fprintf(stderr, "media-decode: verify: all %ld answers equal in-process decoding\n",
                t.packets);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const Options opt = parse_options(argc, argv);
    av_log_set_level(AV_LOG_ERROR);
    if (opt.probe) {
        print_probe(probe_host(), stdout);
        return 0;
    }
    Input input;
    open_input(opt, &input);
    const Setup setup = output_format(opt, input.info);
    Service service;
    service.socket_path = opt.socket.empty() ? mediaclient::default_socket_path() : opt.socket;
    if (!opt.in_process) {
        set_up_service(opt, input, setup, &service);
    }
    Model model;
    if (opt.verify || opt.in_process) {
        open_model(input, setup, &model);
    }
    FILE* out = open_output(opt);
    announce(opt, input.info, setup, service.socket_path);

    DecodeLoop loop(opt, input, setup, &service, &model, out);
    const double wall = loop.run(input.file);
    return finish(opt, input, out, loop.tally(), wall);
}
