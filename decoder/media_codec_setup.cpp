// Video setup: the software context and a hardware candidate per device type that opens, and the
// two callbacks of hardware decoding.

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "base/defer_action.h"
#include "protocol/ffmpeg_protocol.h"
#include "decoder/media_codec_internal.h"
#include "decoder/memory_estimates.h"

using namespace codec_detail;
using namespace mediaclient::protocol;

namespace {

const char* pix_fmt_name(int format) {
    const char* name = av_get_pix_fmt_name(pixel_format_from(format));
    return name != nullptr ? name : "none";
}

}  // namespace

const char* codec_detail::device_type_name(AVHWDeviceType type) {
    const char* name = av_hwdevice_get_type_name(type);
    return name != nullptr ? name : "none";
}

bool MediaCodec::init_video(const Setup& setup) {
    LOGD("init video codec context");
    const VideoSetup& v = setup.video;
    const uint8_t* config = setup.config;
    const int config_size = setup.config_size;
    DeferAction failure([this] { write_failure(); });

    // The earlier state goes first, so that its release is logged before the new objects.
    {
        std::unique_ptr<video_context_t> previous = std::move(video_ctx_);
        video_ctx_.reset(new (std::nothrow) video_context_t());
    }
    if (!video_ctx_) {
        LOGE("out of memory!");
        return false;
    }
    video_context_t& state = *video_ctx_;
    state.width = v.coded_width;
    state.height = v.coded_height;
    state.pix_fmt = v.coded_pix_fmt;
    state.out_width = v.out_width;
    state.out_height = v.out_height;
    state.out_pix_fmt = effective_out_pix_fmt(v.out_pix_fmt);
    if (!admit_video(state, setup.codec_id, config_size)) {
        return false;
    }
    const AVCodec* codec = avcodec_find_decoder(setup.codec_id);
    if (codec == nullptr) {
        LOGE("video codec not found");
        return false;
    }
    av_ptr<AVCodecContext> sw_ctx = open_sw_video_context(codec, state, config, config_size);
    if (!sw_ctx) {
        return false;
    }
    av_ptr<AVPacket> new_packet;
    av_ptr<AVFrame> new_frame;
    if (!alloc_packet_and_frame(MEDIA_TYPE_VIDEO, &new_packet, &new_frame)) {
        return false;
    }
    open_hw_candidates(codec, state, config, config_size);
    state.sw_codec_ctx = std::move(sw_ctx);
    packet_ = std::move(new_packet);
    frame_ = std::move(new_frame);
    clear_result();
    failure.cancel();
    return true;
}

// Refuses, before anything is allocated, a setup no decoder can honour: a coded or output picture
// beyond the largest side, or one whose least working set exceeds the whole budget. Then charges
// what the setup makes besides pictures: the worker's share, the context's tables, the
// configuration bytes of every context that gets them.
bool MediaCodec::admit_video(video_context_t& state, AVCodecID codec_id, int config_size) {
    const int side = PictureLedger::kMaxSide;
    if (state.width > side || state.height > side || state.out_width > side ||
        state.out_height > side) {
        LOGE("picture size refused: coded %dx%d, output %dx%d; at most %d on a side", state.width,
             state.height, state.out_width, state.out_height, side);
        return false;
    }
    const int64_t picture =
        memory_estimates::picture_bytes(state.width, state.height, state.pix_fmt);
    const int64_t output =
        memory_estimates::picture_bytes(state.out_width, state.out_height, state.out_pix_fmt);
    const int64_t least = memory_estimates::least_video_bytes(
        codec_id, picture, state.width, state.height, state.out_width, output);
    if (least > account_.limit()) {
        LOGE(
            "memory budget exceeded: a %dx%d decoder into %dx%d needs %lld KiB, more than the "
            "whole budget of %lld KiB",
            state.width, state.height, state.out_width, state.out_height,
            static_cast<long long>(least / 1024), static_cast<long long>(account_.limit() / 1024));
        return false;
    }
    state.setup_charge = MemoryCharge(&account_);
    state.conversion_charge = MemoryCharge(&account_);
    const int64_t config = std::max(config_size, 0);
    const int64_t contexts = 1 + static_cast<int64_t>(std::size(HW_DEVICE_TYPES));
    return state.setup_charge.set(memory_estimates::kClientOverhead + picture + contexts * config,
                                  "decoder setup");
}

// The largest picture a decoder may set itself up for: FFmpeg refuses a stream's larger sizes
// before it allocates its tables for them.
int64_t MediaCodec::max_pixels() const {
    constexpr int64_t kMaxBytesPerPixel = 16;  // least_video_bytes of 4:2:0 and then some
    return std::min(int64_t{PictureLedger::kMaxSide} * PictureLedger::kMaxSide,
                    account_.limit() / kMaxBytesPerPixel);
}

