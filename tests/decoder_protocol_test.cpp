// The request protocol of one decoder instance, driven in-process through a real exchange block:
// answers in the result area, which requests stop the worker, how request and quit signals
// coalesce, and construction on objects too small for the block.

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>

#include "support/decoder_harness.h"
#include "support/media_fixtures.h"

namespace {

const ExchangeResult kSentinel{7, 0, 1234, 0, 987654321};

void expect_result(const ExchangeResult& r, int32_t status, uint32_t size, int64_t pts) {
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(r.reserved, 0u);
    EXPECT_EQ(r.output_size, size);
    EXPECT_EQ(r.reserved2, 0u);
    EXPECT_EQ(r.output_pts, pts);
}

void expect_same(const ExchangeResult& r, const ExchangeResult& want) {
    EXPECT_EQ(0, memcmp(&r, &want, sizeof(r))) << "result area was written";
}

void expect_sentinel(const ExchangeResult& r) {
    expect_same(r, kSentinel);
}

const DemuxedStream& stream_of(const std::string& file, const std::string& args) {
    static std::map<std::string, DemuxedStream> streams;
    auto it = streams.find(file);
    if (it == streams.end()) {
        DemuxedStream s;
        std::string path = make_media(file, args);
        if (path.empty() || !demux_first_stream(path, false, &s)) {
            ADD_FAILURE() << "could not make " << file;
        }
        it = streams.emplace(file, std::move(s)).first;
    }
    return it->second;
}

const DemuxedStream& mp2() {
    return stream_of("tone.mp2",
                     "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=0.5 "
                     "-ac 2 -c:a mp2");
}

const DemuxedStream& vorbis() {
    return stream_of("tone.ogg",
                     "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=0.5 "
                     "-ac 2 -c:a libvorbis");
}

// Sets up an audio decoder for `s` (output S16, stereo, 44100) and expects it to succeed.
void init_audio(DecoderHarness& h, const DemuxedStream& s) {
    h.write_init(MEDIA_TYPE_AUDIO, static_cast<uint32_t>(audio_codec_index(s.codec_name)),
                 {s.sample_fmt, s.channels, s.sample_rate, static_cast<int32_t>(s.extradata.size()),
                  AV_SAMPLE_FMT_S16, 2, 44100},
                 s.extradata.data(), s.extradata.size());
    ASSERT_TRUE(h.request());
    expect_result(h.result(), STATUS_OK, 0, 0);
}

// Decodes packets from `first` on until one gives output; returns the index of that packet.
size_t decode_until_output(DecoderHarness& h, const DemuxedStream& s, size_t first = 0) {
    for (size_t i = first; i < s.packets.size(); ++i) {
        const auto& p = s.packets[i].data;
        h.write_decode(p.data(), static_cast<int32_t>(p.size()), 1000 * static_cast<int64_t>(i));
        EXPECT_TRUE(h.request());
        if (h.result().status == STATUS_OK) {
            return i;
        }
    }
    ADD_FAILURE() << "no output from " << s.codec_name;
    return s.packets.size();
}

// A later request signal must not be answered: the worker has ended.
void expect_worker_ended(DecoderHarness& h) {
    h.write_decode(nullptr, 0, 0);
    h.signal_request();
    EXPECT_FALSE(h.wait_completions(1, 300));
}

}  // namespace

TEST(DecoderRequests, InstanceWithoutDecoder) {
    LogCapture log;
    DecoderHarness h;

    // Decode before any init: all zero, whatever the size.
    for (int32_t size : {16, 0, -1}) {
        h.set_result(kSentinel);
        h.write_decode("garbage garbage!", size, 42);
        ASSERT_TRUE(h.request());
        expect_result(h.result(), 0, 0, 0);
    }
    EXPECT_EQ(log.count("decoder context not initialized!!"), 3u);

    // Flush, codec config and destroy touch nothing; reset only zeroes the result.
    h.set_result(kSentinel);
    for (uint32_t type : {REQUEST_FLUSH, REQUEST_DESTROY_CONTEXT}) {
        h.write_request_type(type);
        ASSERT_TRUE(h.request());
    }
    h.write_codec_config("abcd", 4);
    ASSERT_TRUE(h.request());
    expect_sentinel(h.result());
    h.write_reset(AV_SAMPLE_FMT_S16, 2, 48000);
    ASSERT_TRUE(h.request());
    expect_result(h.result(), 0, 0, 0);

    EXPECT_EQ(h.decoder().media_type, MEDIA_TYPE_NONE);
    EXPECT_FALSE(h.decoder().audio_ctx);
    EXPECT_FALSE(h.decoder().video_ctx);
    EXPECT_FALSE(log.contains("freeing"));
}

