#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/media_fixtures.h"

// An in-process model of what the service answers to video requests, written straight against
// libavcodec and libswscale: one avcodec_receive_frame per packet, every picture converted with a
// cached bilinear scaler and laid out as av_image_copy_to_buffer does with alignment 1. Tests
// compare the service's result and output area with it, packet by packet.

struct VideoStep {
    int32_t status = 0;
    uint32_t output_size = 0;
    int64_t output_pts = 0;
    std::vector<uint8_t> picture;
};

class VideoReference {
  public:
    VideoReference();
    ~VideoReference();
    VideoReference(const VideoReference&) = delete;
    VideoReference& operator=(const VideoReference&) = delete;

    // An init codec request: `params` are param1..param7, `config` the bytes that param4 counts.
    bool init(int codec_id, const std::array<int32_t, 7>& params,
              const std::vector<uint8_t>& config);
    // A decode frame request with the packet bytes and the request's pts.
    VideoStep decode(const uint8_t* data, int size, int64_t pts);
    // A reset context request: same codec and coded format, no configuration bytes, new output.
    bool reset(int32_t out_width, int32_t out_height, int32_t out_pix_fmt);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

// The test clips: one small testsrc2 clip per codec that the ffmpeg command line here can encode.
struct VideoClip {
    const char* name;     // test name
    const char* encoder;  // ffmpeg encoder it needs
    const char* file;     // file name; its extension picks the container
    const char* args;     // encoder arguments after the common source arguments
};

extern const VideoClip kVideoClips[];
extern const size_t kVideoClipCount;
// The clip of that name (aborts on an unknown one). Taken as a view: with a temporary std::string
// argument GCC 14 warns that the returned reference may dangle.
const VideoClip& video_clip(std::string_view name);

// Makes and demuxes a clip once per process; null (with a test failure) when that fails.
const DemuxedStream* load_clip(const VideoClip& clip);

// The pts a test passes for packet `i`: the container's, or a made-up one where there is none.
int64_t packet_pts(const DemuxedStream& s, size_t i);

// init codec parameters for a clip with the given output.
std::array<int32_t, 7> video_params(const DemuxedStream& s, int32_t out_width, int32_t out_height,
                                    int32_t out_pix_fmt);

// The ffmpeg command line's own decode of `path`, every frame scaled (bilinear) to the output
// size and format, in presentation order.
std::vector<std::vector<uint8_t>> command_line_frames(const std::string& path, int width,
                                                      int height, int pix_fmt);

// PSNR in dB over two byte buffers of equal length; infinity when they are equal.
double psnr(const uint8_t* a, const uint8_t* b, size_t n);

// Size of a picture in the output layout (alignment 1).
size_t picture_size(int width, int height, int pix_fmt);
