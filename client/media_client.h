#pragma once

// Client library of media-service: compressed audio and video decoded by the service, exchanged
// through a block of shared memory. Build as C++17 (GCC 10 needs -std=c++17) with
// `pkg-config --cflags --libs mediaclient`; no FFmpeg headers are needed. A decoder client, in
// short (the README's example decodes a file's H.264):
//
//   namespace mc = mediaclient;
//   mc::DecoderClient client;
//   mc::VideoInitParams p;
//   p.out_width = 1280, p.out_height = 720, p.out_pix_fmt = "nv12";  // every picture's output
//   mc::ExchangeResult r;
//   if (client.connect_posix() != mc::ClientError::kOk ||
//       client.init_video(mc::VideoCodec::kH264, p, avcc, avcc_size, &r) != mc::ClientError::kOk)
//       return fail(client.last_error_text());       // else r.status: STATUS_OK or STATUS_FAILED
//   for each access unit:
//       client.decode_frame(data, size, pts_us, &r);  // r.output_size > 0: a picture of
//                                                     // client.video_output() at client.output()
//
// The service runs as the user's systemd unit. A program that may find none running (a tool, a
// test, a launcher) takes a ServiceLease first, which finds the service or starts one that it
// shares with other such programs (see ServiceLease below):
//
//   mc::ServiceLease lease;
//   if (lease.acquire() != mc::ClientError::kOk) return fail(lease.last_error_text());
//
// Every call returns a ClientError. kOk means the service answered; its answer is the
// ExchangeResult, whose status says whether the request itself succeeded. Any other value means
// no answer came (or the library refused the request), and last_error_text() says what was being
// done and why. Nothing throws. Use one object from one thread at a time.
//
// What a decoder client needs to know about the service:
// - Packets. A decode_frame() carries one packet: one whole access unit (every slice of one coded
//   picture), as a demuxer's av_read_frame() returns it or a codec HAL receives one input buffer.
//   The service runs no parser, so partial access units or fixed-size chunks lose pictures
//   without an error. H.264 and HEVC come either in Annex B form (start codes), their parameter
//   sets in the first access unit, or length-prefixed (as MP4 holds them) with the avcC or hvcC
//   record as configuration bytes at init. A packet of parameter sets or SEI alone is answered
//   STATUS_FAILED for H.264 (STATUS_NEED_MORE_DATA for HEVC), though the decoder keeps them.
// - Configuration bytes (FFmpeg's extradata: avcC, hvcC, an AAC AudioSpecificConfig) go with the
//   init. Decoders read them when they open: codec_config() appends bytes to an open decoder, which
//   the H.264 and HEVC decoders do not read again, and a reset opens the decoder without them.
// - Answers. A decode answers at most one picture or one frame of samples. A decoder with delay
//   (B-frames) answers STATUS_NEED_MORE_DATA to its first packets and then delivers each picture
//   some packets after the one it was coded in.
// - End of stream. The protocol has no drain: the pictures a decoder still holds after the last
//   packet (with B-frames, the last one or two) never come out. flush() drops them (for a seek).
// - Timestamps. `pts` goes into the packet unchanged, in the client's unit. A picture answers the
//   pts of the packet it was coded in (FFmpeg's best-effort timestamp, in presentation order).
//   Audio answers the request's pts plus the duration of the delivered samples in microseconds,
//   so pts are microseconds there; use microseconds for video too.
// - Failures. An init answered STATUS_FAILED ends the connection's decoder instance: the
//   service answers nothing more on that connection, so later requests fail at once with
//   kDisconnected; close() and connect again. A decode that fails (an undecodable packet) fails
//   that packet alone.
// - Sessions. A decoder client needs no session client. The session client stands for the
//   container session: the service ends itself when that client goes away, and its systemd user
//   unit starts a fresh one. Keeping the service alive is the session's business, not a decoder's.

