#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <ev++.h>

#include "base/ashmem.h"
#include "base/spin_wait.h"
#include "base/unique_fd.h"
#include "decoder/exchange_block.h"
#include "decoder/ffmpeg_compat.h"
#include "decoder/memory_budget.h"
#include "decoder/picture_ledger.h"

// The service side of one decoder client: maps the client's exchange block and serves its
// requests on a worker thread of its own.
class MediaDecoder {
  public:
    template <typename T>
    using av_ptr = std::unique_ptr<T, std::function<void(T*)>>;

    struct hw_user_data_t {
        int32_t hw_pix_fmt = AV_PIX_FMT_NONE;
        AVBufferRef* hw_device_ctx = nullptr;
        // The device's picture pool, charged when the decoder asks for its surfaces and given back
        // when a trial on the candidate fails or the context goes.
        MemoryCharge pictures;
    };

    // Members are destroyed in reverse order: the contexts before their ledger and the charges.
    struct video_context_t {
        MemoryCharge setup_charge;       // contexts' tables, devices, configuration bytes
        MemoryCharge conversion_charge;  // the scaler and what a picture's conversion writes
        std::shared_ptr<PictureLedger> sw_ledger;
        av_ptr<AVCodecContext> sw_codec_ctx;
        av_ptr<AVCodecContext> hw_codec_ctx;
        std::vector<av_ptr<AVCodecContext>> hw_codec_candidates;
        av_ptr<SwsContext> sws_ctx;
        int32_t width = 0;
        int32_t height = 0;
        int32_t pix_fmt = 0;
        int32_t out_width = 0;
        int32_t out_height = 0;
        int32_t out_pix_fmt = 0;
        virtual ~video_context_t();
    };

    struct audio_context_t {
        MemoryCharge setup_charge;      // the context and its configuration bytes
        MemoryCharge resampler_charge;  // the resampler and its buffered samples
        std::shared_ptr<PictureLedger> ledger;
        av_ptr<AVCodecContext> codec_ctx;
        av_ptr<SwrContext> swr_ctx;
        int32_t in_sample_rate = 0;
        int32_t in_channels = 0;
        int64_t in_channel_layout = 0;
        int32_t in_sample_fmt = 0;
        int32_t out_sample_rate = 0;
        int32_t out_channels = 0;
        int64_t out_channel_layout = 0;
        int32_t out_sample_fmt = 0;
        virtual ~audio_context_t();
    };

    // Test seam for hardware decoding, which this code must exercise on hosts without GPUs.
    // `create_device` replaces av_hwdevice_ctx_create; `decode_context` replaces the decode of one
    // context by the video branch (call `real` to run the normal decode). Unset in production.
    struct hw_seam_t {
        std::function<int(AVBufferRef** device, AVHWDeviceType type)> create_device;
        std::function<int(AVCodecContext* ctx, const std::function<int()>& real)> decode_context;
    };
    static hw_seam_t* hw_seam;

    MediaDecoder(const std::weak_ptr<ev::async>& notify, int fd, bool is_ashmem);
    MediaDecoder(const MediaDecoder&) = delete;
    MediaDecoder& operator=(const MediaDecoder&) = delete;
    virtual ~MediaDecoder();

    // The client's number (its connection's descriptor), which names the worker thread and the
    // worker's system-log lines. Set before run().
    void name_client(int client) { client_number = client; }

    // Starts the worker. False when the thread cannot be created (out of threads or memory):
    // the instance then has no worker and the client must be refused.
    bool run();

    // Loop thread: a request waits in the block (a doorbell). Signals that arrive before the
    // worker takes the request merge into one; one that arrives while a request runs makes the
    // worker run the request header again afterwards.
    void signal_request();
    // Loop thread: the worker ends after the request it may be running. Idempotent; it must have
    // been given before the instance is destroyed, since the destructor only joins.
    void signal_quit();
    // Whether the worker has been told to end, or ended on its own after a fatal request.
    bool quitting() const { return quit.load() != 0; }
    // Requests the worker has finished so far; it counts one before each completion signal.
    uint64_t completed_requests() const { return requests_done.load(std::memory_order_acquire); }

    static AVPixelFormat get_hw_format(AVCodecContext* ctx, const AVPixelFormat* pix_fmts);

