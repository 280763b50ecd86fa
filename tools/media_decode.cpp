// media-decode: decodes one stream of a media file through the media service.

#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

extern "C" {
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
#include <libavutil/rational.h>
#include <libavutil/samplefmt.h>
}

#include "base/log.h"
#include "client/media_client.h"
#include "protocol/media_protocol.h"
#include "protocol/ffmpeg_protocol.h"
#include "tools/decode_options.h"
#include "tools/decode_output.h"
#include "tools/decode_sink.h"
#include "tools/hw_probe.h"
#include "tools/in_process.h"
#include "tools/media_file.h"

using namespace mediatools;
using namespace mediaclient::protocol;

namespace {

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

// The output asked for, as init codec parameters for the service and in-process alike (only those
// of the stream's kind are used).
struct Setup {
    mediaclient::VideoInitParams video;
    mediaclient::AudioInitParams audio;
};

struct Service {
    std::string socket_path;
    mediaclient::ServiceLease lease;
    mediaclient::DecoderClient client;
};

// Opens the file and selects the stream (-v/-a, else its first video stream, else its first audio
// stream), which must have a codec of the service's tables.
void open_input(const DecodeOptions& opt, Input* input) {
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
Setup output_format(const DecodeOptions& opt, const StreamInfo& info) {
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
void connect_service(const DecodeOptions& opt, Service* s) {
    using Start = mediaclient::ServiceLease::Start;
    const Start start = opt.no_start     ? Start::kNever
                        : opt.no_session ? Start::kKeepRunning
                                         : Start::kShared;
    if (s->lease.acquire(s->socket_path, start) != mediaclient::ClientError::kOk) {
        fail(kExitError, "%s", s->lease.last_error_text().c_str());
    }
    const mediaclient::ClientError e = s->client.connect_posix(s->socket_path);
    if (e != mediaclient::ClientError::kOk) {
        fail(kExitError, "cannot register a decoder client at %s: %s", s->socket_path.c_str(),
             client_error(s->client, e, opt.timeout_ms).c_str());
    }
}

mediaclient::ClientError init_decoder(const DecodeOptions& opt, const Input& input,
                                      const Setup& setup, Service* s, ExchangeResult* result) {
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
void set_up_service(const DecodeOptions& opt, const Input& input, const Setup& setup, Service* s) {
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

// The service's decoding in-process, for --verify and --in-process.
std::unique_ptr<InProcessDecoder> open_in_process(const Input& input, const Setup& setup) {
    const StreamInfo& info = input.info;
    std::unique_ptr<InProcessDecoder> decoder(new InProcessDecoder());
    if (info.video ? !decoder->init_video(info.codec_id, setup.video, info.extradata)
                   : !decoder->init_audio(info.codec_id, setup.audio, info.extradata)) {
        fail(kExitError, "the in-process %s decoder could not be set up", info.codec_name.c_str());
    }
    return decoder;
}

// The output as a container or a framemd5 header describes it. Scaling keeps the picture's
// shape, so the sample aspect ratio changes with the size as ffmpeg's scale filter changes it.
OutputShape output_shape(const StreamInfo& info, const Setup& setup) {
    OutputShape shape;
    shape.video = info.video;
    if (info.video) {
        const mediaclient::VideoInitParams& v = setup.video;
        shape.width = v.out_width;
        shape.height = v.out_height;
        shape.pix_fmt = v.out_pix_fmt;
        AVRational sar{info.sar_num, info.sar_den};
        if (sar.num != 0) {
            sar = av_mul_q(sar, AVRational{v.out_height * info.width, v.out_width * info.height});
        }
        shape.sar_num = sar.num;
        shape.sar_den = sar.den;
        if (info.rate_num > 0 && info.rate_den > 0) {
            shape.rate_num = info.rate_num;
            shape.rate_den = info.rate_den;
        }
    } else {
        shape.sample_rate = effective_out_sample_rate(setup.audio.out_sample_rate);
        shape.channels = setup.audio.out_channels;
        shape.sample_fmt = setup.audio.out_sample_fmt;
    }
    return shape;
}

// Which decoder serves, as far as this side can tell: audio and in-process decoding are in
// software; the service keeps the first hardware candidate that decodes and does not say which,
// so a video line names the device types that would get one here (the probe of --probe).
void announce_decoder(const DecodeOptions& opt, const Input& input) {
    const StreamInfo& info = input.info;
    std::string devices;
    if (info.video && !opt.in_process) {
        const ProbeReport report = probe_host();
        const CodecProbe& codec = report.video[static_cast<size_t>(input.codec_index)];
        for (size_t d = 0; d < codec.per_device.size(); ++d) {
            if (codec.per_device[d] == CandidateState::kCandidate) {
                devices += (devices.empty() ? "" : ", ") + report.devices[d].name;
            }
        }
    }
    if (devices.empty()) {
        fprintf(stderr, "media-decode: decoder: %s (software)\n", info.codec_name.c_str());
    } else {
        fprintf(stderr,
                "media-decode: decoder: %s (the first of %s that decodes, else software; the "
                "service does not say which)\n",
                info.codec_name.c_str(), devices.c_str());
    }
}

// The stream, the output, where and by which decoder it is decoded, unless --quiet.
void announce(const DecodeOptions& opt, const Input& input, const Setup& setup,
              const std::string& socket_path) {
    const StreamInfo& info = input.info;
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
    if (!opt.quiet) {
        announce_decoder(opt, input);
    }
}

struct Tally {
    long packets = 0, outputs = 0, need_more = 0, failed = 0;
    long mismatch_at = -1;  // first packet whose answers differ (--verify), -1 when none
    std::string mismatch_text;
};

// The decode loop: every packet through the service and in-process, compared, counted and
// written.
class DecodeLoop {
  public:
    DecodeLoop(const DecodeOptions& opt, const Input& input, const Setup& setup, Service* service,
               InProcessDecoder* in_process, DecodeSink* sink)
        : opt_(opt),
          service_(service),
          in_process_(in_process),
          sink_(sink),
          progress_(!opt.quiet && isatty(STDERR_FILENO), input.info.duration_us,
                    input.file.file_size()) {
        if (!input.info.video) {
            const mediaclient::AudioInitParams& a = setup.audio;
            payload_.set_audio_layout(a.out_channels, a.out_sample_fmt, input.info.frame_size);
            local_payload_.set_audio_layout(a.out_channels, a.out_sample_fmt,
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
        if (in_process_ != nullptr) {
            const Answer local = in_process_->decode(packet);
            if (opt_.in_process) {
                answer = local;
                area = in_process_->output();
            } else {
                compare(answer, area, local, in_process_->output());
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
        const uint8_t* b = local_payload_.get(local_area, local.size);
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
        std::string error;
        if (!sink_->write(tally_.packets, answer, bytes, &error)) {
            stop("%s", error.c_str());
        }
    }

    // Fails with the progress line cleared.
    [[noreturn]] __attribute__((format(printf, 2, 3))) void stop(const char* fmt, ...) {
        progress_.clear();
        char message[512];
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(message, sizeof(message), fmt, ap);
        va_end(ap);
        fail(kExitError, "%s", message);
    }

    const DecodeOptions& opt_;
    Service* service_;
    InProcessDecoder* in_process_;
    DecodeSink* sink_;
    Progress progress_;
    Payload payload_, local_payload_;
    Tally tally_;
};

// The summary and the verdict of --verify; returns the exit status.
int finish(const DecodeOptions& opt, const Input& input, DecodeSink* sink, const Tally& t,
           double wall) {
    if (input.file.read_error() && !opt.quiet) {
        fprintf(stderr, "media-decode: read error in %s; stopped after %ld packets\n",
                opt.file.c_str(), t.packets);
    }
    sink->finish();
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
    SvcLogOff();  // the in-process decoding would write the service's log lines
    const DecodeOptions opt = parse_options(argc, argv);
    // FFmpeg's own messages only when asked for: the in-process decoding would mix its warnings in.
    av_log_set_level(opt.log_level != kNoLogLevel ? opt.log_level : AV_LOG_ERROR);
    if (opt.probe) {
        print_probe(probe_host(), stdout);
        return 0;
    }
    Input input;
    open_input(opt, &input);
    const Setup setup = output_format(opt, input.info);
    DecodeSink sink(opt, output_shape(input.info, setup));
    Service service;
    service.socket_path = opt.socket.empty() ? mediaclient::default_socket_path() : opt.socket;
    if (!opt.in_process) {
        set_up_service(opt, input, setup, &service);
    }
    std::unique_ptr<InProcessDecoder> in_process;
    if (opt.verify || opt.in_process) {
        in_process = open_in_process(input, setup);
    }
    announce(opt, input, setup, service.socket_path);
    sink.begin(input.info);

    DecodeLoop loop(opt, input, setup, &service, in_process.get(), &sink);
    const double wall = loop.run(input.file);
    return finish(opt, input, &sink, loop.tally(), wall);
}
