// Hardware candidates of a video decoder, on hosts without hardware: the decoder's hardware seam
// hands out allocated (never initialised) device contexts and stands in for the decode of each
// candidate, so that setup, the trial order, the choice and the release of the candidates can be
// checked. The software context always decodes for real.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/log.h>
}

#include "support/decoder_harness.h"
#include "support/media_fixtures.h"
#include "support/video_reference.h"

namespace {

const int kQuietFFmpeg = [] {
    av_log_set_level(AV_LOG_QUIET);
    return 0;
}();

const char* const kTypes[] = {"vdpau", "cuda", "vaapi"};

// What a stand-in decode does with one packet.
enum class Act {
    real,       // the normal decode
    fail,       // fails like a rejected packet: status -1, AVERROR(EINVAL)
    need_more,  // accepts without a picture: status 1, result 0
};

std::mutex freed_mutex;
std::vector<std::string> freed_devices;

void record_device_free(AVHWDeviceContext* device) {
    std::lock_guard<std::mutex> lock(freed_mutex);
    freed_devices.push_back(static_cast<const char*>(device->user_opaque));
}

// The device type name of a decoder context, "sw" for one without a device.
std::string context_name(const AVCodecContext* ctx) {
    if (ctx->hw_device_ctx == nullptr) {
        return "sw";
    }
    auto* device = reinterpret_cast<const AVHWDeviceContext*>(ctx->hw_device_ctx->data);
    return av_hwdevice_get_type_name(device->type);
}

// Installs the seam for the lifetime of a test; records every decode call by context name.
class FakeHardware {
  public:
    explicit FakeHardware(DecoderHarness& h) : h_(h) {
        seam_.create_device = [this](AVBufferRef** device, AVHWDeviceType type) {
            const char* name = av_hwdevice_get_type_name(type);
            if (refused.count(name) != 0) {
                return AVERROR(ENODEV);
            }
            *device = av_hwdevice_ctx_alloc(type);
            if (*device == nullptr) {
                return AVERROR(ENOMEM);
            }
            auto* ctx = reinterpret_cast<AVHWDeviceContext*>((*device)->data);
            ctx->user_opaque = const_cast<char*>(name);
            ctx->free = record_device_free;
            return 0;
        };
        seam_.decode_context = [this](AVCodecContext* ctx, const std::function<int()>& real) {
            const std::string name = context_name(ctx);
            Act act;
            int call;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                calls_.push_back(name);
                call = static_cast<int>(calls_.size());
                act = script ? script(name) : Act::real;
            }
            switch (act) {
                case Act::real:
                    return real();
                case Act::fail:
                    h_.set_result({STATUS_FAILED, 0, 0, 0, 0});
                    return AVERROR(EINVAL);
                case Act::need_more:
                    // The call number in the pts tells the client which call answered.
                    h_.set_result({STATUS_NEED_MORE_DATA, 0, 0, 0, call});
                    return 0;
            }
            return AVERROR_BUG;
        };
        MediaDecoder::hw_seam = &seam_;
        std::lock_guard<std::mutex> lock(freed_mutex);
        freed_devices.clear();
    }
    ~FakeHardware() { MediaDecoder::hw_seam = nullptr; }

    // The calls since the last take.
    std::vector<std::string> take_calls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::move(calls_);
    }

    std::set<std::string> refused;
    std::function<Act(const std::string& context)> script;

  private:
    DecoderHarness& h_;
    MediaDecoder::hw_seam_t seam_;
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

using Names = std::vector<std::string>;

Names names_of(const std::vector<MediaDecoder::av_ptr<AVCodecContext>>& contexts) {
    Names names;
    for (const auto& c : contexts) {
        names.push_back(context_name(c.get()));
    }
    return names;
}

const MediaDecoder::hw_user_data_t* user_data(const AVCodecContext* ctx) {
    return static_cast<const MediaDecoder::hw_user_data_t*>(ctx->opaque);
}