    // What this client's decoder holds, charged to the service's memory budget. First, so that it
    // outlives every charge of the members below.
    MemoryAccount account{MemoryBudget::service()};
    int32_t media_type = MEDIA_TYPE_NONE;
    av_ptr<AVFrame> frame;
    av_ptr<AVPacket> packet;
    std::unique_ptr<video_context_t> video_ctx;
    std::unique_ptr<audio_context_t> audio_ctx;
    bool valid = false;
    UniqueFd shm_fd;
    uint8_t* block = nullptr;
    std::unique_ptr<AshMemory> ashmem;
    std::unique_ptr<std::thread> worker;
    std::weak_ptr<ev::async> notify;

    // Set by the worker when the client's object shrank under the mapping (the block now reads
    // zero): the worker has ended and the client must be dropped.
    std::atomic<int> block_lost{0};

    // Counts finished requests. Stored with release before the completion signal, so a thread that
    // loads it with acquire after the signal sees everything the request wrote; the signal itself
    // orders memory too, but in a way race detectors cannot follow.
    std::atomic<uint64_t> requests_done{0};

  private:
    // The loop thread stores these only under request_mutex, where the worker tests them before
    // it sleeps, so no signal can fall between the worker's test and its wait.
    std::atomic<int> quit{0};
    std::atomic<int> request_ready{0};
    std::mutex request_mutex;
    std::condition_variable request_cond;
    // Worker only: how long it spins on request_ready before it sleeps.
    SpinWait request_spin{std::chrono::microseconds(100)};

    bool wait_for_request();
    void dispatch(uint32_t request_type);
    bool check_block_lost();
    void name_worker();
    const char* chosen_device_name() const;
    int guard_slot = -1;
    int client_number = -1;
    char worker_name[16] = {};  // worker only: the name last given to its thread

    void media_decoding_thread();
    void init_codec();
    void decode_frame();
    void decode_video_branch();
    void flush();
    void codec_config();
    void reset_context();
    void destroy_context();

    bool init_video_codec_context(AVCodecID codec_id, int width, int height, int pix_fmt,
                                  int extradata_size, int out_width, int out_height,
                                  int out_pix_fmt);
    bool init_audio_codec_context(AVCodecID codec_id, int in_sample_fmt, int in_channels,
                                  int in_sample_rate, int extradata_size, int out_sample_fmt,
                                  int out_channels, int out_sample_rate);
    int update_resampler(audio_context_t& state, const AVFrame* frm);
    int decode_video(AVCodecContext* codec_ctx, AVPacket* packet, AVFrame* frame);
    int decode_audio(AVCodecContext* codec_ctx, AVPacket* packet, AVFrame* frame);
    bool admit_video(video_context_t& state, AVCodecID codec_id, int extradata_size);
    int64_t max_pixels() const;
    bool charge_conversion(video_context_t& state, const AVFrame* picture, int format,
                           bool from_hardware);
    av_ptr<AVCodecContext> open_sw_video_context(const AVCodec* codec, video_context_t& state,
                                                 int extradata_size);
    av_ptr<AVCodecContext> open_hw_candidate(const AVCodec* codec, AVHWDeviceType type, int width,
                                             int height, int extradata_size);
    int hw_decoder_init(AVCodecContext* ctx, AVHWDeviceType type);
    int decode_with(AVCodecContext* ctx);

    // Exchange block access.
    uint8_t* request_header() const { return block + SHM_REQUEST_OFFSET; }
    uint8_t* input_area() const { return block + SHM_INPUT_OFFSET; }
    uint8_t* output_area() const { return block + SHM_OUTPUT_OFFSET; }
    template <typename T>
    T read_request(size_t offset) const {
        T value;
        memcpy(&value, request_header() + offset, sizeof(T));
        return value;
    }
    void write_result(int32_t status, uint32_t output_size, int64_t output_pts);
    void write_failure() { write_result(STATUS_FAILED, 0, 0); }
    void clear_result() { write_result(STATUS_OK, 0, 0); }
    bool append_extradata(AVCodecContext* ctx, int size);
    bool charge_config(MemoryCharge& charge, int32_t size, int contexts);
    void clear_output_after(size_t used);
    bool release_pages(size_t offset, size_t length);
};
