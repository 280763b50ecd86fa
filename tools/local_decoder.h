#pragma once

// The project's one in-process model of the service's decoding: per request it does what the
// service's decoder instance does with its software context, the same FFmpeg calls in the same
// order, into an output area of the same size. media-decode --verify, the tests and the
// benchmarks compare the service's answers and output bytes with it, and its speed is the
// baseline the service is measured against. A model that holds no decoder answers as the service
// does: all zero before any setup, and after a reset whose rebuild failed once the packet size
// has been checked.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "client/media_client.h"
#include "decoder/exchange_block.h"
#include "tools/media_file.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;
struct SwsContext;

namespace mediatools {

// What the service leaves in the result area for one request.
struct Answer {
    int32_t status = 0;
    uint32_t size = 0;
    int64_t pts = 0;
};

inline bool operator==(const Answer& a, const Answer& b) {
    return a.status == b.status && a.size == b.size && a.pts == b.pts;
}

inline Answer answer_of(const ExchangeResult& r) {
    return Answer{r.status, r.output_size, r.output_pts};
}

// The init codec parameters (param1..param7, less the configuration size) for a demuxed stream
// and the given output.
mediaclient::VideoInitParams video_init_params(const StreamInfo& info, int out_width,
                                               int out_height, int out_pix_fmt);
mediaclient::AudioInitParams audio_init_params(const StreamInfo& info, int out_sample_fmt,
                                               int out_channels, int out_sample_rate);

// The 16 MiB output area, page-aligned and zeroed like a fresh shared memory block.
class OutputArea {
  public:
    OutputArea();
    OutputArea(const OutputArea&) = delete;
    OutputArea& operator=(const OutputArea&) = delete;
    virtual ~OutputArea();
    uint8_t* data() { return data_; }
    const uint8_t* data() const { return data_; }

  private:
    uint8_t* data_ = nullptr;
};

class LocalVideoDecoder {
  public:
    enum class Output {
        // Per picture, as the service does: packed_picture::convert into the output area, then
        // the rest of the area written with zeros (where the service releases the pages instead).
        kLikeService,
        // sws_scale into one picture buffer (av_image_alloc, alignment 1), copied out only where
        // that buffer's lines are padded: it does not share the service's conversion, so it
        // checks the service's packed layout independently, and it is the benchmarks' plain
        // decode + convert.
        kScaleOnly,
    };

    LocalVideoDecoder() = default;
    LocalVideoDecoder(const LocalVideoDecoder&) = delete;
    LocalVideoDecoder& operator=(const LocalVideoDecoder&) = delete;
    virtual ~LocalVideoDecoder();

    // An init codec request for FFmpeg codec `codec_id` with `extradata` as the configuration
    // bytes. A model opened again keeps its output area, as the service keeps the client's.
    bool open(int codec_id, const mediaclient::VideoInitParams& params,
              const std::vector<uint8_t>& extradata, Output mode, std::string* error);
    // A reset context request: the decoder rebuilt with the same codec and coded format, no
    // configuration bytes and the new output. False when there was no decoder to rebuild or the
    // rebuild failed.
    bool reset(int out_width, int out_height, int out_pix_fmt);
    // A flush request.
    void flush();
    // A decode frame request: the packet and the request's pts; the answer's pts is the picture's
    // best-effort timestamp.
    Answer decode(const uint8_t* data, int size, int64_t pts);
    // The output area (kLikeService) or the packed picture (kScaleOnly).
    const uint8_t* output() const;

  private:
    void close();
    bool open_codec(const std::vector<uint8_t>& extradata, std::string* error);
    // The picture buffer of kScaleOnly; none when FFmpeg cannot make one (every picture fails).
    void prepare_output();
    Answer convert_like_service();
    Answer scale_only();
    Answer fail();

    Output mode_ = Output::kLikeService;
    bool set_up_ = false;  // an init request came: the service holds a video state from then on
    int codec_id_ = 0;
    mediaclient::VideoInitParams params_;  // as requested
    int out_pix_fmt_ = 0;                  // as the service takes params_.out_pix_fmt
    AVCodecContext* ctx_ = nullptr;        // null without a decoder
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    SwsContext* sws_ = nullptr;
    std::unique_ptr<OutputArea> area_;                            // kLikeService
    uint8_t* picture_[4] = {nullptr, nullptr, nullptr, nullptr};  // kScaleOnly
    int linesizes_[4] = {0, 0, 0, 0};
    std::vector<uint8_t> packed_;  // kScaleOnly, where the picture buffer's lines are padded
    int picture_size_ = 0;         // packed, kScaleOnly
};

class LocalAudioDecoder {
  public:
    LocalAudioDecoder() = default;
    LocalAudioDecoder(const LocalAudioDecoder&) = delete;
    LocalAudioDecoder& operator=(const LocalAudioDecoder&) = delete;
    virtual ~LocalAudioDecoder();

    // An init codec request for FFmpeg codec `codec_id` with `extradata` as the configuration
    // bytes. A model opened again keeps its output area, as the service keeps the client's.
    bool open(int codec_id, const mediaclient::AudioInitParams& params,
              const std::vector<uint8_t>& extradata, std::string* error);
    // A reset context request: the decoder rebuilt with the same codec, the input format as last
    // decoded, no configuration bytes and the new output. False when there was no decoder to
    // rebuild or the rebuild failed.
    bool reset(int out_sample_fmt, int out_channels, int out_sample_rate);
    // A flush request.
    void flush();
    // A decode frame request: the packet and the request's pts; the answer's pts is the request's
    // plus the duration of the converted samples.
    Answer decode(const uint8_t* data, int size, int64_t pts);
    const uint8_t* output() const { return area_->data(); }

    // Where each plane of the last answer's samples starts in the output area (one plane, at 0,
    // for a packed format) and how many bytes of each the answer holds. The service lays out its
    // area alike, so planar output can be compared or gathered plane by plane.
    const std::vector<size_t>& plane_offsets() const { return plane_offsets_; }
    size_t plane_size() const { return plane_size_; }
    // Resamplers built since the last open or reset: one per change of the decoded format.
    int resampler_builds() const { return resampler_builds_; }

  private:
    void close();
    bool open_codec(const std::vector<uint8_t>& extradata, std::string* error);
    bool update_resampler();
    Answer convert(int64_t pts);
    Answer fail();

    bool set_up_ = false;  // an init request came: the service holds an audio state from then on
    int codec_id_ = 0;
    // As requested; the input fields follow the format last decoded, which a reset rebuilds with.
    mediaclient::AudioInitParams params_;
    int64_t in_layout_ = 0;
    int out_rate_ = 0;
    int64_t out_layout_ = 0;
    AVCodecContext* ctx_ = nullptr;  // null without a decoder
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    SwrContext* swr_ = nullptr;
    int resampler_builds_ = 0;
    std::vector<size_t> plane_offsets_;
    size_t plane_size_ = 0;
    std::unique_ptr<OutputArea> area_;
};

}  // namespace mediatools
