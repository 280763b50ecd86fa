// Hostile clients and resource exhaustion against the real daemon: a client that shrinks its
// shared memory under the service, the process out of descriptors, a worker thread that cannot be
// created, and one run through every request type and failure path. Every test ends with an
// orderly stop and exit status 0, which in an AddressSanitizer build also means that
// LeakSanitizer found no leak in the daemon.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "support/client_util.h"
#include "support/daemon_process.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 20000;
constexpr const char* kBlockLost = "shared memory block lost, dropping decoder client";
constexpr const char* kDecodeFrame = " decode frame\n";

// Small H.264 stream for clients that only need to decode something.
const DemuxedStream* small_video() {
    static DemuxedStream stream;
    static bool ok = [] {
        std::string path = make_media(
            "hardening_small.mp4",
            "-f lavfi -i testsrc=size=160x120:rate=25 -frames:v 30 -c:v libx264 -pix_fmt yuv420p "
            "-g 10");
        return !path.empty() && demux_first_stream(path, true, &stream) && !stream.packets.empty();
    }();
    return ok ? &stream : nullptr;
}

// A larger picture, converted to the largest RGBA output that fits the output area, so that one
// decode request takes long enough to be interrupted.
const DemuxedStream* large_video() {
    static DemuxedStream stream;
    static bool ok = [] {
        std::string path = make_media(
            "hardening_large.mp4",
            "-f lavfi -i testsrc=size=640x480:rate=25 -frames:v 20 -c:v libx264 -pix_fmt yuv420p");
        return !path.empty() && demux_first_stream(path, true, &stream) && !stream.packets.empty();
    }();
    return ok ? &stream : nullptr;
}

constexpr int kLargeOut = 2048;  // 2048 x 2048 RGBA is exactly SHM_AREA_SIZE

VideoInitParams video_params(const DemuxedStream& s, int out_w, int out_h, int out_fmt) {
    VideoInitParams p;
    p.coded_width = s.width;
    p.coded_height = s.height;
    p.coded_pix_fmt = s.pix_fmt;
    p.out_width = out_w;
    p.out_height = out_h;
    p.out_pix_fmt = out_fmt;
    return p;
}

bool init_small(DecoderClient& client) {
    const DemuxedStream* s = small_video();
    ExchangeResult r{};
    return s != nullptr &&
           client.init_video(static_cast<uint32_t>(video_codec_index(s->codec_name)),
                             video_params(*s, s->width, s->height, AV_PIX_FMT_YUV420P),
                             s->extradata.data(), s->extradata.size(), &r,
                             kWaitMs) == ClientError::kOk &&
           r.status == STATUS_OK;
}

// Decodes packets [from, to) of the small stream; every answer must be a picture of the right
// size or a request for more data. Returns the number of pictures, -1 on a failure.
int decode_small(DecoderClient& client, size_t from, size_t to) {
    const DemuxedStream* s = small_video();
    const uint32_t picture = static_cast<uint32_t>(s->width * s->height * 3 / 2);
    int pictures = 0;
    for (size_t i = from; i < to && i < s->packets.size(); ++i) {
        const auto& p = s->packets[i];
        ExchangeResult r{};
        if (client.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kWaitMs) !=
            ClientError::kOk) {
            return -1;
        }
        if (r.status == STATUS_OK && r.output_size == picture) {
            ++pictures;
        } else if (r.status != STATUS_NEED_MORE_DATA) {
            return -1;
        }
    }
    return pictures;
}

// Registers a client of either type; for a type 2 client `memfd` receives the test's own
// descriptor of the block, so that the test can shrink it.
ClientError connect_client(DecoderClient& client, const DaemonProcess& daemon, bool posix,
                           int* memfd) {
    if (posix) {
        return client.connect_posix(daemon.socket_path());
    }
    *memfd = make_memfd(SHM_BLOCK_SIZE);
    return client.connect_descriptor(daemon.socket_path(), *memfd);
}

// Truncates a client's shared memory object to 0 bytes. The test must not touch the client's
// block afterwards: its own mapping is gone as well.
bool shrink(const DecoderClient& client, bool posix, int memfd) {
    int fd = posix ? shm_open(client.shm_name().c_str(), O_RDWR, 0600) : dup(memfd);
    bool ok = fd >= 0 && ftruncate(fd, 0) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return ok;
}

