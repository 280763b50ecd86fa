#include "support/video_reference.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <mutex>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include "decoder/exchange_block.h"
#include "decoder/ffmpeg_compat.h"
#include "support/media_fixtures.h"

struct VideoReference::State {
    ~State() {
        sws_freeContext(sws);
        avcodec_free_context(&ctx);
    }
    int codec_id = 0;
    AVCodecContext* ctx = nullptr;
    SwsContext* sws = nullptr;
    int width = 0, height = 0, pix_fmt = 0;
    int out_width = 0, out_height = 0, out_pix_fmt = 0;
};

VideoReference::VideoReference() = default;
VideoReference::~VideoReference() = default;

bool VideoReference::init(int codec_id, const std::array<int32_t, 7>& p,
                          const std::vector<uint8_t>& config) {
    state_.reset(new State());
    State& s = *state_;
    s.codec_id = codec_id;
    s.width = p[0];
    s.height = p[1];
    s.pix_fmt = p[2];
    s.out_width = p[4];
    s.out_height = p[5];
    // Formats past the FFmpeg 4 enumeration, negative ones included, mean YUV420P.
    s.out_pix_fmt = static_cast<uint32_t>(p[6]) > 186u ? AV_PIX_FMT_YUV420P : p[6];

    const AVCodec* codec = avcodec_find_decoder(static_cast<AVCodecID>(codec_id));
    if (codec == nullptr) {
        return false;
    }
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    ctx->width = p[0];
    ctx->height = p[1];
    ctx->pix_fmt = static_cast<AVPixelFormat>(p[2]);
    if (p[3] > 0) {
        if (static_cast<size_t>(p[3]) > config.size()) {
            avcodec_free_context(&ctx);
            return false;
        }
        ctx->extradata = static_cast<uint8_t*>(
            av_mallocz(static_cast<size_t>(p[3]) + AV_INPUT_BUFFER_PADDING_SIZE));
        memcpy(ctx->extradata, config.data(), static_cast<size_t>(p[3]));
        ctx->extradata_size = p[3];
    }
    if (avcodec_open2(ctx, codec, nullptr) < 0) {
        avcodec_free_context(&ctx);
        return false;
    }
    s.ctx = ctx;
    return true;
}

bool VideoReference::reset(int32_t out_width, int32_t out_height, int32_t out_pix_fmt) {
    if (!state_ || state_->ctx == nullptr) {
        return false;
    }
    const int codec_id = state_->codec_id;
    const std::array<int32_t, 7> params = {state_->width, state_->height, state_->pix_fmt, 0,
                                           out_width,     out_height,     out_pix_fmt};
    return init(codec_id, params, {});
}

