// Stress and soak: one session client and kClients decoder clients decoding real streams through
// the real daemon, each client in its own process so that it can be killed with SIGKILL in the
// middle of a request. Clients also leave at random moments (with a request in flight, between
// requests, before the handshake), send garbage requests, or shrink their shared memory; new ones
// keep connecting. At the end the daemon must be alive, serve a new client correctly, and be back
// to its baseline of open descriptors, threads and resident memory.
//
// SVC_SOAK_SECONDS sets the duration (default 20, the CI run); scripts/soak runs it longer and
// prints the figures. SVC_SOAK_LOG=path keeps the daemon's log there.

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "client/media_client.h"
#include "support/media_fixtures.h"

using mediaclient::ClientError;

namespace {

constexpr int kClients = 32;
constexpr int kDefaultSeconds = 20;
constexpr int kChaosWarmUpSeconds = 10;
constexpr int kSyncTimeoutMs = 60000;
// Resident memory may end this much above the baseline in a plain build (allocator caches,
// FFmpeg's lazily built tables). Sanitizer builds keep freed memory in quarantine or shadow, so
// their figure is printed but not checked.
constexpr long kRssMarginKb = 32 * 1024;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Written by the client processes, read by the driver: anonymous shared memory made before the
// first fork.
struct Counters {
    std::atomic<uint64_t> requests;
    std::atomic<uint64_t> pictures;
    std::atomic<uint64_t> audio_frames;
    std::atomic<uint64_t> shrunk_and_dropped;
    std::atomic<uint64_t> failures;
    char last_failure[256];
};

Counters* counters = nullptr;

void fail(const char* what, const std::string& detail = "") {
    counters->failures.fetch_add(1);
    snprintf(counters->last_failure, sizeof(counters->last_failure), "[%d] %s %s", getpid(), what,
             detail.c_str());
}

struct Stream {
    std::string name;
    DemuxedStream demuxed;
    int codec_index = -1;
};

std::vector<Stream> load_streams() {
    struct Source {
        const char* name;
        const char* file;
        const char* args;
        bool video;
    };
    const char video_in[] = "-f lavfi -i testsrc=size=320x240:rate=25 -frames:v 50 ";
    const char audio_in[] = "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=2 -ac 2 ";
    const Source sources[] = {
        // In-band parameter sets at every keyframe: a reset passes no configuration bytes, so
        // the stream must carry its own.
        {"h264", "soak-h264.h264",
         "-c:v libx264 -pix_fmt yuv420p -g 10 -x264-params repeat-headers=1", true},
        {"mpeg4", "soak-mpeg4.avi", "-c:v mpeg4 -g 10", true},
        {"vp8", "soak-vp8.webm", "-c:v libvpx -g 10", true},
        {"aac", "soak-aac.m4a", "-c:a aac", false},
        {"mp3", "soak-mp3.mp3", "-c:a libmp3lame", false},
        {"opus", "soak-opus.ogg", "-ar 48000 -c:a libopus", false},
    };
    std::vector<Stream> streams;
    for (const Source& src : sources) {
        Stream s;
        s.name = src.name;
        std::string path =
            make_media(src.file, std::string(src.video ? video_in : audio_in) + src.args);
        if (path.empty() || !demux_first_stream(path, src.video, &s.demuxed) ||
            s.demuxed.packets.empty()) {
            continue;
        }
        s.codec_index = src.video ? video_codec_index(s.demuxed.codec_name)
                                  : audio_codec_index(s.demuxed.codec_name);
        if (s.codec_index >= 0) {
            streams.push_back(std::move(s));
        }
    }
    return streams;
}

// ---- one decoder client, run in a child process ----

enum class Behaviour {
    kWellBehaved,  // decodes, destroys its decoder, closes
    kVanish,       // closes with a request in flight or between requests
    kCloseEarly,   // closes right after connecting, before or after the handshake
    kGarbage,      // sends a request of random bytes, then leaves
    kShrink,       // truncates its shared memory object to 0 and rings
};

struct Plan {
    Behaviour behaviour = Behaviour::kWellBehaved;
    bool posix = false;
    std::string shm_name;  // type 3: chosen by the driver, which unlinks it after a SIGKILL
    size_t stream = 0;
    int requests = 0;
    int cut_at = 0;  // request at which a misbehaving client acts
    int pace_us = 0;
    uint32_t seed = 0;
};

struct Output {
    int32_t a, b, c;  // video: width, height, pixel format; audio: format, channels, rate
};

size_t picture_size(const Output& out) {
    switch (out.c) {
        case AV_PIX_FMT_RGBA:
            return static_cast<size_t>(out.a) * out.b * 4;
        default:  // yuv420p
            return static_cast<size_t>(out.a) * out.b * 3 / 2;
    }
}

bool init_decoder(mediaclient::DecoderClient& client, const Stream& s, const Output& out) {
    const DemuxedStream& d = s.demuxed;
    ExchangeResult result{};
    ClientError e;
    if (d.is_video) {
        mediaclient::VideoInitParams p;
        p.coded_width = d.width;
        p.coded_height = d.height;
        p.coded_pix_fmt = d.pix_fmt;
        p.out_width = out.a;
        p.out_height = out.b;
        p.out_pix_fmt = out.c;
        e = client.init_video(s.codec_index, p, d.extradata.data(), d.extradata.size(), &result,
                              kSyncTimeoutMs);
    } else {
        mediaclient::AudioInitParams p;
        p.in_sample_fmt = d.sample_fmt;
        p.in_channels = d.channels;
        p.in_sample_rate = d.sample_rate;
        p.out_sample_fmt = out.a;
        p.out_channels = out.b;
        p.out_sample_rate = out.c;
        e = client.init_audio(s.codec_index, p, d.extradata.data(), d.extradata.size(), &result,
                              kSyncTimeoutMs);
    }
    if (e != ClientError::kOk || result.status != STATUS_OK) {
        fail("init codec failed");
        return false;
    }
    counters->requests.fetch_add(1);
    return true;
}

int run_client(const std::string& socket_path, const std::vector<Stream>& streams,
               const Plan& plan) {
    std::mt19937 rng(plan.seed);
    mediaclient::DecoderClient client;
    int memfd = -1;
    ClientError e;
    if (plan.posix) {
        e = client.connect_posix(socket_path, plan.shm_name);
    } else {
        memfd = memfd_create("soak-block", MFD_CLOEXEC);
        if (memfd < 0 || ftruncate(memfd, SHM_BLOCK_SIZE) != 0) {
            fail("memfd");
            return 1;
        }
        e = client.connect_descriptor(socket_path, memfd);
    }
    if (e != ClientError::kOk) {
        fail("connect");
        return 1;
    }
    if (plan.behaviour == Behaviour::kCloseEarly) {
        return 0;  // registered and gone at once; a raw early close is done by the driver
    }

    const Stream& s = streams[plan.stream];
    const DemuxedStream& d = s.demuxed;
    Output out = d.is_video ? Output{d.width, d.height, AV_PIX_FMT_YUV420P}
                            : Output{AV_SAMPLE_FMT_S16, 2, 44100};
    if (!init_decoder(client, s, out)) {
        return 1;
    }

    size_t next = 0;
    for (int i = 0; i < plan.requests; ++i) {
        if (i == plan.cut_at && plan.behaviour == Behaviour::kVanish) {
            if (rng() % 2 == 0) {
                const DemuxedPacket& p = d.packets[next];
                client.write_decode_frame(p.data.data(), p.data.size(), p.pts);
                client.ring();
            }
            return 0;  // the connection closes with or without a request in flight
        }
        if (i == plan.cut_at && plan.behaviour == Behaviour::kGarbage) {
            uint8_t* block = client.block();
            for (size_t k = 0; k < 40; ++k) {
                block[k] = static_cast<uint8_t>(rng());
            }
            for (size_t k = 0; k < 4096; ++k) {
                client.input()[k] = static_cast<uint8_t>(rng());
            }
            client.call(2000);  // any answer or none: the worker may have ended
            return 0;
        }
        if (i == plan.cut_at && plan.behaviour == Behaviour::kShrink) {
            int fd = plan.posix ? shm_open(plan.shm_name.c_str(), O_RDWR, 0600) : dup(memfd);
            if (fd < 0 || ftruncate(fd, 0) != 0) {
                fail("shrink");
                return 1;
            }
            close(fd);
            // The block is gone for us as well: nothing may touch it from here on.
            client.ring();
            if (client.wait_sync(kSyncTimeoutMs) != ClientError::kDisconnected) {
                fail("a client with a shrunk block was not dropped");
                return 1;
            }
            counters->shrunk_and_dropped.fetch_add(1);
            return 0;
        }

        if (next == d.packets.size()) {
            // End of the stream: flush, and now and then a new output format, then again.
            if (client.flush(kSyncTimeoutMs) != ClientError::kOk) {
                fail("flush");
                return 1;
            }
            if (d.is_video && rng() % 2 == 0) {
                out = rng() % 2 == 0 ? Output{d.width / 2, d.height / 2, AV_PIX_FMT_RGBA}
                                     : Output{d.width, d.height, AV_PIX_FMT_YUV420P};
                if (client.reset_video(out.a, out.b, out.c, kSyncTimeoutMs) != ClientError::kOk) {
                    fail("reset");
                    return 1;
                }
            }
            counters->requests.fetch_add(1);
            next = 0;
        }
        const DemuxedPacket& p = d.packets[next++];
        ExchangeResult r{};
        if (client.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kSyncTimeoutMs) !=
            ClientError::kOk) {
            fail("no answer to a decode");
            return 1;
        }
        counters->requests.fetch_add(1);
        if (r.status == STATUS_OK) {
            if (d.is_video) {
                if (r.output_size != picture_size(out)) {
                    fail("picture of the wrong size");
                    return 1;
                }
                counters->pictures.fetch_add(1);
            } else {
                if (r.output_size == 0 || r.output_size > SHM_AREA_SIZE) {
                    fail("audio output of the wrong size");
                    return 1;
                }
                counters->audio_frames.fetch_add(1);
            }
        } else if (r.status != STATUS_NEED_MORE_DATA) {
            fail("a valid packet failed to decode:",
                 s.name + " packet " + std::to_string(next - 1));
            return 1;
        }
        if (plan.pace_us > 0) {
            usleep(static_cast<useconds_t>(rng() % plan.pace_us));
        }
    }
    if (client.destroy(kSyncTimeoutMs) != ClientError::kOk) {
        fail("destroy");
        return 1;
    }
    counters->requests.fetch_add(1);
    return 0;
}