// The surface format FFmpeg's decoder declares for a device type, AV_PIX_FMT_NONE if none.
int declared_hw_format(int codec_id, const char* type) {
    const AVCodec* codec = avcodec_find_decoder(static_cast<AVCodecID>(codec_id));
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* config = avcodec_get_hw_config(codec, i);
        if (config == nullptr) {
            return AV_PIX_FMT_NONE;
        }
        if ((config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) &&
            config->device_type == av_hwdevice_find_type_by_name(type)) {
            return config->pix_fmt;
        }
    }
}

class HwTrial : public ::testing::Test {
  protected:
    void SetUp() override {
        // The trials need every device type of the service's table in this FFmpeg build;
        // Debian 11's FFmpeg 4.3 has no CUDA.
        for (const char* name : kTypes) {
            AVBufferRef* device = av_hwdevice_ctx_alloc(av_hwdevice_find_type_by_name(name));
            if (device == nullptr) {
                GTEST_SKIP() << "this FFmpeg has no " << name << " device support";
            }
            av_buffer_unref(&device);
        }
        const VideoClip& clip = video_clip("h264_mp4");
        if (!have_encoder(clip.encoder)) {
            GTEST_SKIP() << "ffmpeg here has no " << clip.encoder;
        }
        s = load_clip(clip);
        ASSERT_NE(s, nullptr);
        ASSERT_FALSE(s->extradata.empty());
    }

    void init(const DemuxedStream& stream) {
        const auto params = video_params(stream, 176, 144, AV_PIX_FMT_YUV420P);
        h.write_init(MEDIA_TYPE_VIDEO, static_cast<uint32_t>(video_codec_index(stream.codec_name)),
                     params, stream.extradata.data(), stream.extradata.size());
        ASSERT_TRUE(h.request());
        ASSERT_EQ(h.result().status, STATUS_OK);
        ASSERT_TRUE(ref.init(stream.codec_id, params, stream.extradata));
        hw.take_calls();
    }

    // Decodes packet `i`; returns the calls it made.
    Names decode(size_t i) {
        const auto& p = s->packets[i].data;
        h.write_decode(p.data(), static_cast<int32_t>(p.size()), s->packets[i].pts);
        h.set_result({77, 0, 77, 0, 77});
        EXPECT_TRUE(h.request());
        return hw.take_calls();
    }

    // Decodes packet `i` where the software context answers; the answer must be the model's.
    Names decode_in_software(size_t i) {
        Names calls = decode(i);
        VideoStep want = ref.decode(s->packets[i].data.data(),
                                    static_cast<int>(s->packets[i].data.size()), s->packets[i].pts);
        const ExchangeResult r = h.result();
        EXPECT_EQ(r.status, want.status) << "packet " << i;
        EXPECT_EQ(r.output_size, want.output_size) << "packet " << i;
        EXPECT_EQ(r.output_pts, want.output_pts) << "packet " << i;
        if (r.status == STATUS_OK) {
            EXPECT_EQ(
                0, memcmp(h.block() + SHM_OUTPUT_OFFSET, want.picture.data(), want.picture.size()));
        }
        return calls;
    }

    MediaDecoder::video_context_t& state() { return *h.decoder().video_ctx; }

    const DemuxedStream* s = nullptr;
    LogCapture log;
    DecoderHarness h;
    FakeHardware hw{h};
    VideoReference ref;
};

