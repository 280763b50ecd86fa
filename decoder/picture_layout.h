#pragma once

#include "decoder/ffmpeg_compat.h"

namespace picture_layout {

// Whether the converter may write a picture straight into the output area, packed (the line
// sizes are those of av_image_fill_arrays with alignment 1): every line a multiple of 64 bytes,
// so that its vector stores neither run past a line into a plane already written nor past the
// area's end, and no palette plane (FFmpeg 4 gives the pseudo-paletted formats one, which is not
// part of the packed picture). Otherwise the picture goes through a buffer of its own and a copy.
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

}  // namespace picture_layout
