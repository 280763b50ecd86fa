// Audio decoding through one decoder instance, against real media made with the ffmpeg command
// line: every packet's result and output bytes must match an independent in-process model
// (support/audio_reference), and garbage must never stop the worker.

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <map>
#include <random>

#include "support/audio_reference.h"
#include "support/decoder_harness.h"
#include "support/media_fixtures.h"

namespace {

const char kStereo44k[] =
    "-f lavfi -i 'aevalsrc=0.6*sin(440*2*PI*t)|0.4*sin(660*2*PI*t)+0.1*sin(3000*2*PI*t):s=44100:"
    "d=1'";
const char kStereo48k[] =
    "-f lavfi -i 'aevalsrc=0.6*sin(440*2*PI*t)|0.4*sin(660*2*PI*t)+0.1*sin(3000*2*PI*t):s=48000:"
    "d=1'";
const char kSurround48k[] =
    "-f lavfi -i 'aevalsrc=sin(440*2*PI*t)|sin(550*2*PI*t)|sin(660*2*PI*t)|0.3*sin(60*2*PI*t)|"
    "0.5*sin(770*2*PI*t)|0.5*sin(880*2*PI*t):s=48000:d=1:c=5.1'";

struct AudioCase {
    const char* name;
    const char* encoder;
    const char* file;
    std::string args;
    int32_t out_fmt, out_channels, out_rate;
    bool decoder_picks_rate;  // pass an input sample rate of 0
    // WMA decoders need the block alignment, which an init codec request cannot carry.
    bool opens = true;
};

void PrintTo(const AudioCase& c, std::ostream* os) {
    *os << c.name;
}

const AudioCase kCases[] = {
    {"aac", "aac", "aac.m4a", std::string(kStereo44k) + " -c:a aac -b:a 128k", AV_SAMPLE_FMT_S16, 2,
     44100, false},
    {"mp3", "libmp3lame", "mp3.mp3", std::string(kStereo44k) + " -c:a libmp3lame -b:a 128k",
     AV_SAMPLE_FMT_FLTP, 2, 48000, true},
    {"flac", "flac", "flac.flac", std::string(kStereo44k) + " -c:a flac -frame_size 1000",
     AV_SAMPLE_FMT_S16P, 2, 44100, false},
    {"opus", "libopus", "opus.ogg", std::string(kStereo48k) + " -c:a libopus -b:a 64k",
     AV_SAMPLE_FMT_S16, 2, 48000, false},
    {"vorbis", "libvorbis", "vorbis.ogg", std::string(kStereo44k) + " -c:a libvorbis",
     AV_SAMPLE_FMT_FLT, 1, 22050, false},
    {"ac3", "ac3", "ac3.ac3", std::string(kSurround48k) + " -c:a ac3", AV_SAMPLE_FMT_S16, 2, 48000,
     false},
    {"mp2", "mp2", "mp2.mp2", std::string(kStereo44k) + " -c:a mp2", AV_SAMPLE_FMT_S32P, 2, 0,
     false},
    {"alac", "alac", "alac.m4a", std::string(kStereo44k) + " -c:a alac", AV_SAMPLE_FMT_S16, 2, -1,
     false},
    {"wmav2", "wmav2", "wmav2.wma", std::string(kStereo44k) + " -c:a wmav2", AV_SAMPLE_FMT_FLTP, 2,
     48000, false, false},
    {"dts", "dca", "dts.dts", std::string(kStereo48k) + " -strict -2 -c:a dca", AV_SAMPLE_FMT_DBL,
     2, 44100, false},
};

// Makes and demuxes a file once per process; false when the encoder is missing.
bool load(const std::string& file, const std::string& args, DemuxedStream* out) {
    static std::map<std::string, DemuxedStream> streams;
    auto it = streams.find(file);
    if (it == streams.end()) {
        DemuxedStream s;
        std::string path = make_media(file, args);
        if (path.empty() || !demux_first_stream(path, false, &s) || s.packets.empty()) {
            return false;
        }
        it = streams.emplace(file, std::move(s)).first;
    }
    *out = it->second;
    return true;
}

std::array<int32_t, 7> init_params(const DemuxedStream& s, int32_t out_fmt, int32_t out_channels,
                                   int32_t out_rate, bool decoder_picks_rate = false) {
    return {s.sample_fmt,
            s.channels,
            decoder_picks_rate ? 0 : s.sample_rate,
            static_cast<int32_t>(s.extradata.size()),
            out_fmt,
            out_channels,
            out_rate};
}

// Sets up the service and the model alike.
void init_both(DecoderHarness& h, AudioReference& ref, const DemuxedStream& s,
               const std::array<int32_t, 7>& params) {
    int index = audio_codec_index(s.codec_name);
    ASSERT_GE(index, 0) << s.codec_name;
    h.write_init(MEDIA_TYPE_AUDIO, static_cast<uint32_t>(index), params, s.extradata.data(),
                 s.extradata.size());
    ASSERT_TRUE(h.request());
    ASSERT_EQ(h.result().status, STATUS_OK);
    ASSERT_TRUE(ref.init(s.codec_id, params, s.extradata));
}

// Decodes packets [first, last) through both and compares every answer; returns the number of
// packets that produced output.
int decode_and_compare(DecoderHarness& h, AudioReference& ref, const DemuxedStream& s, size_t first,
                       size_t last) {
    int outputs = 0;
    for (size_t i = first; i < last; ++i) {
        const std::vector<uint8_t>& p = s.packets[i].data;
        const int64_t pts = 1000 + static_cast<int64_t>(i) * 23219;
        h.write_decode(p.data(), static_cast<int32_t>(p.size()), pts);
        EXPECT_TRUE(h.request());
        const AudioStep want = ref.decode(p.data(), static_cast<int>(p.size()), pts);
        const ExchangeResult got = h.result();
        EXPECT_EQ(got.status, want.status) << "packet " << i;
        EXPECT_EQ(got.output_size, want.output_size) << "packet " << i;
        EXPECT_EQ(got.output_pts, want.output_pts) << "packet " << i;
        if (got.status == STATUS_OK) {
            EXPECT_EQ(compare_audio_output(want, h.output()), "") << "packet " << i;
            ++outputs;
        }
        if (::testing::Test::HasFailure()) {
            break;
        }
    }
    return outputs;
}

}  // namespace

