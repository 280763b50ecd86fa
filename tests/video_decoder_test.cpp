// Video decoding through one decoder instance, against real clips made with the ffmpeg command
// line: every packet's result and picture must match an independent in-process model
// (support/video_reference) and stay close to the command line's own decode; setup, reset,
// destroy and garbage must never stop the worker.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>

extern "C" {
#include <libavutil/log.h>
}

#include "support/decoder_harness.h"
#include "support/media_fixtures.h"
#include "support/video_reference.h"

namespace {

// Decoders complain loudly about the garbage fed to them here.
const int kQuietFFmpeg = [] {
    av_log_set_level(AV_LOG_QUIET);
    return 0;
}();

const ExchangeResult kSentinel{7, 0, 1234, 0, 987654321};

void expect_result(const ExchangeResult& r, int32_t status, uint32_t size, int64_t pts) {
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(r.reserved, 0u);
    EXPECT_EQ(r.output_size, size);
    EXPECT_EQ(r.reserved2, 0u);
    EXPECT_EQ(r.output_pts, pts);
}

// Whether any of the service's device types can be created here. Tests that compare with a
// software decode only make sense where none can.
bool host_has_hw_device() {
    static const bool present = [] {
        for (const char* name : {"vdpau", "cuda", "vaapi"}) {
            AVBufferRef* device = nullptr;
            if (av_hwdevice_ctx_create(&device, av_hwdevice_find_type_by_name(name), nullptr,
                                       nullptr, 0) >= 0) {
                av_buffer_unref(&device);
                return true;
            }
        }
        return false;
    }();
    return present;
}

#define SKIP_WITH_HW_DEVICE()                                                      \
    if (host_has_hw_device()) {                                                    \
        GTEST_SKIP() << "this host has a hardware decoder; pictures would differ"; \
    }

uint8_t* output_area(DecoderHarness& h) {
    return h.block() + SHM_OUTPUT_OFFSET;
}

// Whether the output area is zero from `from` to its end.
bool tail_is_zero(DecoderHarness& h, size_t from) {
    static const std::vector<uint8_t> zeros(1 << 20, 0);
    const uint8_t* out = output_area(h);
    for (size_t at = from; at < SHM_AREA_SIZE;) {
        size_t n = std::min(zeros.size(), SHM_AREA_SIZE - at);
        if (memcmp(out + at, zeros.data(), n) != 0) {
            return false;
        }
        at += n;
    }
    return true;
}

uint32_t codec_index(const DemuxedStream& s) {
    int index = video_codec_index(s.codec_name);
    EXPECT_GE(index, 0) << s.codec_name;
    return static_cast<uint32_t>(index);
}

// Sends an init codec request for `s` with the clip's configuration bytes.
void init_service(DecoderHarness& h, const DemuxedStream& s, const std::array<int32_t, 7>& params) {
    h.write_init(MEDIA_TYPE_VIDEO, codec_index(s), params, s.extradata.data(), s.extradata.size());
    ASSERT_TRUE(h.request());
    expect_result(h.result(), STATUS_OK, 0, 0);
}

void init_both(DecoderHarness& h, VideoReference& ref, const DemuxedStream& s,
               const std::array<int32_t, 7>& params) {
    ASSERT_NO_FATAL_FAILURE(init_service(h, s, params));
    ASSERT_TRUE(ref.init(s.codec_id, params, s.extradata));
}

// Decodes packet `i` of `s` through both and compares the answers and the picture.
VideoStep decode_and_compare(DecoderHarness& h, VideoReference& ref, const DemuxedStream& s,
                             size_t i) {
    const std::vector<uint8_t>& p = s.packets[i].data;
    const int64_t pts = packet_pts(s, i);
    h.write_decode(p.data(), static_cast<int32_t>(p.size()), pts);
    EXPECT_TRUE(h.request());
    VideoStep want = ref.decode(p.data(), static_cast<int>(p.size()), pts);
    const ExchangeResult got = h.result();
    expect_result(got, want.status, want.output_size, want.output_pts);
    if (got.status == STATUS_OK && got.output_size == want.picture.size()) {
        const uint8_t* out = output_area(h);
        auto diff = std::mismatch(want.picture.begin(), want.picture.end(), out);
        EXPECT_TRUE(diff.first == want.picture.end())
            << "packet " << i << ": picture differs at byte "
            << (diff.first - want.picture.begin());
    }
    return want;
}

// Every decode whose packet was accepted allocates, and frees, exactly one temporary frame.
void expect_temp_frame_per_accepted_packet(const LogCapture& log) {
    const size_t calls = log.count("decoding video frame");
    const size_t refused = log.count("error sending a packet for decoding");
    EXPECT_GT(calls, 0u);
    EXPECT_EQ(log.count("freeing temp SW frame"), calls - refused);
}

struct Output {
    const char* name;
    int32_t width, height, pix_fmt;
};

// The service converts straight into the output area when every packed line is a multiple of
// 64 bytes (80 RGBA pixels, 384 NV12 pixels) and through a picture buffer otherwise (176 YUV420P
// pixels: lines of 176 and 88 bytes): both ways are compared with the reference.
const Output kOutputs[] = {
    {"same_yuv420p", 176, 144, AV_PIX_FMT_YUV420P},
    {"down_rgba", 80, 60, AV_PIX_FMT_RGBA},
    {"up_nv12", 384, 288, AV_PIX_FMT_NV12},
};

bool have_clip_encoder(const VideoClip& clip) {
    return have_encoder(clip.encoder);
}

// Loads a clip for a test that compares pictures with a software decode, or skips the test where
// the host has a hardware decoder or its ffmpeg cannot make the clip.
#define USE_CLIP(var, clip)                                      \
    SKIP_WITH_HW_DEVICE();                                       \
    if (!have_clip_encoder(clip)) {                              \
        GTEST_SKIP() << "ffmpeg here has no " << (clip).encoder; \
    }                                                            \
    const DemuxedStream* var = load_clip(clip);                  \
    ASSERT_NE(var, nullptr)

// Each clip decoded to three outputs: the coded size in YUV420P, a downscale to RGBA and an
// upscale to NV12.
class VideoDecode : public ::testing::TestWithParam<size_t> {};

TEST_P(VideoDecode, MatchesReferenceAndCommandLine) {
    USE_CLIP(s, kVideoClips[GetParam()]);
    LogCapture log;
    DecoderHarness h;
    VideoReference ref;
    for (const Output& o : kOutputs) {
        SCOPED_TRACE(o.name);
        ASSERT_NO_FATAL_FAILURE(
            init_both(h, ref, *s, video_params(*s, o.width, o.height, o.pix_fmt)));
        const size_t decoding = log.text().size();

        // The client may leave anything in the output area; beyond the picture it reads zero.
        memset(output_area(h), 0xAB, SHM_AREA_SIZE);
        std::vector<std::vector<uint8_t>> pictures;
        for (size_t i = 0; i < s->packets.size(); ++i) {
            VideoStep want = decode_and_compare(h, ref, *s, i);
            EXPECT_NE(want.status, STATUS_FAILED) << "packet " << i;
            if (want.status == STATUS_OK) {
                EXPECT_EQ(want.output_size, picture_size(o.width, o.height, o.pix_fmt));
                if (pictures.empty()) {
                    EXPECT_TRUE(tail_is_zero(h, want.output_size));
                }
                pictures.push_back(std::move(want.picture));
            }
        }
        EXPECT_EQ(log.text().find("[ERROR]", decoding), std::string::npos);
        // One receive per packet: a decoder with a delay still holds its last pictures.
        EXPECT_GE(pictures.size(), s->packets.size() / 2);

        const std::string path = make_media(kVideoClips[GetParam()].file, "");
        auto frames = command_line_frames(path, o.width, o.height, o.pix_fmt);
        ASSERT_GE(frames.size(), pictures.size());
        for (size_t k = 0; k < pictures.size(); ++k) {
            ASSERT_EQ(frames[k].size(), pictures[k].size());
            EXPECT_GT(psnr(frames[k].data(), pictures[k].data(), frames[k].size()), 40.0)
                << "picture " << k;
        }
    }
    expect_temp_frame_per_accepted_packet(log);
}

INSTANTIATE_TEST_SUITE_P(Clips, VideoDecode, ::testing::Range<size_t>(0, kVideoClipCount),
                         [](const ::testing::TestParamInfo<size_t>& info) {
                             return std::string(kVideoClips[info.param].name);
                         });

// With B-frames the decoder answers "need more data" first and then hands out pictures in
// presentation order, each with its own timestamp rather than the delivering packet's.
TEST(VideoDecoding, ReorderedPicturesCarryTheirOwnTimestamps) {
    USE_CLIP(s, video_clip("h264_mp4"));
    DecoderHarness h;
    ASSERT_NO_FATAL_FAILURE(init_service(h, *s, video_params(*s, 176, 144, AV_PIX_FMT_YUV420P)));

    std::vector<int64_t> request_pts, output_pts;
    bool reordered = false;
    for (size_t i = 0; i < s->packets.size(); ++i) {
        const auto& p = s->packets[i].data;
        request_pts.push_back(s->packets[i].pts);
        h.write_decode(p.data(), static_cast<int32_t>(p.size()), s->packets[i].pts);
        h.set_result(kSentinel);
        ASSERT_TRUE(h.request());
        const ExchangeResult r = h.result();
        if (i == 0) {
            expect_result(r, STATUS_NEED_MORE_DATA, 0, 0);
        }
        ASSERT_NE(r.status, STATUS_FAILED);
        if (r.status == STATUS_OK) {
            output_pts.push_back(r.output_pts);
            reordered = reordered || r.output_pts != s->packets[i].pts;
        } else {
            expect_result(r, STATUS_NEED_MORE_DATA, 0, 0);
        }
    }
    EXPECT_TRUE(reordered);
    ASSERT_GE(output_pts.size(), s->packets.size() - 3);
    std::sort(request_pts.begin(), request_pts.end());
    request_pts.resize(output_pts.size());
    EXPECT_EQ(output_pts, request_pts);
}

// A reset mid-stream keeps the codec and coded format and takes the new output; the smaller
// picture after it leaves zero behind itself, not the bigger one before it.
TEST(VideoDecoding, ResetToNewOutputMidStream) {
    USE_CLIP(s, video_clip("h264_annexb"));
    LogCapture log;
    DecoderHarness h;
    VideoReference ref;
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, *s, video_params(*s, 352, 288, AV_PIX_FMT_RGBA)));
    for (size_t i = 0; i < 6; ++i) {
        decode_and_compare(h, ref, *s, i);
    }
    ASSERT_TRUE(h.decoder().video_ctx->sws_ctx);

    h.write_reset(90, 70, AV_PIX_FMT_GRAY8);
    h.set_result(kSentinel);
    ASSERT_TRUE(h.request());
    expect_result(h.result(), STATUS_OK, 0, 0);
    ASSERT_TRUE(ref.reset(90, 70, AV_PIX_FMT_GRAY8));
    const auto& state = *h.decoder().video_ctx;
    EXPECT_EQ(state.width, s->width);
    EXPECT_EQ(state.height, s->height);
    EXPECT_EQ(state.pix_fmt, s->pix_fmt);
    EXPECT_EQ(state.out_width, 90);
    EXPECT_EQ(state.out_height, 70);
    EXPECT_EQ(state.out_pix_fmt, AV_PIX_FMT_GRAY8);
    EXPECT_FALSE(state.sws_ctx);
    ASSERT_TRUE(state.sw_codec_ctx);
    EXPECT_EQ(state.sw_codec_ctx->codec_id, AV_CODEC_ID_H264);
    EXPECT_EQ(state.sw_codec_ctx->extradata_size, 0);
    const std::string text = log.text();
    const size_t reset_at = text.find("reset context");
    ASSERT_NE(reset_at, std::string::npos);
    const size_t old_sws = text.find("freeing SW scale context", reset_at);
    const size_t old_sw = text.find("freeing video decoder context", reset_at);
    const size_t setup = text.find("init video codec context", reset_at);
    EXPECT_LT(old_sws, old_sw);
    EXPECT_LT(old_sw, setup);
    EXPECT_NE(setup, std::string::npos);

    memset(output_area(h), 0xAB, SHM_AREA_SIZE);
    bool checked_tail = false;
    for (size_t i = 6; i < s->packets.size(); ++i) {
        VideoStep want = decode_and_compare(h, ref, *s, i);
        if (want.status == STATUS_OK && !checked_tail) {
            EXPECT_EQ(want.output_size, 90u * 70u);
            EXPECT_TRUE(tail_is_zero(h, want.output_size));
            checked_tail = true;
        }
    }
    EXPECT_TRUE(checked_tail);
}