// Setup opens one candidate per device type, in table order, each with its own copy of the
// configuration bytes; only the software context gets the coded pixel format.
TEST_F(HwTrial, SetupOpensOneCandidatePerDeviceType) {
    ASSERT_NO_FATAL_FAILURE(init(*s));
    ASSERT_EQ(names_of(state().hw_codec_candidates), (Names{"vdpau", "cuda", "vaapi"}));
    EXPECT_FALSE(state().hw_codec_ctx);
    EXPECT_FALSE(state().sws_ctx);

    const size_t n = s->extradata.size();
    std::vector<const AVCodecContext*> contexts{state().sw_codec_ctx.get()};
    for (const auto& c : state().hw_codec_candidates) {
        contexts.push_back(c.get());
    }
    std::set<const uint8_t*> copies;
    for (const AVCodecContext* c : contexts) {
        SCOPED_TRACE(context_name(c));
        EXPECT_EQ(c->width, s->width);
        EXPECT_EQ(c->height, s->height);
        ASSERT_EQ(c->extradata_size, static_cast<int>(n));
        EXPECT_EQ(0, memcmp(c->extradata, s->extradata.data(), n));
        const std::vector<uint8_t> zeros(AV_INPUT_BUFFER_PADDING_SIZE, 0);
        EXPECT_EQ(0, memcmp(c->extradata + n, zeros.data(), zeros.size()));
        copies.insert(c->extradata);
    }
    EXPECT_EQ(copies.size(), contexts.size());
    EXPECT_EQ(state().sw_codec_ctx->pix_fmt, s->pix_fmt);
    EXPECT_EQ(state().sw_codec_ctx->opaque, nullptr);

    for (size_t i = 0; i < 3; ++i) {
        const AVCodecContext* c = state().hw_codec_candidates[i].get();
        SCOPED_TRACE(kTypes[i]);
        EXPECT_EQ(c->pix_fmt, AV_PIX_FMT_NONE);
        EXPECT_EQ(c->get_format, &MediaDecoder::get_hw_format);
        ASSERT_NE(user_data(c), nullptr);
        EXPECT_EQ(user_data(c)->hw_pix_fmt, declared_hw_format(s->codec_id, kTypes[i]));
        ASSERT_NE(user_data(c)->hw_device_ctx, nullptr);
        EXPECT_EQ(user_data(c)->hw_device_ctx->data, c->hw_device_ctx->data);
    }
    EXPECT_EQ(log.count("hw pix fmt: "), 3u);
    EXPECT_FALSE(log.contains("failed to initialize HW decoder"));

    // Without configuration bytes no context gets any.
    h.write_init(MEDIA_TYPE_VIDEO, 2, {176, 144, 0, -3, 176, 144, 0});
    ASSERT_TRUE(h.request());
    ASSERT_EQ(state().hw_codec_candidates.size(), 3u);
    EXPECT_EQ(state().sw_codec_ctx->extradata, nullptr);
    for (const auto& c : state().hw_codec_candidates) {
        EXPECT_EQ(c->extradata, nullptr);
        EXPECT_EQ(c->extradata_size, 0);
    }
}

// A device that cannot be created drops its candidate at once; the others keep their order.
TEST_F(HwTrial, DeviceThatCannotBeCreatedDropsItsCandidate) {
    hw.refused = {"cuda"};
    ASSERT_NO_FATAL_FAILURE(init(*s));
    EXPECT_EQ(names_of(state().hw_codec_candidates), (Names{"vdpau", "vaapi"}));
    EXPECT_EQ(log.count("failed to create specified HW device: "), 1u);
    EXPECT_EQ(log.count("failed to initialize HW decoder"), 1u);
    EXPECT_EQ(log.count("freeing video decoder context's opaque data"), 1u);
    EXPECT_EQ(log.count("freeing HW video decoder context"), 1u);
}