VideoStep VideoReference::decode(const uint8_t* data, int size, int64_t pts) {
    VideoStep failed;
    failed.status = -1;
    if (!state_ || state_->ctx == nullptr) {
        return VideoStep();  // no decoder: all zero
    }
    State& s = *state_;
    AVFrame* frame = av_frame_alloc();
    struct FrameFree {
        AVFrame* f;
        ~FrameFree() { av_frame_free(&f); }
    } frame_free{frame};
    const int ret = reference_decode_step(s.ctx, data, size, pts, frame);
    if (ret != 0) {
        VideoStep answer;
        answer.status = ret;
        return answer;
    }

    const AVPixelFormat out_fmt = static_cast<AVPixelFormat>(s.out_pix_fmt);
    s.sws = sws_getCachedContext(s.sws, frame->width, frame->height,
                                 static_cast<AVPixelFormat>(frame->format), s.out_width,
                                 s.out_height, out_fmt, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (s.sws == nullptr) {
        return failed;
    }
    const int bytes = av_image_get_buffer_size(out_fmt, s.out_width, s.out_height, 1);
    if (bytes < 0 || static_cast<size_t>(bytes) > SHM_AREA_SIZE) {
        return failed;
    }
    uint8_t* planes[4] = {nullptr};
    int linesizes[4] = {0};
    if (ffcompat::image_alloc(planes, linesizes, s.out_width, s.out_height, out_fmt, 1) < 0) {
        return failed;
    }
    sws_scale(s.sws, frame->data, frame->linesize, 0, frame->height, planes, linesizes);
    VideoStep out;
    out.picture.resize(static_cast<size_t>(bytes));
    int copied = av_image_copy_to_buffer(out.picture.data(), bytes, planes, linesizes, out_fmt,
                                         s.out_width, s.out_height, 1);
    av_freep(&planes[0]);
    if (copied < 0) {
        return failed;
    }
    out.picture.resize(static_cast<size_t>(copied));
    out.output_size = static_cast<uint32_t>(copied);
    out.output_pts = frame->best_effort_timestamp;
    return out;
}

namespace {

const char kSource[] = "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 12 -pix_fmt yuv420p ";

}  // namespace

// Keyframes every 6 frames, so that tests can resume decoding in the middle of a clip.
const VideoClip kVideoClips[] = {
    {"h264_mp4", "libx264", "h264.mp4", "-c:v libx264 -bf 2 -g 6"},
    {"h264_annexb", "libx264", "h264.264", "-c:v libx264 -bf 0 -g 6"},
    {"hevc_mp4", "libx265", "hevc.mp4", "-c:v libx265 -x265-params log-level=error:keyint=6"},
    {"mpeg4_mp4", "mpeg4", "mpeg4.mp4", "-c:v mpeg4 -bf 1 -g 6 -q:v 4"},
    {"mpeg2_m2v", "mpeg2video", "mpeg2.m2v", "-c:v mpeg2video -bf 2 -g 6 -q:v 4"},
    {"vp8_webm", "libvpx", "vp8.webm", "-c:v libvpx -g 6 -deadline realtime -cpu-used 8 -b:v 400k"},
    {"vp9_webm", "libvpx-vp9", "vp9.webm",
     "-c:v libvpx-vp9 -g 6 -deadline realtime -cpu-used 8 -b:v 400k"},
    {"h263", "h263", "h263.h263", "-c:v h263 -g 6 -q:v 4"},
    {"flv1", "flv", "flv1.flv", "-c:v flv -g 6 -q:v 4"},
    {"wmv2", "wmv2", "wmv2.avi", "-c:v wmv2 -g 6 -q:v 4"},
};
const size_t kVideoClipCount = sizeof(kVideoClips) / sizeof(kVideoClips[0]);

const VideoClip& video_clip(std::string_view name) {
    for (const VideoClip& c : kVideoClips) {
        if (name == c.name) {
            return c;
        }
    }
    abort();
}

const DemuxedStream* load_clip(const VideoClip& clip) {
    static std::mutex mutex;
    static std::map<std::string, DemuxedStream> streams;
    std::lock_guard<std::mutex> lock(mutex);
    auto it = streams.find(clip.file);
    if (it == streams.end()) {
        DemuxedStream s;
        std::string path = make_media(clip.file, std::string(kSource) + clip.args);
        if (path.empty() || !demux_first_stream(path, true, &s) || s.packets.empty()) {
            ADD_FAILURE() << "could not make " << clip.file;
            return nullptr;
        }
        it = streams.emplace(clip.file, std::move(s)).first;
    }
    return &it->second;
}

int64_t packet_pts(const DemuxedStream& s, size_t i) {
    int64_t pts = s.packets[i].pts;
    return pts != AV_NOPTS_VALUE ? pts : 1000 * static_cast<int64_t>(i);
}

std::array<int32_t, 7> video_params(const DemuxedStream& s, int32_t out_width, int32_t out_height,
                                    int32_t out_pix_fmt) {
    return {s.width,   s.height,   s.pix_fmt,  static_cast<int32_t>(s.extradata.size()),
            out_width, out_height, out_pix_fmt};
}

std::vector<std::vector<uint8_t>> command_line_frames(const std::string& path, int width,
                                                      int height, int pix_fmt) {
    const char* fmt_name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(pix_fmt));
    std::string size = std::to_string(width) + "x" + std::to_string(height);
    std::string name = path.substr(path.rfind('/') + 1) + "-" + size + "-" + fmt_name + ".raw";
    std::string out =
        make_media(name, "-i '" + path + "' -vsync passthrough -sws_flags bilinear -pix_fmt " +
                             fmt_name + " -s " + size + " -f rawvideo");
    std::vector<std::vector<uint8_t>> frames;
    if (out.empty()) {
        ADD_FAILURE() << "ffmpeg could not decode " << path;
        return frames;
    }
    std::ifstream in(out, std::ios::binary);
    std::vector<uint8_t> all((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    const size_t frame_size = picture_size(width, height, pix_fmt);
    for (size_t at = 0; at + frame_size <= all.size(); at += frame_size) {
        frames.emplace_back(all.begin() + static_cast<long>(at),
                            all.begin() + static_cast<long>(at + frame_size));
    }
    return frames;
}

double psnr(const uint8_t* a, const uint8_t* b, size_t n) {
    double sum = 0;
    for (size_t i = 0; i < n; ++i) {
        double d = static_cast<double>(a[i]) - static_cast<double>(b[i]);
        sum += d * d;
    }
    if (sum == 0 || n == 0) {
        return std::numeric_limits<double>::infinity();
    }
    return 10.0 * std::log10(255.0 * 255.0 * static_cast<double>(n) / sum);
}

size_t picture_size(int width, int height, int pix_fmt) {
    int size = av_image_get_buffer_size(static_cast<AVPixelFormat>(pix_fmt), width, height, 1);
    return size > 0 ? static_cast<size_t>(size) : 0;
}