// Destroy releases the state, the frame and the packet; the instance then answers as one without
// a decoder, and a new init of another codec is served.
TEST(VideoDecoding, DestroyThenInitAgain) {
    USE_CLIP(a, video_clip("h264_annexb"));
    USE_CLIP(b, video_clip("vp8_webm"));
    LogCapture log;
    DecoderHarness h;
    VideoReference ref;
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, *a, video_params(*a, 176, 144, AV_PIX_FMT_YUV420P)));
    for (size_t i = 0; i < 3; ++i) {
        decode_and_compare(h, ref, *a, i);
    }

    const size_t before = log.text().size();
    h.write_request_type(REQUEST_DESTROY_CONTEXT);
    h.set_result(kSentinel);
    ASSERT_TRUE(h.request());
    const ExchangeResult untouched = h.result();
    EXPECT_EQ(0, memcmp(&kSentinel, &untouched, sizeof(kSentinel))) << "result area was written";
    EXPECT_EQ(h.decoder().media_type, MEDIA_TYPE_NONE);
    EXPECT_FALSE(h.decoder().video_ctx);
    EXPECT_FALSE(h.decoder().packet);
    EXPECT_FALSE(h.decoder().frame);
    const std::string destroyed = log.text().substr(before);
    const size_t sws = destroyed.find("freeing SW scale context");
    const size_t sw = destroyed.find("freeing video decoder context");
    const size_t frame = destroyed.find("freeing video frame");
    const size_t packet = destroyed.find("freeing video packet");
    EXPECT_LT(sws, sw);
    EXPECT_LT(sw, frame);
    EXPECT_LT(frame, packet);
    EXPECT_NE(packet, std::string::npos);

    const auto& p = a->packets[3].data;
    h.write_decode(p.data(), static_cast<int32_t>(p.size()), 3);
    h.set_result(kSentinel);
    ASSERT_TRUE(h.request());
    expect_result(h.result(), 0, 0, 0);
    EXPECT_TRUE(log.contains("decoder context not initialized!!"));

    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, *b, video_params(*b, 88, 72, AV_PIX_FMT_RGBA)));
    int pictures = 0;
    for (size_t i = 0; i < b->packets.size(); ++i) {
        pictures += decode_and_compare(h, ref, *b, i).status == STATUS_OK;
    }
    EXPECT_GT(pictures, 0);
}

