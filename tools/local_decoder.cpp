#include "tools/local_decoder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "decoder/ffmpeg_compat.h"
#include "decoder/ffmpeg_protocol.h"
#include "decoder/packed_picture.h"

namespace mediatools {

namespace {

const Answer kFailed{STATUS_FAILED, 0, 0};
const Answer kNeedMoreData{STATUS_NEED_MORE_DATA, 0, 0};

std::string av_error(int err) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, text, sizeof(text));
    return text;
}

bool size_fits_area(int size) {
    return size > 0 && static_cast<size_t>(size) <= SHM_AREA_SIZE;
}

// Allocates a decoder context for `codec_id`, or says why not.
AVCodecContext* alloc_context(int codec_id, std::string* error) {
    const AVCodecID id = static_cast<AVCodecID>(codec_id);
    const AVCodec* codec = avcodec_find_decoder(id);
    if (codec == nullptr) {
        *error = std::string("no FFmpeg decoder for ") + avcodec_get_name(id);
        return nullptr;
    }
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    if (ctx == nullptr) {
        *error = "out of memory";
    }
    return ctx;
}

// The service appends the configuration bytes, which come through the input area, with FFmpeg's
// input padding zeroed behind them; then it opens the context. Frees the context on failure.
bool open_context(AVCodecContext** ctx, const std::vector<uint8_t>& extradata, std::string* error) {
    AVCodecContext* c = *ctx;
    if (extradata.size() > SHM_AREA_SIZE) {
        *error = "the codec configuration does not fit the input area";
        avcodec_free_context(ctx);
        return false;
    }
    if (!extradata.empty()) {
        c->extradata =
            static_cast<uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (c->extradata == nullptr) {
            *error = "out of memory";
            avcodec_free_context(ctx);
            return false;
        }
        memcpy(c->extradata, extradata.data(), extradata.size());
        c->extradata_size = static_cast<int>(extradata.size());
    }
    const int ret = avcodec_open2(c, c->codec, nullptr);
    if (ret < 0) {
        *error = std::string("cannot open the ") + avcodec_get_name(c->codec_id) +
                 " decoder: " + av_error(ret);
        avcodec_free_context(ctx);
        return false;
    }
    return true;
}

// The service's packet points into the block with default fields; FFmpeg copies the bytes.
void fill_packet(AVPacket* packet, const uint8_t* data, int size, int64_t pts) {
    ffcompat::init_packet(packet);
    packet->pts = pts;
    packet->data = const_cast<uint8_t*>(data);
    packet->size = size;
}

// Whether a picture buffer holds the packed picture as it is: no line padded. FFmpeg 4 pads the
// lines of its pseudo-paletted formats to 4 bytes even at alignment 1.
bool holds_packed_picture(AVPixelFormat format, int width, const int linesizes[4]) {
    int packed[4] = {0, 0, 0, 0};
    if (av_image_fill_linesizes(packed, format, width) < 0) {
        return false;
    }
    return memcmp(packed, linesizes, sizeof(packed)) == 0;
}

}  // namespace

mediaclient::VideoInitParams video_init_params(const StreamInfo& info, int out_width,
                                               int out_height, int out_pix_fmt) {
    mediaclient::VideoInitParams p;
    p.coded_width = info.width;
    p.coded_height = info.height;
    p.coded_pix_fmt = info.pix_fmt;
    p.out_width = out_width;
    p.out_height = out_height;
    p.out_pix_fmt = out_pix_fmt;
    return p;
}

mediaclient::AudioInitParams audio_init_params(const StreamInfo& info, int out_sample_fmt,
                                               int out_channels, int out_sample_rate) {
    mediaclient::AudioInitParams p;
    p.in_sample_fmt = info.sample_fmt;
    p.in_channels = info.channels;
    p.in_sample_rate = info.sample_rate;
    p.out_sample_fmt = out_sample_fmt;
    p.out_channels = out_channels;
    p.out_sample_rate = out_sample_rate;
    return p;
}

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
    close();
}

