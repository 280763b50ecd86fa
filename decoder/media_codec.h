#pragma once

// One client's decoding as the protocol defines it, with nothing around it: no thread, no shared
// memory, no event loop. The service runs one per decoder client on the client's worker, over
// the client's exchange block (MediaDecoder, the transport); media-decode and the benchmarks run
// one in-process over buffers of their own, so that "in-process" is the service's own work without
// the transport.
//
// Each request answers in the result area and, for a decode, in the output area, as the protocol
// says; the bytes it reads (packets, configuration bytes) come as pointers. An instance is used by
// one thread at a time.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "protocol/media_protocol.h"
#include "decoder/ffmpeg_compat.h"
#include "decoder/memory_budget.h"
#include "decoder/picture_ledger.h"

class MediaCodec {
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

    // Where the answers go.
    struct Areas {
        mediaclient::protocol::ExchangeResult* result;  // the result area
        uint8_t* output;                                // the output area, SHM_AREA_SIZE bytes
        // Called after a picture of `used` bytes was written: from there to the end of the output
        // area everything must read zero. The service releases the block's pages; in-process,
        // zeros are written.
        std::function<void(size_t used)> clear_after;
    };

    // How hardware devices are made and a context decodes a packet; FFmpeg's own by default. The
    // in-process tests stand in for the devices this host lacks.
    class HardwareSeam {
      public:
        virtual ~HardwareSeam() = default;
        // av_hwdevice_ctx_create on the type's default device.
        virtual int create_device(AVBufferRef** device, AVHWDeviceType type) const;
        // Runs `decode` (the decode of one packet by `ctx`) and returns its result.
        virtual int decode(AVCodecContext* ctx, const std::function<int()>& decode) const;
    };

    // `seam` outlives the instance; null means FFmpeg's own.
    explicit MediaCodec(Areas areas, MemoryBudget& budget = MemoryBudget::service(),
                        const HardwareSeam* seam = nullptr);
    MediaCodec(const MediaCodec&) = delete;
    MediaCodec& operator=(const MediaCodec&) = delete;
    ~MediaCodec();

    // A setup's fields by the names a client's init gives them (the block's ExchangeVideoInit and
    // ExchangeAudioInit); formats are FFmpeg's numbers. A reset reads only the out_* fields.
    struct VideoSetup {
        int32_t coded_width = 0;
        int32_t coded_height = 0;
        int32_t coded_pix_fmt = 0;
        int32_t out_width = 0;
        int32_t out_height = 0;
        int32_t out_pix_fmt = 0;
    };
    struct AudioSetup {
        int32_t in_sample_fmt = 0;
        int32_t in_channels = 0;
        int32_t in_sample_rate = 0;
        int32_t out_sample_fmt = 0;
        int32_t out_channels = 0;
        int32_t out_sample_rate = 0;
    };
    // The fields of anything that names them as a client's init does: the block's views, the
    // library's parameters. The one place a new field is copied.
    template <typename Named>
    static VideoSetup video_setup_of(const Named& n) {
        VideoSetup v;
        v.coded_width = n.coded_width;
        v.coded_height = n.coded_height;
        v.coded_pix_fmt = n.coded_pix_fmt;
        v.out_width = n.out_width;
        v.out_height = n.out_height;
        v.out_pix_fmt = n.out_pix_fmt;
        return v;
    }
    template <typename Named>
    static AudioSetup audio_setup_of(const Named& n) {
        AudioSetup a;
        a.in_sample_fmt = n.in_sample_fmt;
        a.in_channels = n.in_channels;
        a.in_sample_rate = n.in_sample_rate;
        a.out_sample_fmt = n.out_sample_fmt;
        a.out_channels = n.out_channels;
        a.out_sample_rate = n.out_sample_rate;
        return a;
    }
    // One setup, for an init and a reset alike.
    struct Setup {
        int32_t media_type = mediaclient::protocol::MEDIA_TYPE_NONE;
        // AV_CODEC_ID_NONE: the client named a row beyond the codec table.
        AVCodecID codec_id = AV_CODEC_ID_NONE;
        // The configuration bytes, as the client put them at the start of the input area.
        const uint8_t* config = nullptr;
        int32_t config_size = 0;
        VideoSetup video;  // read for MEDIA_TYPE_VIDEO
        AudioSetup audio;  // read for MEDIA_TYPE_AUDIO
    };

