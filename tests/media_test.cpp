// Video and audio through the daemon against a plain FFmpeg decode (the oracle), for every codec of
// the tables that the ffmpeg command line here can encode. Video: every answer and picture, and
// damaged packets never stop the worker. Audio, into packed and planar formats: every answer,
// timestamp and sample, through garbage; formats nothing can honour; frames too long for the area.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/samplefmt.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include "protocol/ffmpeg_protocol.h"
#include "client/decoder_seam.h"
#include "support/support.h"

using namespace mediaclient;
using namespace mediaclient::protocol;

namespace {

constexpr int kWaitMs = 20000;
const std::string kSource = "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 12 ";

struct VideoRow {
    const char *name, *encoder, *file, *args;  // the file's extension picks the container
};

const VideoRow kVideoRows[] = {
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
    // Asks for `fmt`; the pictures come in `taken`.
    void init(const Clip& s, int w, int h, int fmt, int taken = -1) {
        ASSERT_EQ(set_up(c, s, w, h, fmt), STATUS_OK);
        ASSERT_TRUE(oracle.open_video(s.info, w, h, taken < 0 ? fmt : taken, s.info.extradata));
    }
    // A reset rebuilds the decoder without configuration bytes.
    void reset(const Clip& s, int w, int h, int fmt) {
        ASSERT_EQ(c.reset_video(w, h, fmt, kWaitMs), ClientError::kOk);
        EXPECT_EQ(c.result().status, STATUS_OK);
        ASSERT_TRUE(oracle.open_video(s.info, w, h, fmt, {}));
    }
    // Packet `i` through both; the answer, after comparing it and the picture.
    ExchangeResult decode(const Clip& s, size_t i) {
        const auto& p = s.packets[i];
        ExchangeResult r{};
        EXPECT_EQ(c.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kWaitMs),
                  ClientError::kOk);
        EXPECT_EQ(differs(r, c.output(), oracle.decode(p.data, p.pts)), "") << "packet " << i;
        return r;
    }
    // Packets `from` to `to` (the clip's end) through both.
    Decoded decode_range(const Clip& s, size_t from = 0, size_t to = SIZE_MAX) {
        return decode_packets(c, s, from, to, &oracle);
    }

    std::unique_ptr<VirtualDisplay> display;  // outlives the daemon, whose device uses it
    Daemon daemon;
    DecoderClient c;
    Oracle oracle;
};

class VideoCodec : public Video, public ::testing::WithParamInterface<VideoRow> {};

