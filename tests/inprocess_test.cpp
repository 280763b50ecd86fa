// What only a decoder instance in this process shows: the trial of hardware candidates on a host
// without hardware (the decoder's seam hands out allocated, never initialised, devices and stands
// in for each candidate's decode; software always decodes for real), the surface-format pick, and
// a block that cannot be mapped.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "base/log.h"
#include "decoder/ffmpeg_protocol.h"
#include "decoder/media_decoder.h"
#include "support/support.h"

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

std::mutex freed_mutex;
Names freed_devices;

// One decoder instance on a memfd block, with this test as its client and its loop, the log in a
// file. The seam makes devices of every type but the refused ones; software decodes for real, the
// taker as told, the other candidates fail; every decode call is recorded by name.
class Decoder : public ::testing::Test {
  public:
    Decoder() {
        SvcLogFile(log_path.c_str());
        seam.create_device = [this](AVBufferRef** device, AVHWDeviceType type) {
            const char* name = av_hwdevice_get_type_name(type);
            if (refused.find(name) != std::string::npos ||
                (*device = av_hwdevice_ctx_alloc(type)) == nullptr) {
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
        seam.decode_context = [this](AVCodecContext* ctx, const std::function<int()>& real) {
            calls.push_back(context_name(ctx));
            const Act a = calls.back() == "sw"                     ? Act::kReal
                          : taker.empty() || taker == calls.back() ? act
                                                                   : Act::kFail;
            if (a == Act::kReal) {
                return real();
            }
            // The call's number in the pts tells which call answered.
            result() = {a == Act::kFail ? STATUS_FAILED : STATUS_NEED_MORE_DATA, 0, 0, 0,
                        int64_t(calls.size())};
            return a == Act::kFail ? AVERROR(EINVAL) : 0;
        };
        MediaDecoder::hw_seam = &seam;
        notify->set<Decoder, &Decoder::on_notify>(this);
        notify->start();
        decoder.reset(new MediaDecoder(notify, dup(fd), false));
        decoder->run();
    }
    ~Decoder() override {
        decoder->signal_quit();
        decoder.reset();
        notify->stop();
        munmap(block, SHM_BLOCK_SIZE);
        close(fd);
        MediaDecoder::hw_seam = nullptr;
        SvcLogFile(nullptr);
    }
    // The count, loaded with acquire, makes what the request wrote visible to race detectors too;
    // signals sent close together may also arrive as one.
    void on_notify(ev::async&, int) { done = decoder->completed_requests(); }
    // Waits for `count` more completions; false after `ms`.
    bool completions(int count = 1, int ms = 20000) {
        const uint64_t wanted = done + uint64_t(count);
        return wait_until(ms, [&] {
            loop.run(EVRUN_NOWAIT);
            return done >= wanted;
        });
    }
    bool request(const void* header, size_t size, const void* input = "", size_t n = 0) {
        if (n > 0) {  // an empty vector's data() may be null
            memcpy(block + SHM_INPUT_OFFSET, input, n);
        }
        memcpy(block, header, size);
        decoder->signal_request();
        return completions();
    }
    bool decode(const std::vector<uint8_t>& packet, int64_t pts = 0) {
        const ExchangeDataRequest r{REQUEST_DECODE_FRAME, 0, int32_t(packet.size()), 0, pts};
        return request(&r, sizeof(r), packet.data(), packet.size());
    }
    ExchangeResult& result() {
        return *reinterpret_cast<ExchangeResult*>(block + SHM_RESULT_OFFSET);
    }
    // A video setup with the clip's configuration bytes, to its own size in yuv420p.
    void init(const Clip& s) {
        const auto& i = s.info;
        ExchangeVideoInit r{};
        r.request_type = REQUEST_INIT_CODEC;
        r.media_type = MEDIA_TYPE_VIDEO;
        r.codec_index = s.codec_index();
        r.coded_width = r.out_width = i.width;
        r.coded_height = r.out_height = i.height;
        r.coded_pix_fmt = i.pix_fmt;
        r.config_size = int32_t(i.extradata.size());
        ASSERT_TRUE(request(&r, sizeof(r), i.extradata.data(), i.extradata.size()));
        ASSERT_EQ(result().status, STATUS_OK);
        calls.clear();
    }
    size_t count(const std::string& needle) const {
        return occurrences(read_file(log_path), needle);
    }
    Names candidates() {
        Names names;
        for (const auto& c : decoder->video_ctx->hw_codec_candidates) {
            names.push_back(context_name(c.get()));
        }
        return names;
    }
    std::string chosen() {
        const auto& ctx = decoder->video_ctx->hw_codec_ctx;
        return ctx ? context_name(ctx.get()) : "";
    }
    // Debian 11's FFmpeg 4.3 has no CUDA: a device type missing here leaves too few candidates.
    bool all_device_types() { return candidates().size() == std::size(HW_DEVICE_TYPES); }

    TempDir dir;
    const std::string log_path = dir.path + "/log";
    const Clip& h264 =
        clip("trial.mp4", "-f lavfi -i testsrc2=size=176x144 -frames:v 8 -c:v libx264");
    MediaDecoder::hw_seam_t seam;
    std::string refused, taker;  // taker: the candidate that does `act`; empty: every one
    Act act = Act::kReal;
    Names calls;  // touched by the worker only while the test waits for its completion
    int fd = make_memfd(SHM_BLOCK_SIZE);
    uint8_t* block = static_cast<uint8_t*>(
        mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ev::dynamic_loop loop;
    std::shared_ptr<ev::async> notify = std::make_shared<ev::async>(loop);
    std::unique_ptr<MediaDecoder> decoder;
    uint64_t done = 0;
};

Names without(Names names, const std::string& name) {
    names.erase(std::remove(names.begin(), names.end(), name), names.end());
    return names;
}

// Per packet: the candidate that does `act` (empty: every one), the decode calls it makes.
struct Packet {
    std::string taker;
    Act act;
    Names calls;
};

// Setup makes one candidate per device type in table order, with the configuration bytes; the
// first candidate to accept a packet, even without a picture, is chosen, decodes it again and
// answers; the ones behind it are never tried.
TEST_F(Decoder, FirstAcceptingCandidateIsChosen) {
    const Names all{"vdpau", "cuda", "vaapi"};
    const std::vector<std::tuple<std::string, std::vector<Packet>, std::string>> trials = {
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
    for (const auto& [refusing, packets, chosen_one] : trials) {
        SCOPED_TRACE("chosen " + chosen_one);
        refused = refusing;
        ASSERT_NO_FATAL_FAILURE(init(h264));
        if (refused.empty() && !all_device_types()) {
            GTEST_SKIP() << "this FFmpeg lacks a hardware device type";
        }
        EXPECT_EQ(candidates(), without(all, refused));
        for (const auto& c : decoder->video_ctx->hw_codec_candidates) {
            EXPECT_EQ(std::vector<uint8_t>(c->extradata, c->extradata + c->extradata_size),
                      h264.info.extradata);
        }
        for (size_t i = 0; i < packets.size(); ++i) {
            taker = packets[i].taker;
            act = packets[i].act;
            EXPECT_TRUE(decode(h264.packets[i].data, h264.packets[i].pts));
            EXPECT_EQ(calls, packets[i].calls) << "packet " << i;
            if (act != Act::kReal) {
                EXPECT_EQ(result().status,
                          act == Act::kFail ? STATUS_FAILED : STATUS_NEED_MORE_DATA);
                EXPECT_EQ(result().output_pts, int64_t(packets[i].calls.size()));
            }
            calls.clear();
        }
        EXPECT_EQ(chosen(), chosen_one);
        EXPECT_EQ(candidates(), without(without(all, refused), chosen_one));
    }
    EXPECT_EQ(count("failed to create specified HW device: "), 1u);
    EXPECT_EQ(count("failed to initialize HW decoder"), 1u);

    // Configuration bytes go to the software and the chosen context only; the candidates are
    // released in list order, then the chosen one.
    auto& state = *decoder->video_ctx;
    const int before = state.sw_codec_ctx->extradata_size;
    const char* nal = "\x00\x00\x00\x01\x09\xf0";
    const ExchangeDataRequest config{REQUEST_CODEC_CONFIG, 0, 6, 0, 0};
    ASSERT_TRUE(request(&config, sizeof(config), nal, 6));
    EXPECT_EQ(state.sw_codec_ctx->extradata_size, before + 6);
    ASSERT_EQ(state.hw_codec_ctx->extradata_size, before + 6);
    EXPECT_EQ(memcmp(state.hw_codec_ctx->extradata + before, nal, 6), 0);
    for (const auto& c : state.hw_codec_candidates) {
        EXPECT_EQ(c->extradata_size, before);
    }
    freed_devices.clear();
    const uint32_t destroy = REQUEST_DESTROY_CONTEXT;
    ASSERT_TRUE(request(&destroy, sizeof(destroy)));
    EXPECT_EQ(freed_devices, (Names{"vdpau", "vaapi", "cuda"}));
}

// get_hw_format picks the surface format of the context's device among those offered and needs
// the context's user data; a descriptor that cannot be mapped makes no valid instance.
TEST_F(Decoder, SurfaceFormatAndUnmappableBlock) {
    AVCodecContext* ctx = avcodec_alloc_context3(nullptr);
    const AVPixelFormat offered[] = {AV_PIX_FMT_VAAPI, AV_PIX_FMT_CUDA, AV_PIX_FMT_NONE};
    EXPECT_EQ(MediaDecoder::get_hw_format(ctx, offered), AV_PIX_FMT_NONE);
    MediaDecoder::hw_user_data_t data;
    ctx->opaque = &data;
    for (AVPixelFormat want : {AV_PIX_FMT_VDPAU, AV_PIX_FMT_CUDA}) {
        data.hw_pix_fmt = want;
        EXPECT_EQ(MediaDecoder::get_hw_format(ctx, offered),
                  want == AV_PIX_FMT_CUDA ? want : AV_PIX_FMT_NONE);
    }
    ctx->opaque = nullptr;
    avcodec_free_context(&ctx);
    EXPECT_EQ(count("failed to get user data from codec context"), 1u);
    EXPECT_EQ(count("failed to get HW surface format"), 1u);
    EXPECT_EQ(count("get_hw_format: cuda"), 1u);

    MediaDecoder unmappable(notify, -1, false);
    EXPECT_FALSE(unmappable.valid);
    EXPECT_EQ(count("map shared memory failed: [9] "), 1u);
}

}  // namespace