void stop_cleanly(DaemonProcess& daemon) {
    daemon.signal(SIGTERM);
    const int status = daemon.wait_exit(30000);
    EXPECT_EQ(status, 0);
    if (status != 0) {
        const std::string log = daemon.log();
        ADD_FAILURE() << "end of the daemon's output:\n"
                      << log.substr(log.size() > 4000 ? log.size() - 4000 : 0);
    }
}

long cpu_ticks(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close_paren = text.rfind(')');
    if (close_paren == std::string::npos) {
        return -1;
    }
    std::istringstream fields(text.substr(close_paren + 2));
    std::string field;
    long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) {
            utime = std::stol(field);
        } else if (i == 15) {
            stime = std::stol(field);
        }
    }
    return utime + stime;
}

// The lowest descriptor number that `pid` does not use.
int lowest_free_fd(pid_t pid) {
    for (int fd = 0;; ++fd) {
        std::string path = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
        if (access(path.c_str(), F_OK) != 0) {
            return fd;
        }
    }
}

long vm_size_kb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    while (in >> key) {
        if (key == "VmSize:") {
            long kb = -1;
            in >> kb;
            return kb;
        }
        in.ignore(1 << 16, '\n');
    }
    return -1;
}

// ---- a client that shrinks its shared memory ----

class ShrinkTest : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        ASSERT_NE(small_video(), nullptr);
        ASSERT_TRUE(daemon.start());
        // The bystander is of the other type, decoding the same stream before and after.
        ASSERT_EQ(connect_client(bystander, daemon, !GetParam(), &bystander_memfd),
                  ClientError::kOk);
        ASSERT_TRUE(init_small(bystander));
        ASSERT_GT(decode_small(bystander, 0, 10), 0);
        threads_with_bystander = daemon.thread_count();
    }

    void TearDown() override {
        if (bystander_memfd >= 0) {
            close(bystander_memfd);
        }
    }

    // The bystander keeps decoding, the daemon holds no more than before the victim came.
    void expect_others_unharmed(int fds_before) {
        EXPECT_GT(decode_small(bystander, 10, small_video()->packets.size()), 0);
        EXPECT_TRUE(daemon.running());
        EXPECT_TRUE(eventually([&] { return daemon.open_fd_count() == fds_before; }, kWaitMs));
        EXPECT_EQ(daemon.thread_count(), threads_with_bystander);
        bystander.close();
        stop_cleanly(daemon);
    }

    DaemonProcess daemon;
    // The loop, the bystander's worker, and a thread that ThreadSanitizer starts with the first
    // thread in such a build.
    int threads_with_bystander = 0;
    DecoderClient bystander;
    int bystander_memfd = -1;
};

TEST_P(ShrinkTest, BetweenRequestsTheClientIsDropped) {
    const bool posix = GetParam();
    const int fds_before = daemon.open_fd_count();
    DecoderClient victim;
    int memfd = -1;
    ASSERT_EQ(connect_client(victim, daemon, posix, &memfd), ClientError::kOk);
    ASSERT_TRUE(init_small(victim));
    ASSERT_GT(decode_small(victim, 0, 10), 0);

    ASSERT_TRUE(shrink(victim, posix, memfd));
    // The next doorbell makes the worker read the vanished header: the service survives the
    // fault, answers nothing and closes the connection.
    ASSERT_EQ(victim.ring(), ClientError::kOk);
    EXPECT_EQ(victim.wait_sync(kWaitMs), ClientError::kDisconnected);
    EXPECT_TRUE(daemon.wait_for_log(kBlockLost, kWaitMs));
    victim.close();
    if (memfd >= 0) {
        close(memfd);
    }
    expect_others_unharmed(fds_before);
}

