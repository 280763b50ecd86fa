// What only a codec in this process shows: the trial of hardware candidates on a host without
// hardware (the test is the codec's hardware seam: it hands out allocated, never initialised,
// devices and stands in for each candidate's decode; software always decodes for real), the
// surface-format pick, and a block that cannot be mapped.

#include <algorithm>

#include <gtest/gtest.h>

#include "base/log.h"
#include "decoder/media_codec.h"
#include "decoder/media_decoder.h"
#include "support/support.h"

using namespace mediaclient::protocol;

namespace {

using Names = std::vector<std::string>;

std::string context_name(const AVCodecContext* ctx) {
    return ctx->hw_device_ctx == nullptr
               ? "sw"
               : av_hwdevice_get_type_name(
                     reinterpret_cast<const AVHWDeviceContext*>(ctx->hw_device_ctx->data)->type);
}

// What the taker's stand-in decode does with a packet.
enum class Act { kFail, kNeedMore, kReal };

// One codec over areas of this test, the log in a file. As its seam, the test makes devices of
// every type but the refused ones; software decodes for real, the taker as told, the other
// candidates fail; every decode call is recorded by name.
class Trial : public ::testing::Test, public MediaCodec::HardwareSeam {
  public:
    Trial() { SvcLogFile(log_path.c_str()); }
    ~Trial() override {
        codec.reset();
        SvcLogFile(nullptr);
    }

    int create_device(AVBufferRef** device, AVHWDeviceType type) const override {
        const char* name = av_hwdevice_get_type_name(type);
        if (refused.find(name) != std::string::npos ||
            (*device = av_hwdevice_ctx_alloc(type)) == nullptr) {
            return AVERROR(ENODEV);
        }
        return 0;
    }
    int decode(AVCodecContext* ctx, const std::function<int()>& real) const override {
        calls.push_back(context_name(ctx));
        const Act a = calls.back() == "sw"                     ? Act::kReal
                      : taker.empty() || taker == calls.back() ? act
                                                               : Act::kFail;
        if (a == Act::kReal) {
            return real();
        }
        // The call's number in the pts tells which call answered.
        result = {a == Act::kFail ? STATUS_FAILED : STATUS_NEED_MORE_DATA, 0, 0, 0,
                  int64_t(calls.size())};
        return a == Act::kFail ? AVERROR(EINVAL) : 0;
    }

    // A video setup with the clip's configuration bytes, to its own size in yuv420p.
    void init(const Clip& s, MemoryBudget& budget = MemoryBudget::service()) {
        const auto& i = s.info;
        codec.reset(new MediaCodec({&result, output.data(), [](size_t) {}}, budget, this));
        MediaCodec::Setup setup;
        setup.media_type = MEDIA_TYPE_VIDEO;
        setup.codec_id = AVCodecID(i.codec_id);
        setup.config = i.extradata.data();
        setup.config_size = int32_t(i.extradata.size());
        setup.video = {i.width, i.height, i.pix_fmt, i.width, i.height, AV_PIX_FMT_YUV420P};
        ASSERT_TRUE(codec->init(setup));
        calls.clear();
    }
    void decode(const mediatools::Packet& p) {
        codec->decode_frame(p.data.data(), int32_t(p.data.size()), p.pts);
    }
    size_t count(const std::string& needle) const {
        return occurrences(read_file(log_path), needle);
    }
    // The contexts as the codec lists them: software, chosen, then the waiting candidates.
    std::vector<const AVCodecContext*> contexts() const { return codec->video_contexts(); }
    Names candidates() const {
        Names names;
        const auto all = contexts();
        std::transform(all.begin() + 2, all.end(), std::back_inserter(names), context_name);
        return names;
    }
    std::string chosen() const { return contexts()[1] ? context_name(contexts()[1]) : ""; }
    // Debian 11's FFmpeg 4.3 has no CUDA: a device type missing here leaves too few candidates.
    bool all_device_types() const { return candidates().size() == 3; }