// The library's version. The major number is its soname's (a client built against another must be
// rebuilt); a minor number adds to the interface (2.1: ServiceLease, the version macros).
#define MEDIACLIENT_VERSION_MAJOR 2
#define MEDIACLIENT_VERSION_MINOR 1
#define MEDIACLIENT_VERSION_PATCH 0
// One number to compare with: MEDIACLIENT_VERSION >= MEDIACLIENT_VERSION_OF(2, 1, 0).
#define MEDIACLIENT_VERSION_OF(major, minor, patch) ((major)*10000 + (minor)*100 + (patch))
#define MEDIACLIENT_VERSION                                                      \
    MEDIACLIENT_VERSION_OF(MEDIACLIENT_VERSION_MAJOR, MEDIACLIENT_VERSION_MINOR, \
                           MEDIACLIENT_VERSION_PATCH)

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>

// Installed beside this header (include/media-service), as it is in the source tree.
#include "media_protocol.h"
#include "media_transport.h"
#include "media_unique_fd.h"

struct ucred;

namespace mediaclient {

// What a client reads back: the result area and its status values (protocol has the rest).
using protocol::ExchangeResult;
using protocol::STATUS_FAILED;
using protocol::STATUS_NEED_MORE_DATA;
using protocol::STATUS_OK;

// ---- Codecs and formats by name ----

// The rows of the service's codec tables (protocol::VIDEO_CODEC_NAMES, AUDIO_CODEC_NAMES).
enum class VideoCodec : uint32_t {
    kMpeg4,
    kFlv1,
    kH264,
    kH263,
    kHevc,
    kMpeg2Video,
    kRv40,
    kVc1,
    kVp8,
    kVp9,
    kWmv2
};
enum class AudioCodec : uint32_t {
    kAac,
    kAc3,
    kApe,
    kDts,
    kFlac,
    kMp2,
    kMp3,
    kCook,
    kVorbis,
    kWmav2,
    kAlac,
    kOpus
};

// The codec of an FFmpeg codec name ("h264", "aac": what a demuxer's stream reports and
// `ffmpeg -codecs` lists); none when the service's table does not have it.
std::optional<VideoCodec> video_codec(const std::string& name);
std::optional<AudioCodec> audio_codec(const std::string& name);
// FFmpeg's name of a codec ("h264").
const char* codec_name(VideoCodec codec);
const char* codec_name(AudioCodec codec);

// A pixel format as requests carry it: FFmpeg's AVPixelFormat number. Set it from FFmpeg's name
// ("yuv420p", "nv12", "rgba"; `ffmpeg -pix_fmts` lists them) or from the number. Names are looked
// up in the host's libavutil, the one the service converts with. A name FFmpeg does not know
// leaves the number -1, and writing a request with it is refused with kInvalidArgument. It converts
// implicitly both ways, so that a format reads as its number wherever one is expected.
class PixelFormat {
  public:
    PixelFormat(int32_t number = -1) : number_(number) {}
    PixelFormat(const char* name);
    PixelFormat(const std::string& name) : PixelFormat(name.c_str()) {}
    operator int32_t() const { return number_; }
    // FFmpeg's name ("none" for -1), an unknown name as it was given, or the number.
    std::string name() const;
    bool unknown_name() const { return !unknown_.empty(); }

  private:
    int32_t number_;
    std::string unknown_;
};

// The same for a sample format: FFmpeg's AVSampleFormat ("s16", "fltp"; `ffmpeg -sample_fmts`).
class SampleFormat {
  public:
    SampleFormat(int32_t number = -1) : number_(number) {}
    SampleFormat(const char* name);
    SampleFormat(const std::string& name) : SampleFormat(name.c_str()) {}
    operator int32_t() const { return number_; }
    std::string name() const;
    bool unknown_name() const { return !unknown_.empty(); }

