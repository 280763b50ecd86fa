#pragma once

// The project's one demuxer, for the tools, the benchmarks and the tests: opens a media file with
// libavformat, selects one audio or video stream, and reads its packets.

#include <cstdint>
#include <string>
#include <vector>

struct AVFormatContext;
struct AVPacket;

namespace mediatools {

struct StreamInfo {
    int index = -1;      // stream index in the file
    int kind_index = 0;  // n-th stream of its kind (what -v N / -a N select)
    bool video = false;
    int codec_id = 0;  // AVCodecID
    std::string codec_name;
    int width = 0, height = 0, pix_fmt = -1;             // video
    int sar_num = 0, sar_den = 1;                        // sample aspect ratio, 0/1 if unknown
    int rate_num = 0, rate_den = 1;                      // frame rate, 0/1 if unknown
    int sample_rate = 0, channels = 0, sample_fmt = -1;  // audio
    int frame_size = 0;                                  // audio samples per frame, 0 if unknown
    std::vector<uint8_t> extradata;
    int64_t duration_us = 0;                   // of the stream, or of the file; 0 when unknown
    int time_base_num = 1, time_base_den = 1;  // of the packets' pts and dts
};

// Timestamps unknown to the container are INT64_MIN (FFmpeg's AV_NOPTS_VALUE) in every field.
struct Packet {
    std::vector<uint8_t> data;
    int64_t pts = INT64_MIN, dts = INT64_MIN;  // in the stream's time base
    int64_t pts_us = INT64_MIN;                // pts in microseconds
    int64_t pos = -1;                          // byte position in the file, -1 when unknown
};

// A stream read whole into memory.
struct Stream {
    StreamInfo info;
    std::vector<Packet> packets;
};

class MediaFile {
  public:
    MediaFile() = default;
    MediaFile(const MediaFile&) = delete;
    MediaFile& operator=(const MediaFile&) = delete;
    ~MediaFile();

    // Opens and probes the file; on failure `error` holds one line.
    bool open(const std::string& path, std::string* error);
    int stream_count(bool video) const;
    // Selects the n-th video or audio stream for next(); on failure `error` holds one line.
    bool select(bool video, int n, StreamInfo* info, std::string* error);
    // Reads the next packet of the selected stream; false at the end of the file or on a read
    // error (read_error() tells which).
    bool next(Packet* packet);
    bool read_error() const { return read_error_; }
    int64_t file_size() const { return file_size_; }

  private:
    AVFormatContext* fmt_ = nullptr;
    AVPacket* pkt_ = nullptr;
    int selected_ = -1;
    int64_t file_size_ = -1;
    bool read_error_ = false;
};

// Reads every packet of the n-th stream of a kind into memory.
bool load_stream(const std::string& path, bool video, int n, Stream* stream, std::string* error);

// Row of the service's codec tables for an FFmpeg codec name, or -1.
int video_codec_index(const std::string& codec_name);
int audio_codec_index(const std::string& codec_name);
// The table's names, comma-separated, for error messages.
std::string codec_table_names(bool video);

}  // namespace mediatools
