// The requests of the exchange block as a client sees them through the daemon: what each answers
// without a decoder, the limits of every size a client gives, the requests that end the worker,
// configuration bytes, and the order in which a decoder's objects are released.

#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "decoder/ffmpeg_protocol.h"
#include "support/support.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 10000;
constexpr const char* kNoDecoder = "decoder context not initialized!!";
const ExchangeResult kMarker{7, 0, 1234, 0, 987654321};
const ExchangeResult kZero{};

bool same(const ExchangeResult& a, const ExchangeResult& b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

const Clip& mp2() {
    return clip("requests.mp2", "-f lavfi -i sine=sample_rate=44100 -ac 2 -t 0.5 -c:a mp2", false);
}
const Clip& vorbis() {
    return clip("requests.ogg", "-f lavfi -i sine=sample_rate=44100 -ac 2 -t 0.5 -c:a libvorbis",
                false);
}
const Clip& h264() {
    return clip("requests.h264",
                "-f lavfi -i testsrc=size=64x48 -frames:v 4 -c:v libx264 -tune zerolatency");
}

class Requests : public ::testing::Test {
  public:
    void SetUp() override {
        ASSERT_TRUE(daemon.start());
        ASSERT_EQ(c.connect_posix(daemon.socket_path()), ClientError::kOk);
    }

    // Sends the request already written, with the marker in the result area; the result.
    ExchangeResult call() {
        c.set_result(kMarker);
        EXPECT_EQ(c.call(kWaitMs), ClientError::kOk);
        return c.result();
    }
    bool init(const Clip& s, bool with_config = true) {
        const void* config = with_config ? s.info.extradata.data() : nullptr;
        ExchangeResult r{};
        return (s.info.video
                    ? c.init_video(s.codec_index(),
                                   mediatools::video_init_params(s.info, 64, 48, 0), config,
                                   s.info.extradata.size(), &r, kWaitMs)
                    : c.init_audio(s.codec_index(),
                                   mediatools::audio_init_params(s.info, 1, 2, 44100), config,
                                   s.info.extradata.size(), &r, kWaitMs)) == ClientError::kOk &&
               r.status == STATUS_OK;
    }
    // Decodes packets from `i` on until one gives output; its index, or the packet count.
    size_t decode_until_output(const Clip& s, size_t i = 0) {
        for (ExchangeResult r{}; i < s.packets.size(); ++i) {
            const auto& p = s.packets[i].data;
            EXPECT_EQ(c.decode_frame(p.data(), p.size(), 1, &r, kWaitMs), ClientError::kOk);
            if (r.status == STATUS_OK && r.output_size > 0) {
                return i;
            }
        }
        return i;
    }
    // The worker has ended: a doorbell gets no sync msg.
    bool worker_ended() {
        return c.write_request_type(REQUEST_FLUSH) == ClientError::kOk &&
               c.call(300) == ClientError::kTimeout;
    }

    Daemon daemon;
    DecoderClient c;
};

// Without a decoder a decode answers all zero whatever its size (and says why), while flush,
// configuration bytes and destroy leave the result area alone and reset zeroes it. "Without a
// decoder" is: before any setup, after destroy, and after a reset whose setup failed (Vorbis
// cannot be opened again without its configuration bytes).
TEST_F(Requests, WithoutDecoder) {
    for (const char* when : {"before init", "after destroy", "after failed reset"}) {
        SCOPED_TRACE(when);
        const std::string w = when;
        if (w == "after destroy") {
            ASSERT_TRUE(init(mp2()));
            ASSERT_EQ(c.destroy(kWaitMs), ClientError::kOk);
        } else if (w == "after failed reset") {
            ASSERT_TRUE(init(vorbis()));
            decode_until_output(vorbis());
            ASSERT_EQ(c.write_reset_audio(1, 2, 44100), ClientError::kOk);
            EXPECT_TRUE(same(call(), kZero));
            EXPECT_TRUE(log_has(daemon.log(), "ERROR", "audio decoder open failed"));
        }
        const size_t said = daemon.count(kNoDecoder);
        // After a failed reset the decoder state is still there, so sizes are still checked.
        const std::vector<int32_t> sizes =
            w == "after failed reset" ? std::vector<int32_t>{16} : std::vector<int32_t>{16, 0, -1};
        for (int32_t size : sizes) {
            ASSERT_EQ(c.write_decode_frame("garbage garbage!", 16, 42), ClientError::kOk);
            memcpy(c.block() + REQ_DATA_SIZE_OFFSET, &size, sizeof(size));
            EXPECT_TRUE(same(call(), kZero)) << size;
        }
        EXPECT_EQ(daemon.count(kNoDecoder), said + sizes.size());
        for (uint32_t type : {REQUEST_FLUSH, REQUEST_CODEC_CONFIG, REQUEST_DESTROY_CONTEXT}) {
            ASSERT_EQ(c.write_codec_config("abcd", 4), ClientError::kOk);
            ASSERT_EQ(c.write_request_type(type), ClientError::kOk);
            EXPECT_TRUE(same(call(), kMarker)) << type;
        }
        ASSERT_EQ(c.write_reset_audio(1, 2, 44100), ClientError::kOk);
        EXPECT_TRUE(same(call(), kZero));
    }
}

// After destroy while a state of the other media type is still held, no media type is in use: a
// decode writes nothing at all and touches no released packet; the worker goes on serving.
TEST_F(Requests, DestroyWhileTheOtherMediaTypeIsHeld) {
    ASSERT_TRUE(init(h264()));
    ASSERT_TRUE(init(mp2()));
    ASSERT_EQ(c.destroy(kWaitMs), ClientError::kOk);
    const auto& p = mp2().packets[0].data;
    ASSERT_EQ(c.write_decode_frame(p.data(), p.size(), 9), ClientError::kOk);
    EXPECT_TRUE(same(call(), kMarker));
    EXPECT_EQ(daemon.count(kNoDecoder), 0u);
    ASSERT_TRUE(init(mp2()));
    EXPECT_LT(decode_until_output(mp2()), mp2().packets.size());
}

// Every size a client gives is checked against the area it describes: a packet beyond the input
// area fails and feeds nothing to the decoder; configuration bytes beyond it change nothing (a
// request) or fail the setup; a picture of exactly the output area is delivered, one byte more
// fails, and so do outputs that cannot be made at all.
TEST_F(Requests, SizeLimits) {
    ASSERT_TRUE(init(mp2()));
    const int32_t area = static_cast<int32_t>(SHM_AREA_SIZE);
    for (int32_t size : {0, -1, INT_MIN, area + 1, INT_MAX}) {
        ASSERT_EQ(c.write_decode_frame(nullptr, 0, 5), ClientError::kOk);
        memcpy(c.block() + REQ_DATA_SIZE_OFFSET, &size, sizeof(size));
        const ExchangeResult r = call();
        EXPECT_EQ(r.status, STATUS_FAILED) << size;
        EXPECT_EQ(r.output_size, 0u);
    }
    EXPECT_EQ(daemon.count("wrong packet size passed"), 5u);
    EXPECT_EQ(daemon.count("decoding audio frame"), 0u);
    for (int32_t size : {0, -4, area + 1}) {
        ASSERT_EQ(c.write_codec_config(nullptr, 0), ClientError::kOk);
        memcpy(c.block() + REQ_DATA_SIZE_OFFSET, &size, sizeof(size));
        EXPECT_TRUE(same(call(), kMarker)) << size;
    }
    EXPECT_EQ(decode_until_output(mp2()), 0u);

    const Clip& v = h264();
    for (auto [w, h, fmt, status] :
         {std::make_tuple(4096, 4096, 8, STATUS_OK),  // gray8
          std::make_tuple(4097, 4096, 8, STATUS_FAILED), std::make_tuple(0, 0, 8, STATUS_FAILED),
          std::make_tuple(-16, 16, 8, STATUS_FAILED),
          std::make_tuple(100000, 100000, 8, STATUS_FAILED)}) {
        ExchangeResult r{};
        ASSERT_EQ(c.init_video(v.codec_index(), mediatools::video_init_params(v.info, w, h, fmt),
                               nullptr, 0, &r, kWaitMs),
                  ClientError::kOk);
        const auto& p = v.packets[0].data;
        ASSERT_EQ(c.decode_frame(p.data(), p.size(), 5, &r, kWaitMs), ClientError::kOk);
        EXPECT_EQ(r.status, status) << w << "x" << h;
        EXPECT_EQ(r.output_size, status == STATUS_OK ? SHM_AREA_SIZE : 0u);
    }
    EXPECT_EQ(daemon.count("output image size overflow!!"), 1u);
    EXPECT_GE(daemon.count("cannot initialize convertion context"), 2u);
    // An init whose configuration size goes beyond the input area fails and ends the worker.
    ExchangeResult r{};
    ASSERT_EQ(c.write_init_video(v.codec_index(), mediatools::video_init_params(v.info, 8, 8, 0)),
              ClientError::kOk);
    const int32_t too_big = area + 1;
    memcpy(c.block() + REQ_PARAM_OFFSET + 3 * sizeof(int32_t), &too_big, sizeof(too_big));
    r = call();
    EXPECT_EQ(r.status, STATUS_FAILED);
    EXPECT_TRUE(worker_ended());
}

// These are answered (the result area as it was) and then end the worker.
struct Ending {
    const char* name;
    uint32_t type, media_type, codec_index;
    const char* level;
    const char* line;
};

class EndingRequest : public Requests, public ::testing::WithParamInterface<Ending> {};

TEST_P(EndingRequest, IsAnsweredThenTheWorkerEnds) {
    const Ending& e = GetParam();
    ASSERT_EQ(c.write_init(e.media_type, e.codec_index, {64, 64, 0, 0, 64, 64, 0}),
              ClientError::kOk);
    ASSERT_EQ(c.write_request_type(e.type), ClientError::kOk);
    EXPECT_TRUE(same(call(), kMarker));
    EXPECT_TRUE(log_has(daemon.log(), e.level, e.line));
    EXPECT_TRUE(worker_ended());
}

INSTANTIATE_TEST_SUITE_P(
    Requests, EndingRequest,
    ::testing::Values(
        Ending{"UnknownRequest", 6, 0, 0, "WARN",
               "unknown client request type, stop further processing"},
        Ending{"VideoCodec11", REQUEST_INIT_CODEC, 0, 11, "ERROR", "unknown video codec specified"},
        Ending{"AudioCodec12", REQUEST_INIT_CODEC, 1, 12, "ERROR", "unknown audio codec specified"},
        Ending{"MediaType2", REQUEST_INIT_CODEC, 2, 0, "WARN",
               "unknown media type specified, initialization failed"}),
    [](const ::testing::TestParamInfo<Ending>& info) { return info.param.name; });

// Configuration bytes sent after the setup, in two parts, are appended: the AAC decoder set up
// without them decodes like the model set up with them. Flush and configuration bytes keep the
// result area.
TEST_F(Requests, ConfigurationBytesAreAppended) {
    const Clip& s = clip("requests.m4a", "-f lavfi -i sine -ac 2 -t 0.5 -c:a aac", false);
    ASSERT_TRUE(init(s, false));
    const std::vector<uint8_t>& config = s.info.extradata;
    ASSERT_GE(config.size(), 2u);
    ASSERT_EQ(c.codec_config(config.data(), 1, kWaitMs), ClientError::kOk);
    ASSERT_EQ(c.write_codec_config(config.data() + 1, config.size() - 1), ClientError::kOk);
    EXPECT_TRUE(same(call(), kMarker));

    mediatools::LocalAudioDecoder model;
    std::string error;
    ASSERT_TRUE(model.open(s.info.codec_id, mediatools::audio_init_params(s.info, 1, 2, 44100),
                           config, &error));
    for (size_t i = 0; i < s.packets.size(); ++i) {
        const auto& p = s.packets[i];
        ExchangeResult r{};
        ASSERT_EQ(c.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kWaitMs),
                  ClientError::kOk);
        const mediatools::Answer want = model.decode(p.data.data(), int(p.data.size()), p.pts);
        ASSERT_EQ(differs(r, c.output(), want, model.output()), "") << "packet " << i;
        if (i == 3) {
            ASSERT_EQ(c.write_request_type(REQUEST_FLUSH), ClientError::kOk);
            EXPECT_TRUE(same(call(), kMarker));
            model.flush();
        }
    }
}