void LocalVideoDecoder::close() {
    av_freep(&picture_[0]);
    packed_.clear();
    sws_freeContext(sws_);
    sws_ = nullptr;
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&ctx_);
}

bool LocalVideoDecoder::open(int codec_id, const mediaclient::VideoInitParams& params,
                             const std::vector<uint8_t>& extradata, Output mode,
                             std::string* error) {
    close();
    set_up_ = true;
    mode_ = mode;
    codec_id_ = codec_id;
    params_ = params;
    out_pix_fmt_ = effective_out_pix_fmt(params.out_pix_fmt);
    if (!open_codec(extradata, error)) {
        close();
        return false;
    }
    prepare_output();
    return true;
}

bool LocalVideoDecoder::open_codec(const std::vector<uint8_t>& extradata, std::string* error) {
    ctx_ = alloc_context(codec_id_, error);
    if (ctx_ == nullptr) {
        return false;
    }
    ctx_->codec_type = AVMEDIA_TYPE_VIDEO;
    ctx_->width = params_.coded_width;
    ctx_->height = params_.coded_height;
    ctx_->pix_fmt = pixel_format_from(params_.coded_pix_fmt);
    if (!open_context(&ctx_, extradata, error)) {
        return false;
    }
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    if (packet_ == nullptr || frame_ == nullptr) {
        *error = "out of memory";
        return false;
    }
    return true;
}

// The output area, or the picture buffer. A picture the service would refuse for its size gets
// no buffer, so that decoding fails where the service's does and never allocates gigabytes.
void LocalVideoDecoder::prepare_output() {
    if (mode_ == Output::kLikeService) {
        if (!area_) {
            area_.reset(new OutputArea());
        }
        return;
    }
    const AVPixelFormat format = static_cast<AVPixelFormat>(out_pix_fmt_);
    picture_size_ = av_image_get_buffer_size(format, params_.out_width, params_.out_height, 1);
    if (!size_fits_area(picture_size_)) {
        return;
    }
    const int ret = ffcompat::image_alloc(picture_, linesizes_, params_.out_width,
                                          params_.out_height, format, 1);
    if (ret < 0) {
        // FFmpeg refuses a paletted format an unaligned buffer, and leaves the pointers set: no
        // picture buffer, so every picture fails, as the service's conversion does.
        std::fill(std::begin(picture_), std::end(picture_), nullptr);
        return;
    }
    if (!holds_packed_picture(format, params_.out_width, linesizes_)) {
        packed_.resize(static_cast<size_t>(picture_size_));
    }
}

bool LocalVideoDecoder::reset(int out_width, int out_height, int out_pix_fmt) {
    if (ctx_ == nullptr) {
        return false;
    }
    mediaclient::VideoInitParams params = params_;
    params.out_width = out_width;
    params.out_height = out_height;
    params.out_pix_fmt = out_pix_fmt;
    std::string error;
    return open(codec_id_, params, {}, mode_, &error);
}

void LocalVideoDecoder::flush() {
    if (ctx_ != nullptr) {
        avcodec_flush_buffers(ctx_);
    }
}

const uint8_t* LocalVideoDecoder::output() const {
    if (mode_ == Output::kLikeService) {
        return area_ ? area_->data() : nullptr;
    }
    return packed_.empty() ? picture_[0] : packed_.data();
}

Answer LocalVideoDecoder::fail() {
    av_frame_unref(frame_);
    return kFailed;
}