// ---- the daemon, the session client and the driver ----

struct Usage {
    int fds = -1;
    int threads = -1;
    long rss_kb = -1;
};

Usage usage_of(pid_t pid) {
    Usage u;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    while (status >> key) {
        if (key == "VmRSS:") {
            status >> u.rss_kb;
        } else if (key == "Threads:") {
            status >> u.threads;
        }
        status.ignore(1 << 16, '\n');
    }
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    u.fds = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') {
                ++u.fds;
            }
        }
        closedir(d);
    }
    return u;
}

class Soak : public ::testing::Test {
  protected:
    void SetUp() override {
        void* shared = mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(shared, MAP_FAILED);
        counters = new (shared) Counters();
        char dir[] = "/tmp/svc-soak-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        runtime_dir_ = dir;
        std::string sockets = runtime_dir_ + "/vessa";
        mkdir(sockets.c_str(), 0700);
        sockets += "/sockets";
        mkdir(sockets.c_str(), 0700);
        socket_path_ = sockets + "/media-service.socket";
    }

    void TearDown() override {
        for (auto& entry : children_) {
            kill(entry.first, SIGKILL);
        }
        reap(true);
        if (session_ > 0) {
            kill(session_, SIGKILL);
            waitpid(session_, nullptr, 0);
        }
        if (daemon_ > 0) {
            kill(daemon_, SIGKILL);
            waitpid(daemon_, nullptr, 0);
        }
        std::string cmd = "rm -rf '" + runtime_dir_ + "'";
        if (system(cmd.c_str()) != 0) {
            fprintf(stderr, "could not remove %s\n", runtime_dir_.c_str());
        }
        munmap(counters, sizeof(Counters));
        counters = nullptr;
    }

