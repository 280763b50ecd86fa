#pragma once

// Where media-decode's answers go: nowhere (--null), one --md5 line each, --framemd5 rows, or
// -o's file, raw or in the container its name asks for.

#include <cstdint>
#include <cstdio>
#include <string>

#include "tools/container_output.h"
#include "tools/decode_options.h"
#include "tools/decode_output.h"
#include "tools/frame_md5.h"
#include "tools/in_process.h"
#include "tools/media_file.h"

namespace mediatools {

class DecodeSink {
  public:
    // Opens -o's file, refusing an existing one without -y, once the output format is known to
    // fit what is asked for; fails the run otherwise.
    DecodeSink(const DecodeOptions& opt, const OutputShape& shape);
    DecodeSink(const DecodeSink&) = delete;
    DecodeSink& operator=(const DecodeSink&) = delete;
    ~DecodeSink();

    // The --md5 or --framemd5 header, or the container's.
    void begin(const StreamInfo& info);
    // One answer and its payload as contiguous bytes; false with `error` set when it cannot be
    // written.
    bool write(long packet, const Answer& answer, const uint8_t* bytes, std::string* error);
    // Completes and closes the output; fails the run when that cannot be done.
    void finish();

  private:
    const DecodeOptions& opt_;
    const OutputShape shape_;
    FILE* out_ = nullptr;  // -o's file, or standard output for -o -
    ContainerWriter::Kind kind_ = ContainerWriter::Kind::kRaw;
    ContainerWriter container_;
    FrameMd5 framemd5_;
};

}  // namespace mediatools
