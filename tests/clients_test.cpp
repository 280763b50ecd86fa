// Decoder clients and the service: the client type msg (every refusal closes the connection with
// its log line and leaves nothing open behind), doorbells and sync msgs (a long doorbell, clients
// that go away at any moment), and the output area behind a picture. (One session client per
// service: service_test; a worker that ended: requests_test.)

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "support/support.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 10000;
constexpr const char* kPurge = "cleaning disconnected and/or error decoder clients";

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

// A client that closes while its worker decodes is removed once the worker is done with the
// request; two hang-ups waiting when the loop polls again (held back by SIGSTOP) are removed in
// that iteration. The client left is served as before.
TEST_F(Channel, ClientsGoneAreRemoved) {
    const Clip& big = clip("busy.mkv", "-f lavfi -i testsrc=size=3840x2160 -frames:v 1 -c:v mpeg4");
    auto other = client(false), first = client(), second = client(false);
    const int threads = proc_stat(daemon.pid()).threads;
    auto busy = client();
    ASSERT_EQ(set_up(*busy, big, 2560, 1440, 2), STATUS_OK);
    const auto& packet = big.packets[0].data;
    ASSERT_EQ(busy->write_decode_frame(packet.data(), packet.size(), 0), ClientError::kOk);
    ASSERT_EQ(busy->ring(), ClientError::kOk);
    ASSERT_TRUE(daemon.wait_log("decode frame"));  // the worker took the request
    busy.reset();
    EXPECT_TRUE(daemon.wait_log(kPurge));
    EXPECT_TRUE(wait_until(kWaitMs, [&] { return proc_stat(daemon.pid()).threads == threads; }));

    daemon.signal(SIGSTOP);
    first.reset();
    second.reset();
    daemon.signal(SIGCONT);
    EXPECT_TRUE(daemon.wait_log("decoder client disconnected", 3));
    ASSERT_TRUE(daemon.barrier());
    // libev runs the fed purge right after the handler that fed it: one or two purge runs.
    EXPECT_GE(daemon.count(kPurge), 2u);
    EXPECT_LE(daemon.count(kPurge), 3u);
    EXPECT_TRUE(
        wait_until(kWaitMs, [&] { return proc_stat(daemon.pid()).threads == threads - 2; }));
    EXPECT_EQ(other->flush(kWaitMs), ClientError::kOk);
}

// Behind a picture the output area reads as zero, whatever the client left there and however
// large the picture before was; where the kernel refuses to release pages (made to by the test
// hooks, as a sealed object or a guarded block would), the service must write the zeros itself.
enum class Block { kPosix, kDescriptor, kRefused };

class OutputClear : public ::testing::TestWithParam<Block> {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon.start()); }
    Daemon daemon{[] {
        Daemon::Options options;
        if (GetParam() == Block::kRefused) {
            options.env["SVC_TEST_REFUSE_PAGE_RELEASE"] = "1";
        }
        return options;
    }()};
};

TEST_P(OutputClear, PastThePictureTheAreaReadsZero) {
    // Annex B: the parameter sets travel in band, so a reset decoder, which gets no configuration
    // bytes again, decodes the stream from its start.
    const Clip& c = clip("clear.h264", "-f lavfi -i testsrc=size=160x120 -frames:v 8 -c:v libx264");
    DecoderClient client;
    ASSERT_EQ(GetParam() == Block::kPosix ? client.connect_posix(daemon.socket_path())
                                          : client.connect_descriptor(daemon.socket_path()),
              ClientError::kOk);
    ASSERT_EQ(set_up(client, c, 320, 240, 0, false), STATUS_OK);
    ExchangeResult r{};
    for (auto [w, h] : {std::pair(320u, 240u), {160u, 120u}}) {
        if (w == 160) {
            ASSERT_EQ(client.reset_video(160, 120, 0, kWaitMs), ClientError::kOk);
        }
        uint8_t* out = client.block() + SHM_OUTPUT_OFFSET;
        memset(out, 0xa5, SHM_AREA_SIZE);
        r = ExchangeResult{};
        for (size_t i = 0; i < c.packets.size() && r.output_size == 0; ++i) {
            const auto& p = c.packets[i].data;
            ASSERT_EQ(client.decode_frame(p.data(), p.size(), 0, &r, kWaitMs), ClientError::kOk);
        }
        const uint32_t size = w * h * 3 / 2;
        ASSERT_EQ(r.output_size, size);
        EXPECT_FALSE(std::all_of(out, out + size, [](uint8_t b) { return b == 0xa5; }));
        EXPECT_EQ(std::count(out + size, out + SHM_AREA_SIZE, 0), SHM_AREA_SIZE - size);
    }
}

