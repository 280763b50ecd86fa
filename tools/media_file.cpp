#include "tools/media_file.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "client/media_client.h"
#include "decoder/av_error.h"
#include "protocol/media_protocol.h"
#include "decoder/ffmpeg_compat.h"

using namespace mediaclient::protocol;

namespace mediatools {

namespace {

// Packet keeps the container's timestamps as they are, and says INT64_MIN for an unknown one.
static_assert(AV_NOPTS_VALUE == INT64_MIN, "FFmpeg's unknown timestamp is INT64_MIN");

AVMediaType kind(bool video) {
    return video ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
}

}  // namespace

MediaFile::~MediaFile() {
    av_packet_free(&pkt_);
    avformat_close_input(&fmt_);
}

bool MediaFile::open(const std::string& path, std::string* error) {
    int ret = avformat_open_input(&fmt_, path.c_str(), nullptr, nullptr);
    if (ret < 0) {
        *error = "cannot open " + path + ": " + AvErrorText(ret).text;
        return false;
    }
    ret = avformat_find_stream_info(fmt_, nullptr);
    if (ret < 0) {
        *error = "cannot read the streams of " + path + ": " + AvErrorText(ret).text;
        return false;
    }
    pkt_ = av_packet_alloc();
    if (pkt_ == nullptr) {
        *error = "out of memory";
        return false;
    }
    file_size_ = fmt_->pb != nullptr ? avio_size(fmt_->pb) : -1;
    return true;
}

int MediaFile::stream_count(bool video) const {
    int count = 0;
    for (unsigned i = 0; fmt_ != nullptr && i < fmt_->nb_streams; ++i) {
        if (fmt_->streams[i]->codecpar->codec_type == kind(video)) {
            ++count;
        }
    }
    return count;
}

bool MediaFile::select(bool video, int n, StreamInfo* info, std::string* error) {
    const char* what = video ? "video" : "audio";
    int seen = 0;
    for (unsigned i = 0; i < fmt_->nb_streams; ++i) {
        const AVStream* st = fmt_->streams[i];
        const AVCodecParameters* par = st->codecpar;
        if (par->codec_type != kind(video) || seen++ != n) {
            continue;
        }
        // Only the selected stream's packets are needed; the demuxer may skip the others.
        for (unsigned j = 0; j < fmt_->nb_streams; ++j) {
            fmt_->streams[j]->discard = j == i ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        }
        selected_ = static_cast<int>(i);
        *info = StreamInfo();
        info->index = static_cast<int>(i);
        info->kind_index = n;
        info->video = video;
        info->codec_id = par->codec_id;
        info->codec_name = avcodec_get_name(par->codec_id);
        if (video) {
            info->width = par->width;
            info->height = par->height;
            info->pix_fmt = par->format;
            // What ffmpeg's command line takes for its output, so that --framemd5 and .y4m match.
            const AVRational sar = av_guess_sample_aspect_ratio(fmt_, fmt_->streams[i], nullptr);
            const AVRational rate = av_guess_frame_rate(fmt_, fmt_->streams[i], nullptr);
            info->sar_num = sar.num;
            info->sar_den = sar.den;
            info->rate_num = rate.num;
            info->rate_den = rate.den;
        } else {
            info->sample_rate = par->sample_rate;
            info->channels = ffcompat::codecpar_channels(par);
            info->sample_fmt = par->format;
            info->frame_size = par->frame_size;
        }
        if (par->extradata_size > 0) {
            info->extradata.assign(par->extradata, par->extradata + par->extradata_size);
        }
        if (st->duration > 0) {
            info->duration_us = av_rescale_q(st->duration, st->time_base, AV_TIME_BASE_Q);
        } else if (fmt_->duration > 0) {
            info->duration_us = fmt_->duration;
        }
        info->time_base_num = st->time_base.num;
        info->time_base_den = st->time_base.den;
        return true;
    }
    if (seen == 0) {
        *error = std::string("the file has no ") + what + " stream";
    } else {
        *error = std::string("no ") + what + " stream " + std::to_string(n) + " (the file has " +
                 std::to_string(seen) + ", numbered from 0)";
    }
    return false;
}

bool MediaFile::next(Packet* packet) {
    if (selected_ < 0) {
        return false;
    }
    for (;;) {
        int ret = av_read_frame(fmt_, pkt_);
        if (ret < 0) {
            read_error_ = ret != AVERROR_EOF;
            return false;
        }
        if (pkt_->stream_index != selected_) {
            av_packet_unref(pkt_);
            continue;
        }
        const AVStream* st = fmt_->streams[selected_];
        packet->data.assign(pkt_->data, pkt_->data + pkt_->size);
        packet->pts = pkt_->pts;
        packet->dts = pkt_->dts;
        packet->pts_us = pkt_->pts == AV_NOPTS_VALUE
                             ? INT64_MIN
                             : av_rescale_q(pkt_->pts, st->time_base, AV_TIME_BASE_Q);
        packet->pos = pkt_->pos;
        av_packet_unref(pkt_);
        return true;
    }
}

bool load_stream(const std::string& path, bool video, int n, Stream* stream, std::string* error) {
    MediaFile file;
    if (!file.open(path, error) || !file.select(video, n, &stream->info, error)) {
        return false;
    }
    stream->packets.clear();
    Packet packet;
    while (file.next(&packet)) {
        stream->packets.push_back(std::move(packet));
        packet = Packet();
    }
    if (file.read_error()) {
        *error = "read error in " + path;
        return false;
    }
    return true;
}

// The client library's lookup, as rows.
int video_codec_index(const std::string& codec_name) {
    const auto codec = mediaclient::video_codec(codec_name);
    return codec ? static_cast<int>(*codec) : -1;
}

int audio_codec_index(const std::string& codec_name) {
    const auto codec = mediaclient::audio_codec(codec_name);
    return codec ? static_cast<int>(*codec) : -1;
}

std::string codec_table_names(bool video) {
    std::string names;
    const int count = video ? VIDEO_CODEC_COUNT : AUDIO_CODEC_COUNT;
    for (int i = 0; i < count; ++i) {
        names += (i > 0 ? ", " : "");
        names += video ? VIDEO_CODEC_NAMES[i] : AUDIO_CODEC_NAMES[i];
    }
    return names;
}

}  // namespace mediatools
