#pragma once

// The facts of the protocol that need FFmpeg to state, for the service, the client library's checks
// and the tools alike: the codec of each table row, what output formats a client may ask for, the
// hardware device types in the order the video setup tries them, and the surface format a decoder
// produces on a device. Not installed: clients state formats by name (media_client.h).
//
// Only interfaces every supported FFmpeg has: version switches belong to decoder/ffmpeg_compat.h.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include <cstdint>

#include "protocol/media_protocol.h"

namespace mediaclient {
namespace protocol {

// Format numbers from a client's request as FFmpeg enumerators. A number beyond either end of the
// enumeration would make an enum hold a value it cannot represent (undefined behaviour); it
// becomes the nearest invalid value past that end instead, which FFmpeg refuses exactly as it
// refuses the original number.
template <typename Format>
Format format_from(int value, Format none, Format count) {
    if (value < none) {
        return static_cast<Format>(none - 1);
    }
    return value < count ? static_cast<Format>(value) : count;
}

inline AVPixelFormat pixel_format_from(int value) {
    return format_from(value, AV_PIX_FMT_NONE, AV_PIX_FMT_NB);
}

inline AVSampleFormat sample_format_from(int value) {
    return format_from(value, AV_SAMPLE_FMT_NONE, AV_SAMPLE_FMT_NB);
}

// Output pixel formats outside FFmpeg 4's enumeration (187 formats), negative ones included, mean
// yuv420p, so that a client gets the same picture on every FFmpeg version.
constexpr uint32_t OUT_PIX_FMT_LIMIT = 187;
inline int effective_out_pix_fmt(int requested) {
    return static_cast<uint32_t>(requested) >= OUT_PIX_FMT_LIMIT ? AV_PIX_FMT_YUV420P : requested;
}

// Hardware device types, in the order the video setup makes their candidates.
constexpr const char* HW_DEVICE_TYPES[] = {"vdpau", "cuda", "vaapi"};

// The codec of a table row. media_protocol.h names the rows for clients without FFmpeg; the names
// are FFmpeg's codec descriptor names, so that they are the one home of both tables.
inline AVCodecID table_codec_id(int32_t media_type, uint32_t row) {
    const char* name = nullptr;
    if (media_type == MEDIA_TYPE_VIDEO && row < static_cast<uint32_t>(VIDEO_CODEC_COUNT)) {
        name = VIDEO_CODEC_NAMES[row];
    } else if (media_type == MEDIA_TYPE_AUDIO && row < static_cast<uint32_t>(AUDIO_CODEC_COUNT)) {
        name = AUDIO_CODEC_NAMES[row];
    }
    const AVCodecDescriptor* desc =
        name != nullptr ? avcodec_descriptor_get_by_name(name) : nullptr;
    return desc != nullptr ? desc->id : AV_CODEC_ID_NONE;
}

// The surface format `codec` decodes into on a device of `type` through a device context;
// AV_PIX_FMT_NONE when it has no such configuration.
inline AVPixelFormat hw_surface_format(const AVCodec* codec, AVHWDeviceType type) {
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* config = avcodec_get_hw_config(codec, i);
        if (config == nullptr) {
            return AV_PIX_FMT_NONE;
        }
        if ((config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) &&
            config->device_type == type) {
            return config->pix_fmt;
        }
    }
}

}  // namespace protocol
}  // namespace mediaclient
