#pragma once

#include "decoder/ffmpeg_compat.h"

// A converted picture as clients get it: planes one after the other, lines without padding (the
// layout of av_image_copy_to_buffer with alignment 1), written by the codec into the output area.
namespace packed_picture {

// Whether the converter may write the picture straight into the destination, given the line
// sizes of av_image_fill_arrays with alignment 1: every line a multiple of 64 bytes, so that its
// vector stores neither run past a line into a plane already written nor past the destination's
// end, and no palette plane (FFmpeg 4 gives the pseudo-paletted formats one, which is not part of
// the packed picture).
inline bool converts_in_place(AVPixelFormat format, int width, int height, const int linesizes[4]) {
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    if (desc == nullptr || (desc->flags & AV_PIX_FMT_FLAG_PAL) != 0 ||
        ffcompat::is_pseudo_paletted(format) || width <= 0 || height <= 0) {
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

// Converts `source` into `dst` as a packed picture of `width` x `height` in `format`: straight
// where converts_in_place allows it, else through a picture buffer of its own and a copy. The
// caller has checked that the packed size fits `dst`. Returns that size, or a negative FFmpeg
// error with `failure` telling which step failed.
inline int convert(SwsContext* sws, const AVFrame* source, uint8_t* dst, AVPixelFormat format,
                   int width, int height, Failure* failure) {
    *failure = Failure::kNone;
    uint8_t* planes[4] = {nullptr};
    int linesizes[4] = {0};
    int size = av_image_fill_arrays(planes, linesizes, dst, format, width, height, 1);
    if (size >= 0 && converts_in_place(format, width, height, linesizes)) {
        sws_scale(sws, source->data, source->linesize, 0, source->height, planes, linesizes);
        return size;
    }

    size = ffcompat::image_alloc(planes, linesizes, width, height, format, 1);
    if (size < 0) {
        *failure = Failure::kAlloc;
        return size;
    }
    sws_scale(sws, source->data, source->linesize, 0, source->height, planes, linesizes);
    int copied = av_image_copy_to_buffer(dst, size, planes, linesizes, format, width, height, 1);
    av_freep(&planes[0]);
    if (copied < 0) {
        *failure = Failure::kCopy;
    }
    return copied;
}

}  // namespace packed_picture