// The first candidate that accepts the packet, even without a picture, is chosen and decodes
// the packet again; the ones behind it are never tried and stay as they were.
TEST_F(HwTrial, FirstAcceptingCandidateIsChosen) {
    ASSERT_NO_FATAL_FAILURE(init(*s));
    const AVCodecContext* vdpau = state().hw_codec_candidates[0].get();
    const AVCodecContext* cuda = state().hw_codec_candidates[1].get();
    const AVCodecContext* vaapi = state().hw_codec_candidates[2].get();
    hw.script = [](const std::string& ctx) { return ctx == "vdpau" ? Act::fail : Act::need_more; };

    EXPECT_EQ(decode(0), (Names{"vdpau", "cuda", "cuda"}));
    // The second pass answered (call 3), not the trial (call 2).
    const ExchangeResult r = h.result();
    EXPECT_EQ(r.status, STATUS_NEED_MORE_DATA);
    EXPECT_EQ(r.output_pts, 3);
    EXPECT_EQ(state().hw_codec_ctx.get(), cuda);
    ASSERT_EQ(state().hw_codec_candidates.size(), 2u);
    EXPECT_EQ(state().hw_codec_candidates[0].get(), vdpau);
    EXPECT_EQ(state().hw_codec_candidates[1].get(), vaapi);

    // From now on the chosen context alone decodes.
    hw.script = [](const std::string&) { return Act::need_more; };
    EXPECT_EQ(decode(1), (Names{"cuda"}));
    EXPECT_EQ(decode(2), (Names{"cuda"}));

    // Configuration bytes go to the software and the chosen context, not to the others.
    const int before = vdpau->extradata_size;
    h.write_codec_config("\x00\x00\x00\x01\x09\xf0", 6);
    ASSERT_TRUE(h.request());
    EXPECT_EQ(state().sw_codec_ctx->extradata_size, before + 6);
    EXPECT_EQ(cuda->extradata_size, before + 6);
    EXPECT_EQ(memcmp(cuda->extradata + before, "\x00\x00\x00\x01\x09\xf0", 6), 0);
    EXPECT_EQ(vdpau->extradata_size, before);
    EXPECT_EQ(vaapi->extradata_size, before);

    // Release order: the candidates in list order, then the chosen one.
    h.write_request_type(REQUEST_DESTROY_CONTEXT);
    ASSERT_TRUE(h.request());
    std::lock_guard<std::mutex> lock(freed_mutex);
    EXPECT_EQ(freed_devices, (Names{"vdpau", "vaapi", "cuda"}));
}

TEST_F(HwTrial, NeedMoreDataFromTheFirstCandidateChoosesIt) {
    ASSERT_NO_FATAL_FAILURE(init(*s));
    hw.script = [](const std::string&) { return Act::need_more; };
    EXPECT_EQ(decode(0), (Names{"vdpau", "vdpau"}));
    EXPECT_EQ(h.result().output_pts, 2);
    EXPECT_EQ(context_name(state().hw_codec_ctx.get()), "vdpau");
    EXPECT_EQ(names_of(state().hw_codec_candidates), (Names{"cuda", "vaapi"}));
}

// While every candidate fails, software decodes and the candidates are tried again with each
// packet; a later success still chooses.
TEST_F(HwTrial, SoftwareDecodesWhileEveryCandidateFails) {
    ASSERT_NO_FATAL_FAILURE(init(*s));
    hw.script = [](const std::string& ctx) { return ctx == "sw" ? Act::real : Act::fail; };
    int pictures = 0;
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(decode_in_software(i), (Names{"vdpau", "cuda", "vaapi", "sw"})) << i;
        pictures += h.result().status == STATUS_OK;
    }
    EXPECT_GT(pictures, 0);
    EXPECT_EQ(state().hw_codec_candidates.size(), 3u);
    EXPECT_FALSE(state().hw_codec_ctx);
    // One temporary frame per real decode: the stand-ins allocate none.
    EXPECT_EQ(log.count("freeing temp SW frame"), 6u);
    EXPECT_EQ(log.count("decoding video frame"), 6u);

    hw.script = [](const std::string& ctx) { return ctx == "vaapi" ? Act::need_more : Act::fail; };
    EXPECT_EQ(decode(6), (Names{"vdpau", "cuda", "vaapi", "vaapi"}));
    EXPECT_EQ(context_name(state().hw_codec_ctx.get()), "vaapi");
    EXPECT_EQ(names_of(state().hw_codec_candidates), (Names{"vdpau", "cuda"}));
}

// Once chosen, a context that fails a packet fails that request alone: no fallback.
TEST_F(HwTrial, ChosenContextFailingIsNotReplaced) {
    ASSERT_NO_FATAL_FAILURE(init(*s));
    hw.script = [](const std::string&) { return Act::need_more; };
    EXPECT_EQ(decode(0), (Names{"vdpau", "vdpau"}));

    hw.script = [](const std::string&) { return Act::fail; };
    EXPECT_EQ(decode(1), (Names{"vdpau"}));
    const ExchangeResult r = h.result();
    EXPECT_EQ(r.status, STATUS_FAILED);
    EXPECT_EQ(r.output_size, 0u);
    EXPECT_EQ(r.output_pts, 0);

    hw.script = [](const std::string&) { return Act::need_more; };
    EXPECT_EQ(decode(2), (Names{"vdpau"}));
    EXPECT_EQ(context_name(state().hw_codec_ctx.get()), "vdpau");
    EXPECT_EQ(names_of(state().hw_codec_candidates), (Names{"cuda", "vaapi"}));
}