TEST_P(ShrinkTest, DuringADecodeTheClientIsDropped) {
    const bool posix = GetParam();
    const DemuxedStream* large = large_video();
    ASSERT_NE(large, nullptr);
    const uint32_t codec = static_cast<uint32_t>(video_codec_index(large->codec_name));
    const int fds_before = daemon.open_fd_count();

    // The block is truncated a quarter of the way into a request that converts a picture to a
    // 16 MiB output. Whether the worker was still inside the request shows in the log: its
    // "decode frame" line came before the loss. A truncation that misses (the request finished
    // first, or had not begun) must be survived all the same; it is tried again.
    bool hit_during_decode = false;
    for (int attempt = 0; attempt < 6 && !hit_during_decode; ++attempt) {
        DecoderClient victim;
        int memfd = -1;
        ASSERT_EQ(connect_client(victim, daemon, posix, &memfd), ClientError::kOk);
        ExchangeResult r{};
        ASSERT_EQ(
            victim.init_video(codec, video_params(*large, kLargeOut, kLargeOut, AV_PIX_FMT_RGBA),
                              large->extradata.data(), large->extradata.size(), &r, kWaitMs),
            ClientError::kOk);
        ASSERT_EQ(r.status, STATUS_OK);
        // Decode until three pictures have come, keeping the shortest time of a request that
        // produced one (the first is slowed by the conversion's setup).
        std::chrono::duration<double> picture_time{0};
        int pictures = 0;
        size_t next = 0;
        while (next < large->packets.size() && pictures < 3) {
            const auto& p = large->packets[next++];
            auto start = std::chrono::steady_clock::now();
            ASSERT_EQ(victim.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kWaitMs),
                      ClientError::kOk);
            std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
            if (r.status == STATUS_OK && (pictures++ == 0 || took < picture_time)) {
                picture_time = took;
            }
        }
        ASSERT_LT(next, large->packets.size());
        const auto& p = large->packets[next];
        ASSERT_EQ(victim.write_decode_frame(p.data.data(), p.data.size(), p.pts), ClientError::kOk);
        const size_t decodes_before = daemon.count_in_log(kDecodeFrame);
        const size_t lost_before = daemon.count_in_log(kBlockLost);

        ASSERT_EQ(victim.ring(), ClientError::kOk);
        std::this_thread::sleep_for(picture_time / 4);
        ASSERT_TRUE(shrink(victim, posix, memfd));
        ClientError answer = victim.wait_sync(kWaitMs);
        if (answer == ClientError::kOk) {
            // Too late: the request was done. The next doorbell finds the block gone.
            ASSERT_EQ(victim.ring(), ClientError::kOk);
            answer = victim.wait_sync(kWaitMs);
        } else {
            hit_during_decode = daemon.count_in_log(kDecodeFrame) == decodes_before + 1;
        }
        EXPECT_EQ(answer, ClientError::kDisconnected);
        EXPECT_TRUE(daemon.wait_for_log(kBlockLost, kWaitMs, lost_before + 1));
        victim.close();
        if (memfd >= 0) {
            close(memfd);
        }
    }
    EXPECT_TRUE(hit_during_decode) << "no truncation landed inside a decode";
    expect_others_unharmed(fds_before);
}

INSTANTIATE_TEST_SUITE_P(ClientTypes, ShrinkTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "PosixShm" : "Ashmem";
                         });

// ---- resource exhaustion ----

class ExhaustionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(small_video(), nullptr);
        ASSERT_TRUE(daemon.start());
    }

    DaemonProcess daemon;
};