class AudioCodec : public ::testing::TestWithParam<AudioCase> {
  protected:
    void SetUp() override {
        const AudioCase& c = GetParam();
        if (!have_encoder(c.encoder) || !load(c.file, c.args, &stream)) {
            GTEST_SKIP() << "cannot encode " << c.name << " here";
        }
    }
    DemuxedStream stream;
};

TEST_P(AudioCodec, EveryPacketMatchesTheModel) {
    const AudioCase& c = GetParam();
    LogCapture log;
    DecoderHarness h;
    AudioReference ref;
    if (!c.opens) {
        h.write_init(MEDIA_TYPE_AUDIO, static_cast<uint32_t>(audio_codec_index(stream.codec_name)),
                     init_params(stream, c.out_fmt, c.out_channels, c.out_rate),
                     stream.extradata.data(), stream.extradata.size());
        ASSERT_TRUE(h.request());
        EXPECT_EQ(h.result().status, STATUS_FAILED);
        EXPECT_TRUE(log.contains("audio decoder open failed"));
        return;
    }
    ASSERT_NO_FATAL_FAILURE(init_both(
        h, ref, stream,
        init_params(stream, c.out_fmt, c.out_channels, c.out_rate, c.decoder_picks_rate)));
    // The setup's state: rates as asked (0 kept, 44100 by default) and the configuration bytes
    // followed by zeroed padding.
    const MediaDecoder::audio_context_t& state = *h.decoder().audio_ctx;
    EXPECT_EQ(state.in_sample_rate, c.decoder_picks_rate ? 0 : stream.sample_rate);
    EXPECT_EQ(state.out_sample_rate, c.out_rate > 0 ? c.out_rate : 44100);
    const AVCodecContext* ctx = state.codec_ctx.get();
    ASSERT_EQ(ctx->extradata_size, static_cast<int>(stream.extradata.size()));
    if (!stream.extradata.empty()) {
        EXPECT_EQ(0, memcmp(ctx->extradata, stream.extradata.data(), stream.extradata.size()));
        const std::vector<uint8_t> zeros(AV_INPUT_BUFFER_PADDING_SIZE);
        EXPECT_EQ(0, memcmp(ctx->extradata + ctx->extradata_size, zeros.data(), zeros.size()));
    }
    int outputs = decode_and_compare(h, ref, stream, 0, stream.packets.size());
    EXPECT_GT(outputs, static_cast<int>(stream.packets.size()) / 2);
    // One resampler for a stream that keeps its format.
    EXPECT_EQ(ref.resampler_builds(), 1);
    EXPECT_FALSE(log.contains("freeing SW resample context"));
}

