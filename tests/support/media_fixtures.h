#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Real media for tests: files made with the ffmpeg command line (once per test process, in a
// temporary directory removed at exit) and demuxed with libavformat.

struct DemuxedPacket {
    std::vector<uint8_t> data;
    int64_t pts = 0;
    int64_t dts = 0;
};

struct DemuxedStream {
    std::string codec_name;  // FFmpeg decoder name, e.g. "h264", "aac"
    int codec_id = 0;        // AVCodecID
    bool is_video = false;
    int width = 0, height = 0, pix_fmt = -1;             // video
    int sample_rate = 0, channels = 0, sample_fmt = -1;  // audio
    int time_base_num = 1, time_base_den = 1;
    std::vector<uint8_t> extradata;
    std::vector<DemuxedPacket> packets;
};

// Runs `ffmpeg -hide_banner -loglevel error -y <args> <out>` where out is a file named `name` in
// the fixture directory; returns its path, or "" when ffmpeg failed. Cached by name.
std::string make_media(const std::string& name, const std::string& args);

// Demuxes the first stream of the wanted kind. Returns false when the file cannot be read.
bool demux_first_stream(const std::string& path, bool video, DemuxedStream* out);

// Row of the service's codec table for a decoder name, or -1.
int video_codec_index(const std::string& codec_name);
int audio_codec_index(const std::string& codec_name);

struct AVCodecContext;
struct AVFrame;

// One decode step of the reference models, as the service takes it: the packet is sent, at most
// one frame received. 0 with a frame in `frame`, 1 when the decoder wants more data, -1 when the
// size is outside (0, SHM_AREA_SIZE] or the decoder refuses.
int reference_decode_step(AVCodecContext* ctx, const uint8_t* data, int size, int64_t pts,
                          AVFrame* frame);

// Whether the ffmpeg command line here has the named encoder.
bool have_encoder(const std::string& encoder);