TEST_F(ExhaustionTest, OutOfDescriptorsAcceptPausesInsteadOfSpinning) {
    SessionClient session;
    ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(session.start_answering(), ClientError::kOk);
    DecoderClient working;
    ASSERT_EQ(working.connect_posix(daemon.socket_path()), ClientError::kOk);
    ASSERT_TRUE(init_small(working));
    // Decoding before the descriptors run out also fills UndefinedBehaviorSanitizer's type cache
    // in a sanitizer build: a first check of a type needs a pipe, which would fail and report.
    ASSERT_GT(decode_small(working, 0, 10), 0);
    const int threads_before = daemon.thread_count();
    const int fds_before = daemon.open_fd_count();

    // No descriptor number left below the limit.
    rlimit original{};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &original), 0);
    rlimit exhausted = original;
    exhausted.rlim_cur = static_cast<rlim_t>(lowest_free_fd(daemon.pid()));
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &exhausted, nullptr), 0);

    // Three clients wait in the backlog with their client type msg already sent.
    std::vector<std::unique_ptr<ScopedShm>> blocks;
    std::vector<int> waiting;
    for (int i = 0; i < 3; ++i) {
        blocks.emplace_back(new ScopedShm(SHM_BLOCK_SIZE));
        int fd = connect_service(daemon.socket_path());
        ASSERT_GE(fd, 0);
        ASSERT_EQ(send_client_type_msg(fd, CLIENT_TYPE_SHM_DECODER, blocks.back()->name(),
                                       blocks.back()->fd()),
                  0);
        waiting.push_back(fd);
    }
    ASSERT_TRUE(
        daemon.wait_for_log("media server accept failed: [24] Too many open files", kWaitMs));
    const long ticks_before = cpu_ticks(daemon.pid());
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const long ticks = cpu_ticks(daemon.pid()) - ticks_before;
    // A loop retrying accept at once would burn the whole two seconds.
    EXPECT_LT(ticks, sysconf(_SC_CLK_TCK) / 2) << "CPU ticks in 2 s: " << ticks;
    EXPECT_LT(daemon.count_in_log("media server accept failed"), 40u);

    // Clients already registered are served meanwhile, and the session is still pinged.
    EXPECT_GT(decode_small(working, 10, small_video()->packets.size()), 0);
    EXPECT_TRUE(daemon.running());

    // With descriptors again, the waiting clients are accepted and registered.
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &original, nullptr), 0);
    EXPECT_TRUE(eventually([&] { return daemon.thread_count() == threads_before + 3; }, kWaitMs));
    for (int fd : waiting) {
        char sync = 0;
        EXPECT_EQ(send(fd, "x", 1, MSG_NOSIGNAL), 1);  // a doorbell: a block of zeros, init
        EXPECT_EQ(wait_readable(fd, kWaitMs), ClientError::kOk);
        EXPECT_EQ(recv(fd, &sync, 1, 0), 1);
        EXPECT_EQ(sync, static_cast<char>(SYNC_MSG_BYTE));
        close(fd);
    }
    EXPECT_TRUE(eventually([&] { return daemon.open_fd_count() == fds_before; }, kWaitMs));
    EXPECT_FALSE(session.disconnected());
    working.close();
    session.stop_answering();
    stop_cleanly(daemon);
}

TEST_F(ExhaustionTest, WorkerThreadCreationFailureRefusesTheClient) {
    const int fds_before = daemon.open_fd_count();
    // Room for the client's block mapping but not for a thread stack: the address space limit
    // is set just above what the daemon uses plus one block. A fresh daemon has no cached thread
    // stack that pthread_create could reuse.
    rlimit original{};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, nullptr, &original), 0);
    const long vm_kb = vm_size_kb(daemon.pid());
    ASSERT_GT(vm_kb, 0);
    rlimit tight = original;
    tight.rlim_cur = static_cast<rlim_t>(vm_kb) * 1024 + SHM_BLOCK_SIZE + 1024 * 1024;
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &tight, nullptr), 0);

    DecoderClient refused;
    ASSERT_EQ(refused.connect_posix(daemon.socket_path()), ClientError::kOk);
    EXPECT_TRUE(wait_closed(refused.fd(), kWaitMs));
    EXPECT_TRUE(daemon.wait_for_log("decoder worker thread create failed", kWaitMs));
    EXPECT_TRUE(daemon.wait_for_log("decoder instance create failed", kWaitMs));
    refused.close();
    EXPECT_TRUE(daemon.running());

    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &original, nullptr), 0);
    DecoderClient served;
    ASSERT_EQ(served.connect_posix(daemon.socket_path()), ClientError::kOk);
    ASSERT_TRUE(init_small(served));
    EXPECT_GT(decode_small(served, 0, small_video()->packets.size()), 0);
    served.close();
    EXPECT_TRUE(eventually([&] { return daemon.open_fd_count() == fds_before; }, kWaitMs));
    stop_cleanly(daemon);
}

// ---- every request type and failure path in one daemon, then an orderly stop ----