// Garbage, truncated and damaged packets are answered as the model answers them (decoders that
// conceal errors do give output for some), and the worker goes on: after a flush the rest of the
// stream decodes as it should.
TEST_P(AudioCodec, GarbageIsAnsweredAndDecodingGoesOn) {
    const AudioCase& c = GetParam();
    if (!c.opens) {
        GTEST_SKIP() << c.name << " cannot be set up";
    }
    LogCapture log;
    DecoderHarness h;
    AudioReference ref;
    ASSERT_NO_FATAL_FAILURE(
        init_both(h, ref, stream, init_params(stream, c.out_fmt, c.out_channels, c.out_rate)));
    const size_t half = stream.packets.size() / 2;
    decode_and_compare(h, ref, stream, 0, 3);

    DemuxedStream garbage;
    std::mt19937 rng(12345);
    for (size_t size : {1u, 7u, 200u, 5000u}) {
        DemuxedPacket g;
        g.data.resize(size);
        for (auto& b : g.data) {
            b = static_cast<uint8_t>(rng());
        }
        garbage.packets.push_back(g);
    }
    const std::vector<uint8_t>& real = stream.packets[half].data;
    DemuxedPacket cut;
    cut.data.assign(real.begin(), real.begin() + real.size() / 2);
    garbage.packets.push_back(cut);
    cut.data.assign(real.begin(), real.begin() + std::min<size_t>(4, real.size()));
    garbage.packets.push_back(cut);
    DemuxedPacket flipped{real};
    for (size_t i = flipped.data.size() / 4; i < flipped.data.size(); i += 3) {
        flipped.data[i] ^= 0x5a;
    }
    garbage.packets.push_back(flipped);
    decode_and_compare(h, ref, garbage, 0, garbage.packets.size());
    EXPECT_TRUE(log.contains("decoding audio frame"));

    h.write_request_type(REQUEST_FLUSH);
    ASSERT_TRUE(h.request());
    ref.flush();
    EXPECT_GT(decode_and_compare(h, ref, stream, half, stream.packets.size()), 0);
}

INSTANTIATE_TEST_SUITE_P(Codecs, AudioCodec, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<AudioCase>& info) {
                             return std::string(info.param.name);
                         });

// Stereo 44100 Hz AAC (planar float, 1024 samples a frame) to packed S16 at the same rate.
TEST(AudioDecode, OutputSizeAndTimestampOfOneFrame) {
    DemuxedStream s;
    if (!load("aac.m4a", std::string(kStereo44k) + " -c:a aac -b:a 128k", &s)) {
        GTEST_SKIP();
    }
    LogCapture log;
    DecoderHarness h;
    AudioReference ref;
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, s, init_params(s, AV_SAMPLE_FMT_S16, 2, 44100)));
    const std::vector<uint8_t>& p = s.packets[0].data;
    h.write_decode(p.data(), static_cast<int32_t>(p.size()), 1000);
    ASSERT_TRUE(h.request());
    const ExchangeResult r = h.result();
    EXPECT_EQ(r.status, STATUS_OK);
    EXPECT_EQ(r.output_size, 4096u);
    EXPECT_EQ(r.output_pts, 24219);
    EXPECT_TRUE(log.contains("audio frames: 1024, frame size: 4096, pts: 24219")) << log.text();

    // The client's timestamp is taken as it is; near the end of the range the sum wraps.
    ref.decode(p.data(), static_cast<int>(p.size()), 1000);
    const std::vector<uint8_t>& q = s.packets[1].data;
    h.write_decode(q.data(), static_cast<int32_t>(q.size()), INT64_MAX - 5);
    ASSERT_TRUE(h.request());
    const AudioStep want = ref.decode(q.data(), static_cast<int>(q.size()), INT64_MAX - 5);
    EXPECT_EQ(h.result().status, STATUS_OK);
    EXPECT_EQ(h.result().output_pts, want.output_pts);
    EXPECT_EQ(h.result().output_pts, INT64_MIN + 23219 - 6);
}

