#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// An in-process model of what the service answers to audio requests, written straight against
// libavcodec and libswresample: one avcodec_receive_frame per packet, a resampler rebuilt whenever
// the decoded format changes, at most a frame's sample count converted per request, and the
// output area laid out as the sample buffer helpers do with alignment 0. Tests compare the
// service's result and output area with it, packet by packet.

struct AudioStep {
    int32_t status = 0;
    uint32_t output_size = 0;
    int64_t output_pts = 0;
    // Converted bytes of each output plane (one plane for a packed format) and where the plane
    // starts in the output area.
    std::vector<std::vector<uint8_t>> planes;
    std::vector<size_t> plane_offsets;
};

class AudioReference {
  public:
    AudioReference();
    ~AudioReference();
    AudioReference(const AudioReference&) = delete;
    AudioReference& operator=(const AudioReference&) = delete;

    // An init codec request: `params` are param1..param7, `config` the bytes that param4 counts.
    bool init(int codec_id, const std::array<int32_t, 7>& params,
              const std::vector<uint8_t>& config);
    // A decode frame request with the packet bytes and the request's pts.
    AudioStep decode(const uint8_t* data, int size, int64_t pts);
    // A reset context request: the same codec and the input format last decoded, new output.
    bool reset(int32_t out_sample_fmt, int32_t out_channels, int32_t out_sample_rate);
    // A flush request.
    void flush();

    // How often a resampler was built since the last init or reset.
    int resampler_builds() const { return builds_; }

  private:
    struct State;
    std::unique_ptr<State> state_;
    int builds_ = 0;
};

// Empty when the output area holds what `step` says, else a description of the first difference.
std::string compare_audio_output(const AudioStep& step, const uint8_t* output_area);
