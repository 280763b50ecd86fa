#pragma once

// The service's decoding in this process: the codec core the service runs for each client, over
// an output area and a result of its own instead of a client's block, and in software alone.
// media-decode --in-process and --verify, and the benchmarks' in-process baseline, run it: what
// they measure or compare is the service's own work without the transport. The codec writes the
// service's log lines: a tool turns them off (SvcLogOff) so that they do not mix with its output.

#include <cstdint>
#include <memory>
#include <vector>

#include "client/media_client.h"
#include "protocol/media_protocol.h"
#include "tools/media_file.h"

class MediaCodec;

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

Answer answer_of(const mediaclient::ExchangeResult& r);

// The init codec parameters (param1..param7, less the configuration size) for a demuxed stream
// and the given output.
mediaclient::VideoInitParams video_init_params(const StreamInfo& info, int out_width,
                                               int out_height, int out_pix_fmt);
mediaclient::AudioInitParams audio_init_params(const StreamInfo& info, int out_sample_fmt,
                                               int out_channels, int out_sample_rate);

class InProcessDecoder {
  public:
    InProcessDecoder();
    InProcessDecoder(const InProcessDecoder&) = delete;
    InProcessDecoder& operator=(const InProcessDecoder&) = delete;
    ~InProcessDecoder();

    // An init codec request for FFmpeg codec `codec_id` with `config` as the configuration bytes;
    // false when the setup failed (the service then ends the client's decoder).
    bool init_video(int codec_id, const mediaclient::VideoInitParams& params,
                    const std::vector<uint8_t>& config);
    bool init_audio(int codec_id, const mediaclient::AudioInitParams& params,
                    const std::vector<uint8_t>& config);
    // A decode frame request: the packet and the request's pts.
    Answer decode(const uint8_t* data, int size, int64_t pts);
    Answer decode(const Packet& p) {
        return decode(p.data.data(), static_cast<int>(p.data.size()), p.pts_us);
    }
    void flush();
    // The output area, SHM_AREA_SIZE bytes: what a decode answered lies at its start.
    const uint8_t* output() const { return area_; }

  private:
    void clear_after(size_t used);

    uint8_t* area_;
    size_t written_ = 0;  // how far the area may hold bytes that are not zero
    std::unique_ptr<mediaclient::ExchangeResult> result_;
    std::unique_ptr<MediaCodec> codec_;
};

}  // namespace mediatools
