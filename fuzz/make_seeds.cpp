// Writes the seed corpora of the fuzz targets: real streams made with the ffmpeg command line and
// cut into the exchange block input format, plus hand-made records for the server targets.
// Usage: fuzz_make_seeds <directory>   (writes <directory>/<target>/<name>)

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "fuzz_support.h"
#include "server_fixture.h"
#include "support/media_fixtures.h"

namespace {

using Seed = std::vector<uint8_t>;

std::string out_dir;
int written = 0;

void save(const std::string& target, const std::string& name, const Seed& seed) {
    std::string dir = out_dir + "/" + target;
    mkdir(dir.c_str(), 0755);
    std::string path = dir + "/" + name;
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr || fwrite(seed.data(), 1, seed.size(), f) != seed.size()) {
        fprintf(stderr, "cannot write %s\n", path.c_str());
        exit(1);
    }
    fclose(f);
    ++written;
}

// One request of the exchange block format.
void request(Seed* seed, const std::vector<uint32_t>& header_words,
             const std::vector<uint8_t>& input = {}) {
    uint8_t header[kRequestHeaderSize] = {};
    memcpy(header, header_words.data(),
           std::min(sizeof(header), header_words.size() * sizeof(uint32_t)));
    put_bytes(seed, header, sizeof(header));
    size_t n = std::min<size_t>(input.size(), 0xffff);
    put_u16(seed, static_cast<uint16_t>(n));
    put_bytes(seed, input.data(), n);
}

void init(Seed* seed, int32_t media, int32_t codec, const std::vector<int32_t>& params,
          const std::vector<uint8_t>& config = {}) {
    std::vector<uint32_t> words = {REQUEST_INIT_CODEC, static_cast<uint32_t>(media),
                                   static_cast<uint32_t>(codec)};
    for (int32_t p : params) {
        words.push_back(static_cast<uint32_t>(p));
    }
    request(seed, words, config);
}

void decode(Seed* seed, const DemuxedPacket& packet) {
    uint32_t size = static_cast<uint32_t>(packet.data.size());
    uint64_t pts = static_cast<uint64_t>(packet.pts);
    request(seed,
            {REQUEST_DECODE_FRAME, 0, size, 0, static_cast<uint32_t>(pts),
             static_cast<uint32_t>(pts >> 32)},
            packet.data);
}

void simple(Seed* seed, uint32_t type, const std::vector<uint32_t>& words = {}) {
    std::vector<uint32_t> all = {type};
    all.insert(all.end(), words.begin(), words.end());
    request(seed, all);
}

void codec_config(Seed* seed, const std::vector<uint8_t>& bytes) {
    request(seed, {REQUEST_CODEC_CONFIG, 0, static_cast<uint32_t>(bytes.size())}, bytes);
}

struct Media {
    const char* name;
    const char* file;
    const char* args;
};

const char kVideoSource[] = "-f lavfi -i testsrc=size=64x48:rate=10 -frames:v 6 ";
const char kAudioSource[] = "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=0.3 ";

bool load(const Media& m, bool video, DemuxedStream* stream) {
    std::string source = video ? kVideoSource : kAudioSource;
    std::string path = make_media(m.file, source + m.args);
    if (path.empty() || !demux_first_stream(path, video, stream) || stream->packets.empty()) {
        fprintf(stderr, "skipping %s: no media\n", m.name);
        return false;
    }
    return true;
}

