#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "base/defer_action.h"
#include "decoder/ffmpeg_protocol.h"
#include "decoder/media_decoder_internal.h"
#include "decoder/memory_estimates.h"
#include "decoder/packed_picture.h"

using namespace decoder_detail;

namespace {

const char* device_type_name(AVHWDeviceType type) {
    const char* name = av_hwdevice_get_type_name(type);
    return name != nullptr ? name : "none";
}

const char* pix_fmt_name(int format) {
    const char* name = av_get_pix_fmt_name(pixel_format_from(format));
    return name != nullptr ? name : "none";
}

}  // namespace

bool MediaDecoder::init_video_codec_context(AVCodecID codec_id, int width, int height, int pix_fmt,
                                            int extradata_size, int out_width, int out_height,
                                            int out_pix_fmt) {
    LOGD("init video codec context");
    DeferAction failure([this] { write_failure(); });

    // The earlier state goes first, so that its release is logged before the new objects.
    {
        std::unique_ptr<video_context_t> previous = std::move(video_ctx);
        video_ctx.reset(new (std::nothrow) video_context_t());
    }
    if (!video_ctx) {
        LOGE("out of memory!");
        return false;
    }
    video_context_t& state = *video_ctx;
    state.width = width;
    state.height = height;
    state.pix_fmt = pix_fmt;
    state.out_width = out_width;
    state.out_height = out_height;
    state.out_pix_fmt = effective_out_pix_fmt(out_pix_fmt);
    if (!admit_video(state, codec_id, extradata_size)) {
        return false;
    }

    const AVCodec* codec = avcodec_find_decoder(codec_id);
    if (codec == nullptr) {
        LOGE("video codec not found");
        return false;
    }
    av_ptr<AVCodecContext> sw_ctx = open_sw_video_context(codec, state, extradata_size);
    if (!sw_ctx) {
        return false;
    }
    av_ptr<AVPacket> new_packet = own_packet(av_packet_alloc(), "freeing video packet");
    if (!new_packet) {
        LOGE("video packet alloc failed");
        return false;
    }
    av_ptr<AVFrame> new_frame = own_frame(av_frame_alloc(), "freeing video frame");
    if (!new_frame) {
        LOGE("video frame alloc failed");
        return false;
    }
    // A device type whose candidate cannot be made is left out; the software context decodes
    // whatever no candidate takes. A device is charged before it is opened.
    for (const char* name : HW_DEVICE_TYPES) {
        if (!state.setup_charge.add(memory_estimates::kHardwareDevice, "hardware device")) {
            break;
        }
        av_ptr<AVCodecContext> candidate = open_hw_candidate(
            codec, av_hwdevice_find_type_by_name(name), width, height, extradata_size);
        if (candidate) {
            state.hw_codec_candidates.push_back(std::move(candidate));
        } else {
            state.setup_charge.add(-memory_estimates::kHardwareDevice, nullptr);
        }
    }

    state.sw_codec_ctx = std::move(sw_ctx);
    packet = std::move(new_packet);
    frame = std::move(new_frame);
    clear_result();
    failure.cancel();
    return true;
}

// Refuses, before anything is allocated, a setup no decoder can honour: a coded or output picture
// beyond the largest side, or one whose least working set exceeds the whole budget. Then charges
// what the setup makes besides pictures: the worker's share, the context's tables, the
// configuration bytes of every context that gets them.
bool MediaDecoder::admit_video(video_context_t& state, AVCodecID codec_id, int extradata_size) {
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
    if (least > account.limit()) {
        LOGE(
            "memory budget exceeded: a %dx%d decoder into %dx%d needs %lld KiB, more than the "
            "whole budget of %lld KiB",
            state.width, state.height, state.out_width, state.out_height,
            static_cast<long long>(least / 1024), static_cast<long long>(account.limit() / 1024));
        return false;
    }
    state.setup_charge = MemoryCharge(&account);
    state.conversion_charge = MemoryCharge(&account);
    const int64_t config = std::max(extradata_size, 0);
    const int64_t contexts = 1 + static_cast<int64_t>(std::size(HW_DEVICE_TYPES));
    return state.setup_charge.set(memory_estimates::kClientOverhead + picture + contexts * config,
                                  "decoder setup");
}

