// Doorbells and sync msgs between decoder clients and the service: clients served side by side,
// clients that go away at any moment, a worker that ended, and the output area behind a picture.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "support/support.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 10000;
constexpr const char* kPurge = "cleaning disconnected and/or error decoder clients";

const Clip& aac() {
    return clip("channel.m4a", "-f lavfi -i sine=sample_rate=44100 -ac 2 -t 1 -c:a aac", false);
}

class Channel : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon.start()); }

    // A registered client whose first request has been answered.
    std::unique_ptr<DecoderClient> client(bool posix = true) {
        auto c = std::make_unique<DecoderClient>();
        EXPECT_EQ(posix ? c->connect_posix(daemon.socket_path())
                        : c->connect_descriptor(daemon.socket_path()),
                  ClientError::kOk);
        EXPECT_EQ(c->flush(kWaitMs), ClientError::kOk);
        return c;
    }

    Daemon daemon;
};

// A doorbell of 300 bytes is one doorbell: one execution, one sync msg.
TEST_F(Channel, LongDoorbellCountsOnce) {
    auto c = client();
    ASSERT_EQ(c->ring(300), ClientError::kOk);
    EXPECT_EQ(c->wait_sync(kWaitMs), ClientError::kOk);
    EXPECT_EQ(c->wait_sync(300), ClientError::kTimeout);
    EXPECT_EQ(daemon.count("flush decoder"), 2u);
}