  private:
    int32_t number_;
    std::string unknown_;
};

// ---- Parameters ----

// The largest picture side, coded or output, that the service sets a decoder up for.
constexpr int32_t kMaxPictureSide = 16384;

// A video init. The defaults take the coded geometry from the stream; the output size has none:
// every picture is converted to out_width x out_height in out_pix_fmt, and a request with an
// output side of 0 is refused.
struct VideoInitParams {
    int32_t coded_width = 0;  // 0 to 16384; 0: from the stream
    int32_t coded_height = 0;
    PixelFormat coded_pix_fmt = -1;  // -1 ("none"): from the stream
    int32_t out_width = 0;           // 1 to 16384, and the picture must fit the 16 MiB output area
    int32_t out_height = 0;
    PixelFormat out_pix_fmt = 0;  // yuv420p; any FFmpeg format swscale writes, not a hardware one
};

// An audio init. The defaults decode to 16-bit interleaved stereo at 44100 Hz.
struct AudioInitParams {
    SampleFormat in_sample_fmt = -1;  // -1 ("none"): from the stream
    int32_t in_channels = 0;          // 0: from the stream or its configuration bytes
    int32_t in_sample_rate = 0;       // 0 or less: from the stream
    SampleFormat out_sample_fmt = 1;  // s16
    int32_t out_channels = 2;         // 1 to 8, or 16 (the counts with a default channel layout)
    int32_t out_sample_rate = 0;      // 0 or less: 44100
};

// What the output area holds after a decode answered output_size > 0, as the last init or reset
// set it. Video: one picture, its planes one after the other and rows without padding (FFmpeg's
// av_image_fill_arrays with alignment 1 finds them). Audio: one decoded frame's samples; a planar
// format puts channel k at k x (the frame's sample count rounded up to 32) x bytes per sample,
// while output_size counts only the samples.
struct VideoOutput {
    int32_t width = 0, height = 0;
    PixelFormat format;
};
struct AudioOutput {
    SampleFormat format;
    int32_t channels = 0;
    int32_t sample_rate = 0;  // the rate the samples come at (44100 when 0 was asked for)
};

// ---- Session client ----

// The container session's stand-in. A decoder client does not need one. The service pings it
// with one byte every 2 seconds and stops itself when it disconnects or stays silent for more than
// 8 seconds; one service serves one session, and later session clients are refused. A session
// client that does not answer within 2 seconds of registering ends the service at once, so answer
// right away (start_answering() does).
class SessionClient {
  public:
    SessionClient() = default;
    SessionClient(const SessionClient&) = delete;
    SessionClient& operator=(const SessionClient&) = delete;
    virtual ~SessionClient();  // stops the answering thread, closes the connection

    // Connects and registers as the session client for process `pid` (own pid when 0). The
    // service answers nothing; a refusal (it has a session client already) closes the connection.
    ClientError connect(const std::string& socket_path = "", pid_t pid = 0);

    // Sends one response without waiting for a ping.
    ClientError respond();

    // Waits up to `timeout_ms` for one ping msg and answers it unless `answer` is false.
    ClientError answer_ping(int timeout_ms, bool answer = true);

    // Answers at once and then every ping on a background thread until stop_answering(), the
    // destructor, or the end of the connection. Do not call answer_ping() meanwhile. Waits 100 ms
    // for a refusal of the registration: then kDisconnected.
    ClientError start_answering();
    void stop_answering();

    // Whether connect() succeeded and close() has not been called since.
    bool connected() const { return fd_.valid(); }
    // Set once the service closed the connection (seen by answer_ping or the answering thread).
    bool disconnected() const { return disconnected_.load(); }
    int pings() const { return pings_.load(); }
    // Descriptors that came with each ping: the first ping carries one, later pings none.
    int first_ping_fd_count() const { return first_ping_fd_count_.load(); }
    int later_ping_fd_count() const { return later_ping_fd_count_.load(); }
    // The errno of the last system call that failed (also one of the answering thread).
    int last_errno() const { return errno_; }
    // What the last call was doing and why it failed; empty when it succeeded, unless the
    // service has closed the connection since (then that).
    const std::string& last_error_text() const;
    // The connection's socket, -1 without one.
    int fd() const { return fd_.get(); }
    // Stops answering and disconnects: the service then stops itself.
    void close();

