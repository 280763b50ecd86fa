// Audio: the setup, and each packet decoded and resampled straight into the output area.

#include <algorithm>
#include <cstring>
#include <new>

#include "base/defer_action.h"
#include "decoder/media_codec_internal.h"
#include "decoder/memory_estimates.h"
#include "protocol/ffmpeg_protocol.h"

using namespace codec_detail;
using namespace mediaclient::protocol;

namespace {

// The channel layout a decoded audio frame is resampled from: its own, or the default layout for
// its channel count where its layout is missing or disagrees with that count.
int64_t frame_input_layout(const AVFrame* frame) {
    const uint64_t layout = ffcompat::frame_channel_layout(frame);
    const int channels = ffcompat::frame_channels(frame);
    if (layout == 0 || ffcompat::layout_nb_channels(layout) != channels) {
        return ffcompat::default_channel_layout(channels);
    }
    return static_cast<int64_t>(layout);
}

}  // namespace

// The decoder context of the state's input format with the configuration bytes, opened; null,
// with the reason logged, when it cannot be.
MediaCodec::av_ptr<AVCodecContext> MediaCodec::open_audio_context(audio_context_t& state,
                                                                  AVCodecID codec_id,
                                                                  const uint8_t* config,
                                                                  int config_size) {
    const AVCodec* codec = avcodec_find_decoder(codec_id);
    if (codec == nullptr) {
        LOGE("audio codec not found");
        return nullptr;
    }
    av_ptr<AVCodecContext> ctx =
        own_codec_context(avcodec_alloc_context3(codec), "freeing audio decoder context");
    if (!ctx) {
        LOGE("audio codec context alloc failed");
        return nullptr;
    }
    state.ledger = PictureLedger::attach(ctx.get(), &account_, 0);
    // No frame beyond what the output area could take in any format (a byte a sample).
    ctx->max_samples = static_cast<int64_t>(SHM_AREA_SIZE);
    ffcompat::set_context_channels(ctx.get(), state.in_channels);
    ctx->sample_fmt = sample_format_from(state.in_sample_fmt);
    if (state.in_sample_rate > 0) {
        ctx->sample_rate = state.in_sample_rate;
    }
    if (config_size > 0 && !append_extradata(ctx.get(), config, config_size)) {
        return nullptr;
    }
    int ret = avcodec_open2(ctx.get(), codec, nullptr);
    if (ret < 0) {
        LOGE("audio decoder open failed: %s", AvErrorText(ret).text);
        return nullptr;
    }
    return ctx;
}

bool MediaCodec::init_audio(const Setup& setup) {
    LOGD("init audio codec context");
    const AudioSetup& a = setup.audio;
    DeferAction failure([this] { write_failure(); });

    {
        std::unique_ptr<audio_context_t> previous = std::move(audio_ctx_);
        audio_ctx_.reset(new (std::nothrow) audio_context_t());
    }
    if (!audio_ctx_) {
        LOGE("out of memory!");
        return false;
    }
    audio_context_t& state = *audio_ctx_;
    state.in_sample_rate = a.in_sample_rate;
    state.in_channels = a.in_channels;
    state.in_channel_layout = ffcompat::default_channel_layout(a.in_channels);
    state.in_sample_fmt = a.in_sample_fmt;
    state.out_sample_rate = effective_out_sample_rate(a.out_sample_rate);
    state.out_channels = a.out_channels;
    state.out_sample_fmt = a.out_sample_fmt;
    state.out_channel_layout = ffcompat::default_channel_layout(a.out_channels);
    state.setup_charge = MemoryCharge(&account_);
    state.resampler_charge = MemoryCharge(&account_);
    if (!state.setup_charge.set(
            memory_estimates::kClientOverhead + std::max(setup.config_size, int32_t{0}),
            "decoder setup")) {
        return false;
    }

    av_ptr<AVCodecContext> ctx =
        open_audio_context(state, setup.codec_id, setup.config, setup.config_size);
    if (!ctx) {
        return false;
    }

    av_ptr<AVPacket> new_packet;
    av_ptr<AVFrame> new_frame;
    if (!alloc_packet_and_frame(MEDIA_TYPE_AUDIO, &new_packet, &new_frame)) {
        return false;
    }

    state.codec_ctx = std::move(ctx);
    packet_ = std::move(new_packet);
    frame_ = std::move(new_frame);

    clear_result();
    failure.cancel();
    return true;
}