INSTANTIATE_TEST_SUITE_P(Blocks, OutputClear,
                         ::testing::Values(Block::kPosix, Block::kDescriptor, Block::kRefused),
                         [](const ::testing::TestParamInfo<Block>& info) {
                             return std::string(info.param == Block::kPosix     ? "Posix"
                                                : info.param == Block::kRefused ? "Refused"
                                                                                : "Fd");
                         });

class Handshake : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon.start()); }
    Daemon daemon;
};

TEST_F(Handshake, RefusalsAreLoggedAndLeaveNothingOpen) {
    const std::string missing = "/svc-test-missing-" + std::to_string(getpid());
    shm_unlink(missing.c_str());
    ScopedShm small(SHM_BLOCK_SIZE - 4096);  // larger than any one area, smaller than the block
    UniqueFd null_fd(open("/dev/null", O_RDONLY | O_CLOEXEC)), region(make_memfd(SHM_BLOCK_SIZE));
    UniqueFd small_region(make_memfd(4096));
    UniqueFd plain(
        open((daemon.runtime_dir() + "/plain").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(ftruncate(plain.get(), SHM_BLOCK_SIZE), 0);
    const int n = null_fd.get(), r = region.get();
    const std::string malformed = "malformed control msg received",
                      unknown = "unknown client type message received",
                      failed = "decoder instance create failed";
    struct Case {
        uint8_t type;
        std::string shm_name;
        std::vector<int> fds;
        std::string line;
        const char* level = "ERROR";
    };
    const std::vector<Case> cases = {
        // Credentials alone, or with three descriptors: the control data arrives cut.
        {CLIENT_TYPE_SESSION, "", {}, malformed},
        {CLIENT_TYPE_ASHMEM_DECODER, "", {r, n, n}, malformed},
        // Two descriptors pass the length check but count as none.
        {CLIENT_TYPE_ASHMEM_DECODER,
         "",
         {r, r},
         "no ashmem file descriptor or posix shared "
         "memory descriptor sent"},
        {0, "", {n}, unknown},
        {255, "", {n}, unknown},
        {CLIENT_TYPE_SHM_DECODER, "", {r}, "shared memory object open failed: ["},  // libc's errno
        {CLIENT_TYPE_SHM_DECODER,
         missing,
         {r},
         "shared memory object open failed: [2] No such "
         "file or directory"},
        {CLIENT_TYPE_ASHMEM_DECODER, "", {plain.get()}, failed},  // a plain file is no region
        {CLIENT_TYPE_SHM_DECODER, small.name, {n}, failed},
        {CLIENT_TYPE_ASHMEM_DECODER, "", {small_region.get()}, failed},
        {0, "", {r}, "client disconnected: ", "INFO"},  // an empty record, sent as such below
    };
    // Each refusal with its own line: another case's line must not stand in for it.
    auto run_all = [&](bool check) {
        for (size_t i = 0; i < cases.size(); ++i) {
            const Case& c = cases[i];
            const size_t logged = check ? daemon.log().size() : 0;
            UniqueFd fd(connect_service(daemon.socket_path()));
            ssize_t sent = i + 1 == cases.size()
                               ? send_record(fd.get(), nullptr, 0, c.fds.data(), 1, nullptr)
                               : send_type_msg(fd.get(), c.type, c.shm_name, c.fds);
            ASSERT_GE(sent, 0) << i;
            EXPECT_TRUE(wait_closed(fd.get(), kWaitMs)) << i;
            EXPECT_TRUE(!check || log_has(daemon.log().substr(logged), c.level, c.line))
                << "case " << i << ": no " << c.level << " " << c.line;
        }
    };
    run_all(true);
    ASSERT_TRUE(daemon.barrier());
    // Whatever the service opens once is open by now; a hundred more rounds leave no more.
    const ProcStat before = proc_stat(daemon.pid());
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        run_all(false);
    }
    ASSERT_TRUE(daemon.barrier());
    EXPECT_TRUE(wait_until(3000, [&] { return proc_stat(daemon.pid()).fds == before.fds; }))
        << proc_stat(daemon.pid()).fds << " descriptors, " << before.fds << " before";
    EXPECT_EQ(proc_stat(daemon.pid()).threads, before.threads);
}

}  // namespace