  private:
    ClientError send_response();
    ClientError read_ping(bool answer);
    void answering_loop();
    ClientError fail(ClientError error, const std::string& doing);

    UniqueFd fd_;
    UniqueFd stop_read_, stop_write_;  // the answering thread's stop pipe
    std::thread thread_;
    std::atomic<bool> disconnected_{false};
    std::atomic<int> pings_{0};
    std::atomic<int> first_ping_fd_count_{-1};
    std::atomic<int> later_ping_fd_count_{0};
    std::atomic<int> errno_{0};  // also set by the answering thread
    std::string error_text_;     // set on the caller's thread only
};

// ---- Decoder client ----

// One decoder instance in the service, with a shared memory block of its own. Connect, init a
// video or audio decoder, then one decode_frame() per packet; destroy() or another init to change
// codecs. The one-step calls (init_video ... destroy) write the request, ring the doorbell and
// wait for the sync msg; the write_* calls, ring() and wait_sync() are those steps alone.
class DecoderClient {
  public:
    DecoderClient() = default;
    DecoderClient(const DecoderClient&) = delete;
    DecoderClient& operator=(const DecoderClient&) = delete;
    virtual ~DecoderClient();  // closes the connection, unmaps the block, unlinks its own object

    // Creates a POSIX shared memory object of SHM_BLOCK_SIZE (34 MiB) bytes (a unique name when
    // `shm_name` is empty), maps it, connects and registers as a type 3 client. The object is
    // unlinked by close() or the destructor. The service answers nothing: a refusal shows as
    // kDisconnected on the first request.
    ClientError connect_posix(const std::string& socket_path = "",
                              const std::string& shm_name = "");

    // Registers as a type 2 client with a shared memory descriptor: `shm_fd` (duplicated; the
    // caller keeps its own), an ashmem region of at least SHM_BLOCK_SIZE bytes on an Android host,
    // or, when -1, a new memfd of SHM_BLOCK_SIZE bytes. The block is mapped here as well.
    ClientError connect_descriptor(const std::string& socket_path = "", int shm_fd = -1);

    // Whether a connect succeeded and close() has not been called since.
    bool connected() const { return fd_.valid(); }
    // The connection's socket, -1 without one.
    int fd() const { return fd_.get(); }
    // The POSIX shared memory object's name (connect_posix), else empty.
    const std::string& shm_name() const { return shm_name_; }
    // The errno of the last system call that failed.
    int last_errno() const { return errno_; }
    // What the last call was doing and why it failed ("connect to PATH: Connection refused (is
    // the service running?)", "out_width 0: ..."); empty when it succeeded.
    const std::string& last_error_text() const { return error_text_; }
    // Disconnects (the service then releases the decoder), unmaps the block and unlinks the
    // object connect_posix() made. The object can connect again.
    void close();

    // On by default: requests that the service can only fail (a codec row beyond its table, an
    // output size of 0, a picture larger than the output area, an unknown format, an empty packet)
    // are refused with kInvalidArgument before they are written. Off: they go out as given, for
    // tests of the service's own answers. Data larger than its area is refused either way.
    void check_requests(bool on) { check_requests_ = on; }

    // The mapped block and its areas (null without a block).
    uint8_t* block() { return block_; }
    uint8_t* input() { return block_ ? block_ + protocol::SHM_INPUT_OFFSET : nullptr; }
    const uint8_t* output() const {
        return block_ ? block_ + protocol::SHM_OUTPUT_OFFSET : nullptr;
    }
    // The result area as the last answer left it.
    ExchangeResult result() const;
    // Overwrites the result area, e.g. with a marker to see whether a request wrote it.
    void set_result(const ExchangeResult& result);
    // What output() holds after a decode with output (see VideoOutput), as the last init or
    // reset written asked for it.
    const VideoOutput& video_output() const { return video_output_; }
    const AudioOutput& audio_output() const { return audio_output_; }