// The largest picture a decoder may set itself up for: FFmpeg refuses a stream's larger sizes
// before it allocates its tables for them.
int64_t MediaDecoder::max_pixels() const {
    constexpr int64_t kMaxBytesPerPixel = 16;  // least_video_bytes of 4:2:0 and then some
    return std::min(int64_t{PictureLedger::kMaxSide} * PictureLedger::kMaxSide,
                    account.limit() / kMaxBytesPerPixel);
}

MediaDecoder::av_ptr<AVCodecContext> MediaDecoder::open_sw_video_context(const AVCodec* codec,
                                                                         video_context_t& state,
                                                                         int extradata_size) {
    av_ptr<AVCodecContext> ctx =
        own_codec_context(avcodec_alloc_context3(codec), "freeing video decoder context");
    if (!ctx) {
        LOGE("codec context alloc failed");
        return nullptr;
    }
    state.sw_ledger = PictureLedger::attach(
        ctx.get(), &account, memory_estimates::side_table_bytes_per_pixel(codec->id));
    ctx->max_pixels = max_pixels();
    ctx->codec_type = AVMEDIA_TYPE_VIDEO;
    ctx->width = state.width;
    ctx->height = state.height;
    ctx->pix_fmt = pixel_format_from(state.pix_fmt);
    if (extradata_size > 0 && !append_extradata(ctx.get(), extradata_size)) {
        return nullptr;
    }
    if (avcodec_open2(ctx.get(), codec, nullptr) < 0) {
        LOGE("video decoder open failed");
        return nullptr;
    }
    return ctx;
}