// A decoder without a hardware configuration for a device type still gets that candidate; it
// fails in get_hw_format whenever it decodes, for real.
TEST_F(HwTrial, CandidateWithoutSurfaceFormatFailsForReal) {
    const VideoClip& clip = video_clip("vp8_webm");
    if (!have_encoder(clip.encoder)) {
        GTEST_SKIP() << "ffmpeg here has no " << clip.encoder;
    }
    const char* missing = nullptr;
    for (const char* type : kTypes) {
        if (declared_hw_format(AV_CODEC_ID_VP8, type) == AV_PIX_FMT_NONE) {
            missing = type;
            break;
        }
    }
    if (missing == nullptr) {
        GTEST_SKIP() << "this FFmpeg has every hardware configuration for VP8";
    }
    s = load_clip(clip);
    ASSERT_NE(s, nullptr);
    ASSERT_NO_FATAL_FAILURE(init(*s));
    EXPECT_TRUE(log.contains(std::string("decoder vp8 does not support device type ") + missing));
    ASSERT_EQ(state().hw_codec_candidates.size(), 3u);
    for (const auto& c : state().hw_codec_candidates) {
        if (context_name(c.get()) == missing) {
            EXPECT_EQ(user_data(c.get())->hw_pix_fmt, AV_PIX_FMT_NONE);
        }
    }

    // Only the candidate without a surface format and software decode for real.
    const std::string real_candidate = missing;
    hw.script = [real_candidate](const std::string& ctx) {
        return ctx == "sw" || ctx == real_candidate ? Act::real : Act::fail;
    };
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(decode_in_software(i), (Names{"vdpau", "cuda", "vaapi", "sw"}));
    }
    EXPECT_TRUE(log.contains("failed to get HW surface format"));
    EXPECT_FALSE(state().hw_codec_ctx);
    // The refused candidate allocated no temporary frame.
    EXPECT_EQ(log.count("freeing temp SW frame"),
              log.count("decoding video frame") - log.count("error sending a packet for decoding"));
}

TEST(HwFormat, PicksTheDeviceSurfaceFormat) {
    LogCapture log;
    AVCodecContext* ctx = avcodec_alloc_context3(nullptr);
    ASSERT_NE(ctx, nullptr);
    const AVPixelFormat offered[] = {AV_PIX_FMT_VAAPI, AV_PIX_FMT_CUDA, AV_PIX_FMT_YUV420P,
                                     AV_PIX_FMT_NONE};

    EXPECT_EQ(MediaDecoder::get_hw_format(ctx, offered), AV_PIX_FMT_NONE);
    EXPECT_EQ(log.count("failed to get user data from codec context"), 1u);

    MediaDecoder::hw_user_data_t data;
    ctx->opaque = &data;
    data.hw_pix_fmt = AV_PIX_FMT_NONE;
    EXPECT_EQ(MediaDecoder::get_hw_format(ctx, offered), AV_PIX_FMT_NONE);
    EXPECT_EQ(log.count("failed to get HW surface format"), 1u);

    data.hw_pix_fmt = AV_PIX_FMT_VDPAU;
    EXPECT_EQ(MediaDecoder::get_hw_format(ctx, offered), AV_PIX_FMT_NONE);
    EXPECT_EQ(log.count("failed to get HW surface format"), 2u);

    data.hw_pix_fmt = AV_PIX_FMT_CUDA;
    EXPECT_EQ(MediaDecoder::get_hw_format(ctx, offered), AV_PIX_FMT_CUDA);
    EXPECT_TRUE(log.contains("get_hw_format: cuda"));

    ctx->opaque = nullptr;
    avcodec_free_context(&ctx);
}

}  // namespace