Answer LocalVideoDecoder::decode(const uint8_t* data, int size, int64_t pts) {
    if (!set_up_) {
        return Answer{};
    }
    if (!size_fits_area(size)) {
        return kFailed;
    }
    if (ctx_ == nullptr) {
        return Answer{};
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

    const int ret = avcodec_receive_frame(ctx_, frame_);
    if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
        av_frame_unref(frame_);
        return kNeedMoreData;
    }
    if (ret < 0) {
        return fail();
    }
    sws_ = sws_getCachedContext(sws_, frame_->width, frame_->height,
                                static_cast<AVPixelFormat>(frame_->format), params_.out_width,
                                params_.out_height, static_cast<AVPixelFormat>(out_pix_fmt_),
                                SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (sws_ == nullptr) {
        return fail();
    }
    const Answer answer = mode_ == Output::kLikeService ? convert_like_service() : scale_only();
    av_frame_unref(frame_);
    return answer;
}

Answer LocalVideoDecoder::convert_like_service() {
    const AVPixelFormat format = static_cast<AVPixelFormat>(out_pix_fmt_);
    const int width = params_.out_width, height = params_.out_height;
    if (av_image_get_buffer_size(format, width, height, 1) > static_cast<int>(SHM_AREA_SIZE)) {
        return fail();
    }
    uint8_t* area = area_->data();
    packed_picture::Failure failure;
    const int copied = packed_picture::convert(sws_, frame_, area, format, width, height, &failure);
    if (copied < 0) {
        return fail();
    }
    // The service releases these pages instead where the kernel lets it; zeros either way.
    const size_t used = static_cast<size_t>(copied);
    memset(area + used, 0, SHM_AREA_SIZE - used);
    return Answer{STATUS_OK, static_cast<uint32_t>(used), frame_->best_effort_timestamp};
}

Answer LocalVideoDecoder::scale_only() {
    if (picture_[0] == nullptr) {
        return fail();
    }
    const AVPixelFormat format = static_cast<AVPixelFormat>(out_pix_fmt_);
    sws_scale(sws_, frame_->data, frame_->linesize, 0, frame_->height, picture_, linesizes_);
    if (!packed_.empty() &&
        av_image_copy_to_buffer(packed_.data(), picture_size_, picture_, linesizes_, format,
                                params_.out_width, params_.out_height, 1) < 0) {
        return fail();
    }
    return Answer{STATUS_OK, static_cast<uint32_t>(picture_size_), frame_->best_effort_timestamp};
}

// ---- audio ----

LocalAudioDecoder::~LocalAudioDecoder() {
    close();
}

void LocalAudioDecoder::close() {
    swr_free(&swr_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&ctx_);
    plane_offsets_.clear();
    plane_size_ = 0;
}

bool LocalAudioDecoder::open(int codec_id, const mediaclient::AudioInitParams& params,
                             const std::vector<uint8_t>& extradata, std::string* error) {
    close();
    set_up_ = true;
    codec_id_ = codec_id;
    params_ = params;
    in_layout_ = ffcompat::default_channel_layout(params.in_channels);
    out_rate_ = effective_out_sample_rate(params.out_sample_rate);
    out_layout_ = ffcompat::default_channel_layout(params.out_channels);
    resampler_builds_ = 0;
    if (!area_) {
        area_.reset(new OutputArea());
    }
    if (!open_codec(extradata, error)) {
        close();
        return false;
    }
    return true;
}

bool LocalAudioDecoder::open_codec(const std::vector<uint8_t>& extradata, std::string* error) {
    ctx_ = alloc_context(codec_id_, error);
    if (ctx_ == nullptr) {
        return false;
    }
    ffcompat::set_context_channels(ctx_, params_.in_channels);
    ctx_->sample_fmt = sample_format_from(params_.in_sample_fmt);
    if (params_.in_sample_rate > 0) {
        ctx_->sample_rate = params_.in_sample_rate;
    }
    if (!open_context(&ctx_, extradata, error)) {
        return false;
    }
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    if (packet_ == nullptr || frame_ == nullptr) {
        *error = "out of memory";
        return false;
    }
    return true;
}

bool LocalAudioDecoder::reset(int out_sample_fmt, int out_channels, int out_sample_rate) {
    if (ctx_ == nullptr) {
        return false;
    }
    mediaclient::AudioInitParams params = params_;
    params.out_sample_fmt = out_sample_fmt;
    params.out_channels = out_channels;
    params.out_sample_rate = out_sample_rate;
    std::string error;
    return open(codec_id_, params, {}, &error);
}

void LocalAudioDecoder::flush() {
    if (ctx_ != nullptr) {
        avcodec_flush_buffers(ctx_);
    }
}

Answer LocalAudioDecoder::fail() {
    return kFailed;
}

Answer LocalAudioDecoder::decode(const uint8_t* data, int size, int64_t pts) {
    plane_offsets_.clear();
    plane_size_ = 0;
    if (!set_up_) {
        return Answer{};
    }
    if (!size_fits_area(size)) {
        return kFailed;
    }
    if (ctx_ == nullptr) {
        return Answer{};
    }
    fill_packet(packet_, data, size, pts);
    if (avcodec_send_packet(ctx_, packet_) < 0) {
        return fail();
    }
    const int ret = avcodec_receive_frame(ctx_, frame_);
    if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
        av_frame_unref(frame_);
        return kNeedMoreData;
    }
    if (ret < 0 || !update_resampler()) {
        return fail();
    }
    return convert(pts);
}

