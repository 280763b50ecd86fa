// Video decoding: the choice of the context that decodes (the hardware trial), one packet through
// it, and the picture converted into the output area.

#include <cstring>

#include "base/defer_action.h"
#include "protocol/ffmpeg_protocol.h"
#include "decoder/media_codec_internal.h"
#include "decoder/memory_estimates.h"
#include "decoder/packed_picture.h"

using namespace codec_detail;
using namespace mediaclient::protocol;

const char* MediaCodec::chosen_device_name() const {
    const AVCodecContext* ctx = video_ctx_ ? video_ctx_->hw_codec_ctx.get() : nullptr;
    if (ctx == nullptr || ctx->hw_device_ctx == nullptr) {
        return "hw";
    }
    return device_type_name(
        reinterpret_cast<const AVHWDeviceContext*>(ctx->hw_device_ctx->data)->type);
}

std::vector<const AVCodecContext*> MediaCodec::video_contexts() const {
    std::vector<const AVCodecContext*> contexts;
    if (video_ctx_ && video_ctx_->sw_codec_ctx) {
        contexts = {video_ctx_->sw_codec_ctx.get(), video_ctx_->hw_codec_ctx.get()};
        for (const auto& candidate : video_ctx_->hw_codec_candidates) {
            contexts.push_back(candidate.get());
        }
    }
    return contexts;
}

int MediaCodec::decode_with(AVCodecContext* ctx) {
    return seam_.decode(ctx,
                        [this, ctx] { return decode_video(ctx, packet_.get(), frame_.get()); });
}

// The chosen hardware context decodes every packet; until one is chosen, every packet goes to
// each candidate in turn, and the first that takes it is chosen, else the software context decodes
// it.
void MediaCodec::decode_video_branch() {
    video_context_t* state = video_ctx_.get();
    if (state == nullptr || !state->sw_codec_ctx) {
        // A reset whose setup failed leaves a state without contexts.
        LOGE("decoder context not initialized!!");
        clear_result();
        return;
    }
    if (state->hw_codec_ctx) {
        decode_with(state->hw_codec_ctx.get());
        return;
    }
    auto& candidates = state->hw_codec_candidates;
    if (candidates.empty()) {
        decode_with(state->sw_codec_ctx.get());
        return;
    }
    for (auto it = candidates.begin(); it != candidates.end(); ++it) {
        if (try_candidate(it->get())) {
            state->hw_codec_ctx = std::move(*it);
            candidates.erase(it);
            break;
        }
        // A candidate that failed holds no surfaces until its next trial.
        if (auto* user_data = static_cast<hw_user_data_t*>((*it)->opaque)) {
            user_data->pictures.set(0, nullptr);
        }
    }
    // The chosen context decodes the packet again; its result is the one the client sees.
    decode_with(state->hw_codec_ctx ? state->hw_codec_ctx.get() : state->sw_codec_ctx.get());
}

// Whether the candidate decodes the packet. Its failures stay out of the system log, which hears
// the outcome once per device and codec instead.
bool MediaCodec::try_candidate(AVCodecContext* candidate) {
    bool decodes = false;
    {
        SystemLogMute quiet;
        decodes = decode_with(candidate) >= 0;
    }
    const AVBufferRef* device_ref = candidate->hw_device_ctx;
    const AVHWDeviceType type =
        device_ref != nullptr ? reinterpret_cast<const AVHWDeviceContext*>(device_ref->data)->type
                              : AV_HWDEVICE_TYPE_NONE;
    const std::string device =
        std::string(device_type_name(type)) + " " + avcodec_get_name(candidate->codec_id);
    SvcSystemLogDevice(decodes ? SVC_LOG_INFO : SVC_LOG_WARN, device.c_str(),
                       decodes ? "decodes" : "opens, but does not decode");
    return decodes;
}

