#include "tools/frame_md5.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/samplefmt.h>
}

#include "decoder/ffmpeg_compat.h"

namespace mediatools {

namespace {

// The PCM codec that ffmpeg's command line would encode each sample format with (-c:a NAME): its
// packets are the service's bytes as they are. Little-endian, as the service's hosts are.
struct PcmCodec {
    AVSampleFormat format;
    AVCodecID codec;
};
const PcmCodec kPcmCodecs[] = {
    {AV_SAMPLE_FMT_U8, AV_CODEC_ID_PCM_U8},
    {AV_SAMPLE_FMT_S16, AV_CODEC_ID_PCM_S16LE},
    {AV_SAMPLE_FMT_S32, AV_CODEC_ID_PCM_S32LE},
    {AV_SAMPLE_FMT_S64, AV_CODEC_ID_PCM_S64LE},
    {AV_SAMPLE_FMT_FLT, AV_CODEC_ID_PCM_F32LE},
    {AV_SAMPLE_FMT_DBL, AV_CODEC_ID_PCM_F64LE},
    {AV_SAMPLE_FMT_S16P, AV_CODEC_ID_PCM_S16LE_PLANAR},
    {AV_SAMPLE_FMT_S32P, AV_CODEC_ID_PCM_S32LE_PLANAR},
};

AVCodecID pcm_codec(int sample_fmt) {
    for (const PcmCodec& p : kPcmCodecs) {
        if (p.format == sample_fmt) {
            return p.codec;
        }
    }
    return AV_CODEC_ID_NONE;
}

std::string error_text(const char* step, int ret) {
    char text[AV_ERROR_MAX_STRING_SIZE] = "";
    av_strerror(ret, text, sizeof(text));
    return std::string("--framemd5: ") + step + ": " + text;
}

// The stream as ffmpeg's command line hands it to the muxer: rawvideo in 1/frame rate, or PCM
// in 1/sample rate.
void describe_stream(const OutputShape& shape, AVStream* st) {
    AVCodecParameters* par = st->codecpar;
    if (shape.video) {
        par->codec_type = AVMEDIA_TYPE_VIDEO;
        par->codec_id = AV_CODEC_ID_RAWVIDEO;
        par->width = shape.width;
        par->height = shape.height;
        par->format = shape.pix_fmt;
        par->sample_aspect_ratio = AVRational{shape.sar_num, shape.sar_den};
        st->sample_aspect_ratio = par->sample_aspect_ratio;
        st->time_base = AVRational{shape.rate_den, shape.rate_num};
    } else {
        par->codec_type = AVMEDIA_TYPE_AUDIO;
        par->codec_id = pcm_codec(shape.sample_fmt);
        par->sample_rate = shape.sample_rate;
        par->format = shape.sample_fmt;
        ffcompat::set_codecpar_channels(par, shape.channels);
        st->time_base = AVRational{1, shape.sample_rate};
    }
}

}  // namespace

FrameMd5::~FrameMd5() {
    if (mux_ != nullptr) {
        avio_closep(&mux_->pb);
        avformat_free_context(mux_);
    }
}

std::string FrameMd5::refusal(const OutputShape& shape) {
    if (shape.video || pcm_codec(shape.sample_fmt) != AV_CODEC_ID_NONE) {
        return "";
    }
    return std::string("--framemd5: ffmpeg has no PCM codec for ") +
           av_get_sample_fmt_name(static_cast<AVSampleFormat>(shape.sample_fmt)) +
           " samples; ask for u8, s16, s32, s64, flt, dbl, s16p or s32p";
}

bool FrameMd5::begin(const OutputShape& shape, std::string* error) {
    int ret = avformat_alloc_output_context2(&mux_, nullptr, "framemd5", nullptr);
    if (ret < 0) {
        *error = error_text("no framemd5 muxer", ret);
        return false;
    }
    AVStream* st = avformat_new_stream(mux_, nullptr);
    if (st == nullptr) {
        *error = error_text("new stream", AVERROR(ENOMEM));
        return false;
    }
    describe_stream(shape, st);
    bytes_per_sample_frame_ =
        shape.channels * av_get_bytes_per_sample(static_cast<AVSampleFormat>(shape.sample_fmt));
    if ((ret = avio_open(&mux_->pb, "pipe:1", AVIO_FLAG_WRITE)) < 0) {
        *error = error_text("standard output", ret);
        return false;
    }
    if ((ret = avformat_write_header(mux_, nullptr)) < 0) {
        *error = error_text("header", ret);
        return false;
    }
    avio_flush(mux_->pb);
    return true;
}

bool FrameMd5::write(const uint8_t* data, uint32_t size, int64_t pts_us, std::string* error) {
    const AVStream* st = mux_->streams[0];
    AVPacket* pkt = av_packet_alloc();
    if (pkt == nullptr) {
        *error = error_text("packet", AVERROR(ENOMEM));
        return false;
    }
    pkt->data = const_cast<uint8_t*>(data);
    pkt->size = static_cast<int>(size);
    pkt->pts = av_rescale_q(pts_us, AVRational{1, 1000000}, st->time_base);
    pkt->dts = pkt->pts;
    // A picture lasts one frame; audio as many ticks as it has samples.
    pkt->duration = bytes_per_sample_frame_ > 0 ? size / bytes_per_sample_frame_ : 1;
    const int ret = av_write_frame(mux_, pkt);
    av_packet_free(&pkt);
    if (ret < 0) {
        *error = error_text("row", ret);
        return false;
    }
    return true;
}

bool FrameMd5::finish(std::string* error) {
    const int ret = av_write_trailer(mux_);
    avio_flush(mux_->pb);
    if (ret < 0) {
        *error = error_text("end", ret);
        return false;
    }
    return true;
}

}  // namespace mediatools
