// Decodes the H.264 stream of a media file through media-service and counts its pictures: the
// README's example client, built with the installed headers and pkg-config alone:
//
//   libs="mediaclient libavformat libavcodec libavutil"
//   c++ -std=c++17 h264_pictures.cpp -o h264-pictures $(pkg-config --cflags --libs $libs)
//   ./h264-pictures video.mp4
//
// libavformat only reads the file; the service decodes.
#include <cstdio>

extern "C" {
#include <libavformat/avformat.h>
}

#include <media_client.h>

namespace mc = mediaclient;

// Opens `path` and finds its H.264 stream; -1 when it has none.
static int open_h264(const char* path, AVFormatContext** format) {
    if (avformat_open_input(format, path, nullptr, nullptr) < 0 ||
        avformat_find_stream_info(*format, nullptr) < 0) {
        return -1;
    }
    const int index = av_find_best_stream(*format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    return index >= 0 && (*format)->streams[index]->codecpar->codec_id == AV_CODEC_ID_H264 ? index
                                                                                           : -1;
}

// Connects a decoder client and sets up its H.264 decoder for the stream of `par`.
static bool set_up(mc::DecoderClient& client, const AVCodecParameters* par) {
    // The service converts every picture to this size and format; the coded ones it finds itself.
    mc::VideoInitParams params;
    params.out_width = par->width;
    params.out_height = par->height;
    params.out_pix_fmt = "yuv420p";
    mc::ExchangeResult result{};
    // The configuration bytes (avcC from MP4; none in an Annex B stream) go with the init.
    if (client.connect_posix() != mc::ClientError::kOk ||
        client.init_video(mc::VideoCodec::kH264, params, par->extradata,
                          static_cast<size_t>(par->extradata_size),
                          &result) != mc::ClientError::kOk) {
        fprintf(stderr, "%s\n", client.last_error_text().c_str());
        return false;
    }
    if (result.status != mc::STATUS_OK) {
        fprintf(stderr, "the service could not set up an H.264 decoder\n");
        return false;
    }
    return true;
}

int main(int argc, char** argv) {
    AVFormatContext* format = nullptr;
    const int index = argc == 2 ? open_h264(argv[1], &format) : -1;
    if (index < 0) {
        fprintf(stderr, "usage: %s FILE (a file with an H.264 stream)\n", argv[0]);
        return 2;
    }
    const AVStream* stream = format->streams[index];
    const AVCodecParameters* par = stream->codecpar;

    // The service that runs, or one started for this program (and stopped after it).
    mc::ServiceLease lease;
    mc::DecoderClient client;
    if (lease.acquire() != mc::ClientError::kOk) {
        fprintf(stderr, "%s\n", lease.last_error_text().c_str());
        return 1;
    }
    if (!set_up(client, par)) {
        return 1;
    }

    int packets = 0, pictures = 0;
    mc::ExchangeResult result{};
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(format, packet) >= 0) {
        if (packet->stream_index == index) {
            // One packet is one access unit; timestamps go in microseconds.
            const int64_t pts = packet->pts == AV_NOPTS_VALUE
                                    ? packet->pts
                                    : av_rescale_q(packet->pts, stream->time_base, {1, 1000000});
            if (client.decode_frame(packet->data, static_cast<size_t>(packet->size), pts,
                                    &result) != mc::ClientError::kOk) {
                fprintf(stderr, "%s\n", client.last_error_text().c_str());
                break;
            }
            ++packets;
            // A picture of client.video_output()'s size and format waits at client.output().
            pictures += result.status == mc::STATUS_OK && result.output_size > 0;
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&format);

    const mc::VideoOutput& out = client.video_output();
    printf("%d packets, %d pictures of %dx%d %s\n", packets, pictures, out.width, out.height,
           out.format.name().c_str());
    // The protocol has no drain: the pictures the decoder still holds never come out.
    printf("%d pictures stay in the decoder: the protocol has no drain\n", packets - pictures);
    return pictures > 0 ? 0 : 1;
}
