#pragma once

// The wire protocol of media-service, shared by the service and its clients: the client type msg,
// the one-byte signals, and the layout of the exchange block in each decoder client's shared
// memory. media_client.h speaks it for you; this header is what a client needs to speak it itself
// (or to read the result area), and it needs no FFmpeg headers.
//
// One request at a time per block: the client writes the request header (and the input area),
// writes a doorbell (any bytes) to its socket, waits for the sync msg (the byte 0x59), and then
// reads the result area (and the output area). The block belongs to the service from the doorbell
// to the sync msg.
//
// Everything lives in mediaclient::protocol; the names are the protocol's own.

#include <cstddef>
#include <cstdint>
#include <string>

namespace mediaclient {
namespace protocol {

// The service's socket, under the user's runtime directory ($XDG_RUNTIME_DIR, or /run/user/<euid>
// when that is unset).
constexpr const char* SOCKET_PATH_IN_RUNTIME_DIR = "/vessa/sockets/media-service.socket";

// The socket's path for `runtime_dir`, the value of XDG_RUNTIME_DIR (null when it is unset), and
// the effective user id.
inline std::string socket_path_for(const char* runtime_dir, unsigned euid) {
    const std::string dir =
        runtime_dir != nullptr ? std::string(runtime_dir) : "/run/user/" + std::to_string(euid);
    return dir + SOCKET_PATH_IN_RUNTIME_DIR;
}

// Client type msg, byte 0: the first record of every connection, sent with the client's
// credentials and one descriptor (a session client's is not used; a type 2 client's is its block).
constexpr uint8_t CLIENT_TYPE_SESSION = 1;
constexpr uint8_t CLIENT_TYPE_ASHMEM_DECODER = 2;  // the descriptor is the block (ashmem, memfd)
constexpr uint8_t CLIENT_TYPE_SHM_DECODER = 3;     // the record names a POSIX shared memory object

// Largest client type msg the service reads: type, reserved byte, 255 bytes of shm name.
constexpr size_t CLIENT_TYPE_MSG_MAX = 257;
constexpr size_t SHM_NAME_MAX = 255;

// Ping msg to the session client and sync msg to a decoder client.
constexpr uint8_t SYNC_MSG_BYTE = 0x59;
constexpr uint8_t PING_MSG_BYTE = 0x59;

// Exchange block layout: request header, result area, input area (compressed packet or
// configuration bytes), output area (one decoded picture, or one frame's converted samples).
constexpr size_t SHM_BLOCK_SIZE = 0x2200000;
constexpr size_t SHM_REQUEST_OFFSET = 0x0;
constexpr size_t SHM_RESULT_OFFSET = 0x100000;
constexpr size_t SHM_INPUT_OFFSET = 0x200000;
constexpr size_t SHM_OUTPUT_OFFSET = 0x1200000;
constexpr size_t SHM_AREA_SIZE = 0x1000000;  // each of the input and output areas: 16 MiB
// Whether data of `size` bytes (a packet, configuration bytes) fits the input area: the service
// refuses any other size.
constexpr bool fits_area(int64_t size) {
    return size > 0 && static_cast<uint64_t>(size) <= SHM_AREA_SIZE;
}
constexpr size_t SHM_RESULT_SIZE = 24;

// Request codes (request header +0).
constexpr uint32_t REQUEST_INIT_CODEC = 0;       // set up a decoder; answers in the result area
constexpr uint32_t REQUEST_RESET_CONTEXT = 1;    // rebuild it with a new output; answers all zero
constexpr uint32_t REQUEST_DECODE_FRAME = 2;     // decode one packet; answers in the result area
constexpr uint32_t REQUEST_FLUSH = 3;            // drop what the decoder holds; writes no result
constexpr uint32_t REQUEST_CODEC_CONFIG = 4;     // append configuration bytes; writes no result
constexpr uint32_t REQUEST_DESTROY_CONTEXT = 5;  // release the decoder; writes no result

constexpr int32_t MEDIA_TYPE_NONE = -1;
constexpr int32_t MEDIA_TYPE_VIDEO = 0;
constexpr int32_t MEDIA_TYPE_AUDIO = 1;

// Result `status`. A failed init also ends the client's decoder instance: later doorbells on that
// connection get no sync msg, so a client connects again.
constexpr int32_t STATUS_OK = 0;              // done; output_size > 0 when output was made
constexpr int32_t STATUS_NEED_MORE_DATA = 1;  // no output for this packet (decoder delay, or end)
constexpr int32_t STATUS_FAILED = -1;         // the request failed (the service's log says why)

// Request header field offsets. Fields of different requests overlap.
constexpr size_t REQ_TYPE_OFFSET = 0;
constexpr size_t REQ_MEDIA_TYPE_OFFSET = 4;
constexpr size_t REQ_CODEC_INDEX_OFFSET = 8;
constexpr size_t REQ_DATA_SIZE_OFFSET = 8;
constexpr size_t REQ_RESET_PARAM_OFFSET = 8;  // three int32: +8, +12, +16
constexpr size_t REQ_PARAM_OFFSET = 12;       // param1..param7: +12 .. +36
constexpr size_t REQ_PTS_OFFSET = 16;

// Result area field offsets, relative to SHM_RESULT_OFFSET.
constexpr size_t RES_STATUS_OFFSET = 0;
constexpr size_t RES_OUTPUT_SIZE_OFFSET = 8;
constexpr size_t RES_OUTPUT_PTS_OFFSET = 16;

// Views of the header and result area; both sides run on one host, so host byte order.
struct ExchangeInitRequest {
    uint32_t request_type;
    uint32_t media_type;
    uint32_t codec_index;
    int32_t param[7];
};

// The same header as video and audio setups read param1..param7. Formats are FFmpeg's numbers
// (AVPixelFormat, AVSampleFormat) of the libavutil on the host.
struct ExchangeVideoInit {
    uint32_t request_type;
    uint32_t media_type;
    uint32_t codec_index;
    int32_t coded_width;
    int32_t coded_height;
    int32_t coded_pix_fmt;
    int32_t config_size;  // configuration bytes at the start of the input area
    int32_t out_width;
    int32_t out_height;
    int32_t out_pix_fmt;  // numbers beyond 0..186 (FFmpeg 4's formats) mean yuv420p
};

struct ExchangeAudioInit {
    uint32_t request_type;
    uint32_t media_type;
    uint32_t codec_index;
    int32_t in_sample_fmt;
    int32_t in_channels;
    int32_t in_sample_rate;
    int32_t config_size;
    int32_t out_sample_fmt;
    int32_t out_channels;
    int32_t out_sample_rate;  // 0 or less: 44100
};

// The audio output rate the service takes for a requested one.
constexpr int32_t effective_out_sample_rate(int32_t requested) {
    return requested > 0 ? requested : 44100;
}

// A decode frame or codec config request. `pts` is copied into the packet unchanged: its unit is
// the client's (see media_client.h for what comes back).
struct ExchangeDataRequest {
    uint32_t request_type;
    uint32_t reserved;
    int32_t data_size;
    int32_t reserved2;
    int64_t pts;
};

// A reset context request: the new output, by the media type in use.
struct ExchangeVideoReset {
    uint32_t request_type;
    uint32_t reserved;
    int32_t out_width;
    int32_t out_height;
    int32_t out_pix_fmt;
};

struct ExchangeAudioReset {
    uint32_t request_type;
    uint32_t reserved;
    int32_t out_sample_fmt;
    int32_t out_channels;
    int32_t out_sample_rate;
};

// The result area. Every answer clears all 24 bytes first, so fields of two answers never mix.
struct ExchangeResult {
    int32_t status;  // STATUS_OK, STATUS_NEED_MORE_DATA or STATUS_FAILED
    uint32_t reserved;
    uint32_t output_size;  // bytes at the start of the output area; 0 without output
    uint32_t reserved2;
    int64_t output_pts;  // the output's timestamp; 0 without output
};

static_assert(sizeof(ExchangeInitRequest) == 40, "init request is 40 bytes");
static_assert(sizeof(ExchangeVideoInit) == 40 && sizeof(ExchangeAudioInit) == 40,
              "the init views cover the init request");
static_assert(offsetof(ExchangeVideoInit, coded_width) == REQ_PARAM_OFFSET &&
                  offsetof(ExchangeAudioInit, in_sample_fmt) == REQ_PARAM_OFFSET,
              "param1 at +12");
static_assert(offsetof(ExchangeVideoReset, out_width) == REQ_RESET_PARAM_OFFSET &&
                  offsetof(ExchangeAudioReset, out_sample_fmt) == REQ_RESET_PARAM_OFFSET,
              "reset values at +8");
static_assert(offsetof(ExchangeDataRequest, pts) == REQ_PTS_OFFSET, "pts at +16");
static_assert(sizeof(ExchangeResult) == SHM_RESULT_SIZE, "result is 24 bytes");

// Codec tables: the row index is the client's codec_index. A row beyond the table ends the
// client's decoder instance without an answer.
constexpr int VIDEO_CODEC_COUNT = 11;
constexpr int AUDIO_CODEC_COUNT = 12;

// FFmpeg codec names of the table rows, for clients that pick a row from a demuxed stream.
constexpr const char* VIDEO_CODEC_NAMES[VIDEO_CODEC_COUNT] = {
    "mpeg4", "flv1", "h264", "h263", "hevc", "mpeg2video", "rv40", "vc1", "vp8", "vp9", "wmv2"};
constexpr const char* AUDIO_CODEC_NAMES[AUDIO_CODEC_COUNT] = {
    "aac", "ac3", "ape", "dts", "flac", "mp2", "mp3", "cook", "vorbis", "wmav2", "alac", "opus"};

}  // namespace protocol
}  // namespace mediaclient