size_t find_any(const std::string& text, std::initializer_list<const char*> needles, size_t from) {
    size_t best = std::string::npos;
    for (const char* n : needles) {
        best = std::min(best, text.find(n, from));
    }
    return best;
}

// A second init replaces the first state: the old contexts go before the new decoder is looked
// up, the old packet and frame only once the new setup has succeeded, and never when it fails.
TEST(VideoDecoding, SecondInitReplacesTheFirst) {
    USE_CLIP(a, video_clip("h264_annexb"));
    USE_CLIP(b, video_clip("mpeg4_mp4"));
    LogCapture log;
    DecoderHarness h;
    VideoReference ref;
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, *a, video_params(*a, 176, 144, AV_PIX_FMT_YUV420P)));
    for (size_t i = 0; i < 2; ++i) {
        decode_and_compare(h, ref, *a, i);
    }

    size_t before = log.text().size();
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, *b, video_params(*b, 88, 72, AV_PIX_FMT_BGR24)));
    std::string text = log.text();
    const size_t setup = text.find("init video codec context", before);
    const size_t old_sws = text.find("freeing SW scale context", before);
    const size_t old_sw = text.find("freeing video decoder context", before);
    const size_t lookup = find_any(text, {"hw pix fmt: ", "does not support device type"}, before);
    const size_t packet = text.find("freeing video packet", before);
    const size_t frame = text.find("freeing video frame", before);
    EXPECT_LT(setup, old_sws);
    EXPECT_LT(old_sws, old_sw);
    EXPECT_LT(old_sw, lookup);
    EXPECT_LT(lookup, packet);
    EXPECT_LT(packet, frame);
    EXPECT_NE(frame, std::string::npos);
    int pictures = 0;
    for (size_t i = 0; i < b->packets.size(); ++i) {
        pictures += decode_and_compare(h, ref, *b, i).status == STATUS_OK;
    }
    EXPECT_GT(pictures, 0);

    // A VC-1 decoder cannot open without its sequence header: this setup fails late, after the
    // old state is gone, and the packet and frame of the previous setup stay.
    const AVPacket* old_packet = h.decoder().packet.get();
    const AVFrame* old_frame = h.decoder().frame.get();
    before = log.text().size();
    h.write_init(MEDIA_TYPE_VIDEO, 7, {176, 144, AV_PIX_FMT_YUV420P, 0, 176, 144, 0});
    ASSERT_TRUE(h.request());
    expect_result(h.result(), STATUS_FAILED, 0, 0);
    text = log.text().substr(before);
    EXPECT_NE(text.find("video decoder open failed"), std::string::npos);
    EXPECT_EQ(text.find("freeing video packet"), std::string::npos);
    EXPECT_EQ(text.find("freeing video frame"), std::string::npos);
    EXPECT_EQ(h.decoder().packet.get(), old_packet);
    EXPECT_EQ(h.decoder().frame.get(), old_frame);
    ASSERT_TRUE(h.decoder().video_ctx);
    EXPECT_FALSE(h.decoder().video_ctx->sw_codec_ctx);
    // A failed init ends the worker.
    h.write_decode(nullptr, 0, 0);
    h.signal_request();
    EXPECT_FALSE(h.wait_completions(1, 300));
}