// Packets of two MP2 streams with different rates and channel counts, back to back: the
// resampler is rebuilt at the change, and a reset then rebuilds the decoder for the format last
// decoded with the new output format.
TEST(AudioDecode, FormatChangeRebuildsResamplerAndResetFollowsIt) {
    DemuxedStream a, b;
    ASSERT_TRUE(load("a.mp2",
                     "-f lavfi -i sine=frequency=300:sample_rate=44100:duration=0.5 -ac 2 -c:a mp2",
                     &a));
    ASSERT_TRUE(load("b.mp2",
                     "-f lavfi -i sine=frequency=500:sample_rate=48000:duration=0.5 -ac 1 -c:a mp2",
                     &b));
    DemuxedStream both = a;
    both.packets.insert(both.packets.end(), b.packets.begin(), b.packets.end());

    LogCapture log;
    DecoderHarness h;
    AudioReference ref;
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, both, init_params(a, AV_SAMPLE_FMT_S16, 2, 44100)));
    const size_t split = a.packets.size() + b.packets.size() / 2;
    decode_and_compare(h, ref, both, 0, split);
    // MP2 reports the new channel count one frame before the new rate: two changes.
    EXPECT_GE(ref.resampler_builds(), 2);
    EXPECT_EQ(log.count("freeing SW resample context"),
              static_cast<size_t>(ref.resampler_builds() - 1));
    EXPECT_EQ(h.decoder().audio_ctx->in_sample_rate, 48000);
    EXPECT_EQ(h.decoder().audio_ctx->in_channels, 1);

    h.write_reset(AV_SAMPLE_FMT_FLTP, 2, 32000);
    ASSERT_TRUE(h.request());
    ASSERT_TRUE(ref.reset(AV_SAMPLE_FMT_FLTP, 2, 32000));
    EXPECT_GT(decode_and_compare(h, ref, both, split, both.packets.size()), 0);
}

// A second setup releases the old resampler before the old decoder context, and the old packet
// and frame once the new setup has succeeded.
TEST(AudioDecode, SecondSetupReleasesTheFirstInOrder) {
    DemuxedStream s;
    ASSERT_TRUE(load("mp2.mp2", std::string(kStereo44k) + " -c:a mp2", &s));
    LogCapture log;
    DecoderHarness h;
    AudioReference ref;
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, s, init_params(s, AV_SAMPLE_FMT_S16, 2, 44100)));
    ASSERT_GT(decode_and_compare(h, ref, s, 0, 4), 0);
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, s, init_params(s, AV_SAMPLE_FMT_FLT, 1, 48000)));

    const std::string text = log.text();
    const size_t second = text.rfind("init audio codec context");
    const size_t resampler = text.find("freeing SW resample context", second);
    const size_t context = text.find("freeing audio decoder context", second);
    const size_t packet = text.find("freeing audio packet", second);
    const size_t frame = text.find("freeing audio frame", second);
    ASSERT_NE(frame, std::string::npos) << text;
    ASSERT_NE(packet, std::string::npos) << text;
    EXPECT_LT(resampler, context);
    EXPECT_LT(context, packet);
    EXPECT_LT(context, frame);
    EXPECT_EQ(log.count("freeing audio decoder context"), 1u);

    // The new output format is in use.
    EXPECT_GT(decode_and_compare(h, ref, s, 4, s.packets.size()), 0);
}

