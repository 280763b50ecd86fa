#pragma once

#include <cstddef>

#include "decoder/ffmpeg_compat.h"

// A converted picture as clients get it: planes one after the other, lines without padding (the
// layout of av_image_copy_to_buffer with alignment 1), written by the codec into the output area.
namespace packed_picture {

// How far the converter's vector stores may run past the end of the last line they write.
// FFmpeg's own picture buffers keep at least this much behind their last plane
// (av_frame_get_buffer), which is all swscale counts on.
constexpr size_t kStoreSlack = 128;

// Whether the converter may write the picture straight into a destination of `room` bytes, given
// the line sizes of av_image_fill_arrays with alignment 1: every line a multiple of 64 bytes, so
// that its vector stores do not run past a line into a plane already written; the picture's end
// at least kStoreSlack before the destination's; and no palette plane (FFmpeg 4 gives the
// pseudo-paletted formats one, which is not part of the packed picture).
inline bool converts_in_place(AVPixelFormat format, int width, int height, const int linesizes[4],
                              size_t size, size_t room) {
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    if (desc == nullptr || (desc->flags & AV_PIX_FMT_FLAG_PAL) != 0 ||
        ffcompat::is_pseudo_paletted(format) || width <= 0 || height <= 0 || size > room ||
        room - size < kStoreSlack) {
        return false;
    }
    for (int i = 0; i < 4; ++i) {
        if (linesizes[i] % 64 != 0) {
            return false;
        }
    }
    return true;
}

enum class Failure { kNone, kAlloc, kCopy };

// Converts through a picture buffer of FFmpeg's, with its aligned lines and the padding behind
// them, and packs the result into `dst`.
inline int convert_through_buffer(SwsContext* sws, const AVFrame* source, uint8_t* dst, int size,
                                  AVPixelFormat format, int width, int height, Failure* failure) {
    AVFrame* picture = av_frame_alloc();
    if (picture != nullptr) {
        picture->format = format;
        picture->width = width;
        picture->height = height;
    }
    if (picture == nullptr || av_frame_get_buffer(picture, 0) < 0) {
        av_frame_free(&picture);
        *failure = Failure::kAlloc;
        return AVERROR(ENOMEM);
    }
    sws_scale(sws, source->data, source->linesize, 0, source->height, picture->data,
              picture->linesize);
    const int copied = av_image_copy_to_buffer(dst, size, picture->data, picture->linesize, format,
                                               width, height, 1);
    av_frame_free(&picture);
    if (copied < 0) {
        *failure = Failure::kCopy;
    }
    return copied;
}

// Converts `source` into `dst`, which has `room` bytes, as a packed picture of `width` x `height`
// in `format`: straight where converts_in_place allows it, else through a picture buffer and a
// copy. The caller has checked that the packed size fits `room`. Returns that size, or a negative
// FFmpeg error with `failure` telling which step failed.
inline int convert(SwsContext* sws, const AVFrame* source, uint8_t* dst, size_t room,
                   AVPixelFormat format, int width, int height, Failure* failure) {
    *failure = Failure::kNone;
    const int size = av_image_get_buffer_size(format, width, height, 1);
    if (size < 0) {
        *failure = Failure::kAlloc;
        return size;
    }
    uint8_t* planes[4] = {nullptr};
    int linesizes[4] = {0};
    if (av_image_fill_arrays(planes, linesizes, dst, format, width, height, 1) >= 0 &&
        converts_in_place(format, width, height, linesizes, static_cast<size_t>(size), room)) {
        sws_scale(sws, source->data, source->linesize, 0, source->height, planes, linesizes);
        return size;
    }
    return convert_through_buffer(sws, source, dst, size, format, width, height, failure);
}

}  // namespace packed_picture
