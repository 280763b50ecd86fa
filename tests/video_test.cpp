// Video through the daemon, for every codec of the table that the ffmpeg command line here can
// encode: every answer and picture equals the in-process model (its conversion path, which does
// not share the service's), and garbage never stops the worker.

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "decoder/ffmpeg_protocol.h"
#include "support/support.h"

using namespace mediaclient;
using mediatools::LocalVideoDecoder;

namespace {

constexpr int kWaitMs = 20000;
const std::string kSource = "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 12 ";

struct Codec {
    const char *name, *encoder, *file, *args;  // the file's extension picks the container
};

const Codec kCodecs[] = {
    {"h264_mp4", "libx264", "v.mp4", "-c:v libx264 -bf 2 -g 6"},
    {"h264_annexb", "libx264", "v.264", "-c:v libx264 -bf 0 -g 6"},
    {"hevc", "libx265", "v.hevc.mp4", "-c:v libx265 -x265-params log-level=error:keyint=6"},
    {"mpeg4", "mpeg4", "v.mpeg4.mp4", "-c:v mpeg4 -bf 1 -g 6 -q:v 4"},
    {"mpeg2", "mpeg2video", "v.m2v", "-c:v mpeg2video -bf 2 -g 6 -q:v 4"},
    {"vp8", "libvpx", "v.vp8.webm", "-c:v libvpx -g 6 -deadline realtime -cpu-used 8"},
    {"vp9", "libvpx-vp9", "v.vp9.webm", "-c:v libvpx-vp9 -g 6 -deadline realtime -cpu-used 8"},
    {"h263", "h263", "v.h263", "-c:v h263 -g 6 -q:v 4"},
    {"flv1", "flv", "v.flv", "-c:v flv -g 6 -q:v 4"},
    {"wmv2", "wmv2", "v.avi", "-c:v wmv2 -g 6 -q:v 4"},
};

const Clip& clip_of(const Codec& c) {
    return clip(c.file, kSource + c.args);
}

// Whether a hardware device opens here: pictures would then come from it and differ.
bool host_has_hw_device() {
    static const bool present =
        std::any_of(std::begin(HW_DEVICE_TYPES), std::end(HW_DEVICE_TYPES), [](const char* name) {
            AVBufferRef* device = nullptr;
            const bool opened = av_hwdevice_ctx_create(&device, av_hwdevice_find_type_by_name(name),
                                                       nullptr, nullptr, 0) >= 0;
            av_buffer_unref(&device);
            return opened;
        });
    return present;
}

class Video : public ::testing::Test {
  protected:
    void SetUp() override {
        if (host_has_hw_device()) {
            GTEST_SKIP() << "a hardware decoder opens here; pictures would differ";
        }
        ASSERT_TRUE(daemon.start());
        ASSERT_EQ(c.connect_descriptor(daemon.socket_path()), ClientError::kOk);
    }
    void init(const Clip& s, int w, int h, int fmt) {
        ExchangeResult r{};
        const VideoInitParams p = mediatools::video_init_params(s.info, w, h, fmt);
        ASSERT_EQ(c.init_video(s.codec_index(), p, s.info.extradata.data(), s.info.extradata.size(),
                               &r, kWaitMs),
                  ClientError::kOk);
        ASSERT_EQ(r.status, STATUS_OK);
        std::string error;
        ASSERT_TRUE(model.open(s.info.codec_id, p, s.info.extradata,
                               LocalVideoDecoder::Output::kScaleOnly, &error))
            << error;
    }
    // Packet `i` through both; the answer, after comparing it and the picture.
    ExchangeResult decode(const Clip& s, size_t i) {
        const auto& p = s.packets[i];
        ExchangeResult r{};
        EXPECT_EQ(c.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kWaitMs),
                  ClientError::kOk);
        const mediatools::Answer want = model.decode(p.data.data(), int(p.data.size()), p.pts);
        EXPECT_EQ(differs(r, c.output(), want, model.output()), "") << "packet " << i;
        return r;
    }

    Daemon daemon;
    DecoderClient c;
    LocalVideoDecoder model;
};

class VideoCodec : public Video, public ::testing::WithParamInterface<Codec> {};