// Setup parameters no decoder or resampler can honour are answered and never crash.
TEST(AudioDecode, HostileFormatsAreAnswered) {
    DemuxedStream s;
    ASSERT_TRUE(load("mp2.mp2", std::string(kStereo44k) + " -c:a mp2", &s));
    const std::array<int32_t, 7> hostile[] = {
        {-5, 2, 44100, 0, AV_SAMPLE_FMT_S16, 2, 44100},
        {1000, -3, -1, -7, AV_SAMPLE_FMT_S16, 2, 44100},
        {AV_SAMPLE_FMT_S16, 100000, INT_MAX, 0, AV_SAMPLE_FMT_S16, 2, 44100},
        {AV_SAMPLE_FMT_S16, 2, 44100, 0, -1, 2, 44100},
        {AV_SAMPLE_FMT_S16, 2, 44100, 0, AV_SAMPLE_FMT_S16, 0, 44100},
        {AV_SAMPLE_FMT_S16, 2, 44100, 0, AV_SAMPLE_FMT_S16, -2, 44100},
        {AV_SAMPLE_FMT_S16, 2, 44100, 0, AV_SAMPLE_FMT_DBLP, 1000, 44100},
        {AV_SAMPLE_FMT_S16, 2, 44100, 0, AV_SAMPLE_FMT_S16, 2, 1},
    };
    LogCapture log;
    for (const auto& params : hostile) {
        SCOPED_TRACE(::testing::PrintToString(params));
        DecoderHarness h;
        AudioReference ref;
        h.write_init(MEDIA_TYPE_AUDIO, 5, params);
        ASSERT_TRUE(h.request());
        const ExchangeResult r = h.result();
        ASSERT_EQ(r.status == STATUS_OK, ref.init(s.codec_id, params, {}));
        if (r.status != STATUS_OK) {
            EXPECT_EQ(r.status, STATUS_FAILED);
            continue;
        }
        decode_and_compare(h, ref, s, 0, 4);
    }
}

namespace {

// MSB-first bit writer for hand-made packets.
struct BitWriter {
    std::vector<uint8_t> bytes;
    size_t bits = 0;
    void put(uint32_t value, int count) {
        for (int i = count - 1; i >= 0; --i) {
            if (bits % 8 == 0) {
                bytes.push_back(0);
            }
            bytes.back() |= static_cast<uint8_t>(((value >> i) & 1u) << (7 - bits % 8));
            ++bits;
        }
    }
};

// One uncompressed mono ALAC frame of `samples` 16-bit samples, stating its own length.
std::vector<uint8_t> alac_frame(uint32_t samples) {
    BitWriter w;
    w.put(0, 3);   // single channel element
    w.put(0, 16);  // instance tag and unused header bits
    w.put(1, 1);   // the sample count is in the frame
    w.put(0, 2);   // no extra bits
    w.put(1, 1);   // not compressed
    w.put(samples, 32);
    for (uint32_t i = 0; i < samples; ++i) {
        w.put((i * 37) & 0xffff, 16);
    }
    w.put(7, 3);  // end
    return w.bytes;
}

}  // namespace

// ALAC lets a stream declare long frames. Converted to 16 channels of doubles (the widest default
// layout on every FFmpeg), a frame of 200000 samples needs more than the output area: the request
// fails instead of writing past the block, and an ordinary frame still converts.
TEST(AudioDecode, ConversionBeyondTheOutputAreaIsRefused) {
    DemuxedStream s;
    if (!load("mono.m4a",
              "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=0.2 -ac 1 -c:a alac",
              &s)) {
        GTEST_SKIP();
    }
    ASSERT_EQ(s.extradata.size(), 36u);
    ASSERT_EQ(0, memcmp(s.extradata.data() + 4, "alac", 4));
    const uint32_t longest = 200000;
    for (int k = 0; k < 4; ++k) {
        s.extradata[12 + k] = static_cast<uint8_t>(longest >> (24 - 8 * k));
    }

    LogCapture log;
    DecoderHarness h;
    AudioReference ref;
    ASSERT_NO_FATAL_FAILURE(init_both(h, ref, s, init_params(s, AV_SAMPLE_FMT_DBLP, 16, 44100)));
    DemuxedStream crafted;
    crafted.packets.resize(2);
    crafted.packets[0].data = alac_frame(longest);
    crafted.packets[1].data = alac_frame(4096);
    ASSERT_GT(size_t{longest} * 16 * sizeof(double), SHM_AREA_SIZE);

    decode_and_compare(h, ref, crafted, 0, 1);
    EXPECT_EQ(h.result().status, STATUS_FAILED);
    EXPECT_TRUE(log.contains("converted audio exceeds the output area"));
    EXPECT_EQ(decode_and_compare(h, ref, crafted, 1, 2), 1);
    EXPECT_EQ(h.result().output_size, 4096u * 16 * 8);
}