// Output pixel formats beyond the FFmpeg 4 enumeration, negative ones included, mean YUV420P.
TEST(VideoSetup, OutputPixelFormatBeyondTableIsYuv420p) {
    USE_CLIP(s, video_clip("h264_annexb"));
    DecoderHarness h;
    for (auto [asked, stored] : {std::pair<int32_t, int32_t>{186, 186},
                                 {187, 0},
                                 {1000, 0},
                                 {INT_MIN, 0},
                                 {AV_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},
                                 {-1, 0}}) {
        ASSERT_NO_FATAL_FAILURE(init_service(h, *s, video_params(*s, 64, 48, asked)));
        EXPECT_EQ(h.decoder().video_ctx->out_pix_fmt, stored) << asked;
    }
    VideoReference ref;
    ASSERT_TRUE(ref.init(s->codec_id, video_params(*s, 64, 48, -1), s->extradata));
    VideoStep want = decode_and_compare(h, ref, *s, 0);
    EXPECT_EQ(want.status, STATUS_OK);
    EXPECT_EQ(want.output_size, 64u * 48u * 3u / 2u);
}

// The output area holds 16,777,216 bytes: a picture of exactly that size is delivered, one byte
// more is refused.
TEST(VideoDecoding, PictureMustFitTheOutputArea) {
    USE_CLIP(s, video_clip("h264_annexb"));
    LogCapture log;
    DecoderHarness h;
    VideoReference ref;
    ASSERT_EQ(picture_size(4096, 4096, AV_PIX_FMT_GRAY8), SHM_AREA_SIZE);
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, *s, video_params(*s, 4096, 4096, AV_PIX_FMT_GRAY8)));
    VideoStep want = decode_and_compare(h, ref, *s, 0);
    EXPECT_EQ(want.status, STATUS_OK);
    EXPECT_EQ(h.result().output_size, SHM_AREA_SIZE);
    EXPECT_FALSE(log.contains("output image size overflow!!"));

    ASSERT_NO_FATAL_FAILURE(init_service(h, *s, video_params(*s, 4097, 4096, AV_PIX_FMT_GRAY8)));
    const auto& p = s->packets[0].data;
    h.write_decode(p.data(), static_cast<int32_t>(p.size()), 5);
    ASSERT_TRUE(h.request());
    expect_result(h.result(), STATUS_FAILED, 0, 0);
    EXPECT_EQ(log.count("output image size overflow!!"), 1u);

    // Outputs that cannot be made at all fail the same way and leave no conversion context.
    for (auto [w, ht] : {std::pair<int32_t, int32_t>{0, 0}, {-16, 16}, {100000, 100000}}) {
        ASSERT_NO_FATAL_FAILURE(init_service(h, *s, video_params(*s, w, ht, AV_PIX_FMT_GRAY8)));
        h.write_decode(p.data(), static_cast<int32_t>(p.size()), 5);
        ASSERT_TRUE(h.request());
        expect_result(h.result(), STATUS_FAILED, 0, 0);
    }
    EXPECT_GE(log.count("cannot initialize convertion context"), 2u);

    // The worker goes on serving.
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, *s, video_params(*s, 32, 32, AV_PIX_FMT_GRAY8)));
    EXPECT_EQ(decode_and_compare(h, ref, *s, 0).status, STATUS_OK);
}