// Charges the conversion of a decoded picture before any of it is allocated; unchanged while the
// pictures keep their size.
bool MediaCodec::charge_conversion(video_context_t& state, const AVFrame* picture, int format,
                                   bool from_hardware) {
    const int64_t source = memory_estimates::picture_bytes(picture->width, picture->height, format);
    const int64_t output =
        memory_estimates::picture_bytes(state.out_width, state.out_height, state.out_pix_fmt);
    return state.conversion_charge.set(
        memory_estimates::conversion_bytes(source, picture->width, state.out_width, output,
                                           from_hardware),
        "picture conversion");
}

int MediaCodec::decode_video(AVCodecContext* codec_ctx, AVPacket* pkt, AVFrame* frm) {
    DeferAction failure([this, frm] {
        av_frame_unref(frm);
        write_failure();
    });
    LOGD("decoding video frame");
    int ret = avcodec_send_packet(codec_ctx, pkt);
    if (ret < 0) {
        LOGE("error sending a packet for decoding: %s", AvErrorText(ret).text);
        return ret;
    }
    av_ptr<AVFrame> sw_frame = own_frame(av_frame_alloc(), "freeing temp SW frame");
    if (!sw_frame) {
        LOGE("out of memory!!");
        return AVERROR(ENOMEM);
    }
    ret = receive_frame(codec_ctx, frm, "error decoding packet");
    if (ret <= 0) {
        if (ret == 0) {
            failure.cancel();
        }
        return ret;
    }
    // Only a hardware context's opaque is its user data.
    auto* user_data = codec_ctx->hw_device_ctx != nullptr
                          ? static_cast<hw_user_data_t*>(codec_ctx->opaque)
                          : nullptr;
    const bool transfer = user_data != nullptr && frm->format == user_data->hw_pix_fmt;
    video_context_t& state = *video_ctx_;
    if (!charge_conversion(state, frm, transfer ? codec_ctx->sw_pix_fmt : frm->format, transfer)) {
        return AVERROR(ENOMEM);
    }
    AVFrame* source = frm;
    if (transfer) {
        ret = av_hwframe_transfer_data(sw_frame.get(), frm, 0);
        if (ret < 0) {
            LOGE("error transferring HW frame to SW frame");
            return ret;
        }
        source = sw_frame.get();
    }
    const int copied = convert_picture(state, source);
    if (copied < 0) {
        return copied;
    }
    const int64_t pts = frm->best_effort_timestamp;
    write_result(STATUS_OK, static_cast<uint32_t>(copied), pts);
    LOGD("video frame size: %d, pts: %ld", copied, static_cast<long>(pts));
    failure.cancel();
    av_frame_unref(frm);
    return 0;
}

// The picture into the output area, in the output size and format: its size, or a negative
// FFmpeg error.
int MediaCodec::convert_picture(video_context_t& state, AVFrame* source) {
    const AVPixelFormat out_format = static_cast<AVPixelFormat>(state.out_pix_fmt);
    SwsContext* sws =
        sws_getCachedContext(state.sws_ctx.release(), source->width, source->height,
                             static_cast<AVPixelFormat>(source->format), state.out_width,
                             state.out_height, out_format, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (sws == nullptr) {
        LOGE("cannot initialize convertion context");  // sic: verbatim log text
        return AVERROR(ENOMEM);
    }
    state.sws_ctx = av_ptr<SwsContext>(sws, [](SwsContext* s) {
        LOGD("freeing SW scale context");
        sws_freeContext(s);
    });
    // Refuse a picture that cannot fit before allocating and converting it, so that a client
    // asking for a huge output size cannot make the service allocate gigabytes.
    const int size = av_image_get_buffer_size(out_format, state.out_width, state.out_height, 1);
    if (size > static_cast<int>(SHM_AREA_SIZE)) {
        LOGE("output image size overflow!!");
        return AVERROR_BUG;
    }
    packed_picture::Failure step;
    const int copied =
        packed_picture::convert(sws, source, areas_.output, SHM_AREA_SIZE, out_format,
                                state.out_width, state.out_height, &step);
    if (copied < 0) {
        LOGE(step == packed_picture::Failure::kAlloc ? "image buffer alloc failed"
                                                     : "copy image to output buffer failed");
        return copied;
    }
    areas_.clear_after(static_cast<size_t>(copied));
    return copied;
}