// Three outputs each: the coded size in yuv420p (lines of 176 and 88 bytes: converted through a
// picture buffer), a downscale to rgba and an upscale to nv12 (lines that are multiples of 64
// bytes: converted straight into the area). Then garbage.
TEST_P(VideoCodec, MatchesTheOracleThroughGarbage) {
    if (!have_encoder(GetParam().encoder)) {
        GTEST_SKIP() << "ffmpeg here has no " << GetParam().encoder;
    }
    const Clip& s = clip(GetParam().file, kSource + GetParam().args);
    for (auto [w, h, fmt] : {std::tuple(176, 144, AV_PIX_FMT_YUV420P),
                             {80, 60, AV_PIX_FMT_RGBA},
                             {384, 288, AV_PIX_FMT_NV12}}) {
        SCOPED_TRACE(av_get_pix_fmt_name(AVPixelFormat(fmt)));
        ASSERT_NO_FATAL_FAILURE(init(s, w, h, fmt));
        const size_t log_before = daemon.log().size();
        const Decoded d = decode_range(s);
        EXPECT_EQ(d.failures + d.unanswered, 0u);
        // One receive per packet: a decoder with a delay still holds its last pictures.
        EXPECT_GE(d.outputs, s.packets.size() / 2);
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
    EXPECT_GT(decode_packets(c, s).outputs, 0u);
}

INSTANTIATE_TEST_SUITE_P(Codecs, VideoCodec, ::testing::ValuesIn(kVideoRows),
                         [](const ::testing::TestParamInfo<VideoRow>& info) {
                             return std::string(info.param.name);
                         });

// Conversions at sizes whose lines are no multiple of the converters' vector widths (around
// multiples of 8, 16, 32 and 64 bytes, odd heights), into each family of formats swscale writes,
// every answer compared with the oracle: from a source of the output's size (swscale's unscaled
// converters) and of another size (its scalers). CI also runs this test with the daemon under
// valgrind's memcheck, which sees a store past a buffer inside FFmpeg's own code.
struct Conversion {
    int source_w, source_h, w, h;
    AVPixelFormat fmt;
};
const Conversion kConversions[] = {
    {600, 450, 600, 450, AV_PIX_FMT_RGBA},   {600, 450, 600, 450, AV_PIX_FMT_BGRA},
    {600, 450, 600, 450, AV_PIX_FMT_RGB24},  {350, 200, 350, 200, AV_PIX_FMT_RGBA},
    {350, 200, 350, 200, AV_PIX_FMT_BGR24},  {344, 198, 344, 198, AV_PIX_FMT_NV12},
    {344, 198, 344, 198, AV_PIX_FMT_GRAY8},  {344, 198, 344, 198, AV_PIX_FMT_YUV420P},
    {336, 100, 336, 100, AV_PIX_FMT_RGB24},  {352, 96, 352, 96, AV_PIX_FMT_NV21},
    {130, 66, 130, 66, AV_PIX_FMT_BGRA},     {384, 64, 384, 64, AV_PIX_FMT_YUV420P},
    {384, 64, 384, 64, AV_PIX_FMT_RGBA},     {384, 64, 384, 64, AV_PIX_FMT_NV12},
    {176, 144, 175, 99, AV_PIX_FMT_RGBA},    {176, 144, 175, 99, AV_PIX_FMT_RGB24},
    {176, 144, 175, 99, AV_PIX_FMT_YUV420P}, {176, 144, 175, 99, AV_PIX_FMT_NV12},
    {176, 144, 175, 99, AV_PIX_FMT_GRAY8},   {176, 144, 200, 97, AV_PIX_FMT_BGRA},
    {176, 144, 264, 33, AV_PIX_FMT_YUV444P}, {176, 144, 1000, 17, AV_PIX_FMT_BGR24},
    {176, 144, 320, 63, AV_PIX_FMT_RGBA},    {176, 144, 66, 129, AV_PIX_FMT_NV12},
};

TEST_F(Video, ConversionsAtAwkwardSizes) {
    for (const Conversion& row : kConversions) {
        const std::string size = std::to_string(row.source_w) + "x" + std::to_string(row.source_h);
        const Clip& s = clip("c" + size + ".m2v", "-f lavfi -i testsrc2=size=" + size +
                                                      ":rate=25 -frames:v 3 -c:v mpeg2video -bf 0");
        SCOPED_TRACE(size + " to " + std::to_string(row.w) + "x" + std::to_string(row.h) + " " +
                     av_get_pix_fmt_name(row.fmt));
        ASSERT_NO_FATAL_FAILURE(init(s, row.w, row.h, row.fmt));
        EXPECT_GT(decode_range(s).outputs, 0u);
    }
}

// A reset mid-stream keeps the codec and coded format and takes the new output. Output pixel
// formats beyond FFmpeg 4's enumeration (187 formats), negative ones included, mean yuv420p.
// The worker is named after its client (the connection's number in the service) and its work.
TEST_F(Video, ResetAndOutputFormats) {
    const Clip& s = clip(kVideoRows[1].file, kSource + kVideoRows[1].args);
    std::smatch client;
    const std::string log = daemon.log();
    ASSERT_TRUE(std::regex_search(log, client, std::regex("client connect: sock#\\[(\\d+)\\]")));
    const std::vector<std::string> named = {"dec" + client[1].str()};
    const std::vector<std::string> h264 = {named[0] + " h264 sw"};
    EXPECT_EQ(worker_names(daemon.pid()), named);
    ASSERT_NO_FATAL_FAILURE(init(s, 352, 288, AV_PIX_FMT_RGBA));
    EXPECT_EQ(worker_names(daemon.pid()), h264);
    decode_range(s, 0, 6);
    ASSERT_NO_FATAL_FAILURE(reset(s, 90, 70, AV_PIX_FMT_GRAY8));
    EXPECT_EQ(worker_names(daemon.pid()), h264);
    decode_range(s, 6);
    ASSERT_EQ(c.destroy(kWaitMs), ClientError::kOk);
    EXPECT_EQ(worker_names(daemon.pid()), named);

    // The library refuses the formats beyond 186 and pal8.
    DecoderClientSeam::check_requests(c, false);
    for (int asked : {186, 187, 1000, INT_MIN, -1, int(AV_PIX_FMT_RGB24), int(AV_PIX_FMT_PAL8)}) {
        const int taken = asked >= 0 && asked < 187 ? asked : AV_PIX_FMT_YUV420P;
        ASSERT_NO_FATAL_FAILURE(init(s, 64, 48, asked, taken));
        const int size = av_image_get_buffer_size(AVPixelFormat(taken), 64, 48, 1);
        // No conversion makes pal8.
        EXPECT_EQ(decode(s, 0).output_size, taken == AV_PIX_FMT_PAL8 ? 0 : uint32_t(size)) << asked;
    }
}

// The real VDPAU stack of a host without a GPU: Xvfb and the VA-API/OpenGL driver. The confined
// worker opens the device as an unconfined process does (before it confines itself for decoding),
// its decoder's initialisation fails, and software decodes every answer exactly, through a reset
// and a new setup, which share the device. CI installs the stack and requires it
// (SVC_REQUIRE_VDPAU=1); elsewhere the test may skip.
class Vdpau : public Video {
  protected:
    void SetUp() override {
        if (!have_virtual_vdpau() || host_has_hw_device()) {
            ASSERT_EQ(getenv("SVC_REQUIRE_VDPAU"), nullptr) << "no Xvfb or VDPAU va_gl driver";
            GTEST_SKIP() << "no Xvfb or VDPAU va_gl driver, or a real device here";
        }
        display.reset(new VirtualDisplay());
        ASSERT_FALSE(display->name().empty()) << "Xvfb did not start";
        daemon.options().env["DISPLAY"] = display->name();
        daemon.options().env["VDPAU_DRIVER"] = "va_gl";
        Video::SetUp();
    }
};

TEST_F(Vdpau, TheDeviceOpensConfinedItsDecoderFailsAndSoftwareDecodes) {
    const Clip& s = clip(kVideoRows[0].file, kSource + kVideoRows[0].args);
    ASSERT_NO_FATAL_FAILURE(init(s, 176, 144, AV_PIX_FMT_YUV420P));
    EXPECT_TRUE(log_has(daemon.log(), "DEBUG", "confined for its devices: "));
    EXPECT_EQ(daemon.count("hw pix fmt: vdpau"), 1u);
    // Only CUDA's and VA-API's fail: the stack works, in the confined worker.
    EXPECT_EQ(daemon.count("failed to create specified HW device"), 2u) << "cuda, vaapi";
    EXPECT_EQ(decode_range(s).failures, 0u);
    EXPECT_TRUE(log_has(daemon.log(), "DEBUG", "confined for decoding: "));
    EXPECT_GT(daemon.count("get_hw_format: vdpau"), 0u);
    ASSERT_NO_FATAL_FAILURE(reset(s, 88, 72, AV_PIX_FMT_RGBA));
    decode_range(s);
    ASSERT_EQ(c.destroy(kWaitMs), ClientError::kOk);
    ASSERT_NO_FATAL_FAILURE(init(s, 176, 144, AV_PIX_FMT_NV12));
    decode(s, 0);
    EXPECT_EQ(daemon.count("failed to create specified HW device"), 6u);
    EXPECT_EQ(daemon.count("ended by signal"), 0u);
}

const std::string kStereo44k =
    "-f lavfi -i 'aevalsrc=0.5*sin(440*2*PI*t)|0.3*sin(660*2*PI*t):s=44100:d=1'";
const std::string kStereo48k =
    "-f lavfi -i 'aevalsrc=0.6*sin(440*2*PI*t)|0.4*sin(660*2*PI*t):s=48000:d=1'";
const std::string kSurround48k =
    "-f lavfi -i 'aevalsrc=sin(440*2*PI*t)|sin(550*2*PI*t)|sin(660*2*PI*t)|0.3*sin(60*2*PI*t)|"
    "0.5*sin(770*2*PI*t)|0.5*sin(880*2*PI*t):s=48000:d=1:c=5.1'";

class Audio : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(daemon.start());
        ASSERT_EQ(c.connect_posix(daemon.socket_path()), ClientError::kOk);
    }
    // Sets up the service and the oracle alike; the service's answer status.
    int32_t init(const Clip& s, const AudioInitParams& p, bool with_config = true) {
        const std::vector<uint8_t> config = with_config ? s.info.extradata : std::vector<uint8_t>{};
        ExchangeResult r{};
        EXPECT_EQ(c.init_audio(s.codec_index(), p, config.data(), config.size(), &r, kWaitMs),
                  ClientError::kOk);
        AudioInitParams taken = p;
        taken.out_sample_rate = p.out_sample_rate > 0 ? p.out_sample_rate : 44100;
        EXPECT_EQ(oracle.open_audio(s.info, taken, config), r.status == STATUS_OK);
        return r.status;
    }
    // A packet through both, compared; the service's answer.
    ExchangeResult decode(const std::vector<uint8_t>& p, int64_t pts) {
        ExchangeResult r{};
        EXPECT_EQ(c.decode_frame(p.data(), p.size(), pts, &r, kWaitMs), ClientError::kOk);
        EXPECT_EQ(differs(r, c.output(), oracle.decode(p, pts)), "");
        return r;
    }
    // Packets [first, last) of `s`; how many gave output.
    int decode(const Clip& s, size_t first, size_t last) {
        int outputs = 0;
        for (size_t i = first; i < last && !HasFailure(); ++i) {
            outputs += decode(s.packets[i].data, 1000 + int64_t(i) * 23219).status == STATUS_OK;
        }
        return outputs;
    }

    Daemon daemon;
    DecoderClient c;
    Oracle oracle;
};