// Configuration bytes come from the input area: a size beyond it fails the setup, a size of
// exactly the area is taken.
TEST(VideoSetup, ConfigSizeBeyondInputAreaFails) {
    {
        LogCapture log;
        DecoderHarness h;
        h.write_init(MEDIA_TYPE_VIDEO, 8,
                     {176, 144, 0, static_cast<int32_t>(SHM_AREA_SIZE) + 1, 176, 144, 0});
        ASSERT_TRUE(h.request());
        expect_result(h.result(), STATUS_FAILED, 0, 0);
        EXPECT_TRUE(log.contains("freeing video decoder context"));
        h.write_decode(nullptr, 0, 0);
        h.signal_request();
        EXPECT_FALSE(h.wait_completions(1, 300));
    }
    {
        DecoderHarness h;
        memset(h.input(), 0x5A, SHM_AREA_SIZE);
        h.write_init(MEDIA_TYPE_VIDEO, 8,
                     {176, 144, 0, static_cast<int32_t>(SHM_AREA_SIZE), 176, 144, 0});
        ASSERT_TRUE(h.request());
        expect_result(h.result(), STATUS_OK, 0, 0);
        const AVCodecContext* sw = h.decoder().video_ctx->sw_codec_ctx.get();
        ASSERT_EQ(sw->extradata_size, static_cast<int>(SHM_AREA_SIZE));
        EXPECT_EQ(sw->extradata[SHM_AREA_SIZE - 1], 0x5A);
        EXPECT_EQ(sw->extradata[SHM_AREA_SIZE], 0);
    }
}

