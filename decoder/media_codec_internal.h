#pragma once

// Shared by the codec's translation units: the log identity and the release actions that every
// owned FFmpeg object carries.

#include "base/log.h"
#include "base/system_log.h"
#include "decoder/av_error.h"
#include "decoder/media_codec.h"

#define LOG_MODULE "media decoder"
#define LOG_FILE "media_decoder"

namespace codec_detail {

MediaCodec::av_ptr<AVCodecContext> own_codec_context(AVCodecContext* ctx, const char* what);
MediaCodec::av_ptr<AVCodecContext> own_hw_codec_context(AVCodecContext* ctx);
MediaCodec::av_ptr<AVPacket> own_packet(AVPacket* packet, const char* what);
MediaCodec::av_ptr<AVFrame> own_frame(AVFrame* frame, const char* what);

// A device type's name, "none" for one FFmpeg does not know.
const char* device_type_name(AVHWDeviceType type);

}  // namespace codec_detail