// Keeps the resampler while the decoded format stays the same. A frame whose layout is missing or
// disagrees with its channel count is taken in the default layout for that count.
bool LocalAudioDecoder::update_resampler() {
    const int n_in = ffcompat::layout_nb_channels(ffcompat::frame_channel_layout(frame_));
    const int64_t layout = frame_input_layout(frame_);
    if (swr_ != nullptr && params_.in_channels == n_in && in_layout_ == layout &&
        params_.in_sample_rate == frame_->sample_rate && params_.in_sample_fmt == frame_->format) {
        return true;
    }
    swr_free(&swr_);
    params_.in_sample_rate = frame_->sample_rate;
    params_.in_channels = n_in;
    in_layout_ = layout;
    params_.in_sample_fmt = frame_->format;
    ++resampler_builds_;
    swr_ = ffcompat::alloc_resampler(out_layout_, sample_format_from(params_.out_sample_fmt),
                                     out_rate_, layout, static_cast<AVSampleFormat>(frame_->format),
                                     frame_->sample_rate);
    if (swr_ == nullptr) {
        return false;
    }
    if (swr_init(swr_) < 0) {
        swr_free(&swr_);
        return false;
    }
    return true;
}

// Converts the frame straight into the output area, planes laid out as the sample buffer helpers
// do with alignment 0 for the frame's sample count.
Answer LocalAudioDecoder::convert(int64_t pts) {
    const AVSampleFormat format = sample_format_from(params_.out_sample_fmt);
    const int channels = params_.out_channels;
    auto** planes = static_cast<uint8_t**>(av_calloc(channels, sizeof(uint8_t*)));
    if (planes == nullptr) {
        return fail();
    }
    struct FreePlanes {
        uint8_t**& planes;
        ~FreePlanes() { av_freep(&planes); }
    } free_planes{planes};

    const int needed = av_samples_get_buffer_size(nullptr, channels, frame_->nb_samples, format, 0);
    if (needed < 0 || static_cast<size_t>(needed) > SHM_AREA_SIZE) {
        return fail();
    }
    uint8_t* area = area_->data();
    if (av_samples_fill_arrays(planes, nullptr, area, channels, frame_->nb_samples, format, 0) <
        0) {
        return fail();
    }
    const int n =
        swr_convert(swr_, planes, frame_->nb_samples,
                    const_cast<const uint8_t**>(frame_->extended_data), frame_->nb_samples);
    if (n < 0) {
        return fail();
    }

    const int bytes_per_sample = av_get_bytes_per_sample(format);
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    for (int k = 0; k < (planar ? channels : 1); ++k) {
        plane_offsets_.push_back(static_cast<size_t>(planes[k] - area));
    }
    plane_size_ = static_cast<size_t>(n * bytes_per_sample * (planar ? 1 : channels));
    const uint32_t output_size = static_cast<uint32_t>(n * channels * bytes_per_sample);
    // The pts is the client's: summed in unsigned arithmetic, as in the service, so that a value
    // near the end of the range wraps instead of overflowing.
    const uint64_t duration = static_cast<uint64_t>(int64_t{n} * 1000000 / out_rate_);
    return Answer{STATUS_OK, output_size,
                  static_cast<int64_t>(static_cast<uint64_t>(pts) + duration)};
}

}  // namespace mediatools