// A VC-1 sequence header and entry point for 176x144, advanced profile: enough to open the
// decoder, which refuses to open without them.
const uint8_t kVc1Config[] = {0x00, 0x00, 0x01, 0x0f, 0xca, 0x00, 0x05, 0x70, 0x47,
                              0x08, 0x80, 0x00, 0x00, 0x01, 0x0e, 0x40, 0x00, 0x80};

// A reset passes no configuration bytes, so a decoder that needs them cannot be rebuilt: the
// instance keeps serving and answers as one without a decoder until a new init.
TEST(VideoSetup, ResetWhoseSetupFailsLeavesNoDecoder) {
    LogCapture log;
    DecoderHarness h;
    h.write_init(MEDIA_TYPE_VIDEO, 7,
                 {176, 144, AV_PIX_FMT_YUV420P, sizeof(kVc1Config), 176, 144, 0}, kVc1Config,
                 sizeof(kVc1Config));
    ASSERT_TRUE(h.request());
    expect_result(h.result(), STATUS_OK, 0, 0);

    h.write_reset(88, 72, AV_PIX_FMT_RGBA);
    h.set_result(kSentinel);
    ASSERT_TRUE(h.request());
    expect_result(h.result(), STATUS_OK, 0, 0);
    EXPECT_TRUE(log.contains("video decoder open failed"));
    ASSERT_TRUE(h.decoder().video_ctx);
    EXPECT_FALSE(h.decoder().video_ctx->sw_codec_ctx);

    const uint8_t junk[16] = {0, 0, 1, 0x0d, 1, 2, 3};
    for (uint32_t type : {REQUEST_DECODE_FRAME, REQUEST_FLUSH, REQUEST_CODEC_CONFIG,
                          REQUEST_RESET_CONTEXT, REQUEST_DECODE_FRAME}) {
        if (type == REQUEST_DECODE_FRAME) {
            h.write_decode(junk, sizeof(junk), 1);
        } else if (type == REQUEST_CODEC_CONFIG) {
            h.write_codec_config(junk, sizeof(junk));
        } else if (type == REQUEST_RESET_CONTEXT) {
            h.write_reset(64, 64, AV_PIX_FMT_YUV420P);
        } else {
            h.write_request_type(type);
        }
        h.set_result(kSentinel);
        ASSERT_TRUE(h.request()) << type;
        if (type == REQUEST_DECODE_FRAME || type == REQUEST_RESET_CONTEXT) {
            expect_result(h.result(), 0, 0, 0);
        }
    }
    EXPECT_EQ(log.count("decoder context not initialized!!"), 2u);

    // A new init is served.
    h.write_init(MEDIA_TYPE_VIDEO, 7,
                 {176, 144, AV_PIX_FMT_YUV420P, sizeof(kVc1Config), 176, 144, 0}, kVc1Config,
                 sizeof(kVc1Config));
    ASSERT_TRUE(h.request());
    expect_result(h.result(), STATUS_OK, 0, 0);
    EXPECT_TRUE(h.decoder().video_ctx->sw_codec_ctx);
}