// Three outputs each: the coded size in yuv420p (lines of 176 and 88 bytes: converted through a
// picture buffer), a downscale to rgba and an upscale to nv12 (lines that are multiples of 64
// bytes: converted straight into the area). Then garbage.
TEST_P(VideoCodec, MatchesTheModelThroughGarbage) {
    if (!have_encoder(GetParam().encoder)) {
        GTEST_SKIP() << "ffmpeg here has no " << GetParam().encoder;
    }
    const Clip& s = clip_of(GetParam());
    for (auto [w, h, fmt] : {std::tuple(176, 144, AV_PIX_FMT_YUV420P),
                             {80, 60, AV_PIX_FMT_RGBA},
                             {384, 288, AV_PIX_FMT_NV12}}) {
        SCOPED_TRACE(av_get_pix_fmt_name(AVPixelFormat(fmt)));
        ASSERT_NO_FATAL_FAILURE(init(s, w, h, fmt));
        const size_t log_before = daemon.log().size();
        size_t pictures = 0;
        for (size_t i = 0; i < s.packets.size(); ++i) {
            const ExchangeResult r = decode(s, i);
            EXPECT_NE(r.status, STATUS_FAILED) << "packet " << i;
            pictures += r.status == STATUS_OK;
        }
        // One receive per packet: a decoder with a delay still holds its last pictures.
        EXPECT_GE(pictures, s.packets.size() / 2);
        EXPECT_EQ(daemon.log().find("[ERROR]", log_before), std::string::npos);
    }

    // Damaged packets, whole and cut, answer -1, 1 or a whole picture; the worker keeps serving
    // and the clip decodes again from its first keyframe. (Random bytes: the fuzz target.)
    ASSERT_NO_FATAL_FAILURE(init(s, 120, 90, AV_PIX_FMT_YUV420P));
    ExchangeResult r{};
    for (const auto& p : s.packets) {
        std::vector<uint8_t> damaged = p.data;
        for (size_t k = 0; k < damaged.size(); k += 7) {
            damaged[k] ^= 0x5a;
        }
        for (size_t size : {damaged.size(), damaged.size() / 2 + 1}) {
            ASSERT_EQ(c.decode_frame(damaged.data(), size, 1, &r, kWaitMs), ClientError::kOk);
            EXPECT_EQ(r.output_size, r.status == STATUS_OK ? 120u * 90 * 3 / 2 : 0u);
        }
    }
    int pictures = 0;
    for (const auto& p : s.packets) {
        ASSERT_EQ(c.decode_frame(p.data.data(), p.data.size(), 1, &r, kWaitMs), ClientError::kOk);
        pictures += r.status == STATUS_OK;
    }
    EXPECT_GT(pictures, 0);
}

INSTANTIATE_TEST_SUITE_P(Codecs, VideoCodec, ::testing::ValuesIn(kCodecs),
                         [](const ::testing::TestParamInfo<Codec>& info) {
                             return std::string(info.param.name);
                         });

// A reset mid-stream keeps the codec and coded format and takes the new output. Output pixel
// formats beyond FFmpeg 4's enumeration (187 formats), negative ones included, mean yuv420p.
TEST_F(Video, ResetAndOutputFormats) {
    const Clip& s = clip_of(kCodecs[1]);
    ASSERT_NO_FATAL_FAILURE(init(s, 352, 288, AV_PIX_FMT_RGBA));
    for (size_t i = 0; i < 6; ++i) {
        decode(s, i);
    }
    ASSERT_EQ(c.reset_video(90, 70, AV_PIX_FMT_GRAY8, kWaitMs), ClientError::kOk);
    EXPECT_EQ(c.result().status, STATUS_OK);
    ASSERT_TRUE(model.reset(90, 70, AV_PIX_FMT_GRAY8));
    for (size_t i = 6; i < s.packets.size(); ++i) {
        decode(s, i);
    }

    for (int asked : {186, 187, 1000, INT_MIN, -1, int(AV_PIX_FMT_RGB24)}) {
        ASSERT_NO_FATAL_FAILURE(init(s, 64, 48, asked));
        const int taken = asked == 186 || asked == AV_PIX_FMT_RGB24 ? asked : AV_PIX_FMT_YUV420P;
        EXPECT_EQ(decode(s, 0).output_size,
                  uint32_t(av_image_get_buffer_size(AVPixelFormat(taken), 64, 48, 1)))
            << asked;
    }
}

}  // namespace