    TempDir dir;
    const std::string log_path = dir.path + "/log";
    const Clip& h264 =
        clip("trial.mp4", "-f lavfi -i testsrc2=size=176x144 -frames:v 8 -c:v libx264");
    std::string refused, taker;  // taker: the candidate that does `act`; empty: every one
    Act act = Act::kReal;
    mutable Names calls;
    mutable ExchangeResult result{};
    std::vector<uint8_t> output = std::vector<uint8_t>(SHM_AREA_SIZE);
    std::unique_ptr<MediaCodec> codec;
};

Names without(Names names, const std::string& name) {
    names.erase(std::remove(names.begin(), names.end(), name), names.end());
    return names;
}

// Per packet: the candidate that does `act` (empty: every one), the decode calls it makes.
struct Step {
    std::string taker;
    Act act;
    Names calls;
};

// Setup makes one candidate per device type in table order, with the configuration bytes; the
// first candidate to accept a packet, even without a picture, is chosen, decodes it again and
// answers; the ones behind it are never tried.
TEST_F(Trial, FirstAcceptingCandidateIsChosen) {
    const Names all{"vdpau", "cuda", "vaapi"};
    const std::vector<std::tuple<std::string, std::vector<Step>, std::string>> trials = {
        {"", {{"", Act::kNeedMore, {"vdpau", "vdpau"}}}, "vdpau"},
        // While every candidate fails, software decodes, and each packet tries them again.
        {"",
         {{"sw", Act::kReal, {"vdpau", "cuda", "vaapi", "sw"}},
          {"sw", Act::kReal, {"vdpau", "cuda", "vaapi", "sw"}},
          {"vaapi", Act::kNeedMore, {"vdpau", "cuda", "vaapi", "vaapi"}}},
         "vaapi"},
        // Once chosen, a context that fails a packet fails that request alone: no fallback.
        {"", {{"", Act::kNeedMore, {"vdpau", "vdpau"}}, {"", Act::kFail, {"vdpau"}}}, "vdpau"},
        // A device that cannot be created drops its candidate and keeps the others in order.
        {"cuda", {{"vaapi", Act::kNeedMore, {"vdpau", "vaapi", "vaapi"}}}, "vaapi"},
        {"",
         {{"cuda", Act::kNeedMore, {"vdpau", "cuda", "cuda"}}, {"", Act::kNeedMore, {"cuda"}}},
         "cuda"},
    };
    for (const auto& [refusing, steps, chosen_one] : trials) {
        SCOPED_TRACE("chosen " + chosen_one);
        refused = refusing;
        ASSERT_NO_FATAL_FAILURE(init(h264));
        if (refused.empty() && !all_device_types()) {
            GTEST_SKIP() << "this FFmpeg lacks a hardware device type";
        }
        EXPECT_EQ(candidates(), without(all, refused));
        for (size_t c = 2; c < contexts().size(); ++c) {
            const AVCodecContext* ctx = contexts()[c];
            EXPECT_EQ(std::vector<uint8_t>(ctx->extradata, ctx->extradata + ctx->extradata_size),
                      h264.info.extradata);
        }
        for (size_t i = 0; i < steps.size(); ++i) {
            taker = steps[i].taker;
            act = steps[i].act;
            decode(h264.packets[i]);
            EXPECT_EQ(calls, steps[i].calls) << "packet " << i;
            if (act != Act::kReal) {
                EXPECT_EQ(result.status, act == Act::kFail ? STATUS_FAILED : STATUS_NEED_MORE_DATA);
                EXPECT_EQ(result.output_pts, int64_t(steps[i].calls.size()));
            }
            calls.clear();
        }
        EXPECT_EQ(chosen(), chosen_one);
        EXPECT_EQ(codec->work(), "h264 " + chosen_one) << "what the worker is named after";
        EXPECT_EQ(candidates(), without(without(all, refused), chosen_one));
    }
    EXPECT_EQ(count("failed to create specified HW device: "), 1u);
    EXPECT_EQ(count("failed to initialize HW decoder"), 1u);

    // Configuration bytes go to the software and the chosen context only.
    const int before = contexts()[0]->extradata_size;
    const uint8_t nal[] = {0, 0, 0, 1, 0x09, 0xf0};
    codec->codec_config(nal, 6);
    EXPECT_EQ(contexts()[0]->extradata_size, before + 6);
    ASSERT_EQ(contexts().size(), 4u) << "software, chosen, two candidates";
    ASSERT_EQ(contexts()[1]->extradata_size, before + 6);
    EXPECT_EQ(memcmp(contexts()[1]->extradata + before, nal, 6), 0);
    EXPECT_EQ(contexts()[2]->extradata_size, before);
    codec->destroy_context();
    EXPECT_TRUE(contexts().empty());
}

// A packet and configuration bytes are charged before they are taken: with a budget that holds
// the decoder and not much more, a packet of 3 MiB (charged twice: FFmpeg's copy and a parser's)
// fails and configuration bytes of 5 MiB are not appended, while the stream decodes as before.
TEST_F(Trial, PacketsAndConfigurationBytesAreChargedFirst) {
    MemoryBudget budget(8 << 20);
    refused = "vdpau cuda vaapi";
    ASSERT_NO_FATAL_FAILURE(init(h264, budget));
    const std::vector<uint8_t> big(5 << 20, 0x5a);
    codec->decode_frame(big.data(), 3 << 20, 0);
    EXPECT_EQ(result.status, STATUS_FAILED);
    EXPECT_EQ(count("memory budget exceeded: packet of 6144 KiB refused"), 1u);
    const int before = contexts()[0]->extradata_size;
    codec->codec_config(big.data(), int32_t(big.size()));
    EXPECT_EQ(contexts()[0]->extradata_size, before);
    int pictures = 0;
    for (const auto& p : h264.packets) {
        decode(p);
        pictures += result.status == STATUS_OK && result.output_size > 0;
    }
    EXPECT_GT(pictures, 0);
    codec.reset();  // before its budget
}

// A long stream's charges come back after each request: after the first pass, no request leaves
// the budget holding more than the first pass's did (packets are given back at once, pictures
// return to their pool), and a destroyed decoder leaves it holding nothing.
TEST_F(Trial, ALongStreamGivesItsChargesBack) {
    MemoryBudget budget(256 << 20);
    refused = "vdpau cuda vaapi";
    ASSERT_NO_FATAL_FAILURE(init(h264, budget));
    int64_t first_pass = 0;
    for (int pass = 0; pass < 4; ++pass) {
        for (const auto& p : h264.packets) {
            decode(p);
            ASSERT_NE(result.status, STATUS_FAILED);
            if (pass == 0) {
                first_pass = std::max(first_pass, budget.total());
            }
            ASSERT_LE(budget.total(), first_pass) << "pass " << pass;
        }
        codec->flush();
    }
    EXPECT_GT(first_pass, 0);
    codec->destroy_context();
    EXPECT_EQ(budget.total(), 0);
    codec.reset();  // before its budget
}

// get_hw_format picks the surface format of the context's device among those offered and needs
// the context's user data; a descriptor that cannot be mapped makes no valid decoder instance.
TEST_F(Trial, SurfaceFormatAndUnmappableBlock) {
    AVCodecContext* ctx = avcodec_alloc_context3(nullptr);
    const AVPixelFormat offered[] = {AV_PIX_FMT_VAAPI, AV_PIX_FMT_CUDA, AV_PIX_FMT_NONE};
    EXPECT_EQ(MediaCodec::get_hw_format(ctx, offered), AV_PIX_FMT_NONE);
    MediaCodec::hw_user_data_t data;
    ctx->opaque = &data;
    for (AVPixelFormat want : {AV_PIX_FMT_VDPAU, AV_PIX_FMT_CUDA}) {
        data.hw_pix_fmt = want;
        EXPECT_EQ(MediaCodec::get_hw_format(ctx, offered),
                  want == AV_PIX_FMT_CUDA ? want : AV_PIX_FMT_NONE);
    }
    ctx->opaque = nullptr;
    avcodec_free_context(&ctx);
    EXPECT_EQ(count("failed to get user data from codec context"), 1u);
    EXPECT_EQ(count("failed to get HW surface format"), 1u);
    EXPECT_EQ(count("get_hw_format: cuda"), 1u);

    MediaDecoder unmappable(-1, false, 1);
    EXPECT_FALSE(unmappable.valid());
    EXPECT_EQ(count("map shared memory failed: [9] "), 1u);
}

}  // namespace
