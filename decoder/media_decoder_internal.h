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

MediaDecoder::av_ptr<AVCodecContext> own_codec_context(AVCodecContext* ctx, const char* what);
MediaDecoder::av_ptr<AVCodecContext> own_hw_codec_context(AVCodecContext* ctx);
MediaDecoder::av_ptr<AVPacket> own_packet(AVPacket* packet, const char* what);
MediaDecoder::av_ptr<AVFrame> own_frame(AVFrame* frame, const char* what);

}  // namespace decoder_detail