// Eight clients of both types decode the same stream at once, each with its timestamps offset:
// every answer and every sample must be its own and equal the model's.
TEST_F(Channel, ConcurrentClientsGetTheirOwnResults) {
    const Clip& c = aac();
    const AudioInitParams params = mediatools::audio_init_params(c.info, 1, 2, 48000);
    mediatools::LocalAudioDecoder model;
    std::string error;
    ASSERT_TRUE(model.open(c.info.codec_id, params, c.info.extradata, &error)) << error;
    std::vector<mediatools::Answer> answers;
    std::vector<std::vector<uint8_t>> samples;
    for (const auto& p : c.packets) {
        answers.push_back(model.decode(p.data.data(), static_cast<int>(p.data.size()), p.pts));
        samples.emplace_back(model.output(), model.output() + answers.back().size);
    }
    constexpr int kClients = 8;
    std::vector<std::string> failures(kClients);
    std::vector<std::thread> threads;
    for (int n = 0; n < kClients; ++n) {
        threads.emplace_back([&, n] {
            DecoderClient client;
            ExchangeResult r{};
            bool ok = (n % 2 == 0
                           ? client.connect_posix(daemon.socket_path())
                           : client.connect_descriptor(daemon.socket_path())) == ClientError::kOk &&
                      client.init_audio(c.codec_index(), params, c.info.extradata.data(),
                                        c.info.extradata.size(), &r, kWaitMs) == ClientError::kOk;
            failures[n] = ok ? "" : "init";
            const int64_t offset = int64_t{n} * 1000000000;
            for (size_t i = 0; ok && i < c.packets.size(); ++i) {
                const auto& p = c.packets[i];
                mediatools::Answer want = answers[i];
                want.pts += want.status == STATUS_OK ? offset : 0;
                ok = client.decode_frame(p.data.data(), p.data.size(), p.pts + offset, &r,
                                         kWaitMs) == ClientError::kOk &&
                     differs(r, client.output(), want, samples[i].data()).empty();
                failures[n] = ok ? "" : "packet " + std::to_string(i);
            }
            if (ok && client.wait_sync(200) != ClientError::kTimeout) {
                failures[n] = "a sync msg too many";
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    for (int n = 0; n < kClients; ++n) {
        EXPECT_EQ(failures[n], "") << "client " << n;
    }
}

// A client that closes while its worker decodes is removed once the worker is done with the
// request; the other client is served as before.
TEST_F(Channel, ClientVanishingWhileItsWorkerDecodes) {
    const Clip& big = clip("busy.mkv", "-f lavfi -i testsrc=size=3840x2160 -frames:v 1 -c:v mpeg4");
    auto other = client(false);
    const int threads = proc_stat(daemon.pid()).threads;
    auto busy = client();
    ExchangeResult r{};
    ASSERT_EQ(
        busy->init_video(big.codec_index(), mediatools::video_init_params(big.info, 2560, 1440, 2),
                         big.info.extradata.data(), big.info.extradata.size(), &r, kWaitMs),
        ClientError::kOk);
    const auto& packet = big.packets[0].data;
    ASSERT_EQ(busy->write_decode_frame(packet.data(), packet.size(), 0), ClientError::kOk);
    ASSERT_EQ(busy->ring(), ClientError::kOk);
    ASSERT_TRUE(daemon.wait_log("decode frame"));  // the worker took the request
    busy.reset();

    EXPECT_TRUE(daemon.wait_log("decoder client disconnected"));
    EXPECT_TRUE(daemon.wait_log(kPurge));
    EXPECT_TRUE(wait_until(kWaitMs, [&] { return proc_stat(daemon.pid()).threads == threads; }));
    EXPECT_EQ(other->flush(kWaitMs), ClientError::kOk);
}

// Two hang-ups waiting when the loop polls again are removed in that iteration, the third client
// kept in its place.
TEST_F(Channel, TwoClientsGoneInOneIteration) {
    auto first = client(), second = client(false), third = client();
    const int threads = proc_stat(daemon.pid()).threads;
    daemon.signal(SIGSTOP);
    first.reset();
    second.reset();
    daemon.signal(SIGCONT);
    EXPECT_TRUE(daemon.wait_log("decoder client disconnected", 2));
    ASSERT_TRUE(daemon.barrier());
    // libev runs the fed purge right after the handler that fed it: one or two purge runs.
    EXPECT_GE(daemon.count(kPurge), 1u);
    EXPECT_LE(daemon.count(kPurge), 2u);
    EXPECT_TRUE(
        wait_until(kWaitMs, [&] { return proc_stat(daemon.pid()).threads == threads - 2; }));
    EXPECT_EQ(third->flush(kWaitMs), ClientError::kOk);
}

// A request that ends the worker is answered; later doorbells are read but get no sync msg, and
// the client stays registered until it leaves.
TEST_F(Channel, EndedWorkerSendsNoMoreSyncMsgs) {
    auto c = client();
    ASSERT_EQ(c->write_request_type(6), ClientError::kOk);
    EXPECT_EQ(c->call(kWaitMs), ClientError::kOk);
    EXPECT_TRUE(log_has(daemon.log(), "WARN", "unknown client request type, stop further"));
    ASSERT_EQ(c->write_request_type(REQUEST_FLUSH), ClientError::kOk);
    EXPECT_EQ(c->call(300), ClientError::kTimeout);
    EXPECT_EQ(c->call(300), ClientError::kTimeout);
    ASSERT_TRUE(daemon.barrier());
    EXPECT_FALSE(wait_closed(c->fd(), 0));
    EXPECT_EQ(daemon.count("flush decoder"), 1u);
    c.reset();
    EXPECT_TRUE(daemon.wait_log(kPurge));
}

// Behind a picture the output area reads as zero, whatever the client left there and however
// large the picture before was; where the kernel refuses to release pages (made to by the test
// hooks, as a sealed object or a guarded block would), the service must write the zeros itself.
enum class Block { kPosix, kDescriptor, kRefused };

Daemon::Options refusing_page_release(Block block) {
    Daemon::Options options;
    if (block == Block::kRefused) {
        options.env["SVC_TEST_REFUSE_PAGE_RELEASE"] = "1";
    }
    return options;
}

class OutputClear : public ::testing::TestWithParam<Block> {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon.start()); }
    Daemon daemon{refusing_page_release(GetParam())};
};

TEST_P(OutputClear, PastThePictureTheAreaReadsZero) {
    // Annex B: the parameter sets travel in band, so a reset decoder, which gets no configuration
    // bytes again, decodes the stream from its start.
    const Clip& c = clip("clear.h264", "-f lavfi -i testsrc=size=160x120 -frames:v 8 -c:v libx264");
    DecoderClient client;
    ASSERT_EQ(GetParam() == Block::kPosix ? client.connect_posix(daemon.socket_path())
                                          : client.connect_descriptor(daemon.socket_path()),
              ClientError::kOk);
    ExchangeResult r{};
    ASSERT_EQ(client.init_video(c.codec_index(), mediatools::video_init_params(c.info, 320, 240, 0),
                                nullptr, 0, &r, kWaitMs),
              ClientError::kOk);
    for (uint32_t size : {320u * 240 * 3 / 2, 160u * 120 * 3 / 2}) {
        if (size < 320u * 240 * 3 / 2) {
            ASSERT_EQ(client.reset_video(160, 120, 0, kWaitMs), ClientError::kOk);
        }
        uint8_t* out = client.block() + SHM_OUTPUT_OFFSET;
        memset(out, 0xa5, SHM_AREA_SIZE);
        r = ExchangeResult{};
        for (size_t i = 0; i < c.packets.size() && r.output_size == 0; ++i) {
            const auto& p = c.packets[i].data;
            ASSERT_EQ(client.decode_frame(p.data(), p.size(), 0, &r, kWaitMs), ClientError::kOk);
        }
        ASSERT_EQ(r.output_size, size);
        EXPECT_FALSE(std::all_of(out, out + size, [](uint8_t b) { return b == 0xa5; }));
        EXPECT_EQ(std::count(out + size, out + SHM_AREA_SIZE, 0), SHM_AREA_SIZE - size);
    }
}

std::string block_name(const ::testing::TestParamInfo<Block>& info) {
    return info.param == Block::kPosix ? "Posix" : info.param == Block::kRefused ? "Refused" : "Fd";
}

INSTANTIATE_TEST_SUITE_P(Blocks, OutputClear,
                         ::testing::Values(Block::kPosix, Block::kDescriptor, Block::kRefused),
                         block_name);

}  // namespace
