#pragma once

// What a decoder holds besides its pool's pictures, estimated on the high side from the picture
// sizes of its setup. The pictures themselves are counted as they are allocated (PictureLedger).

#include <algorithm>
#include <cstdint>

#include "protocol/media_protocol.h"
#include "decoder/ffmpeg_compat.h"

namespace memory_estimates {

constexpr int64_t kMiB = int64_t{1} << 20;

// Per client, whatever it decodes: the worker's stack as deep as FFmpeg takes it, the contexts'
// structures, the packet and frame.
constexpr int64_t kClientOverhead = 4 * kMiB;
// Per hardware device a setup opens (its context, its driver's state in this process).
constexpr int64_t kHardwareDevice = 16 * kMiB;
// Pictures a hardware decoder's surface pool holds: a full set of references and its working ones.
constexpr int kHardwarePictures = 18;

// What a decoder keeps beside each pool picture (motion vectors, macroblock and block types,
// reference indices), in bytes per pixel: per 4x4 block for H.264 (about 9 bytes) and HEVC (12),
// per 8x8 for VP9, per macroblock for the older codecs.
inline double side_table_bytes_per_pixel(AVCodecID codec) {
    switch (codec) {
        case AV_CODEC_ID_H264:
            return 0.6;
        case AV_CODEC_ID_HEVC:
            return 0.8;
        case AV_CODEC_ID_VP9:
            return 0.4;
        default:
            return 0.25;
    }
}

// A picture of `width` x `height` in `format`, 0 when the size is unknown; an unknown format
// counts as 16-bit 4:4:4.
inline int64_t picture_bytes(int width, int height, int format) {
    if (width <= 0 || height <= 0) {
        return 0;
    }
    const int bytes =
        format >= 0 && format < AV_PIX_FMT_NB
            ? av_image_get_buffer_size(static_cast<AVPixelFormat>(format), width, height, 64)
            : -1;
    return bytes > 0 ? bytes : int64_t{width} * height * 6;
}

// The conversion of one picture: the scaler's line buffers, a picture buffer when it cannot write
// into the block, the output area's pages it writes (charged to the service that touches them
// first), and for a hardware picture its copy in memory. A picture larger than the output area is
// refused before it is converted.
inline int64_t conversion_bytes(int64_t source_picture, int source_width, int out_width,
                                int64_t output_picture, bool from_hardware) {
    const int64_t scaler = 64 * int64_t{std::max(source_width, 0) + std::max(out_width, 0)} * 8;
    const int64_t output = std::min<int64_t>(output_picture, mediaclient::protocol::SHM_AREA_SIZE);
    return scaler + 2 * output + (from_hardware ? source_picture : 0) + kMiB;
}

// The least a video decoder of `width` x `height` pictures of `picture` bytes needs: the
// context's own tables (as much as a picture), two pool pictures with their side tables, and the
// conversion.
inline int64_t least_video_bytes(AVCodecID codec, int64_t picture, int width, int height,
                                 int out_width, int64_t output_picture) {
    const double side =
        side_table_bytes_per_pixel(codec) * std::max(width, 0) * std::max(height, 0);
    return kClientOverhead + 3 * picture + static_cast<int64_t>(2 * side) +
           conversion_bytes(picture, width, out_width, output_picture, false);
}

}  // namespace memory_estimates
