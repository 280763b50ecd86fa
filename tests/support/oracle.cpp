#include "support/oracle.h"

#include <cstring>
#include <functional>

#include "decoder/ffmpeg_compat.h"

namespace {

constexpr size_t kOutputArea = 16 << 20;
constexpr int32_t kNeedMoreData = 1, kFailed = -1;

// A format number as FFmpeg gets it: outside the enumeration, just past its nearer end.
int clamp(int value, int count) {
    return value < -1 ? -2 : value >= count ? count : value;
}

}  // namespace

Oracle::Oracle() : packet_(av_packet_alloc()), frame_(av_frame_alloc()) {}

Oracle::~Oracle() {
    swr_free(&swr_);
    avcodec_free_context(&ctx_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
}

bool Oracle::open(const mediatools::StreamInfo& info, const std::vector<uint8_t>& config,
                  const std::function<void(AVCodecContext*)>& configure) {
    swr_free(&swr_);
    avcodec_free_context(&ctx_);
    resampler_builds_ = 0;
    const AVCodec* codec = avcodec_find_decoder(AVCodecID(info.codec_id));
    ctx_ = avcodec_alloc_context3(codec);
    configure(ctx_);
    if (!config.empty()) {
        ctx_->extradata = static_cast<uint8_t*>(av_mallocz(config.size() + 64));
        memcpy(ctx_->extradata, config.data(), config.size());
        ctx_->extradata_size = int(config.size());
    }
    return avcodec_open2(ctx_, codec, nullptr) == 0;
}

bool Oracle::open_video(const mediatools::StreamInfo& info, int width, int height, int pix_fmt,
                        const std::vector<uint8_t>& config) {
    width_ = width, height_ = height, pix_fmt_ = pix_fmt;
    return open(info, config, [&info](AVCodecContext* ctx) {
        ctx->width = info.width;
        ctx->height = info.height;
        ctx->pix_fmt = AVPixelFormat(info.pix_fmt);
    });
}

bool Oracle::open_audio(const mediatools::StreamInfo& info, const mediaclient::AudioInitParams& p,
                        const std::vector<uint8_t>& config) {
    sample_fmt_ = p.out_sample_fmt, channels_ = p.out_channels, rate_ = p.out_sample_rate;
    return open(info, config, [&p](AVCodecContext* ctx) {
        ffcompat::set_context_channels(ctx, p.in_channels);
        ctx->sample_fmt = AVSampleFormat(clamp(p.in_sample_fmt, AV_SAMPLE_FMT_NB));
        if (p.in_sample_rate > 0) {
            ctx->sample_rate = p.in_sample_rate;
        }
    });
}

void Oracle::flush() {
    avcodec_flush_buffers(ctx_);
}

Expected Oracle::decode(const std::vector<uint8_t>& packet, int64_t pts) {
    av_packet_unref(packet_);
    packet_->data = const_cast<uint8_t*>(packet.data());
    packet_->size = int(packet.size());
    packet_->pts = pts;
    if (avcodec_send_packet(ctx_, packet_) < 0) {
        return Expected{kFailed};
    }
    const int ret = avcodec_receive_frame(ctx_, frame_);
    if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
        return Expected{kNeedMoreData};
    }
    if (ret < 0) {
        return Expected{kFailed};
    }
    Expected e = ctx_->codec_type == AVMEDIA_TYPE_VIDEO ? picture() : samples(pts);
    av_frame_unref(frame_);
    return e;
}

// The conversion goes into a picture of FFmpeg's own, whose lines and padding swscale's vector
// stores may use.
Expected Oracle::picture() {
    const AVPixelFormat format = AVPixelFormat(pix_fmt_);
    SwsContext* sws =
        sws_getContext(frame_->width, frame_->height, AVPixelFormat(frame_->format), width_,
                       height_, format, SWS_BILINEAR, nullptr, nullptr, nullptr);
    const int size = av_image_get_buffer_size(format, width_, height_, 1);
    AVFrame* out = av_frame_alloc();
    out->format = format, out->width = width_, out->height = height_;
    if (sws == nullptr || size < 0 || size_t(size) > kOutputArea ||
        av_frame_get_buffer(out, 0) < 0) {
        sws_freeContext(sws);
        av_frame_free(&out);
        return Expected{kFailed};
    }
    sws_scale(sws, frame_->data, frame_->linesize, 0, frame_->height, out->data, out->linesize);
    sws_freeContext(sws);
    Expected e;
    e.size = uint32_t(size);
    e.pts = frame_->best_effort_timestamp;
    e.bytes.resize(size_t(size));
    av_image_copy_to_buffer(e.bytes.data(), size, out->data, out->linesize, format, width_, height_,
                            1);
    av_frame_free(&out);
    return e;
}