// The release actions log what they free, in the order the decoder's state is taken apart.
struct Release {
    const char* name;
    std::function<void(Requests&)> act;
    std::vector<const char*> order;  // after the last "init ... codec context" before the act
};

class ReleaseOrder : public Requests, public ::testing::WithParamInterface<Release> {};

TEST_P(ReleaseOrder, FollowsTheState) {
    const Release& r = GetParam();
    r.act(*this);
    const std::string log = daemon.log();
    size_t at = log.find(r.order.front());
    for (const char* what : r.order) {
        const size_t next = log.find(what, at);
        ASSERT_NE(next, std::string::npos) << what << " after " << log.substr(0, at);
        at = next + 1;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Requests, ReleaseOrder,
    ::testing::Values(
        Release{"DestroyVideo",
                [](Requests& t) {
                    ASSERT_TRUE(t.init(h264()));
                    t.decode_until_output(h264());
                    ASSERT_EQ(t.c.destroy(kWaitMs), ClientError::kOk);
                },
                {"destroy context", "freeing SW scale context", "freeing video decoder context",
                 "freeing video frame", "freeing video packet"}},
        Release{"DestroyAudio",
                [](Requests& t) {
                    ASSERT_TRUE(t.init(mp2()));
                    t.decode_until_output(mp2());
                    ASSERT_EQ(t.c.destroy(kWaitMs), ClientError::kOk);
                },
                {"destroy context", "freeing SW resample context", "freeing audio decoder context",
                 "freeing audio frame", "freeing audio packet"}},
        // A second setup releases the first state before it makes the new objects, and the
        // old packet and frame when the new ones are in place.
        Release{"SecondSetup",
                [](Requests& t) {
                    ASSERT_TRUE(t.init(h264()));
                    t.decode_until_output(h264());
                    ASSERT_TRUE(t.init(h264()));
                },
                {"decoding video frame", "init video codec context", "freeing SW scale context",
                 "freeing video decoder context", "freeing video packet", "freeing video frame"}},
        // A failed setup releases the old state and what it made; the old packet and frame go
        // with the instance.
        Release{"FailedSetup",
                [](Requests& t) {
                    ASSERT_TRUE(t.init(mp2()));
                    t.decode_until_output(mp2());
                    ASSERT_EQ(
                        t.c.write_init_audio(mp2().codec_index(),
                                             mediatools::audio_init_params(mp2().info, 1, 2, 0)),
                        ClientError::kOk);
                    const int32_t size = int32_t{SHM_AREA_SIZE} + 1;
                    memcpy(t.c.block() + REQ_PARAM_OFFSET + 3 * 4, &size, 4);
                    EXPECT_EQ(t.call().status, STATUS_FAILED);
                    t.c.close();
                    ASSERT_TRUE(t.daemon.wait_log("ummapping shared memory"));
                },
                {"decoding audio frame", "init audio codec context", "freeing SW resample context",
                 "freeing audio decoder context", "freeing audio decoder context",
                 "ummapping shared memory", "freeing audio packet", "freeing audio frame"}}),
    [](const ::testing::TestParamInfo<Release>& info) { return info.param.name; });

}  // namespace

