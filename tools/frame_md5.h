#pragma once

// media-decode --framemd5: the rows of FFmpeg's own framemd5 muxer, so that the header and the
// row layout are those of the FFmpeg this tool runs with, whatever its version, and a run can be
// compared with `ffmpeg -f framemd5` by diff.

#include <cstdint>
#include <string>

#include "tools/decode_output.h"

struct AVFormatContext;

namespace mediatools {

class FrameMd5 {
  public:
    FrameMd5() = default;
    FrameMd5(const FrameMd5&) = delete;
    FrameMd5& operator=(const FrameMd5&) = delete;
    ~FrameMd5();

    // Why the output format has no framemd5 form (no PCM codec keeps it), or "".
    static std::string refusal(const OutputShape& shape);
    // Writes the header on standard output; false with `error` set when it cannot.
    bool begin(const OutputShape& shape, std::string* error);
    // One row: the output's bytes and the service's pts in microseconds.
    bool write(const uint8_t* data, uint32_t size, int64_t pts_us, std::string* error);
    bool finish(std::string* error);

  private:
    AVFormatContext* mux_ = nullptr;
    int bytes_per_sample_frame_ = 0;  // audio: bytes of one sample of every channel
};

}  // namespace mediatools
