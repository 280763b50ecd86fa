// The codec's requests that are not video's or audio's own: the common part of a decode, flush,
// configuration bytes, reset and destroy; and the release actions of every FFmpeg object.

#include <climits>
#include <cstring>

#include "protocol/ffmpeg_protocol.h"
#include "decoder/media_codec_internal.h"

using namespace codec_detail;
using namespace mediaclient::protocol;

namespace codec_detail {

MediaCodec::av_ptr<AVCodecContext> own_codec_context(AVCodecContext* ctx, const char* what) {
    return MediaCodec::av_ptr<AVCodecContext>(ctx, [what](AVCodecContext* c) {
        LOGD("%s", what);
        avcodec_free_context(&c);
    });
}

MediaCodec::av_ptr<AVCodecContext> own_hw_codec_context(AVCodecContext* ctx) {
    return MediaCodec::av_ptr<AVCodecContext>(ctx, [](AVCodecContext* c) {
        auto* user_data = static_cast<MediaCodec::hw_user_data_t*>(c->opaque);
        if (user_data != nullptr) {
            LOGD("freeing video decoder context's opaque data");
            if (user_data->hw_device_ctx != nullptr) {
                av_buffer_unref(&user_data->hw_device_ctx);
            }
            delete user_data;
            c->opaque = nullptr;
        }
        LOGD("freeing HW video decoder context");
        avcodec_free_context(&c);
    });
}

MediaCodec::av_ptr<AVPacket> own_packet(AVPacket* packet, const char* what) {
    return MediaCodec::av_ptr<AVPacket>(packet, [what](AVPacket* p) {
        LOGD("%s", what);
        av_packet_free(&p);
    });
}

MediaCodec::av_ptr<AVFrame> own_frame(AVFrame* frame, const char* what) {
    return MediaCodec::av_ptr<AVFrame>(frame, [what](AVFrame* f) {
        LOGD("%s", what);
        av_frame_free(&f);
    });
}

}  // namespace codec_detail

MediaCodec::video_context_t::~video_context_t() {
    // Conversion context, candidates in order, chosen context, then the software context.
    sws_ctx.reset();
    for (auto& candidate : hw_codec_candidates) {
        candidate.reset();
    }
    hw_codec_candidates.clear();
    hw_codec_ctx.reset();
    sw_codec_ctx.reset();
}

MediaCodec::audio_context_t::~audio_context_t() {
    swr_ctx.reset();
    codec_ctx.reset();
}

int MediaCodec::HardwareSeam::create_device(AVBufferRef** device, AVHWDeviceType type) const {
    return av_hwdevice_ctx_create(device, type, nullptr, nullptr, 0);
}

int MediaCodec::HardwareSeam::decode(AVCodecContext* /*ctx*/,
                                     const std::function<int()>& decode) const {
    return decode();
}

namespace {

const MediaCodec::HardwareSeam ffmpeg_devices;

}  // namespace

MediaCodec::MediaCodec(Areas areas, MemoryBudget& budget, const HardwareSeam* seam)
    : account_(budget), areas_(std::move(areas)), seam_(seam != nullptr ? *seam : ffmpeg_devices) {}

// The state goes in the order of the protocol's teardown: audio, video, then packet and frame.
MediaCodec::~MediaCodec() {
    audio_ctx_.reset();
    video_ctx_.reset();
    packet_.reset();
    frame_.reset();
    LOGD("the decoder held at most %lld KiB of the memory budget",
         static_cast<long long>(account_.peak() >> 10));
}

void MediaCodec::write_result(int32_t status, uint32_t output_size, int64_t output_pts) {
    ExchangeResult result{};
    result.status = status;
    result.output_size = output_size;
    result.output_pts = output_pts;
    memcpy(areas_.result, &result, sizeof(result));
}