    // Sets up a decoder for one codec, replacing any earlier one; `config` (FFmpeg's extradata:
    // avcC, hvcC, AudioSpecificConfig), when given, goes to the decoder as it opens. Answers
    // STATUS_OK, or STATUS_FAILED (the decoder does not open with these parameters and bytes, or
    // the service's memory budget has no room for it), which ends this connection's decoder
    // instance.
    ClientError init_video(VideoCodec codec, const VideoInitParams& params,
                           const void* config = nullptr, size_t config_size = 0,
                           ExchangeResult* result = nullptr, int timeout_ms = kDefaultTimeoutMs);
    ClientError init_audio(AudioCodec codec, const AudioInitParams& params,
                           const void* config = nullptr, size_t config_size = 0,
                           ExchangeResult* result = nullptr, int timeout_ms = kDefaultTimeoutMs);
    // The same by the row of the codec table (protocol::VIDEO_CODEC_NAMES, AUDIO_CODEC_NAMES).
    ClientError init_video(uint32_t codec_index, const VideoInitParams& params,
                           const void* config = nullptr, size_t config_size = 0,
                           ExchangeResult* result = nullptr, int timeout_ms = kDefaultTimeoutMs);
    ClientError init_audio(uint32_t codec_index, const AudioInitParams& params,
                           const void* config = nullptr, size_t config_size = 0,
                           ExchangeResult* result = nullptr, int timeout_ms = kDefaultTimeoutMs);

    // Decodes one packet of `size` bytes (1 to 16 MiB): one whole access unit (see the top of
    // this header); `data` null: the first `size` bytes of input() already hold it. Answers
    // STATUS_OK with output_size bytes in output() and their output_pts; STATUS_NEED_MORE_DATA
    // (no output yet); STATUS_FAILED (this packet failed; the decoder goes on). Without a decoder
    // (no init yet, or destroy() since) it is refused with kInvalidArgument, as codec_config() and
    // the resets are.
    ClientError decode_frame(const void* data, size_t size, int64_t pts,
                             ExchangeResult* result = nullptr, int timeout_ms = kDefaultTimeoutMs);
    // Drops every packet and picture the decoder holds, for a seek: the next packet must start
    // afresh (a key frame). It delivers nothing (the protocol has no drain) and leaves the result
    // area as the previous request left it.
    ClientError flush(int timeout_ms = kDefaultTimeoutMs);
    // Appends configuration bytes to the open decoder's; writes no result. Decoders that read
    // them only when they open (H.264, HEVC) ignore them: give them to init instead.
    ClientError codec_config(const void* data, size_t size, int timeout_ms = kDefaultTimeoutMs);
    // Rebuilds the decoder in use with a new output (same codec and coded format, no
    // configuration bytes: a stream that needs them, or whose parameter sets have passed, does
    // not decode again until they come in-band). Always answers all zero.
    ClientError reset_video(int32_t out_width, int32_t out_height, PixelFormat out_pix_fmt,
                            int timeout_ms = kDefaultTimeoutMs);
    ClientError reset_audio(SampleFormat out_sample_fmt, int32_t out_channels,
                            int32_t out_sample_rate, int timeout_ms = kDefaultTimeoutMs);
    // Releases the decoder; the connection stays for another init. Writes no result.
    ClientError destroy(int timeout_ms = kDefaultTimeoutMs);

    // The steps alone. Request writers fill the header (and the input area) without ringing, with
    // the checks above; kInvalidArgument when data exceeds the input area.
    ClientError write_init_video(uint32_t codec_index, const VideoInitParams& params,
                                 const void* config = nullptr, size_t config_size = 0);
    ClientError write_init_audio(uint32_t codec_index, const AudioInitParams& params,
                                 const void* config = nullptr, size_t config_size = 0);
    // Any media type and codec row with raw parameters: never checked beyond the data's size.
    ClientError write_init(uint32_t media_type, uint32_t codec_index,
                           const std::array<int32_t, 7>& params, const void* config = nullptr,
                           size_t config_size = 0);
    ClientError write_decode_frame(const void* data, size_t size, int64_t pts);
    ClientError write_codec_config(const void* data, size_t size);
    ClientError write_reset_video(int32_t out_width, int32_t out_height, PixelFormat out_pix_fmt);
    ClientError write_reset_audio(SampleFormat out_sample_fmt, int32_t out_channels,
                                  int32_t out_sample_rate);
    ClientError write_request_type(uint32_t request_type);
    // Rings the doorbell with a record of `bytes` bytes (at least 1).
    ClientError ring(size_t bytes = 1);
    // Waits for one sync msg. kTimeout leaves a late sync msg unread: the next wait would take it.
    ClientError wait_sync(int timeout_ms = kDefaultTimeoutMs);
    // ring() then wait_sync().
    ClientError call(int timeout_ms = kDefaultTimeoutMs);