    // The daemon in the foreground with the test hooks (ashmem requests answered on memfds), its
    // log in `log` or discarded.
    bool start_daemon(const std::string& log) {
        daemon_ = fork();
        if (daemon_ == 0) {
            int out = open(log.empty() ? "/dev/null" : log.c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            for (int fd = 3; fd < 1024; ++fd) {
                close(fd);
            }
            setenv("XDG_RUNTIME_DIR", runtime_dir_.c_str(), 1);
            setenv("LD_PRELOAD", SVC_TESTHOOKS_LIB, 1);
            execl(MEDIA_SERVICE_BIN, MEDIA_SERVICE_BIN, static_cast<char*>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 500; ++i) {
            if (access(socket_path_.c_str(), F_OK) == 0) {
                return true;
            }
            usleep(10000);
        }
        return false;
    }

    bool daemon_alive() { return daemon_ > 0 && waitpid(daemon_, nullptr, WNOHANG) == 0; }

    // The session client answers pings in a process of its own, until it is killed; it exits
    // with 3 if the daemon dropped it.
    bool start_session() {
        int ready[2];
        if (pipe(ready) != 0) {
            return false;
        }
        session_ = fork();
        if (session_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            signal(SIGPIPE, SIG_IGN);
            close(ready[0]);
            mediaclient::SessionClient session;
            if (session.connect(socket_path_) != ClientError::kOk ||
                session.start_answering() != ClientError::kOk) {
                _exit(2);
            }
            char ok = 1;
            if (write(ready[1], &ok, 1) != 1) {
                _exit(2);
            }
            while (!session.disconnected()) {
                usleep(100000);
            }
            _exit(3);
        }
        close(ready[1]);
        char ok = 0;
        ssize_t n = read(ready[0], &ok, 1);
        close(ready[0]);
        return n == 1;
    }

    bool session_alive() { return session_ > 0 && waitpid(session_, nullptr, WNOHANG) == 0; }

    void spawn(const Plan& plan) {
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            signal(SIGPIPE, SIG_IGN);
            _exit(run_client(socket_path_, streams_, plan));
        }
        if (pid > 0) {
            children_[pid] = plan;
            ++started_;
        }
    }

    // Also a connection that closes before its handshake, done here without a process.
    void early_close() {
        int fd = mediaclient::connect_service(socket_path_);
        if (fd >= 0) {
            close(fd);
        }
    }

    // Collects ended clients; with `block`, waits for all of them.
    void reap(bool block) {
        for (auto it = children_.begin(); it != children_.end();) {
            int status = 0;
            pid_t pid = waitpid(it->first, &status, block ? 0 : WNOHANG);
            if (pid != it->first) {
                ++it;
                continue;
            }
            if (!it->second.shm_name.empty()) {
                shm_unlink(it->second.shm_name.c_str());  // a killed client cannot
            }
            if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
                ++killed_;
            } else if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
                ++finished_;
            } else {
                ++crashed_;
                fprintf(stderr, "client %d ended with status %#x\n", pid, status);
            }
            it = children_.erase(it);
        }
    }

    Plan make_plan(std::mt19937& rng, bool well_behaved) {
        Plan p;
        p.seed = static_cast<uint32_t>(rng());
        p.stream = rng() % streams_.size();
        p.posix = rng() % 2 == 0;
        if (p.posix) {
            p.shm_name = "/svc-soak-" + std::to_string(getpid()) + "-" + std::to_string(started_);
        }
        p.requests = 5 + static_cast<int>(rng() % 300);
        p.pace_us = static_cast<int>(rng() % 3) * 2000;
        p.cut_at = static_cast<int>(rng() % p.requests);
        if (!well_behaved) {
            unsigned roll = rng() % 100;
            p.behaviour = roll < 60   ? Behaviour::kWellBehaved
                          : roll < 78 ? Behaviour::kVanish
                          : roll < 84 ? Behaviour::kCloseEarly
                          : roll < 92 ? Behaviour::kGarbage
                                      : Behaviour::kShrink;
        }
        return p;
    }

    // kClients clients at all times, some killed with SIGKILL at random moments, some connecting
    // and closing without a handshake; every client still running at the end is killed.
    void chaos(std::mt19937& rng, int seconds) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < deadline && daemon_alive()) {
            reap(false);
            while (static_cast<int>(children_.size()) < kClients) {
                spawn(make_plan(rng, false));
            }
            unsigned roll = rng() % 100;
            if (roll < 25 && !children_.empty()) {
                auto it = children_.begin();
                std::advance(it, rng() % children_.size());
                kill(it->first, SIGKILL);
            } else if (roll < 30) {
                early_close();
            }
            usleep(10000 + rng() % 40000);
        }
        for (auto& entry : children_) {
            kill(entry.first, SIGKILL);
        }
        reap(true);
    }

    // Waits until the daemon has dropped every client: its threads and descriptors are back to
    // what `target` says, or the time is up.
    Usage settle(const Usage& target) {
        Usage u;
        for (int i = 0; i < 300; ++i) {
            u = usage_of(daemon_);
            if (u.threads == target.threads && u.fds == target.fds) {
                break;
            }
            usleep(100000);
        }
        usleep(200000);
        return usage_of(daemon_);
    }

    std::string runtime_dir_;
    std::string socket_path_;
    pid_t daemon_ = -1;
    pid_t session_ = -1;
    std::vector<Stream> streams_;
    std::map<pid_t, Plan> children_;
    int started_ = 0;
    int finished_ = 0;
    int killed_ = 0;
    int crashed_ = 0;
};

