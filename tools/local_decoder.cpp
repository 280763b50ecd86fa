#include "tools/local_decoder.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "decoder/exchange_block.h"
#include "decoder/ffmpeg_compat.h"
#include "decoder/packed_picture.h"

namespace mediatools {

namespace {

// Output pixel formats the service does not know are taken as YUV420P there.
constexpr uint32_t kPixFmtLimit = 187;
constexpr int kDefaultOutRate = 44100;

std::string av_error(int err) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, text, sizeof(text));
    return text;
}

// The service appends configuration bytes with FFmpeg's input padding zeroed behind them.
bool set_extradata(AVCodecContext* ctx, const std::vector<uint8_t>& bytes) {
    if (bytes.empty()) {
        return true;
    }
    auto* buf = static_cast<uint8_t*>(av_malloc(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (buf == nullptr) {
        return false;
    }
    memcpy(buf, bytes.data(), bytes.size());
    memset(buf + bytes.size(), 0, AV_INPUT_BUFFER_PADDING_SIZE);
    ctx->extradata = buf;
    ctx->extradata_size = static_cast<int>(bytes.size());
    return true;
}

// The service's packet points into the block with default fields; FFmpeg copies the bytes.
void fill_packet(AVPacket* packet, const uint8_t* data, int size, int64_t pts) {
    ffcompat::init_packet(packet);
    packet->pts = pts;
    packet->data = const_cast<uint8_t*>(data);
    packet->size = size;
}

}  // namespace

OutputArea::OutputArea() {
    data_ = static_cast<uint8_t*>(aligned_alloc(4096, SHM_AREA_SIZE));
    if (data_ == nullptr) {
        throw std::bad_alloc();
    }
    memset(data_, 0, SHM_AREA_SIZE);
}

OutputArea::~OutputArea() {
    free(data_);
}

// ---- video ----

LocalVideoDecoder::~LocalVideoDecoder() {
    av_freep(&picture_[0]);
    sws_freeContext(sws_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&ctx_);
}

bool LocalVideoDecoder::open(const StreamInfo& info, int out_width, int out_height, int out_pix_fmt,
                             Output mode, std::string* error) {
    mode_ = mode;
    out_width_ = out_width;
    out_height_ = out_height;
    out_pix_fmt_ =
        static_cast<uint32_t>(out_pix_fmt) >= kPixFmtLimit ? AV_PIX_FMT_YUV420P : out_pix_fmt;
    const AVCodec* codec = avcodec_find_decoder(static_cast<AVCodecID>(info.codec_id));
    if (codec == nullptr) {
        *error = "no FFmpeg decoder for " + info.codec_name;
        return false;
    }
    ctx_ = avcodec_alloc_context3(codec);
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    if (ctx_ == nullptr || packet_ == nullptr || frame_ == nullptr) {
        *error = "out of memory";
        return false;
    }
    ctx_->codec_type = AVMEDIA_TYPE_VIDEO;
    ctx_->width = info.width;
    ctx_->height = info.height;
    ctx_->pix_fmt = static_cast<AVPixelFormat>(info.pix_fmt);
    if (!set_extradata(ctx_, info.extradata)) {
        *error = "out of memory";
        return false;
    }
    int ret = avcodec_open2(ctx_, codec, nullptr);
    if (ret < 0) {
        *error = "cannot open the " + info.codec_name + " decoder: " + av_error(ret);
        return false;
    }
    if (mode_ != Output::kScaleOnly) {
        area_.reset(new OutputArea());
    } else {
        picture_size_ = ffcompat::image_alloc(picture_, linesizes_, out_width_, out_height_,
                                              static_cast<AVPixelFormat>(out_pix_fmt_), 1);
        if (picture_size_ < 0) {
            *error = "cannot allocate the picture buffer: " + av_error(picture_size_);
            return false;
        }
    }
    return true;
}

const uint8_t* LocalVideoDecoder::output() const {
    return mode_ == Output::kScaleOnly ? picture_[0] : area_->data();
}

Answer LocalVideoDecoder::fail() {
    av_frame_unref(frame_);
    return Answer{STATUS_FAILED, 0, 0};
}

Answer LocalVideoDecoder::decode(const uint8_t* data, int size, int64_t pts) {
    if (size <= 0) {
        return Answer{STATUS_FAILED, 0, 0};
    }
    fill_packet(packet_, data, size, pts);
    if (avcodec_send_packet(ctx_, packet_) < 0) {
        return fail();
    }
    // The service allocates a frame for hardware transfers on every call, used or not.
    AVFrame* temp = mode_ == Output::kLikeService ? av_frame_alloc() : nullptr;
    struct FreeTemp {
        AVFrame*& frame;
        ~FreeTemp() { av_frame_free(&frame); }
    } free_temp{temp};

    int ret = avcodec_receive_frame(ctx_, frame_);
    if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
        av_frame_unref(frame_);
        return Answer{STATUS_NEED_MORE_DATA, 0, 0};
    }
    if (ret < 0) {
        return fail();
    }

    const AVPixelFormat out_format = static_cast<AVPixelFormat>(out_pix_fmt_);
    sws_ = sws_getCachedContext(sws_, frame_->width, frame_->height,
                                static_cast<AVPixelFormat>(frame_->format), out_width_, out_height_,
                                out_format, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (sws_ == nullptr) {
        return fail();
    }

    if (mode_ == Output::kScaleOnly) {
        sws_scale(sws_, frame_->data, frame_->linesize, 0, frame_->height, picture_, linesizes_);
        Answer answer{STATUS_OK, static_cast<uint32_t>(picture_size_),
                      frame_->best_effort_timestamp};
        av_frame_unref(frame_);
        return answer;
    }

    int picture_size = av_image_get_buffer_size(out_format, out_width_, out_height_, 1);
    if (picture_size > static_cast<int>(SHM_AREA_SIZE)) {
        return fail();
    }
    uint8_t* area = area_->data();
    packed_picture::Failure failure;
    int copied =
        packed_picture::convert(sws_, frame_, area, out_format, out_width_, out_height_, &failure);
    if (copied < 0) {
        return fail();
    }
    // The service releases these pages instead where the kernel lets it; zeros either way.
    const size_t packed = static_cast<size_t>(copied);
    memset(area + packed, 0, SHM_AREA_SIZE - packed);
    Answer answer{STATUS_OK, static_cast<uint32_t>(packed), frame_->best_effort_timestamp};
    av_frame_unref(frame_);
    return answer;
}

// ---- audio ----

LocalAudioDecoder::~LocalAudioDecoder() {
    swr_free(&swr_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&ctx_);
}

bool LocalAudioDecoder::open(const StreamInfo& info, int out_sample_fmt, int out_channels,
                             int out_rate, std::string* error) {
    in_rate_ = info.sample_rate;
    in_channels_ = info.channels;
    in_layout_ = ffcompat::default_channel_layout(info.channels);
    in_fmt_ = info.sample_fmt;
    out_rate_ = out_rate > 0 ? out_rate : kDefaultOutRate;
    out_channels_ = out_channels;
    out_fmt_ = out_sample_fmt;
    out_layout_ = ffcompat::default_channel_layout(out_channels);

    const AVCodec* codec = avcodec_find_decoder(static_cast<AVCodecID>(info.codec_id));
    if (codec == nullptr) {
        *error = "no FFmpeg decoder for " + info.codec_name;
        return false;
    }
    ctx_ = avcodec_alloc_context3(codec);
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    if (ctx_ == nullptr || packet_ == nullptr || frame_ == nullptr) {
        *error = "out of memory";
        return false;
    }
    ffcompat::set_context_channels(ctx_, info.channels);
    ctx_->sample_fmt = static_cast<AVSampleFormat>(info.sample_fmt);
    if (info.sample_rate > 0) {
        ctx_->sample_rate = info.sample_rate;
    }
    if (!set_extradata(ctx_, info.extradata)) {
        *error = "out of memory";
        return false;
    }
    int ret = avcodec_open2(ctx_, codec, nullptr);
    if (ret < 0) {
        *error = "cannot open the " + info.codec_name + " decoder: " + av_error(ret);
        return false;
    }
    area_.reset(new OutputArea());
    return true;
}

Answer LocalAudioDecoder::fail() {
    return Answer{STATUS_FAILED, 0, 0};
}

Answer LocalAudioDecoder::decode(const uint8_t* data, int size, int64_t pts) {
    if (size <= 0) {
        return Answer{STATUS_FAILED, 0, 0};
    }
    fill_packet(packet_, data, size, pts);
    if (avcodec_send_packet(ctx_, packet_) < 0) {
        return fail();
    }
    int ret = avcodec_receive_frame(ctx_, frame_);
    if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
        av_frame_unref(frame_);
        return Answer{STATUS_NEED_MORE_DATA, 0, 0};
    }
    if (ret < 0) {
        return fail();
    }

    const uint64_t frame_layout = ffcompat::frame_channel_layout(frame_);
    const int frame_channels = ffcompat::frame_channels(frame_);
    const int n_in = ffcompat::layout_nb_channels(frame_layout);
    int64_t layout = static_cast<int64_t>(frame_layout);
    if (frame_layout == 0 || n_in != frame_channels) {
        layout = ffcompat::default_channel_layout(frame_channels);
    }
    const bool reusable = swr_ != nullptr && in_channels_ == n_in && in_layout_ == layout &&
                          in_rate_ == frame_->sample_rate && in_fmt_ == frame_->format;
    if (!reusable) {
        swr_free(&swr_);
        in_rate_ = frame_->sample_rate;
        in_channels_ = n_in;
        in_layout_ = layout;
        in_fmt_ = frame_->format;
        swr_ = ffcompat::alloc_resampler(
            out_layout_, static_cast<AVSampleFormat>(out_fmt_), out_rate_, layout,
            static_cast<AVSampleFormat>(frame_->format), frame_->sample_rate);
        if (swr_ == nullptr) {
            return fail();
        }
        if (swr_init(swr_) < 0) {
            swr_free(&swr_);
            return fail();
        }
    }

    const AVSampleFormat out_format = static_cast<AVSampleFormat>(out_fmt_);
    int needed =
        av_samples_get_buffer_size(nullptr, out_channels_, frame_->nb_samples, out_format, 0);
    if (needed < 0 || static_cast<size_t>(needed) > SHM_AREA_SIZE) {
        return fail();
    }
    auto** planes = static_cast<uint8_t**>(av_calloc(out_channels_, sizeof(uint8_t*)));
    if (planes == nullptr) {
        return fail();
    }
    if (av_samples_fill_arrays(planes, nullptr, area_->data(), out_channels_, frame_->nb_samples,
                               out_format, 0) < 0) {
        av_freep(&planes);
        return fail();
    }
    int n = swr_convert(swr_, planes, frame_->nb_samples,
                        const_cast<const uint8_t**>(frame_->extended_data), frame_->nb_samples);
    av_freep(&planes);
    if (n < 0) {
        return fail();
    }
    const uint32_t output_size =
        static_cast<uint32_t>(n * out_channels_ * av_get_bytes_per_sample(out_format));
    return Answer{STATUS_OK, output_size, pts + static_cast<int64_t>(n) * 1000000 / out_rate_};
}

}  // namespace mediatools
