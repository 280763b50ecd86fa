// A client decodes a real AAC stream through the running service and gets, packet by packet,
// what the same libraries produce in-process.

#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/audio_reference.h"
#include "support/client_util.h"
#include "support/daemon_process.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 10000;

struct OutputFormat {
    const char* label;
    int32_t sample_fmt;  // AVSampleFormat
    int32_t channels;
    int32_t sample_rate;
    bool posix;  // POSIX object (type 3) or passed descriptor (type 2)
};

// Names the parameter in test listings instead of dumping its bytes.
void PrintTo(const OutputFormat& format, std::ostream* os) {
    *os << format.label;
}

class AudioEndToEndTest : public ::testing::TestWithParam<OutputFormat> {};

TEST_P(AudioEndToEndTest, MatchesInProcessReference) {
    const OutputFormat& format = GetParam();
    const DemuxedStream* aac = aac_stream();
    ASSERT_NE(aac, nullptr);
    const int codec_index = audio_codec_index(aac->codec_name);
    ASSERT_GE(codec_index, 0);

    AudioInitParams params;
    params.in_sample_fmt = aac->sample_fmt;
    params.in_channels = aac->channels;
    params.in_sample_rate = aac->sample_rate;
    params.out_sample_fmt = format.sample_fmt;
    params.out_channels = format.channels;
    params.out_sample_rate = format.sample_rate;

    // Timestamps in microseconds, as a player would pass them.
    std::vector<int64_t> pts;
    for (const auto& packet : aac->packets) {
        pts.push_back(packet.pts * 1000000 * aac->time_base_num / aac->time_base_den);
    }
    AudioReference model;
    ASSERT_TRUE(
        model.init(aac->codec_id, audio_init_array(params, aac->extradata.size()), aac->extradata));

    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    DecoderClient client;
    ASSERT_EQ(format.posix ? client.connect_posix(daemon.socket_path())
                           : client.connect_descriptor(daemon.socket_path()),
              ClientError::kOk);

    // The stream is raw AAC in MP4: without its extradata (param4) nothing would decode.
    ExchangeResult result{};
    ASSERT_EQ(client.init_audio(static_cast<uint32_t>(codec_index), params, aac->extradata.data(),
                                aac->extradata.size(), &result, kWaitMs),
              ClientError::kOk);
    ASSERT_EQ(result.status, STATUS_OK);

    const int out_rate = format.sample_rate > 0 ? format.sample_rate : 44100;
    const int bytes_per_frame = format.channels * (format.sample_fmt == 1 ? 2 : 4);
    int decoded = 0;
    for (size_t i = 0; i < aac->packets.size(); ++i) {
        const auto& data = aac->packets[i].data;
        ASSERT_EQ(client.decode_frame(data.data(), data.size(), pts[i], &result, kWaitMs),
                  ClientError::kOk)
            << "packet " << i;
        const AudioStep ref = model.decode(data.data(), static_cast<int>(data.size()), pts[i]);
        ASSERT_EQ(result.status, ref.status) << "packet " << i;
        ASSERT_EQ(result.output_size, ref.output_size) << "packet " << i;
        ASSERT_EQ(result.output_pts, ref.output_pts) << "packet " << i;
        if (result.status == STATUS_OK) {
            ++decoded;
            const int64_t samples = result.output_size / bytes_per_frame;
            EXPECT_EQ(result.output_pts, pts[i] + samples * 1000000 / out_rate);
            EXPECT_EQ(compare_audio_output(ref, client.output()), "") << "packet " << i;
        } else {
            EXPECT_EQ(result.output_size, 0u);
            EXPECT_EQ(result.output_pts, 0);
        }
    }
    EXPECT_GT(decoded, static_cast<int>(aac->packets.size()) / 2);
    EXPECT_EQ(daemon.count_in_log("audio frames: "), static_cast<size_t>(decoded));
}

INSTANTIATE_TEST_SUITE_P(Formats, AudioEndToEndTest,
                         ::testing::Values(OutputFormat{"s16_stereo_48k", 1, 2, 48000, true},
                                           OutputFormat{"fltp_stereo_default_rate", 8, 2, 0, false},
                                           OutputFormat{"flt_mono_22k", 3, 1, 22050, true}),
                         [](const ::testing::TestParamInfo<OutputFormat>& info) {
                             return info.param.label;
                         });

}  // namespace
