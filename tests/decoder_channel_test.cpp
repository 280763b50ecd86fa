// Doorbells and sync msgs between decoder clients and the service, and the removal of clients
// that go away.

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "support/audio_reference.h"
#include "support/client_util.h"
#include "support/daemon_process.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 5000;
constexpr const char* kNotInitialized = "decoder context not initialized!!";

class DecoderChannelTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon.start()); }

    // A registered client whose first request has been answered.
    std::unique_ptr<DecoderClient> make_client(bool posix = true) {
        auto client = std::make_unique<DecoderClient>();
        ClientError connected = posix ? client->connect_posix(daemon.socket_path())
                                      : client->connect_descriptor(daemon.socket_path());
        EXPECT_EQ(connected, ClientError::kOk);
        EXPECT_EQ(client->decode_frame("x", 1, 0, nullptr, kWaitMs), ClientError::kOk);
        return client;
    }

    DaemonProcess daemon;
};

TEST_F(DecoderChannelTest, LongDoorbellCountsOnce) {
    auto client = make_client();
    ASSERT_TRUE(daemon.wait_for_log(kNotInitialized, kWaitMs, 1));

    ASSERT_EQ(client->ring(300), ClientError::kOk);
    EXPECT_EQ(client->wait_sync(kWaitMs), ClientError::kOk);
    EXPECT_EQ(client->wait_sync(500), ClientError::kTimeout);
    EXPECT_EQ(daemon.count_in_log(kNotInitialized), 2u);
}

