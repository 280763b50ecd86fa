// Hostile clients and exhaustion against the real daemon: a client that shrinks its shared
// memory under the service, the process out of descriptors, a worker thread that cannot be
// created. Another client is served throughout, and the daemon comes back to what it held.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
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

constexpr int kWaitMs = 20000;
constexpr const char* kBlockLost = "shared memory block lost, dropping decoder client";

const Clip& small() {
    return clip("hard.mp4", "-f lavfi -i testsrc=size=160x120 -frames:v 30 -c:v libx264 -g 10");
}

// A client of either type; for type 2 the test keeps a descriptor of the block to shrink it.
struct Client {
    Client(const Daemon& daemon, bool posix) : posix(posix) {
        memfd.reset(posix ? -1 : make_memfd(SHM_BLOCK_SIZE));
        ok = (posix ? c.connect_posix(daemon.socket_path())
                    : c.connect_descriptor(daemon.socket_path(), memfd.get())) == ClientError::kOk;
    }
    bool init(const Clip& s, int w, int h, int fmt) {
        return ok && set_up(c, s, w, h, fmt) == STATUS_OK;
    }
    // Packets [from, to) of the small clip: how many pictures, -1 on anything but pictures and
    // requests for more data.
    int decode(size_t from, size_t to) {
        int pictures = 0;
        for (size_t i = from; i < std::min(to, small().packets.size()); ++i) {
            const auto& p = small().packets[i];
            ExchangeResult r{};
            if (c.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kWaitMs) !=
                    ClientError::kOk ||
                r.status == STATUS_FAILED) {
                return -1;
            }
            pictures += r.status == STATUS_OK;
        }
        return pictures;
    }
    // Truncates the object to nothing; the client's own mapping is gone as well then.
    bool shrink() {
        UniqueFd fd(posix ? shm_open(c.shm_name().c_str(), O_RDWR, 0600) : dup(memfd.get()));
        return fd.valid() && ftruncate(fd.get(), 0) == 0;
    }
    bool posix, ok = false;
    UniqueFd memfd;
    DecoderClient c;
};

// A client that shrinks its block is dropped, while a bystander of the other type decodes the same
// stream before and after, and the daemon comes back to what it held: the next doorbell makes the
// worker read the vanished header; the service survives the fault, answers nothing and closes the
// connection.
class Shrink : public ::testing::TestWithParam<bool> {};

TEST_P(Shrink, TheClientIsDropped) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    Client bystander(daemon, !GetParam());
    ASSERT_TRUE(bystander.init(small(), 160, 120, 0));
    ASSERT_GT(bystander.decode(0, 10), 0);
    const ProcStat before = proc_stat(daemon.pid());
    {
        Client victim(daemon, GetParam());
        ASSERT_TRUE(victim.init(small(), 160, 120, 0));
        ASSERT_GT(victim.decode(0, 10), 0);
        ASSERT_TRUE(victim.shrink());
        EXPECT_EQ(victim.c.ring(), ClientError::kOk);
        EXPECT_EQ(victim.c.wait_sync(kWaitMs), ClientError::kDisconnected);
        EXPECT_TRUE(daemon.wait_log(kBlockLost));
    }
    EXPECT_GT(bystander.decode(10, small().packets.size()), 0);
    EXPECT_TRUE(wait_until(kWaitMs, [&] { return proc_stat(daemon.pid()).fds == before.fds; }));
    EXPECT_EQ(proc_stat(daemon.pid()).threads, before.threads);
}

INSTANTIATE_TEST_SUITE_P(ClientTypes, Shrink, ::testing::Values(false, true));