void video_seeds() {
    const Media media[] = {
        {"mpeg4", "v.mp4", "-c:v mpeg4"},
        {"flv1", "v.flv", "-c:v flv"},
        {"h264", "v264.mp4", "-c:v libx264 -pix_fmt yuv420p -g 3"},
        {"h264-annexb", "v.h264", "-c:v libx264 -pix_fmt yuv420p -bsf:v h264_mp4toannexb"},
        {"h263", "v.3gp", "-s 128x96 -c:v h263"},
        {"hevc", "v.mkv", "-c:v libx265 -x265-params log-level=none"},
        {"mpeg2video", "v.m2v", "-c:v mpeg2video"},
        {"vp8", "v8.webm", "-c:v libvpx"},
        {"vp9", "v9.webm", "-c:v libvpx-vp9 -deadline realtime"},
        {"wmv2", "v.avi", "-c:v wmv2"},
    };
    for (const Media& m : media) {
        DemuxedStream s;
        if (!load(m, true, &s)) {
            continue;
        }
        int index = video_codec_index(s.codec_name);
        if (index < 0) {
            fprintf(stderr, "skipping %s: codec %s not in the table\n", m.name,
                    s.codec_name.c_str());
            continue;
        }
        size_t count = std::min<size_t>(s.packets.size(), 4);
        // Setup with configuration bytes, packets, flush, a new output format, destroy.
        Seed a;
        init(&a, MEDIA_TYPE_VIDEO, index,
             {s.width, s.height, s.pix_fmt, static_cast<int32_t>(s.extradata.size()), s.width,
              s.height, AV_PIX_FMT_YUV420P},
             s.extradata);
        for (size_t i = 0; i < count; ++i) {
            decode(&a, s.packets[i]);
        }
        simple(&a, REQUEST_FLUSH);
        simple(&a, REQUEST_RESET_CONTEXT, {0, 32, 24, AV_PIX_FMT_RGBA});
        decode(&a, s.packets[0]);
        simple(&a, REQUEST_DESTROY_CONTEXT);
        simple(&a, REQUEST_DECODE_FRAME, {0, 16});
        save("exchange_block", std::string(m.name) + "-full", a);

        // Configuration through codec config requests, scaled output in another format.
        Seed b;
        init(&b, MEDIA_TYPE_VIDEO, index,
             {s.width, s.height, s.pix_fmt, 0, s.width * 2, s.height / 2, AV_PIX_FMT_NV12});
        if (!s.extradata.empty()) {
            codec_config(&b, s.extradata);
        }
        for (size_t i = 0; i < count; ++i) {
            decode(&b, s.packets[i]);
        }
        save("exchange_block", std::string(m.name) + "-config", b);
    }
}

void audio_seeds() {
    const Media media[] = {
        {"aac", "a.m4a", "-c:a aac -b:a 32k"},
        {"ac3", "a.ac3", "-c:a ac3"},
        {"dts", "a.dts", "-ar 48000 -c:a dca -strict -2"},
        {"flac", "a.flac", "-c:a flac"},
        {"mp2", "a.mp2", "-c:a mp2"},
        {"mp3", "a.mp3", "-c:a libmp3lame"},
        {"vorbis", "a.ogg", "-ac 2 -c:a libvorbis"},
        {"wmav2", "a.wma", "-c:a wmav2"},
        {"alac", "alac.m4a", "-c:a alac"},
        {"opus", "a.opus", "-ar 48000 -c:a libopus"},
    };
    for (const Media& m : media) {
        DemuxedStream s;
        if (!load(m, false, &s)) {
            continue;
        }
        int index = audio_codec_index(s.codec_name);
        if (index < 0) {
            fprintf(stderr, "skipping %s: codec %s not in the table\n", m.name,
                    s.codec_name.c_str());
            continue;
        }
        size_t count = std::min<size_t>(s.packets.size(), 4);
        Seed a;
        init(&a, MEDIA_TYPE_AUDIO, index,
             {s.sample_fmt, s.channels, s.sample_rate, static_cast<int32_t>(s.extradata.size()),
              AV_SAMPLE_FMT_S16, 2, 44100},
             s.extradata);
        for (size_t i = 0; i < count; ++i) {
            decode(&a, s.packets[i]);
        }
        simple(&a, REQUEST_FLUSH);
        simple(&a, REQUEST_RESET_CONTEXT, {0, AV_SAMPLE_FMT_FLTP, 1, 22050});
        decode(&a, s.packets[count - 1]);
        simple(&a, REQUEST_DESTROY_CONTEXT);
        save("exchange_block", std::string(m.name) + "-full", a);

        Seed b;
        init(&b, MEDIA_TYPE_AUDIO, index,
             {s.sample_fmt, s.channels, 0, 0, AV_SAMPLE_FMT_FLTP, 1, 0});
        if (!s.extradata.empty()) {
            codec_config(&b, s.extradata);
        }
        for (size_t i = 0; i < count; ++i) {
            decode(&b, s.packets[i]);
        }
        save("exchange_block", std::string(m.name) + "-config", b);
    }
}