TEST_F(DecoderChannelTest, ConcurrentClientsGetTheirOwnResults) {
    const DemuxedStream* aac = aac_stream();
    ASSERT_NE(aac, nullptr);
    AudioInitParams params;
    params.in_sample_fmt = aac->sample_fmt;
    params.in_channels = aac->channels;
    params.in_sample_rate = aac->sample_rate;
    params.out_sample_fmt = 1;  // signed 16-bit packed
    params.out_channels = 2;
    params.out_sample_rate = 48000;
    std::vector<int64_t> pts;
    for (const auto& packet : aac->packets) {
        pts.push_back(packet.pts);
    }
    AudioReference model;
    ASSERT_TRUE(
        model.init(aac->codec_id, audio_init_array(params, aac->extradata.size()), aac->extradata));
    std::vector<AudioStep> reference;
    for (size_t i = 0; i < aac->packets.size(); ++i) {
        const auto& data = aac->packets[i].data;
        reference.push_back(model.decode(data.data(), static_cast<int>(data.size()), pts[i]));
    }
    const uint32_t codec_index = static_cast<uint32_t>(audio_codec_index(aac->codec_name));

    constexpr int kClients = 8;
    std::vector<std::string> failures(kClients);
    std::vector<std::thread> threads;
    for (int c = 0; c < kClients; ++c) {
        threads.emplace_back([&, c] {
            std::string& failure = failures[c];
            DecoderClient client;
            ClientError err = c % 2 == 0 ? client.connect_posix(daemon.socket_path())
                                         : client.connect_descriptor(daemon.socket_path());
            ExchangeResult result{};
            if (err == ClientError::kOk) {
                err = client.init_audio(codec_index, params, aac->extradata.data(),
                                        aac->extradata.size(), &result, kWaitMs);
            }
            if (err != ClientError::kOk || result.status != STATUS_OK) {
                failure = std::string("init: ") + error_text(err);
                return;
            }
            // Each client offsets its timestamps, so a result meant for another shows.
            const int64_t offset = static_cast<int64_t>(c) * 1000000000;
            for (size_t i = 0; i < aac->packets.size(); ++i) {
                const auto& data = aac->packets[i].data;
                err = client.decode_frame(data.data(), data.size(), pts[i] + offset, &result,
                                          kWaitMs);
                const AudioStep& ref = reference[i];
                const int64_t expected_pts = ref.status == STATUS_OK ? ref.output_pts + offset : 0;
                if (err != ClientError::kOk || result.status != ref.status ||
                    result.output_size != ref.output_size || result.output_pts != expected_pts ||
                    !compare_audio_output(ref, client.output()).empty()) {
                    failure = "packet " + std::to_string(i) + ": " + error_text(err);
                    return;
                }
            }
            if (client.wait_sync(200) != ClientError::kTimeout) {
                failure = "unexpected sync msg";
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int c = 0; c < kClients; ++c) {
        EXPECT_EQ(failures[c], "") << "client " << c;
    }
    EXPECT_TRUE(daemon.running());
}

TEST_F(DecoderChannelTest, ClientVanishingWhileItsWorkerDecodes) {
    // A 4K picture converted to RGB keeps the worker busy for a while after it took the request.
    std::string path =
        make_media("busy_mpeg4.mkv",
                   "-f lavfi -i testsrc=size=3840x2160:rate=25 -frames:v 1 -c:v mpeg4 -q:v 1");
    DemuxedStream video;
    ASSERT_TRUE(!path.empty() && demux_first_stream(path, true, &video));
    ASSERT_FALSE(video.packets.empty());

    auto other = make_client(false);
    const int threads = daemon.thread_count();
    auto busy = make_client();
    VideoInitParams params;
    params.coded_width = video.width;
    params.coded_height = video.height;
    params.coded_pix_fmt = video.pix_fmt;
    params.out_width = 2560;
    params.out_height = 1440;
    params.out_pix_fmt = 2;  // rgb24
    ExchangeResult result{};
    ASSERT_EQ(busy->init_video(static_cast<uint32_t>(video_codec_index(video.codec_name)), params,
                               video.extradata.data(), video.extradata.size(), &result),
              ClientError::kOk);
    ASSERT_EQ(result.status, STATUS_OK);
    const auto& packet = video.packets[0].data;
    ASSERT_EQ(busy->write_decode_frame(packet.data(), packet.size(), 0), ClientError::kOk);
    ASSERT_EQ(busy->ring(), ClientError::kOk);
    // Gone once the worker has started on the request (one "decode frame" per client before).
    EXPECT_TRUE(daemon.wait_for_log("decode frame", kWaitMs, 3));
    busy.reset();

    EXPECT_TRUE(daemon.wait_for_log("decoder client disconnected", kWaitMs));
    EXPECT_TRUE(daemon.wait_for_log("cleaning disconnected and/or error decoder clients", kWaitMs));
    EXPECT_TRUE(eventually([&] { return daemon.thread_count() == threads; }, kWaitMs));
    // The other client is served as before.
    EXPECT_EQ(other->decode_frame("x", 1, 0, &result, kWaitMs), ClientError::kOk);
    EXPECT_TRUE(daemon.running());
}

TEST_F(DecoderChannelTest, TwoClientsGoneInOneIterationAreBothRemoved) {
    auto first = make_client();
    auto second = make_client(false);
    auto third = make_client();
    ASSERT_TRUE(loop_barrier(daemon));
    const int threads = daemon.thread_count();

    // Both hang-ups are waiting when the loop polls again.
    daemon.signal(SIGSTOP);
    first.reset();
    second.reset();
    daemon.signal(SIGCONT);

    EXPECT_TRUE(daemon.wait_for_log("decoder client disconnected", kWaitMs, 2));
    ASSERT_TRUE(loop_barrier(daemon));
    // libev runs the fed purge right after the handler that fed it, so one or two purge runs.
    const size_t purges = daemon.count_in_log("cleaning disconnected and/or error decoder clients");
    EXPECT_GE(purges, 1u);
    EXPECT_LE(purges, 2u);
    EXPECT_TRUE(eventually([&] { return daemon.thread_count() == threads - 2; }, kWaitMs));

    ExchangeResult result{};
    EXPECT_EQ(third->decode_frame("x", 1, 0, &result, kWaitMs), ClientError::kOk);
    EXPECT_TRUE(daemon.running());
}

TEST_F(DecoderChannelTest, StoppedWorkerSendsNoMoreSyncMsgs) {
    auto client = make_client();
    ASSERT_EQ(client->write_request_type(6), ClientError::kOk);
    EXPECT_EQ(client->call(kWaitMs), ClientError::kOk);
    EXPECT_TRUE(
        log_has_line(daemon.log(), "WARN", "unknown client request type, stop further processing"));

    ASSERT_EQ(client->write_decode_frame("x", 1, 0), ClientError::kOk);
    EXPECT_EQ(client->call(500), ClientError::kTimeout);
    EXPECT_EQ(client->call(500), ClientError::kTimeout);
    // Still registered: the connection stays open and nothing was removed.
    EXPECT_FALSE(wait_closed(client->fd(), 200));
    ASSERT_TRUE(loop_barrier(daemon));
    EXPECT_EQ(daemon.count_in_log("decoder client disconnected"), 0u);
    EXPECT_EQ(daemon.count_in_log(kNotInitialized), 1u);

    client.reset();
    EXPECT_TRUE(daemon.wait_for_log("decoder client disconnected", kWaitMs));
    EXPECT_TRUE(daemon.running());
}

#ifndef F_SEAL_FUTURE_WRITE
#define F_SEAL_FUTURE_WRITE 0x0010  // Linux 5.1; older C libraries lack the name
#endif

// How the client hands over its block; the sealed descriptor makes the kernel refuse to release
// pages of it, so the service must write the zeros instead.
enum class BlockKind { kPosixObject, kDescriptor, kSealedDescriptor };

class OutputClearTest : public DecoderChannelTest,
                        public ::testing::WithParamInterface<BlockKind> {};

// An Annex B stream: its parameter sets travel in band, so a reset decoder, which gets no
// configuration bytes again, decodes it from the start.
const DemuxedStream* clear_clip() {
    static DemuxedStream stream;
    static bool ok = [] {
        std::string path = make_media(
            "output_clear.h264",
            "-f lavfi -i testsrc=size=160x120:rate=25 -frames:v 8 -c:v libx264 -pix_fmt yuv420p");
        return !path.empty() && demux_first_stream(path, true, &stream);
    }();
    return ok ? &stream : nullptr;
}

// Fills the whole output area with a pattern, as a client reusing its block might leave it, then
// decodes the clip from its start until a picture comes; the area must hold the picture and read
// as zero from its end to the end of the area.
void expect_picture_then_zeros(DecoderClient& client, const DemuxedStream& clip,
                               uint32_t picture_size) {
    uint8_t* out = client.block() + SHM_OUTPUT_OFFSET;
    memset(out, 0xa5, SHM_AREA_SIZE);
    ExchangeResult r{};
    for (size_t i = 0; i < clip.packets.size() && r.output_size == 0; ++i) {
        const auto& p = clip.packets[i].data;
        ASSERT_EQ(client.decode_frame(p.data(), p.size(), 0, &r, kWaitMs), ClientError::kOk);
        ASSERT_NE(r.status, STATUS_FAILED);
    }
    ASSERT_EQ(r.output_size, picture_size);
    EXPECT_FALSE(std::all_of(out, out + picture_size, [](uint8_t b) { return b == 0xa5; }));
    const auto nonzero =
        std::count_if(out + picture_size, out + SHM_AREA_SIZE, [](uint8_t b) { return b != 0; });
    EXPECT_EQ(nonzero, 0) << "bytes past the picture that are not zero";
}

TEST_P(OutputClearTest, PastThePictureTheAreaReadsZero) {
    const DemuxedStream* clip = clear_clip();
    ASSERT_NE(clip, nullptr);
    DecoderClient client;
    UniqueFd memfd(memfd_create("svc-test-sealable", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_TRUE(memfd.valid());
    ASSERT_EQ(ftruncate(memfd.get(), SHM_BLOCK_SIZE), 0);
    ASSERT_EQ(GetParam() == BlockKind::kPosixObject
                  ? client.connect_posix(daemon.socket_path())
                  : client.connect_descriptor(daemon.socket_path(), memfd.get()),
              ClientError::kOk);

    VideoInitParams params;
    params.coded_width = clip->width;
    params.coded_height = clip->height;
    params.coded_pix_fmt = clip->pix_fmt;
    params.out_width = 320;
    params.out_height = 240;
    ExchangeResult r{};
    ASSERT_EQ(client.init_video(static_cast<uint32_t>(video_codec_index(clip->codec_name)), params,
                                clip->extradata.data(), clip->extradata.size(), &r, kWaitMs),
              ClientError::kOk);
    ASSERT_EQ(r.status, STATUS_OK);
    if (GetParam() == BlockKind::kSealedDescriptor) {
        // Existing writable mappings (the service's and the client's) stay writable, but no page
        // of the object can be released any more.
        if (fcntl(memfd.get(), F_ADD_SEALS, F_SEAL_FUTURE_WRITE) != 0) {
            GTEST_SKIP() << "no F_SEAL_FUTURE_WRITE here: " << strerror(errno);
        }
        ASSERT_NE(madvise(client.block() + SHM_OUTPUT_OFFSET, SHM_AREA_SIZE, MADV_REMOVE), 0);
    }

    ASSERT_NO_FATAL_FAILURE(expect_picture_then_zeros(client, *clip, 320 * 240 * 3 / 2));
    // A smaller picture after a larger one: the larger one's bytes must not show behind it.
    ASSERT_EQ(client.reset_video(160, 120, 0, kWaitMs), ClientError::kOk);
    ASSERT_NO_FATAL_FAILURE(expect_picture_then_zeros(client, *clip, 160 * 120 * 3 / 2));
}

INSTANTIATE_TEST_SUITE_P(Blocks, OutputClearTest,
                         ::testing::Values(BlockKind::kPosixObject, BlockKind::kDescriptor,
                                           BlockKind::kSealedDescriptor),
                         [](const ::testing::TestParamInfo<BlockKind>& info) {
                             return std::string(info.param == BlockKind::kPosixObject ? "Posix"
                                                : info.param == BlockKind::kDescriptor
                                                    ? "Descriptor"
                                                    : "SealedDescriptor");
                         });

}  // namespace
