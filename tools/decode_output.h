#pragma once

// What media-decode writes besides the bytes themselves: an answer's payload as contiguous bytes,
// its md5 line, and the progress line on a terminal.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/in_process.h"
#include "tools/media_file.h"

namespace mediatools {

// The output as the service writes it, and what a container or a framemd5 header says of it.
struct OutputShape {
    bool video = false;
    int width = 0, height = 0, pix_fmt = -1;
    int sar_num = 0, sar_den = 1;     // after scaling to width x height, 0/1 when unknown
    int rate_num = 25, rate_den = 1;  // frame rate; 25 when the stream has none, as in ffmpeg
    int sample_rate = 0, channels = 0, sample_fmt = -1;
};

// What an answer delivered, as contiguous bytes. Planar audio lies in the area as one plane per
// channel, each starting at the decoded frame's sample count rounded up to 32; the frame size of
// the stream stands in for that count when it is known.
class Payload {
  public:
    void set_audio_layout(int channels, int sample_fmt, int frame_size);
    // Returns a pointer valid until the next call.
    const uint8_t* get(const uint8_t* area, uint32_t size);

  private:
    bool planar_ = false;
    int channels_ = 0, bytes_per_sample_ = 1, frame_size_ = 0;
    std::vector<uint8_t> buffer_;
};

std::string md5_hex(const uint8_t* data, size_t size);
// "status S, size N, pts P, md5 M" of an answer and its payload.
std::string describe(const Answer& a, const uint8_t* payload);

// Outputs, outputs per second and the part of the file read, at most four times a second, on
// standard error.
class Progress {
  public:
    Progress(bool enabled, int64_t duration_us, int64_t file_size);
    void update(long outputs, const Packet& packet, bool force = false);
    void clear();

  private:
    bool enabled_;
    int64_t duration_us_;
    int64_t file_size_;
    std::chrono::steady_clock::time_point start_, last_;
    int width_ = 0;  // of the longest progress line shown, 0 when none is shown
};

}  // namespace mediatools
