#pragma once

// What the service must answer, worked out with FFmpeg alone and the protocol's rules written out
// here, apart from the service's code: a packet in, at most one frame out; a picture scaled
// (bilinear) into its planes one after the other with unpadded lines, its pts the frame's
// best-effort timestamp; samples resampled per frame, a planar format's channel k at k times the
// frame's sample count rounded up to 32, the pts the request's plus the samples' duration in
// microseconds.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "client/media_client.h"
#include "tools/media_file.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;

// One answer: its result and the bytes it delivered, planes gathered.
struct Expected {
    Expected() = default;
    explicit Expected(int32_t answer_status) : status(answer_status) {}

    int32_t status = 0;
    uint32_t size = 0;
    int64_t pts = 0;
    std::vector<uint8_t> bytes;
    int planes = 1;     // where the area holds separate planes: planar audio
    size_t stride = 0;  // bytes from one plane's start to the next in the area
};

class Oracle {
  public:
    Oracle();
    Oracle(const Oracle&) = delete;
    Oracle& operator=(const Oracle&) = delete;
    ~Oracle();

    // The stream's decoder with `config` as its configuration bytes; false when it does not open.
    // Video converts to `width` x `height` in `pix_fmt`; audio's parameters are the init's, with
    // the output rate the service must use.
    // Opening again starts afresh, as a reset does.
    bool open_video(const mediatools::StreamInfo& info, int width, int height, int pix_fmt,
                    const std::vector<uint8_t>& config);
    bool open_audio(const mediatools::StreamInfo& info, const mediaclient::AudioInitParams& p,
                    const std::vector<uint8_t>& config);
    Expected decode(const std::vector<uint8_t>& packet, int64_t pts);
    void flush();
    // Resamplers built: one per change of the decoded audio format.
    int resampler_builds() const { return resampler_builds_; }

  private:
    bool open(const mediatools::StreamInfo& info, const std::vector<uint8_t>& config,
              const std::function<void(AVCodecContext*)>& configure);
    bool update_resampler();
    Expected picture();
    Expected samples(int64_t pts);

    AVCodecContext* ctx_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    SwrContext* swr_ = nullptr;
    int width_ = 0, height_ = 0, pix_fmt_ = 0;      // video output
    int sample_fmt_ = 0, channels_ = 0, rate_ = 0;  // audio output
    int64_t in_layout_ = 0;                         // what the resampler was built for
    int in_rate_ = 0, in_fmt_ = -1;
    int resampler_builds_ = 0;
};

// Empty when the service's answer and the bytes in its output area are the expected ones; else
// what differs.
std::string differs(const mediaclient::ExchangeResult& got, const uint8_t* output,
                    const Expected& want);