  private:
    ClientError attach(int shm_fd, uint8_t client_type, const std::string& socket_path);
    ClientError map_block(int fd);
    ClientError need_block();
    ClientError refuse(const std::string& refusal);
    ClientError fail(ClientError error, const std::string& doing);
    ClientError write_header(const void* header, size_t size);
    ClientError write_config(const void* config, size_t config_size, int32_t* size_field);
    ClientError write_data(uint32_t request_type, const char* what, const void* data, size_t size,
                           bool empty_allowed, int64_t pts);
    ClientError ring_for(const char* request, size_t bytes);
    ClientError wait_for(const char* request, int timeout_ms);
    ClientError finish(ClientError written, const char* request, ExchangeResult* result,
                       int timeout_ms);
    void note_answer();
    ClientError need_decoder(ClientError written, const char* request);

    UniqueFd fd_;
    UniqueFd shm_fd_;
    uint8_t* block_ = nullptr;
    std::string shm_name_;
    bool own_shm_name_ = false;
    bool check_requests_ = true;
    bool decoder_ended_ = false;  // the last init answered STATUS_FAILED
    bool has_decoder_ = false;    // the last init answered STATUS_OK, and no destroy since
    int errno_ = 0;
    std::string error_text_;
    // The output that the last init or reset written asks for.
    VideoOutput video_output_;
    AudioOutput audio_output_;
};

// ---- Finding or starting the service ----

// A lease on the service at a socket: the service listening there, or one started for the
// program's runs, which share it. A service that a lease did not start (the user unit's, another
// program's) is used and never stopped. One that a lease started runs with a session keeper: a
// small process of its own that is the service's session client until the last lease on it is
// gone, and then ends the session, which stops the service. Programs that start together start
// one service. The lease is given up when the object goes, or however the process ends.
class ServiceLease {
  public:
    enum class Start {
        kShared,       // start the service when none listens, and stop it with the last lease
        kKeepRunning,  // start it when none listens, without a keeper: it runs until SIGTERM
        kNever,        // only use a service that listens
    };

    ServiceLease() = default;
    ServiceLease(const ServiceLease&) = delete;
    ServiceLease& operator=(const ServiceLease&) = delete;
    ~ServiceLease();

    // Takes a lease on the service at `socket_path` (default_socket_path() when empty); may be
    // called again after the service went away. Starting runs the media-service program next to
    // this program, else the first in PATH, and waits up to 5 s for its socket; the service
    // listens only on <runtime dir>/vessa/sockets/media-service.socket, and the folders are
    // made. It forks the keeper: call it before the program starts threads of its own. kOk;
    // kNotConnected when nothing listens and `start` is kNever; kSystem when the service could
    // not be started (last_error_text() says why).
    ClientError acquire(const std::string& socket_path = "", Start start = Start::kShared);
    // Whether this lease started the service it holds.
    bool started() const { return started_; }
    // Why the last acquire() failed; empty when it succeeded.
    const std::string& last_error_text() const { return error_text_; }

  private:
    ClientError find_or_start(const std::string& socket_path, const std::string& lock_path,
                              Start start);
    ClientError fail(ClientError error, const std::string& text);

    UniqueFd lock_;
    bool started_ = false;
    std::string error_text_;
};

}  // namespace mediaclient