void edge_seeds() {
    Seed s;
    simple(&s, REQUEST_DECODE_FRAME, {0, 100});
    simple(&s, REQUEST_FLUSH);
    simple(&s, REQUEST_CODEC_CONFIG, {0, 8});
    simple(&s, REQUEST_RESET_CONTEXT, {0, 64, 64, 0});
    simple(&s, REQUEST_DESTROY_CONTEXT);
    simple(&s, 6);
    save("exchange_block", "no-decoder", s);

    Seed sizes;
    init(&sizes, MEDIA_TYPE_VIDEO, 2, {64, 48, AV_PIX_FMT_YUV420P, 0, 64, 48, 0});
    simple(&sizes, REQUEST_DECODE_FRAME, {0, 0});
    simple(&sizes, REQUEST_DECODE_FRAME, {0, 0xffffffffu});
    simple(&sizes, REQUEST_DECODE_FRAME, {0, static_cast<uint32_t>(SHM_AREA_SIZE) + 1});
    simple(&sizes, REQUEST_DECODE_FRAME, {0, static_cast<uint32_t>(SHM_AREA_SIZE)});
    simple(&sizes, REQUEST_CODEC_CONFIG, {0, 0x7fffffffu});
    simple(&sizes, REQUEST_RESET_CONTEXT, {0, 100000, 100000, 0});
    save("exchange_block", "sizes", sizes);

    Seed unknown;
    init(&unknown, 2, 0, {});
    save("exchange_block", "unknown-media-type", unknown);
    Seed codec;
    init(&codec, MEDIA_TYPE_AUDIO, 12, {});
    save("exchange_block", "unknown-codec", codec);
}

// Handshake records: op 0 connect, op 1 send (connection, ancillary, length, bytes).
void handshake_record(Seed* seed, uint8_t connection, uint8_t ancillary,
                      const std::vector<uint8_t>& record) {
    put_u8(seed, 1);
    put_u8(seed, connection);
    put_u8(seed, ancillary);
    put_u16(seed, static_cast<uint16_t>(record.size()));
    put_bytes(seed, record.data(), record.size());
}

std::vector<uint8_t> type3_msg(const std::string& name) {
    std::vector<uint8_t> msg = {CLIENT_TYPE_SHM_DECODER, 0};
    msg.insert(msg.end(), name.begin(), name.end());
    msg.push_back(0);
    return msg;
}

void handshake_seeds() {
    struct Case {
        const char* name;
        uint8_t ancillary;
        std::vector<uint8_t> record;
    };
    const std::vector<Case> cases = {
        {"session", kDevNull, {CLIENT_TYPE_SESSION, 0}},
        {"session-no-fd", kNoFd, {CLIENT_TYPE_SESSION, 0}},
        {"session-explicit-creds", kDevNull | 8, {CLIENT_TYPE_SESSION, 0}},
        {"ashmem", kBlockMemfd, {CLIENT_TYPE_ASHMEM_DECODER, 0}},
        {"ashmem-small", kSmallMemfd, {CLIENT_TYPE_ASHMEM_DECODER}},
        {"ashmem-not-a-region", kPipe, {CLIENT_TYPE_ASHMEM_DECODER, 0}},
        {"two-fds", kTwoFds, {CLIENT_TYPE_ASHMEM_DECODER, 0}},
        {"three-fds", kThreeFds, {CLIENT_TYPE_ASHMEM_DECODER, 0}},
        {"posix", kShmObject, type3_msg(kFuzzShmName)},
        {"posix-missing", kDevNull, type3_msg("/svc-fuzz-no-such-object")},
        {"posix-unterminated", kDevNull, type3_msg(std::string(300, 'a'))},
        {"unknown-type", kDevNull, {9, 0}},
        {"empty", kDevNull, {}},
    };
    for (const Case& c : cases) {
        Seed seed;
        put_u8(&seed, 0);  // connect
        handshake_record(&seed, 0, c.ancillary, c.record);
        if (c.ancillary & 8) {
            put_u32(&seed, 0);
            put_u32(&seed, 0xffffffffu);
            put_u32(&seed, 0xffffffffu);
        }
        // A second record on the same connection (a doorbell or a ping answer), then close.
        handshake_record(&seed, 0, kNoFd, {1});
        put_u8(&seed, 2);
        put_u8(&seed, 0);
        save("handshake", c.name, seed);
    }
    // Two sessions, the second refused; a decoder beside them.
    Seed both;
    put_u8(&both, 0);
    put_u8(&both, 0);
    put_u8(&both, 0);
    handshake_record(&both, 0, kDevNull, {CLIENT_TYPE_SESSION, 0});
    handshake_record(&both, 1, kDevNull, {CLIENT_TYPE_SESSION, 0});
    handshake_record(&both, 2, kBlockMemfd, {CLIENT_TYPE_ASHMEM_DECODER, 0});
    save("handshake", "two-sessions-and-a-decoder", both);
}

