#pragma once

// The containers that -o writes when its name asks for one: a YUV4MPEG2 stream (.y4m) for
// pictures, a RIFF WAVE file (.wav) for samples; other names get the bytes alone.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/decode_output.h"

namespace mediatools {

class ContainerWriter {
  public:
    enum class Kind { kRaw, kY4m, kWav };

    // The container that a file name asks for.
    static Kind kind_of(const std::string& path);
    // Why the container cannot hold the output, or "".
    static std::string refusal(Kind kind, const OutputShape& shape);

    // The header; false when it cannot be written.
    bool begin(FILE* out, Kind kind, const OutputShape& shape);
    // One answer's bytes, planar audio as one plane after the other: a FRAME of a .y4m file, or
    // the samples interleaved.
    bool write(const uint8_t* data, uint32_t size);
    // The sizes that a WAVE header holds, once they are known.
    bool finish();

  private:
    FILE* out_ = nullptr;
    Kind kind_ = Kind::kRaw;
    int channels_ = 0, bytes_per_sample_ = 0;
    bool planar_ = false;
    uint64_t data_bytes_ = 0;
    std::vector<uint8_t> interleaved_;
};

}  // namespace mediatools