TEST(DecoderRequests, PacketSizeOutsideInputAreaFails) {
    LogCapture log;
    DecoderHarness h;
    ASSERT_NO_FATAL_FAILURE(init_audio(h, mp2()));

    const int32_t sizes[] = {0, -1, INT_MIN, static_cast<int32_t>(SHM_AREA_SIZE) + 1, INT_MAX};
    for (int32_t size : sizes) {
        h.set_result(kSentinel);
        h.write_decode(nullptr, size, 5);
        ASSERT_TRUE(h.request());
        expect_result(h.result(), STATUS_FAILED, 0, 0);
    }
    EXPECT_EQ(log.count("wrong packet size passed"), 5u);
    EXPECT_FALSE(log.contains("decoding audio frame"));

    // The worker keeps serving and the decoder was never fed.
    EXPECT_EQ(decode_until_output(h, mp2()), 0u);
}

struct StopCase {
    const char* name;
    std::function<void(DecoderHarness&)> write;
    const char* log_line;
    int32_t media_type_after;
};

void PrintTo(const StopCase& c, std::ostream* os) {
    *os << c.name;
}

class DecoderStop : public ::testing::TestWithParam<StopCase> {};

// Each of these is answered (completion, result area untouched) and then ends the worker.
TEST_P(DecoderStop, AnswersThenEnds) {
    const StopCase& c = GetParam();
    LogCapture log;
    DecoderHarness h;
    h.set_result(kSentinel);
    c.write(h);
    ASSERT_TRUE(h.request());
    expect_sentinel(h.result());
    EXPECT_TRUE(log.contains(c.log_line)) << log.text();
    EXPECT_EQ(h.decoder().media_type, c.media_type_after);
    expect_worker_ended(h);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, DecoderStop,
    ::testing::Values(
        StopCase{"UnknownRequest", [](DecoderHarness& h) { h.write_request_type(6); },
                 "unknown client request type, stop further processing", MEDIA_TYPE_NONE},
        StopCase{"UnknownVideoCodec",
                 [](DecoderHarness& h) {
                     h.write_init(MEDIA_TYPE_VIDEO, 11, {64, 64, 0, 0, 64, 64, 0});
                 },
                 "unknown video codec specified", MEDIA_TYPE_VIDEO},
        StopCase{"UnknownAudioCodec",
                 [](DecoderHarness& h) {
                     h.write_init(MEDIA_TYPE_AUDIO, 12, {AV_SAMPLE_FMT_FLTP, 2, 44100, 0, 1, 2, 0});
                 },
                 "unknown audio codec specified", MEDIA_TYPE_AUDIO},
        StopCase{"UnknownMediaType",
                 [](DecoderHarness& h) {
                     h.write_init(2, 0, {0, 0, 0, 0, 0, 0, 0});
                 },
                 "unknown media type specified, initialization failed", MEDIA_TYPE_NONE}),
    [](const ::testing::TestParamInfo<StopCase>& info) { return std::string(info.param.name); });

// A failed setup answers status -1 and ends the worker; the old state's release and the new
// attempt's objects are logged, and the old packet and frame are kept until the instance goes.
TEST(DecoderRequests, FailedSetupAnswersFailureThenEnds) {
    LogCapture log;
    {
        DecoderHarness h;
        ASSERT_NO_FATAL_FAILURE(init_audio(h, mp2()));
        decode_until_output(h, mp2());
        // A configuration size beyond the input area.
        const DemuxedStream& s = mp2();
        h.write_init(MEDIA_TYPE_AUDIO, static_cast<uint32_t>(audio_codec_index(s.codec_name)),
                     {s.sample_fmt, s.channels, s.sample_rate,
                      static_cast<int32_t>(SHM_AREA_SIZE) + 1, AV_SAMPLE_FMT_S16, 2, 44100});
        ASSERT_TRUE(h.request());
        expect_result(h.result(), STATUS_FAILED, 0, 0);
        EXPECT_TRUE(h.decoder().audio_ctx);
        EXPECT_FALSE(h.decoder().audio_ctx->codec_ctx);
        EXPECT_EQ(log.count("freeing audio decoder context"), 2u);  // old state, new attempt
        const std::string text = log.text();
        const size_t second = text.rfind("init audio codec context");
        EXPECT_LT(text.find("freeing SW resample context", second),
                  text.find("freeing audio decoder context", second));
        EXPECT_FALSE(log.contains("freeing audio packet"));
        expect_worker_ended(h);
    }
    EXPECT_EQ(log.count("freeing audio packet"), 1u);
    EXPECT_EQ(log.count("freeing audio frame"), 1u);
}

