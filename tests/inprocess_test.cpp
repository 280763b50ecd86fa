// What only a decoder instance in this process shows: the trial of hardware candidates on a host
// without hardware (the decoder's seam hands out allocated, never initialised, devices and stands
// in for each candidate's decode; software always decodes for real), and how request and quit
// signals meet a running request.

#include <sys/mman.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <ev++.h>
#include <gtest/gtest.h>

#include "base/log.h"
#include "decoder/ffmpeg_protocol.h"
#include "decoder/media_decoder.h"
#include "support/support.h"

namespace {

using Names = std::vector<std::string>;

// One decoder instance on a memfd block, with this test as its client and its loop.
class Instance {
  public:
    Instance() {
        fd_ = make_memfd(SHM_BLOCK_SIZE);
        block = static_cast<uint8_t*>(
            mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
        notify_ = std::make_shared<ev::async>(loop_);
        notify_->set<Instance, &Instance::on_notify>(this);
        notify_->start();
        decoder.reset(new MediaDecoder(notify_, dup(fd_), false));
        decoder->run();
    }
    ~Instance() {
        decoder->signal_quit();
        decoder.reset();
        notify_->stop();
        munmap(block, SHM_BLOCK_SIZE);
        close(fd_);
    }
    // Waits for `count` more completions; false after `seconds`.
    bool completions(int count = 1, double seconds = 20) {
        const int wanted = done_ + count;
        ev::timer timeout(loop_);
        timeout.set<Instance, &Instance::on_timeout>(this);
        timeout.start(seconds, 0);
        timed_out_ = false;
        while (done_ < wanted && !timed_out_) {
            loop_.run(EVRUN_ONCE);
        }
        return done_ >= wanted;
    }
    bool request(const void* header, size_t size) {
        memcpy(block, header, size);
        decoder->signal_request();
        return completions();
    }
    bool decode(const std::vector<uint8_t>& packet, int64_t pts) {
        memcpy(block + SHM_INPUT_OFFSET, packet.data(), packet.size());
        const ExchangeDataRequest r{REQUEST_DECODE_FRAME, 0, int32_t(packet.size()), 0, pts};
        return request(&r, sizeof(r));
    }
    ExchangeResult result() const {
        ExchangeResult r;
        memcpy(&r, block + SHM_RESULT_OFFSET, sizeof(r));
        return r;
    }
    void set_result(const ExchangeResult& r) { memcpy(block + SHM_RESULT_OFFSET, &r, sizeof(r)); }

    uint8_t* block = nullptr;
    std::unique_ptr<MediaDecoder> decoder;

  private:
    void on_notify(ev::async&, int) { ++done_; }
    void on_timeout(ev::timer&, int) { timed_out_ = true; }
    int fd_ = -1;
    ev::dynamic_loop loop_;
    std::shared_ptr<ev::async> notify_;
    int done_ = 0;
    bool timed_out_ = false;
};

// The process-wide log in a file for the lifetime of the object.
struct LogCapture {
    LogCapture() { SvcLogFile(path.c_str()); }
    ~LogCapture() { SvcLogFile(nullptr); }
    std::string text() const { return read_file(path); }
    size_t count(const std::string& needle) const {
        size_t n = 0;
        const std::string t = text();
        for (size_t at = t.find(needle); at != std::string::npos; at = t.find(needle, at + 1)) {
            ++n;
        }
        return n;
    }
    TempDir dir;
    std::string path = dir.path + "/log";
};

std::string context_name(const AVCodecContext* ctx) {
    return ctx->hw_device_ctx == nullptr
               ? "sw"
               : av_hwdevice_get_type_name(
                     reinterpret_cast<const AVHWDeviceContext*>(ctx->hw_device_ctx->data)->type);
}

// What a candidate's stand-in decode does with a packet.
enum class Act { kReal, kFail, kNeedMore };

std::mutex freed_mutex;
Names freed_devices;

// The seam for the lifetime of a test: devices of every type but the refused ones, decodes as
// the script says, every decode call recorded by context name.
struct FakeHardware {
    explicit FakeHardware(Instance& in) {
        seam.create_device = [this](AVBufferRef** device, AVHWDeviceType type) {
            const char* name = av_hwdevice_get_type_name(type);
            if (refused == name || (*device = av_hwdevice_ctx_alloc(type)) == nullptr) {
                return AVERROR(ENODEV);
            }
            auto* ctx = reinterpret_cast<AVHWDeviceContext*>((*device)->data);
            ctx->user_opaque = const_cast<char*>(name);
            ctx->free = [](AVHWDeviceContext* d) {
                std::lock_guard<std::mutex> lock(freed_mutex);
                freed_devices.push_back(static_cast<const char*>(d->user_opaque));
            };
            return 0;
        };
        seam.decode_context = [this, &in](AVCodecContext* ctx, const std::function<int()>& real) {
            calls.push_back(context_name(ctx));
            switch (script ? script(calls.back()) : Act::kReal) {
                case Act::kReal:
                    return real();
                case Act::kFail:
                    in.set_result({STATUS_FAILED, 0, 0, 0, 0});
                    return AVERROR(EINVAL);
                case Act::kNeedMore:  // the call's number in the pts tells which call answered
                    in.set_result({STATUS_NEED_MORE_DATA, 0, 0, 0, int64_t(calls.size())});
                    return 0;
            }
            return AVERROR_BUG;
        };
        MediaDecoder::hw_seam = &seam;
        freed_devices.clear();
    }
    ~FakeHardware() { MediaDecoder::hw_seam = nullptr; }
    Names take_calls() { return std::move(calls); }