MediaCodec::av_ptr<AVCodecContext> MediaCodec::open_sw_video_context(const AVCodec* codec,
                                                                     video_context_t& state,
                                                                     const uint8_t* config,
                                                                     int config_size) {
    av_ptr<AVCodecContext> ctx =
        own_codec_context(avcodec_alloc_context3(codec), "freeing video decoder context");
    if (!ctx) {
        LOGE("codec context alloc failed");
        return nullptr;
    }
    state.sw_ledger = PictureLedger::attach(
        ctx.get(), &account_, memory_estimates::side_table_bytes_per_pixel(codec->id));
    ctx->max_pixels = max_pixels();
    ctx->codec_type = AVMEDIA_TYPE_VIDEO;
    ctx->width = state.width;
    ctx->height = state.height;
    ctx->pix_fmt = pixel_format_from(state.pix_fmt);
    if (config_size > 0 && !append_extradata(ctx.get(), config, config_size)) {
        return nullptr;
    }
    if (avcodec_open2(ctx.get(), codec, nullptr) < 0) {
        LOGE("video decoder open failed");
        return nullptr;
    }
    return ctx;
}

// A device type whose candidate cannot be made is left out; the software context decodes
// whatever no candidate takes. A device is charged before it is opened.
void MediaCodec::open_hw_candidates(const AVCodec* codec, video_context_t& state,
                                    const uint8_t* config, int config_size) {
    // A device's failures are the device's news, told once for the service: not each client's.
    SystemLogMute quiet;
    for (const char* name : HW_DEVICE_TYPES) {
        if (!state.setup_charge.add(memory_estimates::kHardwareDevice, "hardware device")) {
            return;
        }
        av_ptr<AVCodecContext> candidate =
            open_hw_candidate(codec, av_hwdevice_find_type_by_name(name), state.width, state.height,
                              config, config_size);
        if (candidate) {
            state.hw_codec_candidates.push_back(std::move(candidate));
        } else {
            state.setup_charge.add(-memory_estimates::kHardwareDevice, nullptr);
        }
    }
}

// One hardware candidate: a context of the same codec with a device of `type` and the surface
// format it decodes into in its user data, for get_hw_format and the transfer after decoding. A
// decoder without a configuration for the type still gets its candidate (which then never
// decodes), as long as the device opens.
MediaCodec::av_ptr<AVCodecContext> MediaCodec::open_hw_candidate(const AVCodec* codec,
                                                                 AVHWDeviceType type, int width,
                                                                 int height, const uint8_t* config,
                                                                 int config_size) {
    const AVPixelFormat hw_pix_fmt = hw_surface_format(codec, type);
    if (hw_pix_fmt == AV_PIX_FMT_NONE) {
        LOGE("decoder %s does not support device type %s", codec->name, device_type_name(type));
    } else {
        LOGD("hw pix fmt: %s", pix_fmt_name(hw_pix_fmt));
    }
    av_ptr<AVCodecContext> ctx = own_hw_codec_context(avcodec_alloc_context3(codec));
    if (!ctx) {
        LOGE("codec context alloc failed");
        return nullptr;
    }
    ctx->codec_type = AVMEDIA_TYPE_VIDEO;
    ctx->width = width;
    ctx->height = height;
    ctx->max_pixels = max_pixels();
    auto* user_data = new (std::nothrow) hw_user_data_t();
    if (user_data != nullptr) {
        user_data->hw_pix_fmt = hw_pix_fmt;
        user_data->pictures = MemoryCharge(&account_);
    }
    ctx->opaque = user_data;
    ctx->get_format = &MediaCodec::get_hw_format;
    if (config_size > 0 && !append_extradata(ctx.get(), config, config_size)) {
        return nullptr;
    }
    if (hw_decoder_init(ctx.get(), type) < 0) {
        LOGE("failed to initialize HW decoder");
        return nullptr;
    }
    int ret = avcodec_open2(ctx.get(), codec, nullptr);
    if (ret < 0) {
        LOGE("failed to open codec: %s", AvErrorText(ret).text);
        return nullptr;
    }
    return ctx;
}

int MediaCodec::hw_decoder_init(AVCodecContext* ctx, AVHWDeviceType type) {
    auto* user_data = static_cast<hw_user_data_t*>(ctx->opaque);
    if (user_data == nullptr) {
        LOGE("failed to get user data from codec context");
        return -1;
    }
    int err = seam_.create_device(&user_data->hw_device_ctx, type);
    if (err < 0) {
        LOGE("failed to create specified HW device: %s", AvErrorText(err).text);
        return err;
    }
    ctx->hw_device_ctx = av_buffer_ref(user_data->hw_device_ctx);
    return err;
}

AVPixelFormat MediaCodec::get_hw_format(AVCodecContext* ctx, const AVPixelFormat* pix_fmts) {
    auto* user_data = ctx != nullptr ? static_cast<hw_user_data_t*>(ctx->opaque) : nullptr;
    if (user_data == nullptr) {
        LOGE("failed to get user data from codec context");
        return AV_PIX_FMT_NONE;
    }
    for (const AVPixelFormat* p = pix_fmts; p != nullptr && *p != AV_PIX_FMT_NONE; ++p) {
        if (*p == user_data->hw_pix_fmt) {
            // The decoder makes its pool of surfaces next; they are charged first.
            const int64_t pictures = memory_estimates::kHardwarePictures *
                                     memory_estimates::picture_bytes(
                                         ctx->coded_width, ctx->coded_height, ctx->sw_pix_fmt);
            if (!user_data->pictures.set(pictures, "hardware pictures")) {
                return AV_PIX_FMT_NONE;
            }
            LOGD("get_hw_format: %s", pix_fmt_name(*p));
            return *p;
        }
    }
    LOGE("failed to get HW surface format");
    return AV_PIX_FMT_NONE;
}