void MediaCodec::decode_frame(const uint8_t* data, int32_t size, int64_t pts) {
    LOGD("decode frame");
    if (!video_ctx_ && !audio_ctx_) {
        LOGE("decoder context not initialized!!");
        clear_result();
        return;
    }
    // After destroy context a state of the other media type may still be held, but no media type
    // is in use and the packet and frame are released: the request is answered with nothing
    // written.
    if (media_type_ == MEDIA_TYPE_NONE || !packet_ || !frame_) {
        return;
    }
    AVPacket* pkt = packet_.get();
    ffcompat::init_packet(pkt);
    pkt->pts = pts;
    pkt->data = const_cast<uint8_t*>(data);
    pkt->size = size;
    LOGD("packet size: %d, pts: %ld", pkt->size, static_cast<long>(pkt->pts));
    // Sizes beyond the input area are refused like empty packets.
    if (!fits_area(size)) {
        LOGE("wrong packet size passed");
        write_failure();
        return;
    }
    // FFmpeg copies the packet, and a parser may keep a second copy while it decodes.
    MemoryCharge packet_charge(&account_);
    if (!packet_charge.set(2 * int64_t{size} + AV_INPUT_BUFFER_PADDING_SIZE, "packet")) {
        write_failure();
        return;
    }
    if (media_type_ == MEDIA_TYPE_VIDEO) {
        decode_video_branch();
    } else if (!audio_ctx_ || !audio_ctx_->codec_ctx) {
        // A reset whose setup failed leaves a state without a decoder.
        LOGE("decoder context not initialized!!");
        clear_result();
    } else {
        decode_audio(audio_ctx_->codec_ctx.get(), pkt, frame_.get());
    }
}

bool MediaCodec::alloc_packet_and_frame(int32_t media_type, av_ptr<AVPacket>* packet,
                                        av_ptr<AVFrame>* frame) {
    const bool video = media_type == MEDIA_TYPE_VIDEO;
    *packet =
        own_packet(av_packet_alloc(), video ? "freeing video packet" : "freeing audio packet");
    if (!*packet) {
        LOGE("%s", video ? "video packet alloc failed" : "audio packet alloc failed");
        return false;
    }
    *frame = own_frame(av_frame_alloc(), video ? "freeing video frame" : "freeing audio frame");
    if (!*frame) {
        LOGE("%s", video ? "video frame alloc failed" : "audio frame alloc failed");
        return false;
    }
    return true;
}

int MediaCodec::receive_frame(AVCodecContext* ctx, AVFrame* frm, const char* failure_text) {
    const int ret = avcodec_receive_frame(ctx, frm);
    if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
        LOGD("need more data or eof reached");
        write_result(STATUS_NEED_MORE_DATA, 0, 0);
        av_frame_unref(frm);
        return 0;
    }
    if (ret < 0) {
        SvcSystemLogReason(AvErrorText(ret).text);
        LOGE("%s", failure_text);
        return ret;
    }
    return 1;
}

void MediaCodec::flush() {
    LOGD("flush decoder");
    AVCodecContext* ctx = nullptr;
    if (media_type_ == MEDIA_TYPE_VIDEO && video_ctx_) {
        ctx = video_ctx_->hw_codec_ctx ? video_ctx_->hw_codec_ctx.get()
                                       : video_ctx_->sw_codec_ctx.get();
    } else if (media_type_ == MEDIA_TYPE_AUDIO && audio_ctx_) {
        ctx = audio_ctx_->codec_ctx.get();
    }
    if (ctx != nullptr) {
        avcodec_flush_buffers(ctx);
    }
}