    MediaDecoder::hw_seam_t seam;
    std::string refused;
    std::function<Act(const std::string&)> script;
    Names calls;  // touched by the worker only while the test waits for its completion
};

class HwTrial : public ::testing::Test {
  public:
    void SetUp() override {
        for (const char* name : HW_DEVICE_TYPES) {
            AVBufferRef* device = av_hwdevice_ctx_alloc(av_hwdevice_find_type_by_name(name));
            if (device == nullptr) {  // Debian 11's FFmpeg 4.3 has no CUDA
                GTEST_SKIP() << "this FFmpeg has no " << name << " device support";
            }
            av_buffer_unref(&device);
        }
    }
    void init(const Clip& s, int32_t config_size = -1) {
        memcpy(in.block + SHM_INPUT_OFFSET, s.info.extradata.data(), s.info.extradata.size());
        const ExchangeVideoInit r{REQUEST_INIT_CODEC,
                                  MEDIA_TYPE_VIDEO,
                                  s.codec_index(),
                                  s.info.width,
                                  s.info.height,
                                  s.info.pix_fmt,
                                  config_size < 0 ? int32_t(s.info.extradata.size()) : config_size,
                                  176,
                                  144,
                                  0};
        ASSERT_TRUE(in.request(&r, sizeof(r)));
        ASSERT_EQ(in.result().status, STATUS_OK);
        hw.take_calls();
    }
    Names decode(size_t i) {
        EXPECT_TRUE(in.decode(h264().packets[i].data, h264().packets[i].pts));
        return hw.take_calls();
    }
    Names candidates() {
        Names names;
        for (const auto& c : in.decoder->video_ctx->hw_codec_candidates) {
            names.push_back(context_name(c.get()));
        }
        return names;
    }
    std::string chosen() {
        const auto& ctx = in.decoder->video_ctx->hw_codec_ctx;
        return ctx ? context_name(ctx.get()) : "";
    }
    static const Clip& h264() {
        return clip("trial.mp4", "-f lavfi -i testsrc2=size=176x144 -frames:v 8 -c:v libx264");
    }