// Client stream: op 0 request, 1 ring, 2 wait, 3 close, 4 reconnect, 5 session, 6 drain.
void stream_request(Seed* seed, uint8_t slot, const Seed& one_request) {
    put_u8(seed, 0);
    put_u8(seed, slot);
    put_bytes(seed, one_request.data(), one_request.size());
}

void stream_call(Seed* seed, uint8_t slot, const Seed& one_request, uint8_t ring_length = 1) {
    stream_request(seed, slot, one_request);
    put_u8(seed, 1);
    put_u8(seed, slot);
    put_u8(seed, ring_length);
    put_u8(seed, 2);
    put_u8(seed, slot);
}

void client_stream_seeds() {
    DemuxedStream video;
    DemuxedStream audio;
    bool have_video =
        load({"h264", "v264.mp4", "-c:v libx264 -pix_fmt yuv420p -g 3"}, true, &video);
    bool have_audio = load({"mp3", "a.mp3", "-c:a libmp3lame"}, false, &audio);
    if (!have_video || !have_audio) {
        return;
    }
    Seed video_init;
    init(&video_init, MEDIA_TYPE_VIDEO, video_codec_index(video.codec_name),
         {video.width, video.height, video.pix_fmt, static_cast<int32_t>(video.extradata.size()),
          video.width, video.height, 0},
         video.extradata);
    Seed audio_init;
    init(&audio_init, MEDIA_TYPE_AUDIO, audio_codec_index(audio.codec_name),
         {audio.sample_fmt, audio.channels, audio.sample_rate, 0, AV_SAMPLE_FMT_S16, 2, 0});

    Seed seed;
    put_u8(&seed, 5);  // answer the session
    put_u8(&seed, 0);
    stream_call(&seed, 0, video_init);
    stream_call(&seed, 1, audio_init);
    for (size_t i = 0; i < 3 && i < video.packets.size() && i < audio.packets.size(); ++i) {
        Seed v;
        decode(&v, video.packets[i]);
        stream_call(&seed, 0, v);
        Seed a;
        decode(&a, audio.packets[i]);
        stream_call(&seed, 1, a, 200);
    }
    save("client_stream", "video-and-audio", seed);

    // Rings while a request runs, close while it runs, reconnect, an empty record.
    Seed rude;
    stream_request(&rude, 2, video_init);
    for (int i = 0; i < 3; ++i) {
        put_u8(&rude, 1);
        put_u8(&rude, 2);
        put_u8(&rude, 1);
    }
    put_u8(&rude, 3);
    put_u8(&rude, 2);
    put_u8(&rude, 4);
    put_u8(&rude, 2);
    stream_call(&rude, 2, audio_init);
    put_u8(&rude, 1);
    put_u8(&rude, 0);
    put_u8(&rude, 0);
    Seed unknown;
    simple(&unknown, 6);
    stream_call(&rude, 1, unknown);
    stream_call(&rude, 1, unknown);
    put_u8(&rude, 5);
    put_u8(&rude, 1);  // the session closes: the server stops
    save("client_stream", "rude-clients", rude);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
        return 2;
    }
    out_dir = argv[1];
    mkdir(out_dir.c_str(), 0755);
    video_seeds();
    audio_seeds();
    edge_seeds();
    handshake_seeds();
    client_stream_seeds();
    printf("%d seeds written to %s\n", written, out_dir.c_str());
    return 0;
}