struct AudioRow {
    const char *encoder, *file;  // the file's extension picks the container
    std::string args;
    int32_t out_fmt, out_channels, out_rate;  // a rate of 0 or less: 44100
    bool decoder_picks_rate;                  // an input sample rate of 0
    bool opens;  // WMA decoders need a block alignment that no init request carries
};

const AudioRow kAudioRows[] = {
    {"aac", "a.m4a", kStereo44k + " -c:a aac", AV_SAMPLE_FMT_S16, 2, 44100, false, true},
    {"libmp3lame", "a.mp3", kStereo44k + " -c:a libmp3lame", AV_SAMPLE_FMT_FLTP, 2, 48000, true,
     true},
    {"flac", "a.flac", kStereo44k + " -c:a flac -frame_size 1000", AV_SAMPLE_FMT_S16P, 2, 44100,
     false, true},
    {"libopus", "a.opus.ogg", kStereo48k + " -c:a libopus", AV_SAMPLE_FMT_S16, 2, 48000, false,
     true},
    {"libvorbis", "a.ogg", kStereo44k + " -c:a libvorbis", AV_SAMPLE_FMT_FLT, 1, 22050, false,
     true},
    {"ac3", "a.ac3", kSurround48k + " -c:a ac3", AV_SAMPLE_FMT_S16, 2, 48000, false, true},
    {"mp2", "a.mp2", kStereo44k + " -c:a mp2", AV_SAMPLE_FMT_S32P, 2, 0, false, true},
    {"alac", "a.alac.m4a", kStereo44k + " -c:a alac", AV_SAMPLE_FMT_S16, 2, -1, false, true},
    {"wmav2", "a.wma", kStereo44k + " -c:a wmav2", AV_SAMPLE_FMT_FLTP, 2, 48000, false, false},
    {"dca", "a.dts", kStereo48k + " -strict -2 -c:a dca", AV_SAMPLE_FMT_DBL, 2, 44100, false, true},
};