TEST(DecoderRequests, FlushAndCodecConfigKeepTheResult) {
    LogCapture log;
    DecoderHarness h;
    const DemuxedStream& s = mp2();
    ASSERT_NO_FATAL_FAILURE(init_audio(h, s));
    size_t i = decode_until_output(h, s);
    const ExchangeResult decoded = h.result();
    ASSERT_GT(decoded.output_size, 0u);

    h.write_request_type(REQUEST_FLUSH);
    ASSERT_TRUE(h.request());
    EXPECT_TRUE(log.contains("flush decoder"));
    expect_same(h.result(), decoded);

    AVCodecContext* ctx = h.decoder().audio_ctx->codec_ctx.get();
    ASSERT_EQ(ctx->extradata_size, 0);
    // Sizes of 0 or less, or beyond the input area, change nothing.
    for (int32_t size : {0, -4, static_cast<int32_t>(SHM_AREA_SIZE) + 1}) {
        h.write_codec_config(nullptr, size);
        ASSERT_TRUE(h.request());
        EXPECT_EQ(ctx->extradata_size, 0);
    }
    h.write_codec_config("\x11\x22\x33", 3);
    ASSERT_TRUE(h.request());
    h.write_codec_config("\x44", 1);
    ASSERT_TRUE(h.request());
    ASSERT_EQ(ctx->extradata_size, 4);
    const uint8_t want[4] = {0x11, 0x22, 0x33, 0x44};
    EXPECT_EQ(0, memcmp(ctx->extradata, want, 4));
    for (int k = 0; k < AV_INPUT_BUFFER_PADDING_SIZE; ++k) {
        ASSERT_EQ(ctx->extradata[4 + k], 0) << k;
    }
    expect_same(h.result(), decoded);

    // Still decoding after all that.
    EXPECT_LT(decode_until_output(h, s, i + 1), s.packets.size());
}

// After destroy, a decode is answered "not initialized" with an all-zero result; but while a video
// state from an earlier init is still held, nothing at all is written (no media type is in use)
// and the released packet is not touched. Either way the worker goes on serving.
TEST(DecoderRequests, DestroyThenDecode) {
    for (bool video_held : {false, true}) {
        SCOPED_TRACE(video_held ? "video state held" : "no state held");
        LogCapture log;
        DecoderHarness h;
        if (video_held) {
            h.write_init(MEDIA_TYPE_VIDEO, 0, {64, 64, AV_PIX_FMT_YUV420P, 0, 64, 64, 0});
            ASSERT_TRUE(h.request());
        }
        ASSERT_NO_FATAL_FAILURE(init_audio(h, mp2()));
        decode_until_output(h, mp2());

        h.set_result(kSentinel);
        h.write_request_type(REQUEST_DESTROY_CONTEXT);
        ASSERT_TRUE(h.request());
        expect_sentinel(h.result());
        EXPECT_EQ(h.decoder().media_type, MEDIA_TYPE_NONE);
        EXPECT_FALSE(h.decoder().audio_ctx);
        EXPECT_EQ(static_cast<bool>(h.decoder().video_ctx), video_held);
        const std::string text = log.text();
        const size_t destroy = text.find("destroy context");
        const size_t resampler = text.find("freeing SW resample context", destroy);
        const size_t context = text.find("freeing audio decoder context", destroy);
        const size_t frame = text.find("freeing audio frame", destroy);
        const size_t packet = text.find("freeing audio packet", destroy);
        ASSERT_NE(packet, std::string::npos) << text;
        EXPECT_LT(resampler, context);
        EXPECT_LT(context, frame);
        EXPECT_LT(frame, packet);

        const auto& p = mp2().packets[0].data;
        h.write_decode(p.data(), static_cast<int32_t>(p.size()), 9);
        ASSERT_TRUE(h.request());
        if (video_held) {
            expect_sentinel(h.result());
        } else {
            expect_result(h.result(), 0, 0, 0);
        }
        EXPECT_EQ(log.count("decoder context not initialized!!"), video_held ? 0u : 1u);

        // A new init is served.
        ASSERT_NO_FATAL_FAILURE(init_audio(h, mp2()));
    }
}