    LogCapture log;
    Instance in;
    FakeHardware hw{in};
};

// One candidate per device type, in table order, each with its own copy of the configuration
// bytes; a device that cannot be created drops its candidate and keeps the others in order.
TEST_F(HwTrial, SetupMakesOneCandidatePerDeviceType) {
    ASSERT_NO_FATAL_FAILURE(init(h264()));
    EXPECT_EQ(candidates(), (Names{"vdpau", "cuda", "vaapi"}));
    const size_t n = h264().info.extradata.size();
    std::vector<const AVCodecContext*> all{in.decoder->video_ctx->sw_codec_ctx.get()};
    for (const auto& c : in.decoder->video_ctx->hw_codec_candidates) {
        all.push_back(c.get());
        EXPECT_EQ(
            static_cast<MediaDecoder::hw_user_data_t*>(c->opaque)->hw_pix_fmt,
            hw_surface_format(c->codec,
                              reinterpret_cast<AVHWDeviceContext*>(c->hw_device_ctx->data)->type));
    }
    std::set<const uint8_t*> copies;
    for (const AVCodecContext* c : all) {
        ASSERT_EQ(c->extradata_size, int(n));
        EXPECT_EQ(memcmp(c->extradata, h264().info.extradata.data(), n), 0);
        copies.insert(c->extradata);
    }
    EXPECT_EQ(copies.size(), all.size());
    hw.refused = "cuda";
    ASSERT_NO_FATAL_FAILURE(init(h264()));
    EXPECT_EQ(candidates(), (Names{"vdpau", "vaapi"}));
    EXPECT_EQ(log.count("failed to create specified HW device: "), 1u);
    EXPECT_EQ(log.count("failed to initialize HW decoder"), 1u);
}

// A script of decodes: what the candidates do, which calls the packet makes, and the choice.
struct Trial {
    const char* name;
    std::vector<std::function<Act(const std::string&)>> scripts;  // one per packet
    std::vector<Names> calls;                                     // one per packet
    std::string chosen;
    Names left;
    int32_t last_status;
};

class Trials : public HwTrial, public ::testing::WithParamInterface<Trial> {};

TEST_P(Trials, ChooseTheFirstAcceptingCandidate) {
    const Trial& t = GetParam();
    ASSERT_NO_FATAL_FAILURE(init(h264()));
    for (size_t i = 0; i < t.scripts.size(); ++i) {
        hw.script = t.scripts[i];
        EXPECT_EQ(decode(i), t.calls[i]) << "packet " << i;
    }
    EXPECT_EQ(chosen(), t.chosen);
    EXPECT_EQ(candidates(), t.left);
    EXPECT_EQ(in.result().status, t.last_status);
}

Act fail_but(const std::string& ctx, const char* ok, Act act) {
    return ctx == ok ? act : Act::kFail;
}

const Names kAll{"vdpau", "cuda", "vaapi"};

INSTANTIATE_TEST_SUITE_P(
    HwTrial, Trials,
    ::testing::Values(
        // Even without a picture the first accepting candidate is chosen and decodes the packet
        // again; the ones behind it are never tried.
        Trial{"NeedMoreDataChooses",
              {[](auto&) { return Act::kNeedMore; }},
              {{"vdpau", "vdpau"}},
              "vdpau",
              {"cuda", "vaapi"},
              STATUS_NEED_MORE_DATA},
        Trial{"SecondAccepts",
              {[](auto& c) { return fail_but(c, "cuda", Act::kNeedMore); },
               [](auto&) { return Act::kNeedMore; }},
              {{"vdpau", "cuda", "cuda"}, {"cuda"}},
              "cuda",
              {"vdpau", "vaapi"},
              STATUS_NEED_MORE_DATA},
        // While every candidate fails, software decodes, and each packet tries them again.
        Trial{"SoftwareWhileAllFail",
              {[](auto& c) { return fail_but(c, "sw", Act::kReal); },
               [](auto& c) { return fail_but(c, "sw", Act::kReal); },
               [](auto& c) { return fail_but(c, "vaapi", Act::kNeedMore); }},
              {{"vdpau", "cuda", "vaapi", "sw"},
               {"vdpau", "cuda", "vaapi", "sw"},
               {"vdpau", "cuda", "vaapi", "vaapi"}},
              "vaapi",
              {"vdpau", "cuda"},
              STATUS_NEED_MORE_DATA},
        // Once chosen, a context that fails a packet fails that request alone: no fallback.
        Trial{"ChosenFailsAlone",
              {[](auto&) { return Act::kNeedMore; }, [](auto&) { return Act::kFail; }},
              {{"vdpau", "vdpau"}, {"vdpau"}},
              "vdpau",
              {"cuda", "vaapi"},
              STATUS_FAILED}),
    [](const ::testing::TestParamInfo<Trial>& info) { return std::string(info.param.name); });

// The second pass answers, not the trial; configuration bytes go to the software and the chosen
// context only; the candidates are released in list order, then the chosen one.
TEST_F(HwTrial, ChosenContextTakesConfigurationAndIsReleasedLast) {
    ASSERT_NO_FATAL_FAILURE(init(h264()));
    hw.script = [](const std::string& c) { return fail_but(c, "cuda", Act::kNeedMore); };
    decode(0);
    EXPECT_EQ(in.result().output_pts, 3);
    auto& state = *in.decoder->video_ctx;
    const int before = state.sw_codec_ctx->extradata_size;
    memcpy(in.block + SHM_INPUT_OFFSET, "\x00\x00\x00\x01\x09\xf0", 6);
    const ExchangeDataRequest config{REQUEST_CODEC_CONFIG, 0, 6, 0, 0};
    ASSERT_TRUE(in.request(&config, sizeof(config)));
    EXPECT_EQ(state.sw_codec_ctx->extradata_size, before + 6);
    EXPECT_EQ(state.hw_codec_ctx->extradata_size, before + 6);
    EXPECT_EQ(memcmp(state.hw_codec_ctx->extradata + before, "\x00\x00\x00\x01\x09\xf0", 6), 0);
    for (const auto& c : state.hw_codec_candidates) {
        EXPECT_EQ(c->extradata_size, before);
    }
    const uint32_t destroy = REQUEST_DESTROY_CONTEXT;
    ASSERT_TRUE(in.request(&destroy, sizeof(destroy)));
    EXPECT_EQ(freed_devices, (Names{"vdpau", "vaapi", "cuda"}));
}

// A decoder without a hardware configuration for a device type still gets that candidate; it
// fails in get_hw_format whenever it decodes, for real, and allocates no temporary frame.
TEST_F(HwTrial, CandidateWithoutSurfaceFormatFailsForReal) {
    const Clip& vp8 =
        clip("trial.webm", "-f lavfi -i testsrc2=size=176x144 -frames:v 4 -c:v libvpx");
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_VP8);
    std::string missing;
    for (const char* type : HW_DEVICE_TYPES) {
        if (missing.empty() &&
            hw_surface_format(codec, av_hwdevice_find_type_by_name(type)) == AV_PIX_FMT_NONE) {
            missing = type;
        }
    }
    if (missing.empty() || !have_encoder("libvpx")) {
        GTEST_SKIP() << "no VP8 encoder, or every hardware configuration for VP8";
    }
    ASSERT_NO_FATAL_FAILURE(init(vp8));
    EXPECT_EQ(log.count("decoder vp8 does not support device type " + missing), 1u);
    hw.script = [missing](const std::string& c) {
        return c == "sw" || c == missing ? Act::kReal : Act::kFail;
    };
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(in.decode(vp8.packets[i].data, 0));
        EXPECT_EQ(hw.take_calls(), (Names{"vdpau", "cuda", "vaapi", "sw"}));
    }
    EXPECT_EQ(log.count("failed to get HW surface format"), 3u);
    EXPECT_EQ(chosen(), "");
    EXPECT_EQ(log.count("freeing temp SW frame"),
              log.count("decoding video frame") - log.count("error sending a packet for decoding"));
}