class AudioCodec : public Audio, public ::testing::WithParamInterface<AudioRow> {};

// The whole stream against the oracle, with garbage, cut and damaged packets in the middle
// (answered as the oracle answers them: decoders that conceal errors give output for some) and a
// flush after them; one resampler while the stream keeps its format.
TEST_P(AudioCodec, MatchesTheOracleThroughGarbage) {
    const AudioRow& k = GetParam();
    if (!have_encoder(k.encoder)) {
        GTEST_SKIP() << "ffmpeg here has no " << k.encoder;
    }
    const Clip& s = clip(k.file, k.args, false);
    AudioInitParams p =
        mediatools::audio_init_params(s.info, k.out_fmt, k.out_channels, k.out_rate);
    p.in_sample_rate = k.decoder_picks_rate ? 0 : p.in_sample_rate;
    if (!k.opens) {
        EXPECT_EQ(init(s, p), STATUS_FAILED);
        EXPECT_TRUE(log_has(daemon.log(), "ERROR", "audio decoder open failed"));
        return;
    }
    ASSERT_EQ(init(s, p), STATUS_OK);
    const size_t half = s.packets.size() / 2;
    EXPECT_GT(decode(s, 0, half), 0);
    EXPECT_EQ(oracle.resampler_builds(), 1);
    const std::vector<uint8_t>& real = s.packets[half].data;
    std::vector<std::vector<uint8_t>> bad = {
        {real.begin(), real.begin() + long(real.size() / 2)},
        {real.begin(), real.begin() + long(std::min<size_t>(4, real.size()))},
        real};
    for (size_t i = real.size() / 4; i < real.size(); i += 3) {
        bad.back()[i] ^= 0x5a;
    }
    std::mt19937 rng(12345);
    for (size_t size : {1u, 7u, 200u, 5000u}) {
        bad.emplace_back(size);
        std::generate(bad.back().begin(), bad.back().end(), [&] { return uint8_t(rng()); });
    }
    for (const auto& b : bad) {
        decode(b, 7);
    }
    ASSERT_EQ(c.flush(kWaitMs), ClientError::kOk);
    oracle.flush();
    EXPECT_GT(decode(s, half, s.packets.size()), 0);
    // Garbage may decode to another layout: the service rebuilt when the oracle did.
    EXPECT_EQ(daemon.count("freeing SW resample context"), size_t(oracle.resampler_builds() - 1));
}