// Rebuilt whenever the decoded format changes; a frame's layout that is missing or disagrees with
// its channel count counts as the default layout for that count.
bool Oracle::update_resampler() {
    const int channels = ffcompat::frame_channels(frame_);
    int64_t layout = int64_t(ffcompat::frame_channel_layout(frame_));
    if (layout == 0 || ffcompat::layout_nb_channels(uint64_t(layout)) != channels) {
        layout = ffcompat::default_channel_layout(channels);
    }
    if (swr_ != nullptr && layout == in_layout_ && frame_->sample_rate == in_rate_ &&
        frame_->format == in_fmt_) {
        return true;
    }
    swr_free(&swr_);
    in_layout_ = layout, in_rate_ = frame_->sample_rate, in_fmt_ = frame_->format;
    ++resampler_builds_;
    swr_ = ffcompat::alloc_resampler(ffcompat::default_channel_layout(channels_),
                                     AVSampleFormat(sample_fmt_), rate_, layout,
                                     AVSampleFormat(in_fmt_), in_rate_);
    if (swr_ != nullptr && swr_init(swr_) < 0) {
        swr_free(&swr_);
    }
    return swr_ != nullptr;
}

Expected Oracle::samples(int64_t pts) {
    const AVSampleFormat format = AVSampleFormat(clamp(sample_fmt_, AV_SAMPLE_FMT_NB));
    const int count = frame_->nb_samples;
    const int bytes = av_get_bytes_per_sample(format);
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const size_t stride = size_t((count + 31) / 32 * 32) * size_t(bytes) * (planar ? 1 : channels_);
    const int planes = planar ? channels_ : 1;
    if (!update_resampler() || bytes == 0 || stride * size_t(planes) > kOutputArea) {
        return Expected{kFailed};
    }
    std::vector<uint8_t> area(stride * size_t(planes));
    std::vector<uint8_t*> pointers(static_cast<size_t>(planes));
    for (int k = 0; k < planes; ++k) {
        pointers[size_t(k)] = area.data() + size_t(k) * stride;
    }
    const int n = swr_convert(swr_, pointers.data(), count,
                              const_cast<const uint8_t**>(frame_->extended_data), count);
    if (n < 0) {
        return Expected{kFailed};
    }
    Expected e;
    e.size = uint32_t(n * channels_ * bytes);
    e.pts = int64_t(uint64_t(pts) + uint64_t(int64_t{n} * 1000000 / rate_));
    e.planes = planes;
    e.stride = stride;
    const size_t plane = e.size / size_t(planes);
    for (int k = 0; k < planes; ++k) {
        e.bytes.insert(e.bytes.end(), pointers[size_t(k)], pointers[size_t(k)] + plane);
    }
    return e;
}

std::string differs(const mediaclient::ExchangeResult& got, const uint8_t* output,
                    const Expected& want) {
    char text[160];
    if (got.status != want.status || got.output_size != want.size || got.output_pts != want.pts ||
        got.reserved != 0 || got.reserved2 != 0) {
        snprintf(text, sizeof(text), "answer %d/%u/%lld, expected %d/%u/%lld", got.status,
                 got.output_size, static_cast<long long>(got.output_pts), want.status, want.size,
                 static_cast<long long>(want.pts));
        return text;
    }
    const size_t plane = want.size / size_t(want.planes);
    for (int k = 0; k < want.planes && want.size > 0; ++k) {
        if (memcmp(output + size_t(k) * want.stride, want.bytes.data() + size_t(k) * plane,
                   plane) != 0) {
            snprintf(text, sizeof(text), "bytes differ in plane %d", k);
            return text;
        }
    }
    return "";
}