// Reset keeps the codec and the last decoded input format. Without the configuration bytes a
// Vorbis decoder cannot be opened again: the instance keeps serving without a decoder.
TEST(DecoderRequests, ResetWhoseSetupFailsLeavesNoDecoder) {
    LogCapture log;
    DecoderHarness h;
    const DemuxedStream& s = vorbis();
    ASSERT_NO_FATAL_FAILURE(init_audio(h, s));
    size_t i = decode_until_output(h, s);

    h.write_reset(AV_SAMPLE_FMT_FLT, 1, 22050);
    ASSERT_TRUE(h.request());
    expect_result(h.result(), 0, 0, 0);
    EXPECT_TRUE(log.contains("audio decoder open failed"));
    ASSERT_TRUE(h.decoder().audio_ctx);
    EXPECT_FALSE(h.decoder().audio_ctx->codec_ctx);

    const auto& p = s.packets[i + 1].data;
    h.write_decode(p.data(), static_cast<int32_t>(p.size()), 1);
    h.set_result(kSentinel);
    ASSERT_TRUE(h.request());
    expect_result(h.result(), 0, 0, 0);
    EXPECT_EQ(log.count("decoder context not initialized!!"), 1u);

    // Nothing else trips over the missing context.
    h.write_request_type(REQUEST_FLUSH);
    ASSERT_TRUE(h.request());
    h.write_codec_config("abc", 3);
    ASSERT_TRUE(h.request());
    h.write_reset(AV_SAMPLE_FMT_S16, 2, 44100);
    ASSERT_TRUE(h.request());
    expect_result(h.result(), 0, 0, 0);
    h.write_decode(p.data(), static_cast<int32_t>(p.size()), 1);
    ASSERT_TRUE(h.request());
    EXPECT_EQ(log.count("decoder context not initialized!!"), 2u);
}

// An output format the resampler refuses makes the reset succeed but every decode fail; the
// worker keeps serving and a further reset repairs it.
TEST(DecoderRequests, ResetToInvalidOutputFormatFailsDecodes) {
    LogCapture log;
    DecoderHarness h;
    const DemuxedStream& s = mp2();
    ASSERT_NO_FATAL_FAILURE(init_audio(h, s));
    size_t i = decode_until_output(h, s);

    h.write_reset(1000, 2, 44100);
    ASSERT_TRUE(h.request());
    expect_result(h.result(), 0, 0, 0);
    for (size_t k = i + 1; k < i + 3; ++k) {
        const auto& p = s.packets[k].data;
        h.write_decode(p.data(), static_cast<int32_t>(p.size()), 1);
        ASSERT_TRUE(h.request());
        expect_result(h.result(), STATUS_FAILED, 0, 0);
    }
    EXPECT_EQ(log.count("resample context init failed"), 2u);

    h.write_reset(AV_SAMPLE_FMT_S16, 2, 44100);
    ASSERT_TRUE(h.request());
    EXPECT_LT(decode_until_output(h, s, i + 3), s.packets.size());
}

// --- Signals ---------------------------------------------------------------------------------

namespace {

// Holds the worker inside each decode, through the decoder's video test seam, until the test lets
// that decode go on. Completions are ev::async sends, which coalesce: a test lets one decode go
// at a time and waits for its completion before the next.
class DecodeGate {
  public:
    DecodeGate() {
        seam_.create_device = [](AVBufferRef**, AVHWDeviceType) { return AVERROR(ENODEV); };
        seam_.decode_context = [this](AVCodecContext*, const std::function<int()>& real) {
            std::unique_lock<std::mutex> lock(mutex_);
            ++entered_;
            cond_.notify_all();
            cond_.wait_for(lock, std::chrono::seconds(30), [this] { return permits_ > 0; });
            --permits_;
            lock.unlock();
            return real();
        };
        MediaDecoder::hw_seam = &seam_;
    }
    ~DecodeGate() {
        release(1000);
        MediaDecoder::hw_seam = nullptr;
    }
    bool wait_entered(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, std::chrono::seconds(20),
                              [this, count] { return entered_ >= count; });
    }
    int entered() {
        std::lock_guard<std::mutex> lock(mutex_);
        return entered_;
    }
    void release(int count) {
        std::lock_guard<std::mutex> lock(mutex_);
        permits_ += count;
        cond_.notify_all();
    }