    // The requests. An init takes the setup's media type before it looks at the codec, so that
    // an unknown codec still changes it; false when it failed (an unknown codec or media type
    // without an answer in the result area).
    bool init(const Setup& setup);
    void decode_frame(const uint8_t* data, int32_t size, int64_t pts);
    void flush();
    void codec_config(const uint8_t* data, int32_t size);
    // Rebuilds the decoder of the media type in use with the output of `output` (its out_*
    // fields of that media type).
    void reset(const Setup& output);
    void destroy_context();

    // The media type in use.
    int32_t media_type() const { return media_type_; }
    // What it decodes: "h264 sw", "h264 vaapi" (where the video decodes), "aac"; empty without a
    // decoder.
    std::string work() const;
    // The video contexts, for media-probe and the tests of the hardware trial: the software one,
    // the chosen hardware one (null until one is chosen), then the candidates still waiting, in
    // trial order.
    // Empty without a video decoder.
    std::vector<const AVCodecContext*> video_contexts() const;

    static AVPixelFormat get_hw_format(AVCodecContext* ctx, const AVPixelFormat* pix_fmts);

  private:
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
        ~video_context_t();
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
        ~audio_context_t();
    };

    bool init_video(const Setup& setup);
    bool init_audio(const Setup& setup);
    void decode_video_branch();
    int update_resampler(audio_context_t& state, const AVFrame* frm);
    // A setup's packet and frame, owned with the release lines of `media_type`; false, logged,
    // when either cannot be allocated.
    bool alloc_packet_and_frame(int32_t media_type, av_ptr<AVPacket>* packet,
                                av_ptr<AVFrame>* frame);
    // The frame a packet sent to `ctx` gave: 1 with it in `frm`; 0 when the decoder needs more
    // data, which is answered; else the FFmpeg error, logged with `failure_text`.
    int receive_frame(AVCodecContext* ctx, AVFrame* frm, const char* failure_text);
    int decode_video(AVCodecContext* codec_ctx, AVPacket* packet, AVFrame* frame);
    int decode_audio(AVCodecContext* codec_ctx, AVPacket* packet, AVFrame* frame);
    bool admit_video(video_context_t& state, AVCodecID codec_id, int config_size);
    int64_t max_pixels() const;
    bool charge_conversion(video_context_t& state, const AVFrame* picture, int format,
                           bool from_hardware);
    av_ptr<AVCodecContext> open_audio_context(audio_context_t& state, AVCodecID codec_id,
                                              const uint8_t* config, int config_size);
    av_ptr<AVCodecContext> open_sw_video_context(const AVCodec* codec, video_context_t& state,
                                                 const uint8_t* config, int config_size);
    av_ptr<AVCodecContext> open_hw_candidate(const AVCodec* codec, AVHWDeviceType type, int width,
                                             int height, const uint8_t* config, int config_size);
    void open_hw_candidates(const AVCodec* codec, video_context_t& state, const uint8_t* config,
                            int config_size);
    int hw_decoder_init(AVCodecContext* ctx, AVHWDeviceType type);
    int decode_with(AVCodecContext* ctx);
    bool try_candidate(AVCodecContext* candidate);
    int convert_picture(video_context_t& state, AVFrame* source);
    int convert_samples(audio_context_t& state, AVFrame* frm, int64_t request_pts);
    const char* chosen_device_name() const;

    void write_result(int32_t status, uint32_t output_size, int64_t output_pts);
    void write_failure() { write_result(mediaclient::protocol::STATUS_FAILED, 0, 0); }
    void clear_result() { write_result(mediaclient::protocol::STATUS_OK, 0, 0); }
    bool append_extradata(AVCodecContext* ctx, const uint8_t* bytes, int size);
    bool charge_config(MemoryCharge& charge, int32_t size, int contexts);

    // What this client's decoder holds, charged to the budget. First, so that it outlives every
    // charge of the members below.
    MemoryAccount account_;
    const Areas areas_;
    const HardwareSeam& seam_;
    int32_t media_type_ = mediaclient::protocol::MEDIA_TYPE_NONE;
    av_ptr<AVFrame> frame_;
    av_ptr<AVPacket> packet_;
    std::unique_ptr<video_context_t> video_ctx_;
    std::unique_ptr<audio_context_t> audio_ctx_;
};
