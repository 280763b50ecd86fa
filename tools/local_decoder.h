#pragma once

// In-process decoding that does, per packet, what the service's decoder instance does with its
// software context: the same FFmpeg calls in the same order, into an output area of the same
// size. Its answers and output bytes can be compared with the service's (--verify), and its speed
// is the baseline the service is measured against.

#include <cstdint>
#include <memory>
#include <string>

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
        // Per picture, as the service does: conversion straight into the output area where the
        // line sizes allow it, else into a picture buffer of its own and a copy; then the rest
        // of the area written with zeros (where the service releases the pages instead).
        kLikeService,
        // Conversion straight into one reused picture buffer: no copy, no zeroing.
        kScaleOnly,
    };

    LocalVideoDecoder() = default;
    LocalVideoDecoder(const LocalVideoDecoder&) = delete;
    LocalVideoDecoder& operator=(const LocalVideoDecoder&) = delete;
    virtual ~LocalVideoDecoder();

    // Sets up the software decoder as the service does for an init codec request with the
    // stream's coded geometry and extradata.
    bool open(const StreamInfo& info, int out_width, int out_height, int out_pix_fmt, Output mode,
              std::string* error);
    Answer decode(const uint8_t* data, int size, int64_t pts);
    // The output area (kLikeService) or the picture buffer (kScaleOnly).
    const uint8_t* output() const;

  private:
    Answer fail();

    Output mode_ = Output::kLikeService;
    AVCodecContext* ctx_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    SwsContext* sws_ = nullptr;
    int out_width_ = 0, out_height_ = 0, out_pix_fmt_ = 0;
    std::unique_ptr<OutputArea> area_;
    uint8_t* picture_[4] = {nullptr, nullptr, nullptr, nullptr};  // kScaleOnly
    int linesizes_[4] = {0, 0, 0, 0};
    int picture_size_ = 0;
};

class LocalAudioDecoder {
  public:
    LocalAudioDecoder() = default;
    LocalAudioDecoder(const LocalAudioDecoder&) = delete;
    LocalAudioDecoder& operator=(const LocalAudioDecoder&) = delete;
    virtual ~LocalAudioDecoder();

    // Sets up the decoder as the service does for an audio init codec request with the stream's
    // format and extradata; an out_rate of 0 or less means 44100, as in the service.
    bool open(const StreamInfo& info, int out_sample_fmt, int out_channels, int out_rate,
              std::string* error);
    Answer decode(const uint8_t* data, int size, int64_t pts);
    const uint8_t* output() const { return area_->data(); }

  private:
    Answer fail();

    AVCodecContext* ctx_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    SwrContext* swr_ = nullptr;
    int in_rate_ = 0, in_channels_ = 0, in_fmt_ = 0;
    int64_t in_layout_ = 0;
    int out_rate_ = 0, out_channels_ = 0, out_fmt_ = 0;
    int64_t out_layout_ = 0;
    std::unique_ptr<OutputArea> area_;
};

}  // namespace mediatools
