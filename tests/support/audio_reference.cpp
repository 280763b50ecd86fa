#include "support/audio_reference.h"

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include "decoder/exchange_block.h"
#include "decoder/ffmpeg_compat.h"
#include "support/media_fixtures.h"

namespace {

// Channel mask of FFmpeg's default layout for a channel count, 0 when there is none.
uint64_t default_mask(int channels) {
    return static_cast<uint64_t>(ffcompat::default_channel_layout(channels));
}

size_t align32(int samples) {
    return (static_cast<size_t>(samples) + 31) & ~static_cast<size_t>(31);
}

}  // namespace

struct AudioReference::State {
    ~State() {
        swr_free(&swr);
        avcodec_free_context(&ctx);
    }
    int codec_id = 0;
    AVCodecContext* ctx = nullptr;
    SwrContext* swr = nullptr;
    int in_rate = 0;
    int in_channels = 0;
    uint64_t in_layout = 0;
    int in_fmt = 0;
    int out_fmt = 0;
    int out_channels = 0;
    int out_rate = 0;
};

AudioReference::AudioReference() = default;
AudioReference::~AudioReference() = default;

bool AudioReference::init(int codec_id, const std::array<int32_t, 7>& p,
                          const std::vector<uint8_t>& config) {
    state_.reset(new State());
    builds_ = 0;
    State& s = *state_;
    s.codec_id = codec_id;
    s.in_fmt = p[0];
    s.in_channels = p[1];
    s.in_layout = default_mask(p[1]);
    s.in_rate = p[2];
    s.out_fmt = p[4];
    s.out_channels = p[5];
    s.out_rate = p[6] > 0 ? p[6] : 44100;

    const AVCodec* codec = avcodec_find_decoder(static_cast<AVCodecID>(codec_id));
    if (codec == nullptr) {
        return false;
    }
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    ffcompat::set_context_channels(ctx, p[1]);
    ctx->sample_fmt = static_cast<AVSampleFormat>(p[0]);
    if (p[2] > 0) {
        ctx->sample_rate = p[2];
    }
    if (p[3] > 0) {
        if (static_cast<size_t>(p[3]) > SHM_AREA_SIZE ||
            static_cast<size_t>(p[3]) > config.size()) {
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

bool AudioReference::reset(int32_t out_sample_fmt, int32_t out_channels, int32_t out_sample_rate) {
    if (!state_ || state_->ctx == nullptr) {
        return false;
    }
    const State& s = *state_;
    return init(
        s.codec_id,
        {s.in_fmt, s.in_channels, s.in_rate, 0, out_sample_fmt, out_channels, out_sample_rate}, {});
}

void AudioReference::flush() {
    if (state_ && state_->ctx != nullptr) {
        avcodec_flush_buffers(state_->ctx);
    }
}

AudioStep AudioReference::decode(const uint8_t* data, int size, int64_t pts) {
    AudioStep failed;
    failed.status = -1;
    if (!state_ || state_->ctx == nullptr) {
        return AudioStep();  // no decoder: all zero
    }
    State& s = *state_;
    AVFrame* frame = av_frame_alloc();
    struct FrameFree {
        AVFrame* f;
        ~FrameFree() { av_frame_free(&f); }
    } frame_free{frame};
    const int ret = reference_decode_step(s.ctx, data, size, pts, frame);
    if (ret != 0) {
        AudioStep answer;
        answer.status = ret;
        return answer;
    }

    // The frame's own mask unless it has none or it disagrees with the channel count.
    const uint64_t mask = ffcompat::frame_channel_layout(frame);
    const int n_in = ffcompat::layout_nb_channels(mask);
    const int channels = ffcompat::frame_channels(frame);
    const uint64_t layout = (mask == 0 || n_in != channels) ? default_mask(channels) : mask;
    if (s.swr == nullptr || s.in_channels != n_in || s.in_layout != layout ||
        s.in_rate != frame->sample_rate || s.in_fmt != frame->format) {
        swr_free(&s.swr);
        s.in_rate = frame->sample_rate;
        s.in_channels = n_in;
        s.in_layout = layout;
        s.in_fmt = frame->format;
        s.swr = ffcompat::alloc_resampler(
            static_cast<int64_t>(default_mask(s.out_channels)),
            static_cast<AVSampleFormat>(s.out_fmt), s.out_rate, static_cast<int64_t>(layout),
            static_cast<AVSampleFormat>(frame->format), frame->sample_rate);
        ++builds_;
        if (s.swr == nullptr || swr_init(s.swr) < 0) {
            swr_free(&s.swr);
            return failed;
        }
    }

    const AVSampleFormat out_fmt = static_cast<AVSampleFormat>(s.out_fmt);
    const int bps = av_get_bytes_per_sample(out_fmt);
    const int nb = frame->nb_samples;
    if (bps <= 0 || nb <= 0 || s.out_channels <= 0 ||
        align32(nb) * static_cast<size_t>(bps) * static_cast<size_t>(s.out_channels) >
            SHM_AREA_SIZE) {
        return failed;
    }
    const bool planar = av_sample_fmt_is_planar(out_fmt) != 0;
    const int plane_count = planar ? s.out_channels : 1;
    const size_t plane_bytes = static_cast<size_t>(nb) * bps * (planar ? 1 : s.out_channels);
    AudioStep step;
    step.planes.assign(plane_count, std::vector<uint8_t>(plane_bytes));
    std::vector<uint8_t*> out(plane_count);
    for (int k = 0; k < plane_count; ++k) {
        out[k] = step.planes[k].data();
        step.plane_offsets.push_back(planar ? k * align32(nb) * bps : 0);
    }
    const int n =
        swr_convert(s.swr, out.data(), nb, const_cast<const uint8_t**>(frame->extended_data), nb);
    if (n < 0) {
        return failed;
    }
    for (auto& plane : step.planes) {
        plane.resize(static_cast<size_t>(n) * bps * (planar ? 1 : s.out_channels));
    }
    step.status = 0;
    step.output_size = static_cast<uint32_t>(n * s.out_channels * bps);
    // 64-bit sum that wraps, whatever the client's timestamp.
    step.output_pts = static_cast<int64_t>(
        static_cast<uint64_t>(pts) + static_cast<uint64_t>(int64_t{n} * 1000000 / s.out_rate));
    return step;
}

std::string compare_audio_output(const AudioStep& step, const uint8_t* output_area) {
    for (size_t k = 0; k < step.planes.size(); ++k) {
        const std::vector<uint8_t>& plane = step.planes[k];
        const uint8_t* got = output_area + step.plane_offsets[k];
        for (size_t i = 0; i < plane.size(); ++i) {
            if (got[i] != plane[i]) {
                return "plane " + std::to_string(k) + " (at " +
                       std::to_string(step.plane_offsets[k]) + ") differs at byte " +
                       std::to_string(i) + " of " + std::to_string(plane.size());
            }
        }
    }
    return "";
}