// Without hardware every device type fails to open: no candidates, software decodes.
TEST(VideoSetup, NoHardwareDeviceLeavesSoftwareOnly) {
    USE_CLIP(s, video_clip("h264_annexb"));
    LogCapture log;
    DecoderHarness h;
    VideoReference ref;
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, *s, video_params(*s, 176, 144, AV_PIX_FMT_YUV420P)));
    EXPECT_EQ(log.count("failed to create specified HW device: "), 3u);
    EXPECT_EQ(log.count("failed to initialize HW decoder"), 3u);
    EXPECT_EQ(log.count("freeing HW video decoder context"), 3u);
    EXPECT_EQ(log.count("hw pix fmt: ") + log.count("does not support device type"), 3u);
    const auto& state = *h.decoder().video_ctx;
    EXPECT_TRUE(state.hw_codec_candidates.empty());
    EXPECT_FALSE(state.hw_codec_ctx);
    ASSERT_TRUE(state.sw_codec_ctx);

    int pictures = 0;
    for (size_t i = 0; i < s->packets.size(); ++i) {
        pictures += decode_and_compare(h, ref, *s, i).status == STATUS_OK;
    }
    EXPECT_GT(pictures, 0);
    EXPECT_FALSE(h.decoder().video_ctx->hw_codec_ctx);
    EXPECT_FALSE(log.contains("get_hw_format"));
}

