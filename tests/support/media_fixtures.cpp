#include "support/media_fixtures.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "decoder/exchange_block.h"
#include "decoder/ffmpeg_compat.h"

namespace {

std::mutex fixture_mutex;
std::map<std::string, std::string> made;

const std::string& fixture_dir() {
    static std::string dir = [] {
        char path[] = "/tmp/svc-media-XXXXXX";
        std::string d = mkdtemp(path) != nullptr ? path : "/tmp";
        static std::string cleanup = d;
        atexit([] {
            std::string cmd = "rm -rf '" + cleanup + "'";
            if (system(cmd.c_str()) != 0) {
                fprintf(stderr, "could not remove %s\n", cleanup.c_str());
            }
        });
        return d;
    }();
    return dir;
}

}  // namespace

std::string make_media(const std::string& name, const std::string& args) {
    std::lock_guard<std::mutex> lock(fixture_mutex);
    auto it = made.find(name);
    if (it != made.end()) {
        return it->second;
    }
    std::string out = fixture_dir() + "/" + name;
    std::string cmd = "ffmpeg -nostdin -hide_banner -loglevel error -y " + args + " '" + out + "'";
    std::string result = system(cmd.c_str()) == 0 ? out : "";
    made[name] = result;
    return result;
}

bool demux_first_stream(const std::string& path, bool video, DemuxedStream* out) {
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) {
        return false;
    }
    bool ok = false;
    if (avformat_find_stream_info(fmt, nullptr) >= 0) {
        int index = av_find_best_stream(fmt, video ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO, -1,
                                        -1, nullptr, 0);
        if (index >= 0) {
            const AVStream* st = fmt->streams[index];
            const AVCodecParameters* par = st->codecpar;
            out->codec_id = par->codec_id;
            out->codec_name = avcodec_get_name(par->codec_id);
            out->is_video = video;
            out->width = par->width;
            out->height = par->height;
            out->sample_rate = par->sample_rate;
            out->channels = ffcompat::codecpar_channels(par);
            if (video) {
                out->pix_fmt = par->format;
            } else {
                out->sample_fmt = par->format;
            }
            out->time_base_num = st->time_base.num;
            out->time_base_den = st->time_base.den;
            out->extradata.assign(par->extradata, par->extradata + par->extradata_size);
            AVPacket* pkt = av_packet_alloc();
            while (av_read_frame(fmt, pkt) >= 0) {
                if (pkt->stream_index == index) {
                    DemuxedPacket p;
                    p.data.assign(pkt->data, pkt->data + pkt->size);
                    p.pts = pkt->pts;
                    p.dts = pkt->dts;
                    out->packets.push_back(std::move(p));
                }
                av_packet_unref(pkt);
            }
            av_packet_free(&pkt);
            ok = true;
        }
    }
    avformat_close_input(&fmt);
    return ok;
}

int video_codec_index(const std::string& codec_name) {
    for (int i = 0; i < VIDEO_CODEC_COUNT; ++i) {
        if (codec_name == VIDEO_CODEC_NAMES[i]) {
            return i;
        }
    }
    return -1;
}

int audio_codec_index(const std::string& codec_name) {
    for (int i = 0; i < AUDIO_CODEC_COUNT; ++i) {
        if (codec_name == AUDIO_CODEC_NAMES[i]) {
            return i;
        }
    }
    return -1;
}

bool have_encoder(const std::string& encoder) {
    return avcodec_find_encoder_by_name(encoder.c_str()) != nullptr ||
           system(("ffmpeg -hide_banner -h encoder=" + encoder +
                   " 2>/dev/null | grep -q 'Encoder " + encoder + "'")
                      .c_str()) == 0;
}

int reference_decode_step(AVCodecContext* ctx, const uint8_t* data, int size, int64_t pts,
                          AVFrame* frame) {
    if (size <= 0 || static_cast<size_t>(size) > SHM_AREA_SIZE) {
        return -1;
    }
    AVPacket* pkt = av_packet_alloc();
    if (pkt == nullptr || av_new_packet(pkt, size) < 0) {
        av_packet_free(&pkt);
        return -1;
    }
    memcpy(pkt->data, data, static_cast<size_t>(size));
    pkt->pts = pts;
    int ret = avcodec_send_packet(ctx, pkt);
    av_packet_free(&pkt);
    if (ret < 0) {
        return -1;
    }
    ret = avcodec_receive_frame(ctx, frame);
    if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
        return 1;
    }
    return ret < 0 ? -1 : 0;
}