// One hardware candidate: a context of the same codec with a device of `type` and the surface
// format it decodes into in its user data, for get_hw_format and the transfer after decoding. A
// decoder without a configuration for the type still gets its candidate (which then never
// decodes), as long as the device opens.
MediaDecoder::av_ptr<AVCodecContext> MediaDecoder::open_hw_candidate(const AVCodec* codec,
                                                                     AVHWDeviceType type, int width,
                                                                     int height,
                                                                     int extradata_size) {
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
        user_data->pictures = MemoryCharge(&account);
    }
    ctx->opaque = user_data;
    ctx->get_format = &MediaDecoder::get_hw_format;
    if (extradata_size > 0 && !append_extradata(ctx.get(), extradata_size)) {
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

int MediaDecoder::hw_decoder_init(AVCodecContext* ctx, AVHWDeviceType type) {
    auto* user_data = static_cast<hw_user_data_t*>(ctx->opaque);
    if (user_data == nullptr) {
        LOGE("failed to get user data from codec context");
        return -1;
    }
    int err = (hw_seam != nullptr && hw_seam->create_device)
                  ? hw_seam->create_device(&user_data->hw_device_ctx, type)
                  : av_hwdevice_ctx_create(&user_data->hw_device_ctx, type, nullptr, nullptr, 0);
    if (err < 0) {
        LOGE("failed to create specified HW device: %s", AvErrorText(err).text);
        return err;
    }
    ctx->hw_device_ctx = av_buffer_ref(user_data->hw_device_ctx);
    return err;
}

AVPixelFormat MediaDecoder::get_hw_format(AVCodecContext* ctx, const AVPixelFormat* pix_fmts) {
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

const char* MediaDecoder::chosen_device_name() const {
    const AVCodecContext* ctx = video_ctx ? video_ctx->hw_codec_ctx.get() : nullptr;
    if (ctx == nullptr || ctx->hw_device_ctx == nullptr) {
        return "hw";
    }
    return device_type_name(
        reinterpret_cast<const AVHWDeviceContext*>(ctx->hw_device_ctx->data)->type);
}

int MediaDecoder::decode_with(AVCodecContext* ctx) {
    if (hw_seam != nullptr && hw_seam->decode_context) {
        return hw_seam->decode_context(
            ctx, [this, ctx] { return decode_video(ctx, packet.get(), frame.get()); });
    }
    return decode_video(ctx, packet.get(), frame.get());
}

void MediaDecoder::decode_video_branch() {
    video_context_t* state = video_ctx.get();
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
        if (decode_with(it->get()) >= 0) {
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

// Everything after the picture reads as zero, so stale bytes never reach the client. Writing
// zeros over the rest of the area would cost more than the conversion for a small picture; the
// whole pages behind it are released from the client's object instead: they then read as zeros
// on both sides, and pages nobody touches are never written again. Where that is refused (a
// sealed object, a block the shared-memory guard has replaced by private pages), they are written
// as before.
void MediaDecoder::clear_output_after(size_t used) {
    static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    // The mapping is page-aligned, and so are the area's offset and size for the page sizes of
    // x86-64 and arm64 kernels (4, 16 or 64 KiB).
    static_assert(SHM_OUTPUT_OFFSET % 0x10000 == 0 && SHM_AREA_SIZE % 0x10000 == 0,
                  "output area aligned to 64 KiB");
    uint8_t* area = output_area();
    const size_t boundary = std::min((used + page - 1) / page * page, SHM_AREA_SIZE);
    memset(area + used, 0, boundary - used);
    if (boundary < SHM_AREA_SIZE &&
        !release_pages(SHM_OUTPUT_OFFSET + boundary, SHM_AREA_SIZE - boundary)) {
        memset(area + boundary, 0, SHM_AREA_SIZE - boundary);
    }
}

// Punches a hole into the object through its descriptor (a POSIX object, a memfd), else through
// the mapping (an ashmem region: its driver has no fallocate, but its mapping is of the backing
// object). The descriptor comes first because user-mode emulators answer madvise with success
// without doing anything.
bool MediaDecoder::release_pages(size_t offset, size_t length) {
    const int fd = ashmem ? ashmem->mFd : shm_fd.get();
    if (fd >= 0 && fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                             static_cast<off_t>(offset), static_cast<off_t>(length)) == 0) {
        return true;
    }
    return madvise(block + offset, length, MADV_REMOVE) == 0;
}

// Charges the conversion of a decoded picture before any of it is allocated; unchanged while the
// pictures keep their size.
bool MediaDecoder::charge_conversion(video_context_t& state, const AVFrame* picture, int format,
                                     bool from_hardware) {
    const int64_t source = memory_estimates::picture_bytes(picture->width, picture->height, format);
    const int64_t output =
        memory_estimates::picture_bytes(state.out_width, state.out_height, state.out_pix_fmt);
    return state.conversion_charge.set(
        memory_estimates::conversion_bytes(source, picture->width, state.out_width, output,
                                           from_hardware),
        "picture conversion");
}

int MediaDecoder::decode_video(AVCodecContext* codec_ctx, AVPacket* pkt, AVFrame* frm) {
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

    ret = avcodec_receive_frame(codec_ctx, frm);
    if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
        LOGD("need more data or eof reached");
        write_result(STATUS_NEED_MORE_DATA, 0, 0);
        av_frame_unref(frm);
        failure.cancel();
        return 0;
    }
    if (ret < 0) {
        LOGE("error decoding packet");
        return ret;
    }

    // Only a hardware context's opaque is its user data.
    auto* user_data = codec_ctx->hw_device_ctx != nullptr
                          ? static_cast<hw_user_data_t*>(codec_ctx->opaque)
                          : nullptr;
    const bool transfer = user_data != nullptr && frm->format == user_data->hw_pix_fmt;
    video_context_t& state = *video_ctx;
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
    int size = av_image_get_buffer_size(out_format, state.out_width, state.out_height, 1);
    if (size > static_cast<int>(SHM_AREA_SIZE)) {
        LOGE("output image size overflow!!");
        return AVERROR_BUG;
    }

    packed_picture::Failure step;
    int copied = packed_picture::convert(sws, source, output_area(), out_format, state.out_width,
                                         state.out_height, &step);
    if (copied < 0) {
        LOGE(step == packed_picture::Failure::kAlloc ? "image buffer alloc failed"
                                                     : "copy image to output buffer failed");
        return copied;
    }
    clear_output_after(static_cast<size_t>(copied));

    int64_t pts = frm->best_effort_timestamp;
    write_result(STATUS_OK, static_cast<uint32_t>(copied), pts);
    LOGD("video frame size: %d, pts: %ld", copied, static_cast<long>(pts));

    failure.cancel();
    av_frame_unref(frm);
    return 0;
}