// Garbage, truncated and damaged packets answer -1, 1 or a whole picture; the worker keeps
// serving and the clip decodes again afterwards.
class VideoGarbage : public ::testing::TestWithParam<size_t> {};

TEST_P(VideoGarbage, NeverStopsTheWorker) {
    USE_CLIP(s, kVideoClips[GetParam()]);
    LogCapture log;
    DecoderHarness h;
    ASSERT_NO_FATAL_FAILURE(init_service(h, *s, video_params(*s, 120, 90, AV_PIX_FMT_YUV420P)));
    const uint32_t picture = static_cast<uint32_t>(picture_size(120, 90, AV_PIX_FMT_YUV420P));

    std::mt19937 rng(static_cast<uint32_t>(GetParam()) + 1);
    std::vector<std::vector<uint8_t>> bad;
    for (size_t size : {1, 3, 16, 257, 4096, 65536}) {
        std::vector<uint8_t> p(size);
        for (auto& b : p) {
            b = static_cast<uint8_t>(rng());
        }
        bad.push_back(std::move(p));
    }
    for (size_t i = 0; i < s->packets.size(); ++i) {
        const auto& p = s->packets[i].data;
        // Cut short, then with every 7th byte flipped.
        bad.emplace_back(p.begin(), p.begin() + static_cast<long>(p.size() / 2 + 1));
        std::vector<uint8_t> damaged = p;
        for (size_t k = i % 7; k < damaged.size(); k += 7) {
            damaged[k] ^= 0x5A;
        }
        bad.push_back(std::move(damaged));
    }
    for (size_t i = 0; i < bad.size(); ++i) {
        h.write_decode(bad[i].data(), static_cast<int32_t>(bad[i].size()), 1);
        ASSERT_TRUE(h.request()) << "bad packet " << i;
        const ExchangeResult r = h.result();
        if (r.status == STATUS_OK) {
            EXPECT_EQ(r.output_size, picture) << "bad packet " << i;
        } else {
            EXPECT_TRUE(r.status == STATUS_FAILED || r.status == STATUS_NEED_MORE_DATA);
            expect_result(r, r.status, 0, 0);
        }
    }

    // Back to the real clip from its first keyframe: pictures come again.
    int pictures = 0;
    for (size_t i = 0; i < s->packets.size(); ++i) {
        const auto& p = s->packets[i].data;
        h.write_decode(p.data(), static_cast<int32_t>(p.size()), packet_pts(*s, i));
        ASSERT_TRUE(h.request());
        if (h.result().status == STATUS_OK) {
            EXPECT_EQ(h.result().output_size, picture);
            ++pictures;
        }
    }
    EXPECT_GT(pictures, 0);
    expect_temp_frame_per_accepted_packet(log);

    // Garbage configuration bytes either fail the setup or give a decoder that still answers.
    DecoderHarness g;
    std::vector<uint8_t> config(100);
    for (auto& b : config) {
        b = static_cast<uint8_t>(rng());
    }
    g.write_init(MEDIA_TYPE_VIDEO, codec_index(*s), {176, 144, 0, 100, 176, 144, 0}, config.data(),
                 config.size());
    ASSERT_TRUE(g.request());
    if (g.result().status == STATUS_OK) {
        const auto& p = s->packets[0].data;
        g.write_decode(p.data(), static_cast<int32_t>(p.size()), 0);
        ASSERT_TRUE(g.request());
    } else {
        expect_result(g.result(), STATUS_FAILED, 0, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Clips, VideoGarbage, ::testing::Range<size_t>(0, kVideoClipCount),
                         [](const ::testing::TestParamInfo<size_t>& info) {
                             return std::string(kVideoClips[info.param].name);
                         });

}  // namespace