  private:
    MediaDecoder::hw_seam_t seam_;
    std::mutex mutex_;
    std::condition_variable cond_;
    int entered_ = 0;
    int permits_ = 0;
};

void init_software_video(DecoderHarness& h) {
    h.write_init(MEDIA_TYPE_VIDEO, 0, {64, 64, AV_PIX_FMT_YUV420P, 0, 64, 64, AV_PIX_FMT_YUV420P});
    ASSERT_TRUE(h.request());
    expect_result(h.result(), STATUS_OK, 0, 0);
}

}  // namespace

// Request signals that arrive while a request runs merge into one more run of the header.
TEST(DecoderSignals, RequestSignalsDuringRequestRunItOnceMore) {
    LogCapture log;
    DecodeGate gate;
    DecoderHarness h;
    ASSERT_NO_FATAL_FAILURE(init_software_video(h));
    h.write_decode("not a picture", 13, 0);
    h.signal_request();
    ASSERT_TRUE(gate.wait_entered(1));
    h.signal_request();
    h.signal_request();
    gate.release(1);
    EXPECT_TRUE(h.wait_completions(1, 20000));
    ASSERT_TRUE(gate.wait_entered(2));
    gate.release(1);
    EXPECT_TRUE(h.wait_completions(1, 20000));
    EXPECT_FALSE(h.wait_completions(1, 300));
    EXPECT_EQ(gate.entered(), 2);
    EXPECT_EQ(log.count("decode frame"), 2u);
}

TEST(DecoderSignals, QuitDuringRequestLetsItFinish) {
    LogCapture log;
    DecodeGate gate;
    DecoderHarness h;
    ASSERT_NO_FATAL_FAILURE(init_software_video(h));
    h.set_result(kSentinel);
    h.write_decode("not a picture", 13, 0);
    h.signal_request();
    ASSERT_TRUE(gate.wait_entered(1));
    h.signal_quit();
    gate.release(1);
    // The running request completes and answers; the quit's request flag runs nothing more.
    EXPECT_TRUE(h.wait_completions(1, 20000));
    expect_result(h.result(), STATUS_FAILED, 0, 0);
    EXPECT_FALSE(h.wait_completions(1, 300));
    EXPECT_EQ(log.count("decode frame"), 1u);
}

// --- Construction ----------------------------------------------------------------------------

TEST(DecoderConstruction, RefusesObjectsThatCannotHoldTheBlock) {
    LogCapture log;
    std::weak_ptr<ev::async> none;
    for (off_t size : {off_t(0), off_t(4096), static_cast<off_t>(SHM_BLOCK_SIZE) - 1}) {
        int fd = memfd_create("small-block", MFD_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, size), 0);
        MediaDecoder decoder(none, fd, false);
        EXPECT_FALSE(decoder.valid) << size;
    }
    // A POSIX shared memory object, as a client registers one by name.
    {
        const std::string name = "/svc-protocol-test-" + std::to_string(getpid());
        int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        ASSERT_GE(fd, 0);
        shm_unlink(name.c_str());
        ASSERT_EQ(ftruncate(fd, SHM_BLOCK_SIZE / 2), 0);
        MediaDecoder decoder(none, fd, false);
        EXPECT_FALSE(decoder.valid);
    }
    EXPECT_EQ(log.count("shared memory too small"), 4u);

    // Not a mappable descriptor at all.
    {
        MediaDecoder decoder(none, -1, false);
        EXPECT_FALSE(decoder.valid);
        EXPECT_TRUE(log.contains("map shared memory failed: [9] "));
    }
    // A memfd is no ashmem region: the driver's size request fails and nothing is mapped.
    {
        int fd = memfd_create("not-ashmem", MFD_CLOEXEC);
        ASSERT_EQ(ftruncate(fd, SHM_BLOCK_SIZE), 0);
        MediaDecoder decoder(none, fd, true);
        EXPECT_FALSE(decoder.valid);
        EXPECT_TRUE(log.contains("failed mapping android shared memory"));
    }
    // An object of exactly the block size is accepted.
    int fd = memfd_create("block", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(fd, SHM_BLOCK_SIZE), 0);
    MediaDecoder decoder(none, fd, false);
    EXPECT_TRUE(decoder.valid);
}