// Holds the worker inside each software decode until the test lets it go on.
struct Gate : FakeHardware {
    explicit Gate(Instance& in) : FakeHardware(in) {
        seam.create_device = [](AVBufferRef**, AVHWDeviceType) { return AVERROR(ENODEV); };
        seam.decode_context = [this](AVCodecContext*, const std::function<int()>& real) {
            std::unique_lock<std::mutex> lock(mutex);
            ++entered;
            cond.notify_all();
            cond.wait_for(lock, std::chrono::seconds(30), [this] { return permits > 0; });
            --permits;
            lock.unlock();
            return real();
        };
    }
    bool wait_entered(int n) {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, std::chrono::seconds(20), [&] { return entered >= n; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        ++permits;
        cond.notify_all();
    }
    std::mutex mutex;
    std::condition_variable cond;
    int entered = 0, permits = 0;
};

// Request signals during a running request merge into one more run of the header; a quit signal
// lets the running request finish and answer, and nothing runs after it.
TEST(Signals, DuringARunningRequest) {
    for (bool quit : {false, true}) {
        SCOPED_TRACE(quit ? "quit" : "two requests");
        LogCapture log;
        Instance in;
        Gate gate(in);
        const Clip& s = HwTrial::h264();
        const ExchangeVideoInit init{
            REQUEST_INIT_CODEC, MEDIA_TYPE_VIDEO, s.codec_index(), 64, 64, 0, 0, 64, 64, 0};
        ASSERT_TRUE(in.request(&init, sizeof(init)));
        const ExchangeDataRequest decode{REQUEST_DECODE_FRAME, 0, 13, 0, 0};
        memcpy(in.block, &decode, sizeof(decode));
        in.decoder->signal_request();
        ASSERT_TRUE(gate.wait_entered(1));
        if (quit) {
            in.decoder->signal_quit();
        } else {
            in.decoder->signal_request();
            in.decoder->signal_request();
        }
        gate.release();
        EXPECT_TRUE(in.completions());
        EXPECT_EQ(in.result().status, STATUS_FAILED);
        if (!quit) {
            ASSERT_TRUE(gate.wait_entered(2));
            gate.release();
            EXPECT_TRUE(in.completions());
        }
        EXPECT_FALSE(in.completions(1, 0.3));
        EXPECT_EQ(gate.entered, quit ? 1 : 2);
        EXPECT_EQ(log.count("decode frame"), quit ? 1u : 2u);
    }
}

// get_hw_format picks the surface format of the context's device among those offered.
TEST(HwFormat, PicksTheDeviceSurfaceFormat) {
    LogCapture log;
    AVCodecContext* ctx = avcodec_alloc_context3(nullptr);
    const AVPixelFormat offered[] = {AV_PIX_FMT_VAAPI, AV_PIX_FMT_CUDA, AV_PIX_FMT_YUV420P,
                                     AV_PIX_FMT_NONE};
    EXPECT_EQ(MediaDecoder::get_hw_format(ctx, offered), AV_PIX_FMT_NONE);
    EXPECT_EQ(log.count("failed to get user data from codec context"), 1u);
    MediaDecoder::hw_user_data_t data;
    ctx->opaque = &data;
    for (AVPixelFormat want : {AV_PIX_FMT_NONE, AV_PIX_FMT_VDPAU, AV_PIX_FMT_CUDA}) {
        data.hw_pix_fmt = want;
        EXPECT_EQ(MediaDecoder::get_hw_format(ctx, offered),
                  want == AV_PIX_FMT_CUDA ? want : AV_PIX_FMT_NONE);
    }
    EXPECT_EQ(log.count("failed to get HW surface format"), 2u);
    EXPECT_EQ(log.count("get_hw_format: cuda"), 1u);
    ctx->opaque = nullptr;
    avcodec_free_context(&ctx);
}

}  // namespace