TEST(LeakRun, EveryRequestAndFailurePathThenOrderlyStop) {
    ASSERT_NE(small_video(), nullptr);
    const DemuxedStream* aac = aac_stream();
    ASSERT_NE(aac, nullptr);
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    const std::string path = daemon.socket_path();

    SessionClient session;
    ASSERT_EQ(session.connect(path), ClientError::kOk);
    ASSERT_EQ(session.start_answering(), ClientError::kOk);
    SessionClient second_session;  // refused: one session per service lifetime
    ASSERT_EQ(second_session.connect(path), ClientError::kOk);
    EXPECT_TRUE(wait_closed(second_session.fd(), kWaitMs));
    const int fds_before = daemon.open_fd_count();
    {
        // One worker has come and gone before the thread figure is taken: a sanitizer may start
        // a thread of its own with the first one.
        DecoderClient first;
        ASSERT_EQ(first.connect_posix(path), ClientError::kOk);
        ASSERT_EQ(first.flush(kWaitMs), ClientError::kOk);
    }
    // The connection is closed last, after the worker has been joined.
    ASSERT_TRUE(eventually([&] { return daemon.open_fd_count() == fds_before; }, kWaitMs));
    const int idle_threads = daemon.thread_count();

    // Refused handshakes.
    {
        ScopedShm small(4096);
        ScopedShm block(SHM_BLOCK_SIZE);
        int pipe_fds[2];
        ASSERT_EQ(pipe(pipe_fds), 0);
        const int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        struct Refusal {
            std::vector<uint8_t> record;
            std::vector<int> fds;
        };
        const std::vector<Refusal> refusals = {
            {type_msg(CLIENT_TYPE_SHM_DECODER, block.name()), {}},                  // no descriptor
            {type_msg(CLIENT_TYPE_SHM_DECODER, block.name()), {null_fd, null_fd}},  // two
            {type_msg(CLIENT_TYPE_ASHMEM_DECODER), {null_fd, null_fd, null_fd}},    // cut off
            {type_msg(9), {null_fd}},                                               // type
            {type_msg(CLIENT_TYPE_SHM_DECODER, "/svc-no-such-object"), {null_fd}},
            {type_msg(CLIENT_TYPE_SHM_DECODER, small.name()), {null_fd}},  // too small
            {type_msg(CLIENT_TYPE_ASHMEM_DECODER), {pipe_fds[0]}},         // no region
            {{}, {null_fd}},                                               // empty record
        };
        for (const Refusal& r : refusals) {
            int fd = connect_service(path);
            ASSERT_GE(fd, 0);
            ASSERT_GE(send_with_fds(fd, r.record, r.fds), 0);
            EXPECT_TRUE(wait_closed(fd, kWaitMs));
            close(fd);
        }
        int early = connect_service(path);  // gone before its handshake
        close(early);
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        close(null_fd);
    }

    // Every request type on video and audio, both client types.
    {
        DecoderClient video;
        ASSERT_EQ(video.connect_descriptor(path), ClientError::kOk);
        ASSERT_TRUE(init_small(video));
        const DemuxedStream* s = small_video();
        ASSERT_EQ(video.codec_config(s->extradata.data(), s->extradata.size(), kWaitMs),
                  ClientError::kOk);
        EXPECT_GT(decode_small(video, 0, 12), 0);
        EXPECT_EQ(video.flush(kWaitMs), ClientError::kOk);
        EXPECT_EQ(video.reset_video(80, 60, AV_PIX_FMT_RGBA, kWaitMs), ClientError::kOk);
        ExchangeResult r{};
        for (int32_t bad : {0, -1, static_cast<int32_t>(SHM_AREA_SIZE) + 1}) {
            ASSERT_EQ(video.write_decode_frame(nullptr, 0, 0), ClientError::kOk);
            memcpy(video.block() + REQ_DATA_SIZE_OFFSET, &bad, sizeof(bad));
            ASSERT_EQ(video.call(kWaitMs), ClientError::kOk);
            EXPECT_EQ(video.result().status, STATUS_FAILED);
        }
        std::vector<uint8_t> garbage(5000, 0xa5);
        EXPECT_EQ(video.decode_frame(garbage.data(), garbage.size(), 1, &r, kWaitMs),
                  ClientError::kOk);
        EXPECT_EQ(video.destroy(kWaitMs), ClientError::kOk);
        EXPECT_EQ(video.destroy(kWaitMs), ClientError::kOk);
        EXPECT_EQ(video.decode_frame("x", 1, 0, &r, kWaitMs), ClientError::kOk);
        EXPECT_EQ(video.reset_video(80, 60, AV_PIX_FMT_RGBA, kWaitMs), ClientError::kOk);
        EXPECT_EQ(video.flush(kWaitMs), ClientError::kOk);
        EXPECT_EQ(video.codec_config("abc", 3, kWaitMs), ClientError::kOk);

        DecoderClient audio;
        ASSERT_EQ(audio.connect_posix(path), ClientError::kOk);
        AudioInitParams params;
        params.in_sample_fmt = aac->sample_fmt;
        params.in_channels = aac->channels;
        params.in_sample_rate = aac->sample_rate;
        params.out_sample_fmt = AV_SAMPLE_FMT_FLTP;
        params.out_channels = 1;
        params.out_sample_rate = 22050;
        ASSERT_EQ(
            audio.init_audio(static_cast<uint32_t>(audio_codec_index(aac->codec_name)), params,
                             aac->extradata.data(), aac->extradata.size(), &r, kWaitMs),
            ClientError::kOk);
        ASSERT_EQ(r.status, STATUS_OK);
        for (size_t i = 0; i < aac->packets.size(); ++i) {
            const auto& p = aac->packets[i];
            ASSERT_EQ(audio.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kWaitMs),
                      ClientError::kOk);
            if (i == aac->packets.size() / 2) {
                EXPECT_EQ(audio.reset_audio(AV_SAMPLE_FMT_S16, 2, 48000, kWaitMs),
                          ClientError::kOk);
            }
        }
        EXPECT_EQ(audio.codec_config(aac->extradata.data(), aac->extradata.size(), kWaitMs),
                  ClientError::kOk);
        EXPECT_EQ(audio.flush(kWaitMs), ClientError::kOk);
        EXPECT_EQ(audio.decode_frame(garbage.data(), garbage.size(), 1, &r, kWaitMs),
                  ClientError::kOk);
        EXPECT_EQ(audio.destroy(kWaitMs), ClientError::kOk);
        // A video setup after the audio one: both states are held until the client leaves.
        ASSERT_TRUE(init_small(audio));
    }

    // Requests that end the worker: unknown request, media type, codec; a failed setup.
    {
        struct Ending {
            uint32_t media_type;
            uint32_t codec_index;
            std::array<int32_t, 7> params;
        };
        const std::vector<Ending> endings = {
            {2, 0, {}},
            {static_cast<uint32_t>(MEDIA_TYPE_VIDEO), 11, {}},
            {static_cast<uint32_t>(MEDIA_TYPE_AUDIO), 12, {}},
            // Configuration data larger than the input area: the setup fails.
            {static_cast<uint32_t>(MEDIA_TYPE_AUDIO),
             0,
             {AV_SAMPLE_FMT_FLTP, 2, 44100, 0x7fffffff}},
            {static_cast<uint32_t>(MEDIA_TYPE_VIDEO), 2, {64, 64, 0, 0x7fffffff, 64, 64, 0}},
        };
        for (const Ending& e : endings) {
            DecoderClient client;
            ASSERT_EQ(client.connect_posix(path), ClientError::kOk);
            ASSERT_EQ(client.write_init(e.media_type, e.codec_index, e.params), ClientError::kOk);
            EXPECT_EQ(client.call(kWaitMs), ClientError::kOk);
            EXPECT_EQ(client.call(500), ClientError::kTimeout);  // the worker has ended
        }
        DecoderClient unknown;
        ASSERT_EQ(unknown.connect_descriptor(path), ClientError::kOk);
        ASSERT_EQ(unknown.write_request_type(6), ClientError::kOk);
        EXPECT_EQ(unknown.call(kWaitMs), ClientError::kOk);
    }

    // Clients that leave with a request in flight, and one that shrinks its block.
    {
        const DemuxedStream* s = small_video();
        for (int i = 0; i < 3; ++i) {
            DecoderClient client;
            ASSERT_EQ(client.connect_posix(path), ClientError::kOk);
            ASSERT_TRUE(init_small(client));
            const auto& p = s->packets[0];
            ASSERT_EQ(client.write_decode_frame(p.data.data(), p.data.size(), p.pts),
                      ClientError::kOk);
            ASSERT_EQ(client.ring(i + 1), ClientError::kOk);
        }
        DecoderClient shrinking;
        int memfd = -1;
        ASSERT_EQ(connect_client(shrinking, daemon, false, &memfd), ClientError::kOk);
        ASSERT_TRUE(init_small(shrinking));
        ASSERT_TRUE(shrink(shrinking, false, memfd));
        ASSERT_EQ(shrinking.ring(), ClientError::kOk);
        EXPECT_EQ(shrinking.wait_sync(kWaitMs), ClientError::kDisconnected);
        shrinking.close();
        close(memfd);
    }

    EXPECT_TRUE(eventually([&] { return daemon.open_fd_count() == fds_before; }, kWaitMs));
    EXPECT_TRUE(eventually([&] { return daemon.thread_count() == idle_threads; }, kWaitMs));
    EXPECT_FALSE(session.disconnected());
    session.stop_answering();
    stop_cleanly(daemon);
}

}  // namespace