namespace {

// Every row of both codec tables is FFmpeg's codec of that name and is set up through the service
// without configuration bytes. Rows whose decoder needs configuration bytes (VC-1, Vorbis, ALAC),
// or values that no init request carries (COOK and WMAV2 a block alignment, APE a sample depth),
// are refused by FFmpeg: the setup fails and ends the worker.
TEST(CodecTables, EveryRowIsFFmpegsCodec) {
    struct Row {
        int32_t media_type;
        AVCodecID id;
        bool opens;
    };
    const std::vector<Row> rows = {
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_MPEG4, true},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_FLV1, true},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_H264, true},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_H263, true},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_HEVC, true},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_MPEG2VIDEO, true},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_RV40, true},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_VC1, false},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_VP8, true},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_VP9, true},
        {MEDIA_TYPE_VIDEO, AV_CODEC_ID_WMV2, true},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_AAC, true},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_AC3, true},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_APE, false},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_DTS, true},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_FLAC, true},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_MP2, true},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_MP3, true},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_COOK, false},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_VORBIS, false},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_WMAV2, false},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_ALAC, false},
        {MEDIA_TYPE_AUDIO, AV_CODEC_ID_OPUS, true},
    };
    ASSERT_EQ(rows.size(), size_t(VIDEO_CODEC_COUNT + AUDIO_CODEC_COUNT));
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    for (size_t i = 0; i < rows.size(); ++i) {
        const bool video = rows[i].media_type == MEDIA_TYPE_VIDEO;
        const uint32_t row = uint32_t(video ? i : i - VIDEO_CODEC_COUNT);
        const char* name = video ? VIDEO_CODEC_NAMES[row] : AUDIO_CODEC_NAMES[row];
        SCOPED_TRACE(name);
        EXPECT_EQ(table_codec_id(rows[i].media_type, row), rows[i].id);
        EXPECT_STREQ(avcodec_get_name(rows[i].id), name);
        DecoderClient c;
        ASSERT_EQ(c.connect_posix(daemon.socket_path()), ClientError::kOk);
        ExchangeResult r{};
        ASSERT_EQ(video ? c.init_video(row, {176, 144, 0, 176, 144, 0}, nullptr, 0, &r, kWaitMs)
                        : c.init_audio(row, {AV_SAMPLE_FMT_FLTP, 2, 44100, 1, 2, 44100}, nullptr, 0,
                                       &r, kWaitMs),
                  ClientError::kOk);
        EXPECT_EQ(r.status, rows[i].opens ? STATUS_OK : STATUS_FAILED);
    }
}

}  // namespace