INSTANTIATE_TEST_SUITE_P(Codecs, AudioCodec, ::testing::ValuesIn(kAudioRows),
                         [](const ::testing::TestParamInfo<AudioRow>& info) {
                             return std::string(info.param.encoder);
                         });

// Stereo 44100 Hz AAC (1024 samples a frame) to packed s16: 4096 bytes, the request's pts plus the
// frame's duration, as the worker's line says; near the end of the range the sum wraps.
TEST_F(Audio, OutputSizeAndTimestampOfOneFrame) {
    const Clip& s = clip(kAudioRows[0].file, kAudioRows[0].args, false);
    ASSERT_EQ(init(s, mediatools::audio_init_params(s.info, AV_SAMPLE_FMT_S16, 2, 44100)),
              STATUS_OK);
    decode(s.packets[0].data, 1000);
    ASSERT_EQ(worker_names(daemon.pid()).size(), 1u);
    EXPECT_TRUE(std::regex_match(worker_names(daemon.pid())[0], std::regex("dec\\d+ aac")));
    EXPECT_TRUE(log_has(daemon.log(), "DEBUG", "audio frames: 1024, frame size: 4096, pts: 24219"));
    EXPECT_EQ(decode(s.packets[1].data, INT64_MAX - 5).output_pts, INT64_MIN + 23219 - 6);
}