TEST_F(Soak, ClientsComeAndGoAndTheDaemonReturnsToItsBaseline) {
    const char* env_seconds = getenv("SVC_SOAK_SECONDS");
    const int seconds = env_seconds != nullptr ? atoi(env_seconds) : kDefaultSeconds;
    const char* env_log = getenv("SVC_SOAK_LOG");
    std::string log = env_log != nullptr ? env_log : runtime_dir_ + "/daemon.log";
    if (env_log == nullptr && seconds > 60) {
        log.clear();  // a long run logs gigabytes
    }

    streams_ = load_streams();
    ASSERT_GE(streams_.size(), 2u) << "no media: is ffmpeg installed?";
    ASSERT_TRUE(start_daemon(log));
    ASSERT_TRUE(start_session());
    std::mt19937 rng(20240611);

    // Warm-up: every stream decoded once, so that FFmpeg's lazily built tables and the
    // allocator's arenas exist before the baseline is taken.
    Usage idle = usage_of(daemon_);
    for (int i = 0; i < kClients; ++i) {
        Plan p = make_plan(rng, true);
        p.stream = static_cast<size_t>(i) % streams_.size();
        p.requests = 60;
        p.pace_us = 0;
        spawn(p);
    }
    reap(true);
    ASSERT_EQ(crashed_, 0) << counters->last_failure;
    ASSERT_EQ(counters->failures.load(), 0u) << counters->last_failure;

    // A first round of the soak itself brings the allocator's per-thread arenas and caches to
    // their working size; the baseline is taken after it.
    chaos(rng, kChaosWarmUpSeconds);
    ASSERT_TRUE(daemon_alive()) << "the daemon died during the warm-up";
    const Usage baseline = settle(idle);
    // Figures of the soak proper.
    const uint64_t requests0 = counters->requests.load();
    const uint64_t pictures0 = counters->pictures.load();
    const uint64_t frames0 = counters->audio_frames.load();
    const uint64_t dropped0 = counters->shrunk_and_dropped.load();
    const int started0 = started_, finished0 = finished_, killed0 = killed_;

    const auto start = std::chrono::steady_clock::now();
    chaos(rng, seconds);
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    ASSERT_TRUE(daemon_alive()) << "the daemon died during the soak";
    const Usage end = settle(baseline);
    EXPECT_TRUE(session_alive()) << "the session client was dropped";

    printf("soak: %.0f s, %d clients started, %d finished, %d killed with SIGKILL, %d crashed\n",
           elapsed, started_ - started0, finished_ - finished0, killed_ - killed0, crashed_);
    printf(
        "soak: %llu requests answered, %llu pictures, %llu audio frames, %llu clients dropped "
        "after shrinking their block, %llu failures\n",
        static_cast<unsigned long long>(counters->requests.load() - requests0),
        static_cast<unsigned long long>(counters->pictures.load() - pictures0),
        static_cast<unsigned long long>(counters->audio_frames.load() - frames0),
        static_cast<unsigned long long>(counters->shrunk_and_dropped.load() - dropped0),
        static_cast<unsigned long long>(counters->failures.load()));
    printf(
        "soak: daemon baseline fds %d threads %d rss %ld kB; end fds %d threads %d rss %ld kB "
        "(%+ld kB)\n",
        baseline.fds, baseline.threads, baseline.rss_kb, end.fds, end.threads, end.rss_kb,
        end.rss_kb - baseline.rss_kb);

    EXPECT_EQ(crashed_, 0);
    EXPECT_EQ(counters->failures.load(), 0u) << counters->last_failure;
    EXPECT_EQ(end.fds, baseline.fds);
    EXPECT_EQ(end.threads, baseline.threads);
    if (!kSanitized) {
        EXPECT_LE(end.rss_kb, baseline.rss_kb + kRssMarginKb);
    }

    // A new client is served correctly: a whole video stream, every picture of the right size.
    const Stream* video = nullptr;
    for (const Stream& s : streams_) {
        if (s.demuxed.is_video) {
            video = &s;
            break;
        }
    }
    ASSERT_NE(video, nullptr);
    {
        mediaclient::DecoderClient client;
        ASSERT_EQ(client.connect_posix(socket_path_), ClientError::kOk);
        Output out{video->demuxed.width, video->demuxed.height, AV_PIX_FMT_YUV420P};
        ASSERT_TRUE(init_decoder(client, *video, out));
        int pictures = 0;
        for (const DemuxedPacket& p : video->demuxed.packets) {
            ExchangeResult r{};
            ASSERT_EQ(client.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kSyncTimeoutMs),
                      ClientError::kOk);
            ASSERT_NE(r.status, STATUS_FAILED);
            if (r.status == STATUS_OK) {
                ASSERT_EQ(r.output_size, picture_size(out));
                ++pictures;
            }
        }
        EXPECT_GT(pictures, 0);
    }

    // An orderly stop still works (and, in an AddressSanitizer build, finds no leak at exit).
    kill(daemon_, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(daemon_, &status, 0), daemon_);
    daemon_ = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "daemon status " << status;
    if (!log.empty() && HasFailure()) {
        std::string cmd = "tail -n 40 '" + log + "'";
        if (system(cmd.c_str()) != 0) {
            fprintf(stderr, "no log\n");
        }
    }
}

}  // namespace