// The daemon under exhaustion: with room for a client's block mapping but not for a thread stack
// (the address space limit just above what a fresh daemon, with no cached thread stack, uses plus
// one block), the client is refused; the next one is served once the limit is lifted. With no
// descriptor left, accept fails: the service pauses accepting instead of spinning, serves its
// registered clients meanwhile, and accepts the waiting clients once descriptors are back.
TEST(Exhaustion, RefusesOrPausesAndRecovers) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    const ProcStat fresh = proc_stat(daemon.pid());
    rlimit as{}, files{};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, nullptr, &as), 0);
    rlimit tight = as;
    tight.rlim_cur = rlim_t(fresh.vm_kb) * 1024 + SHM_BLOCK_SIZE + 1024 * 1024;
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &tight, nullptr), 0);
    {
        Client refused(daemon, true);
        EXPECT_TRUE(wait_closed(refused.c.fd(), kWaitMs));
        EXPECT_TRUE(daemon.wait_log("decoder worker thread create failed"));
        EXPECT_TRUE(daemon.wait_log("decoder instance create failed"));
    }
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &as, nullptr), 0);
    EXPECT_TRUE(wait_until(kWaitMs, [&] { return proc_stat(daemon.pid()).fds == fresh.fds; }));

    SessionClient session;
    ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(session.start_answering(), ClientError::kOk);
    Client working(daemon, true);
    // Decoding before the descriptors run out also fills a sanitizer build's type cache, whose
    // first check needs a pipe.
    ASSERT_TRUE(working.init(small(), 160, 120, 0) && working.decode(0, 10) > 0);
    const ProcStat before = proc_stat(daemon.pid());
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &files), 0);
    rlimit exhausted = files;
    exhausted.rlim_cur = 0;  // to the lowest free descriptor number
    const std::string fds = "/proc/" + std::to_string(daemon.pid()) + "/fd/";
    while (access((fds + std::to_string(exhausted.rlim_cur)).c_str(), F_OK) == 0) {
        ++exhausted.rlim_cur;
    }
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &exhausted, nullptr), 0);
    std::vector<std::unique_ptr<ScopedShm>> blocks;
    std::vector<UniqueFd> waiting;
    for (int i = 0; i < 3; ++i) {
        blocks.emplace_back(new ScopedShm(SHM_BLOCK_SIZE));
        waiting.emplace_back(connect_service(daemon.socket_path()));
        ASSERT_GE(send_type_msg(waiting.back().get(), CLIENT_TYPE_SHM_DECODER, blocks.back()->name,
                                {blocks.back()->fd}),
                  0);
    }
    ASSERT_TRUE(daemon.wait_log("media server accept failed: [24] Too many open files"));
    const double cpu = proc_stat(daemon.pid()).cpu_s;
    std::this_thread::sleep_for(std::chrono::seconds(2));  // a window to measure, not a wait
    // A loop retrying accept at once would burn the whole two seconds.
    EXPECT_LT(proc_stat(daemon.pid()).cpu_s - cpu, 0.5);
    EXPECT_LT(daemon.count("media server accept failed"), 40u);
    EXPECT_GT(working.decode(10, small().packets.size()), 0);

    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &files, nullptr), 0);
    EXPECT_TRUE(
        wait_until(kWaitMs, [&] { return proc_stat(daemon.pid()).threads == before.threads + 3; }));
    for (UniqueFd& fd : waiting) {
        char sync = 0;
        EXPECT_EQ(send(fd.get(), "x", 1, MSG_NOSIGNAL), 1);  // a block of zeros: an init
        EXPECT_EQ(wait_readable(fd.get(), kWaitMs), ClientError::kOk);
        EXPECT_EQ(recv(fd.get(), &sync, 1, 0), 1);
        EXPECT_EQ(sync, char(SYNC_MSG_BYTE));
        fd.reset();
    }
    EXPECT_TRUE(wait_until(kWaitMs, [&] { return proc_stat(daemon.pid()).fds == before.fds; }));
    EXPECT_FALSE(session.disconnected());
    working.c.close();
    session.close();
    EXPECT_EQ(daemon.wait_exit(), 0);
}

}  // namespace