// Setup parameters no decoder or resampler can honour are answered alike by both and never crash.
TEST_F(Audio, FormatsNothingCanHonourAreAnswered) {
    const Clip& s = clip(kAudioRows[6].file, kAudioRows[6].args, false);
    constexpr int32_t S16 = AV_SAMPLE_FMT_S16;
    const AudioInitParams hostile[] = {{-5, 2, 44100, S16, 2, 44100},
                                       {1000, -3, -1, S16, 2, 44100},
                                       {S16, 100000, INT_MAX, S16, 2, 44100},
                                       {S16, 2, 44100, -1, 2, 44100},
                                       {S16, 2, 44100, S16, 0, 44100},
                                       {S16, 2, 44100, AV_SAMPLE_FMT_DBLP, 1000, 44100},
                                       {S16, 2, 44100, S16, 2, 1}};
    DecoderClientSeam::check_requests(c, false);  // the library refuses most of them
    for (const AudioInitParams& p : hostile) {
        SCOPED_TRACE("row " + std::to_string(&p - hostile));
        c.close();  // a failed setup ends the worker: a new client each
        ASSERT_EQ(c.connect_posix(daemon.socket_path()), ClientError::kOk);
        if (init(s, p, false) == STATUS_OK) {
            decode(s, 0, 4);
        }
    }
}

// ALAC lets a stream declare long frames. Converted to 16 channels of doubles, a frame of 200000
// samples needs more than the output area: the request fails instead of writing past the block,
// and an ordinary frame still converts.
TEST_F(Audio, ConversionBeyondTheOutputAreaIsRefused) {
    Clip s = clip("mono.m4a", "-f lavfi -i sine=sample_rate=44100:d=0.2 -ac 1 -c:a alac", false);
    ASSERT_EQ(s.info.extradata.size(), 36u);
    const uint32_t longest = 200000;
    for (int k = 0; k < 4; ++k) {
        s.info.extradata[12 + k] = uint8_t(longest >> (24 - 8 * k));  // the frame length
    }
    // One uncompressed mono frame of `samples` 16-bit samples, stating its own length.
    auto frame = [](uint32_t samples) {
        std::vector<bool> bits;
        auto put = [&](uint32_t value, int count) {
            while (count-- > 0) {
                bits.push_back((value >> count) & 1u);
            }
        };
        put(0, 3 + 16);  // single channel element; instance tag and unused header bits
        put(0b1001, 4);  // the sample count is in the frame; no extra bits; not compressed
        put(samples, 32);
        for (uint32_t i = 0; i < samples; ++i) {
            put((i * 37) & 0xffff, 16);
        }
        put(7, 3);  // end
        std::vector<uint8_t> bytes((bits.size() + 7) / 8);
        for (size_t i = 0; i < bits.size(); ++i) {
            bytes[i / 8] |= uint8_t(bits[i] << (7 - i % 8));
        }
        return bytes;
    };
    ASSERT_EQ(init(s, mediatools::audio_init_params(s.info, AV_SAMPLE_FMT_DBLP, 16, 44100)),
              STATUS_OK);
    EXPECT_EQ(decode(frame(longest), 0).status, STATUS_FAILED);
    EXPECT_TRUE(log_has(daemon.log(), "ERROR", "converted audio exceeds the output area"));
    EXPECT_EQ(decode(frame(4096), 0).output_size, 4096u * 16 * 8);
}

}  // namespace
