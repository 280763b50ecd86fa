#pragma once

// Shared by the decoder's translation units: the log identity and the release actions that
// every owned FFmpeg object carries.

#include "base/log.h"
#include "decoder/media_decoder.h"

#define LOG_MODULE "media decoder"
#define LOG_FILE "media_decoder"

namespace decoder_detail {

// av_strerror into a 64-byte buffer, as every FFmpeg failure line uses.
struct AvErrorText {
    explicit AvErrorText(int err) { av_strerror(err, text, sizeof(text)); }
    char text[64];
};

// Format numbers from a client's request as FFmpeg enumerators. A number beyond either end of
// the enumeration would make an enum hold a value it cannot represent (undefined behaviour); it
// becomes the nearest invalid value past that end instead, which FFmpeg refuses exactly as it
// refuses the original number.
inline AVSampleFormat sample_format_from(int value) {
    if (value < AV_SAMPLE_FMT_NONE) {
        return static_cast<AVSampleFormat>(AV_SAMPLE_FMT_NONE - 1);
    }
    return value < AV_SAMPLE_FMT_NB ? static_cast<AVSampleFormat>(value) : AV_SAMPLE_FMT_NB;
}

inline AVPixelFormat pixel_format_from(int value) {
    if (value < AV_PIX_FMT_NONE) {
        return static_cast<AVPixelFormat>(AV_PIX_FMT_NONE - 1);
    }
    return value < AV_PIX_FMT_NB ? static_cast<AVPixelFormat>(value) : AV_PIX_FMT_NB;
}

MediaDecoder::av_ptr<AVCodecContext> own_codec_context(AVCodecContext* ctx, const char* what);
MediaDecoder::av_ptr<AVCodecContext> own_hw_codec_context(AVCodecContext* ctx);
MediaDecoder::av_ptr<AVPacket> own_packet(AVPacket* packet, const char* what);
MediaDecoder::av_ptr<AVFrame> own_frame(AVFrame* frame, const char* what);

}  // namespace decoder_detail