bool MediaCodec::append_extradata(AVCodecContext* ctx, const uint8_t* bytes, int size) {
    const int old = ctx->extradata_size;
    if (!fits_area(size) || old < 0 || old > INT_MAX - AV_INPUT_BUFFER_PADDING_SIZE - size) {
        LOGE("codec config size out of range: %d", size);
        return false;
    }
    auto* grown = static_cast<uint8_t*>(
        av_realloc(ctx->extradata, static_cast<size_t>(old) + size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (grown == nullptr) {
        LOGE("codec config buffer alloc failed");
        return false;
    }
    ctx->extradata = grown;
    ctx->extradata_size = old + size;
    memcpy(grown + old, bytes, static_cast<size_t>(size));
    memset(grown + old + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    return true;
}

// Configuration bytes appended to `contexts` contexts, charged before they are copied; a size
// beyond the input area is left to append_extradata to refuse.
bool MediaCodec::charge_config(MemoryCharge& charge, int32_t size, int contexts) {
    return !fits_area(size) || charge.add(int64_t{size} * contexts, "configuration bytes");
}

void MediaCodec::codec_config(const uint8_t* data, int32_t size) {
    LOGD("codec config");
    if (size <= 0) {
        return;
    }
    if (media_type_ == MEDIA_TYPE_VIDEO && video_ctx_) {
        video_context_t& state = *video_ctx_;
        const int contexts = (state.sw_codec_ctx ? 1 : 0) + (state.hw_codec_ctx ? 1 : 0);
        if (!charge_config(state.setup_charge, size, contexts)) {
            return;
        }
        // The software context, then the chosen hardware one; candidates not yet chosen keep
        // what they were set up with.
        for (AVCodecContext* ctx : {state.sw_codec_ctx.get(), state.hw_codec_ctx.get()}) {
            if (ctx != nullptr) {
                append_extradata(ctx, data, size);
            }
        }
    } else if (media_type_ == MEDIA_TYPE_AUDIO && audio_ctx_ && audio_ctx_->codec_ctx &&
               charge_config(audio_ctx_->setup_charge, size, 1)) {
        append_extradata(audio_ctx_->codec_ctx.get(), data, size);
    }
}

// Rebuilds the decoder of the media type in use for a new output, with the codec and the input
// format it has (for audio, as last decoded) and no configuration bytes. The setup's own result
// is not used: the result area ends up zero and the worker goes on serving. A state left without
// a codec by an earlier failed setup has nothing to rebuild and is kept as it is.
void MediaCodec::reset(const Setup& output) {
    LOGD("reset context");
    Setup again;  // no configuration bytes
    again.media_type = media_type_;
    if (media_type_ == MEDIA_TYPE_VIDEO && video_ctx_ && video_ctx_->sw_codec_ctx) {
        const video_context_t& v = *video_ctx_;
        again.codec_id = v.sw_codec_ctx->codec_id;
        again.video = output.video;
        again.video.coded_width = v.width;
        again.video.coded_height = v.height;
        again.video.coded_pix_fmt = v.pix_fmt;
        video_ctx_.reset();
        init_video(again);
    } else if (media_type_ == MEDIA_TYPE_AUDIO && audio_ctx_ && audio_ctx_->codec_ctx) {
        const audio_context_t& a = *audio_ctx_;
        again.codec_id = a.codec_ctx->codec_id;
        again.audio = output.audio;
        again.audio.in_sample_fmt = a.in_sample_fmt;
        again.audio.in_channels = a.in_channels;
        again.audio.in_sample_rate = a.in_sample_rate;
        audio_ctx_.reset();
        init_audio(again);
    }
    clear_result();
}

bool MediaCodec::init(const Setup& setup) {
    if (setup.media_type != MEDIA_TYPE_VIDEO && setup.media_type != MEDIA_TYPE_AUDIO) {
        LOGW("unknown media type specified, initialization failed");
        return false;
    }
    const bool video = setup.media_type == MEDIA_TYPE_VIDEO;
    media_type_ = setup.media_type;
    if (setup.codec_id == AV_CODEC_ID_NONE) {
        LOGE("%s", video ? "unknown video codec specified" : "unknown audio codec specified");
        return false;
    }
    return video ? init_video(setup) : init_audio(setup);
}

void MediaCodec::destroy_context() {
    LOGD("destroy context");
    if (media_type_ == MEDIA_TYPE_VIDEO) {
        video_ctx_.reset();
    } else if (media_type_ == MEDIA_TYPE_AUDIO) {
        audio_ctx_.reset();
    }
    media_type_ = MEDIA_TYPE_NONE;
    frame_.reset();
    packet_.reset();
}

std::string MediaCodec::work() const {
    if (media_type_ == MEDIA_TYPE_VIDEO && video_ctx_ && video_ctx_->sw_codec_ctx) {
        return std::string(avcodec_get_name(video_ctx_->sw_codec_ctx->codec_id)) + " " +
               (video_ctx_->hw_codec_ctx ? chosen_device_name() : "sw");
    }
    if (media_type_ == MEDIA_TYPE_AUDIO && audio_ctx_ && audio_ctx_->codec_ctx) {
        return avcodec_get_name(audio_ctx_->codec_ctx->codec_id);
    }
    return "";
}