// Keeps the resampler while the decoded input format stays the same and builds a new one when it
// changes; the state then records the new input format, which a reset rebuilds the decoder with.
// A frame whose layout is missing or disagrees with its channel count is taken in the default
// layout for that count.
int MediaCodec::update_resampler(audio_context_t& state, const AVFrame* frm) {
    const int n_in = ffcompat::layout_nb_channels(ffcompat::frame_channel_layout(frm));
    const int64_t layout = frame_input_layout(frm);
    if (state.swr_ctx && state.in_channels == n_in && state.in_channel_layout == layout &&
        state.in_sample_rate == frm->sample_rate && state.in_sample_fmt == frm->format) {
        return 0;
    }
    state.swr_ctx.reset();
    state.in_sample_rate = frm->sample_rate;
    state.in_channels = n_in;
    state.in_channel_layout = layout;
    state.in_sample_fmt = frm->format;

    av_ptr<SwrContext> swr(ffcompat::alloc_resampler(
                               state.out_channel_layout, sample_format_from(state.out_sample_fmt),
                               state.out_sample_rate, layout,
                               static_cast<AVSampleFormat>(frm->format), frm->sample_rate),
                           [](SwrContext* s) {
                               LOGD("freeing SW resample context");
                               swr_free(&s);
                           });
    if (!swr) {
        LOGE("resample context alloc failed");
        return AVERROR(ENOMEM);
    }
    int ret = swr_init(swr.get());
    if (ret < 0) {
        LOGE("resample context init failed");
        return ret;
    }
    state.swr_ctx = std::move(swr);
    return 0;
}

int MediaCodec::decode_audio(AVCodecContext* codec_ctx, AVPacket* pkt, AVFrame* frm) {
    LOGD("decoding audio frame");
    DeferAction failure([this] { write_failure(); });
    int ret = avcodec_send_packet(codec_ctx, pkt);
    if (ret < 0) {
        SvcSystemLogReason(AvErrorText(ret).text);
        LOGE("sending packet to audio decoder failed");
        return ret;
    }
    ret = receive_frame(codec_ctx, frm, "error receiving audio frame from decoder");
    if (ret <= 0) {
        if (ret == 0) {
            failure.cancel();
        }
        return ret;
    }
    audio_context_t& state = *audio_ctx_;
    ret = update_resampler(state, frm);
    if (ret < 0) {
        return ret;
    }
    // The packet still holds the request's pts: the output's counts from it.
    ret = convert_samples(state, frm, pkt->pts);
    if (ret < 0) {
        return ret;
    }
    failure.cancel();
    return 0;
}

// The frame's samples, resampled straight into the output area, and the result that says how
// many and when. The frame is not unreferenced here; the next avcodec_receive_frame does that.
int MediaCodec::convert_samples(audio_context_t& state, AVFrame* frm, int64_t request_pts) {
    auto** planes = static_cast<uint8_t**>(av_calloc(state.out_channels, sizeof(uint8_t*)));
    if (planes == nullptr) {
        LOGE("could not alloc converted sample pointers");
        return AVERROR(ENOMEM);
    }
    DeferAction free_planes([&planes] { av_freep(&planes); });
    const AVSampleFormat out_format = sample_format_from(state.out_sample_fmt);
    int needed =
        av_samples_get_buffer_size(nullptr, state.out_channels, frm->nb_samples, out_format, 0);
    if (needed < 0) {
        LOGE("could not get buffer size for target audio samples");
        return AVERROR_UNKNOWN;
    }
    // The converted samples are written straight into the block; never past the output area.
    if (static_cast<size_t>(needed) > SHM_AREA_SIZE) {
        LOGE("converted audio exceeds the output area: %d bytes", needed);
        return AVERROR_UNKNOWN;
    }
    // The resampler's buffers and the output area's pages it writes.
    if (!state.resampler_charge.set(2 * int64_t{needed} + memory_estimates::kMiB / 16,
                                    "sample conversion")) {
        return AVERROR(ENOMEM);
    }
    if (av_samples_fill_arrays(planes, nullptr, areas_.output, state.out_channels, frm->nb_samples,
                               out_format, 0) < 0) {
        LOGE("could not fill target audio sample pointers");
        return AVERROR_UNKNOWN;
    }
    const int n = swr_convert(state.swr_ctx.get(), planes, frm->nb_samples,
                              const_cast<const uint8_t**>(frm->extended_data), frm->nb_samples);
    if (n < 0) {
        LOGE("could not convert audio samples");
        return n;
    }
    const uint32_t output_size =
        static_cast<uint32_t>(n * state.out_channels * av_get_bytes_per_sample(out_format));
    // The pts is the client's: sum in unsigned arithmetic so that a value near the end of the
    // range wraps instead of overflowing.
    const uint64_t duration = static_cast<uint64_t>(int64_t{n} * 1000000 / state.out_sample_rate);
    const int64_t output_pts = static_cast<int64_t>(static_cast<uint64_t>(request_pts) + duration);
    write_result(STATUS_OK, output_size, output_pts);
    LOGD("audio frames: %d, frame size: %d, pts: %ld", n, static_cast<int>(output_size),
         static_cast<long>(output_pts));
    return 0;
}
