#pragma once

// The one place that knows which FFmpeg is installed. The service was designed against the
// FFmpeg 4 interface (libavcodec 58); from FFmpeg 5.1 on, the channel-layout and resampler calls
// moved to AVChannelLayout and av_init_packet is deprecated. Everything version-dependent that
// the decoder needs goes through the helpers below, so the rest of the code reads the same on
// every version and clients see the same sizes, layouts and timestamps.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/hwcontext.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <cstdint>

// AVChannelLayout arrived in libavutil 57.24 (FFmpeg 5.1); the old fields are gone in FFmpeg 7.
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 24, 100)
#define SVC_HAVE_CH_LAYOUT 1
#else
#define SVC_HAVE_CH_LAYOUT 0
#endif

namespace ffcompat {

// Resets a packet's fields to their defaults; its data is not owned (it points into the block).
inline void init_packet(AVPacket* packet) {
#if LIBAVCODEC_VERSION_MAJOR < 59
    av_init_packet(packet);
#else
    av_packet_unref(packet);
#endif
}

inline int layout_nb_channels(uint64_t layout) {
#if SVC_HAVE_CH_LAYOUT
    return av_popcount64(layout);
#else
    return av_get_channel_layout_nb_channels(layout);
#endif
}

// The mask of the default layout for a channel count, 0 when there is none.
// FFmpeg 4 knows default layouts for 1 to 8 and 16 channels (the same masks on every version);
// 5.1 adds one for 24 and 7.1 for 10, 12 and 14. Those counts keep having none, so that a client
// asking for them fails alike on every version.
inline int64_t default_channel_layout(int channels) {
#if SVC_HAVE_CH_LAYOUT
    if (channels > 8 && channels != 16) {
        return 0;
    }
    AVChannelLayout layout{};
    av_channel_layout_default(&layout, channels);
    int64_t mask =
        layout.order == AV_CHANNEL_ORDER_NATIVE ? static_cast<int64_t>(layout.u.mask) : 0;
    av_channel_layout_uninit(&layout);
    return mask;
#else
    return av_get_default_channel_layout(channels);
#endif
}

// The frame's channel mask (0 when the frame has none) and its channel count.
inline uint64_t frame_channel_layout(const AVFrame* frame) {
#if SVC_HAVE_CH_LAYOUT
    return frame->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? frame->ch_layout.u.mask : 0;
#else
    return frame->channel_layout;
#endif
}

inline int frame_channels(const AVFrame* frame) {
#if SVC_HAVE_CH_LAYOUT
    return frame->ch_layout.nb_channels;
#else
    return frame->channels;
#endif
}

// Sets a decoder context's channel count without a layout, as the old `channels` field did.
inline void set_context_channels(AVCodecContext* ctx, int channels) {
#if SVC_HAVE_CH_LAYOUT
    av_channel_layout_uninit(&ctx->ch_layout);
    ctx->ch_layout.order = AV_CHANNEL_ORDER_UNSPEC;
    ctx->ch_layout.nb_channels = channels;
#else
    ctx->channels = channels;
#endif
}

// FFmpeg 4 treats GRAY8, RGB8, BGR8, RGB4_BYTE and BGR4_BYTE as pseudo-paletted: its picture
// buffers give them a palette plane, which the packed copy (av_image_copy_to_buffer) leaves out.
// Later versions dropped that.
inline bool is_pseudo_paletted(AVPixelFormat format) {
#if LIBAVUTIL_VERSION_MAJOR < 57
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    return desc != nullptr && (desc->flags & AV_PIX_FMT_FLAG_PSEUDOPAL) != 0;
#else
    (void)format;
    return false;
#endif
}

// The channel count of a demuxed stream.
inline int codecpar_channels(const AVCodecParameters* par) {
#if SVC_HAVE_CH_LAYOUT
    return par->ch_layout.nb_channels;
#else
    return par->channels;
#endif
}

// swr_alloc_set_opts with channel masks: a context with the given parameters, nullptr only when
// it cannot be allocated or an option not set. Layouts are checked by swr_init, as in FFmpeg 4;
// swr_alloc_set_opts2 would refuse a zero mask (no default layout for a channel count) already
// here, and the failure would be reported as an allocation failure instead of an init failure.
inline SwrContext* alloc_resampler(int64_t out_layout, AVSampleFormat out_fmt, int out_rate,
                                   int64_t in_layout, AVSampleFormat in_fmt, int in_rate) {
#if SVC_HAVE_CH_LAYOUT
    SwrContext* swr = swr_alloc();
    if (swr == nullptr) {
        return nullptr;
    }
    // A zero mask leaves the layout empty, with no channels.
    AVChannelLayout out_ch{}, in_ch{};
    av_channel_layout_from_mask(&out_ch, static_cast<uint64_t>(out_layout));
    av_channel_layout_from_mask(&in_ch, static_cast<uint64_t>(in_layout));
    const bool ok = av_opt_set_chlayout(swr, "ochl", &out_ch, 0) >= 0 &&
                    av_opt_set_int(swr, "osf", out_fmt, 0) >= 0 &&
                    av_opt_set_int(swr, "osr", out_rate, 0) >= 0 &&
                    av_opt_set_chlayout(swr, "ichl", &in_ch, 0) >= 0 &&
                    av_opt_set_int(swr, "isf", in_fmt, 0) >= 0 &&
                    av_opt_set_int(swr, "isr", in_rate, 0) >= 0;
    av_channel_layout_uninit(&out_ch);
    av_channel_layout_uninit(&in_ch);
    if (!ok) {
        swr_free(&swr);
    }
    return swr;
#else
    return swr_alloc_set_opts(nullptr, out_layout, out_fmt, out_rate, in_layout, in_fmt, in_rate, 0,
                              nullptr);
#endif
}

// Gives stream parameters a channel count with its default layout, the one the service's
// resampler writes (media-decode's --framemd5 header names it).
inline void set_codecpar_channels(AVCodecParameters* par, int channels) {
#if SVC_HAVE_CH_LAYOUT
    av_channel_layout_uninit(&par->ch_layout);
    av_channel_layout_default(&par->ch_layout, channels);
#else
    par->channels = channels;
    par->channel_layout = static_cast<uint64_t>(av_get_default_channel_layout(channels));
#endif
}

}  // namespace ffcompat
