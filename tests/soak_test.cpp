// Stress and soak: a session client and kClients decoder clients decoding real streams through the
// real daemon, each client a process of its own so that it can be killed with SIGKILL in the
// middle of a request. Clients also leave at random moments, some with a request in flight; new
// ones keep coming. At the end the daemon must serve a new client and be back to its baseline of
// descriptors and threads; its resident memory is reported, for the benchmark's memory figures
// judge memory.
//
// SVC_SOAK_SECONDS sets the duration (default 10, the suite's run); scripts/soak runs it longer.

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

using namespace mediaclient;

namespace {

constexpr int kClients = 32;
constexpr int kTimeoutMs = 60000;

// Requests answered and outputs, counted by the client processes in anonymous memory that every
// fork shares.
struct Counts {
    std::atomic<unsigned long long> requests{0}, outputs{0};
};
Counts* counts = nullptr;

// A client process's failure: said on standard error, and its exit status.
int fail(const std::string& what) {
    fprintf(stderr, "soak client %d: %s\n", getpid(), what.c_str());
    return 1;
}

std::vector<const Clip*> streams() {
    const std::string video = "-f lavfi -i testsrc=size=320x240 -frames:v 50 ";
    const std::string audio = "-f lavfi -i sine=sample_rate=44100:d=2 -ac 2 ";
    return {&clip("soak.h264", video + "-c:v libx264 -g 10"),
            &clip("soak.avi", video + "-c:v mpeg4 -g 10"),
            &clip("soak.m4a", audio + "-c:a aac", false),
            &clip("soak.mp3", audio + "-c:a libmp3lame", false)};
}

// Clients that close at once, connections without a handshake and garbage requests are the
// handshake test's and the fuzz target's; the soak's clients decode.
enum class Way { kWellBehaved, kVanish };

// One decoder client, in a child process; its exit status is 0 unless something went wrong.
// A type 3 client gets `shm_name` (the driver unlinks it: a killed client cannot).
int run_client(const std::string& socket, const Clip& s, Way way, const std::string& shm_name,
               uint32_t seed) {
    std::mt19937 rng(seed);
    DecoderClient c;
    if ((shm_name.empty() ? c.connect_descriptor(socket) : c.connect_posix(socket, shm_name)) !=
        ClientError::kOk) {
        return fail("connect");
    }
    const uint32_t w = uint32_t(s.info.width), h = uint32_t(s.info.height);
    if (set_up(c, s, s.info.video ? int(w) : 1, s.info.video ? int(h) : 2,
               s.info.video ? 0 : 44100) != STATUS_OK) {
        return fail("init");
    }
    ExchangeResult r{};
    const int requests = 5 + int(rng() % 300), cut_at = int(rng() % requests);
    const int pace_us = int(rng() % 3) * 2000;
    for (int i = 0; i < requests; ++i) {
        const auto& p = s.packets[i % s.packets.size()];
        if (i == cut_at && way == Way::kVanish) {
            if (rng() % 2 == 0) {
                c.write_decode_frame(p.data.data(), p.data.size(), p.pts);
                c.ring();  // gone with a request in flight
            }
            return 0;
        }
        // At the end of the stream, a flush; the stream then starts again.
        if (i > 0 && i % s.packets.size() == 0 && c.flush(kTimeoutMs) != ClientError::kOk) {
            return fail("flush");
        }
        if (c.decode_frame(p.data.data(), p.data.size(), p.pts, &r, kTimeoutMs) !=
            ClientError::kOk) {
            return fail("no answer to a decode");
        }
        counts->requests++;
        counts->outputs += r.status == STATUS_OK;
        if (r.status == STATUS_FAILED ||
            (r.status == STATUS_OK && s.info.video && r.output_size != w * h * 3 / 2)) {
            return fail(s.path + " packet " + std::to_string(i % s.packets.size()));
        }
        usleep(pace_us > 0 ? rng() % pace_us : 0);
    }
    return c.destroy(kTimeoutMs) == ClientError::kOk ? 0 : fail("destroy");
}

// Every path through the test reaps all its clients before it asserts anything.
class Soak : public ::testing::Test {
  protected:
    void spawn(Way way) {
        const std::string shm_name =
            rng() % 2 == 0 ? "/svc-soak-" + std::to_string(getpid()) + "-" + std::to_string(started)
                           : "";
        const Clip& s = *clips[rng() % clips.size()];
        const uint32_t seed = uint32_t(rng());
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            _exit(run_client(daemon.socket_path(), s, way, shm_name, seed));
        }
        children[pid] = shm_name;
        ++started;
    }
    // Collects ended clients; with `block`, all of them.
    void reap(bool block) {
        for (auto it = children.begin(); it != children.end();) {
            int status = 0;
            if (waitpid(it->first, &status, block ? 0 : WNOHANG) != it->first) {
                ++it;
                continue;
            }
            if (!it->second.empty()) {
                shm_unlink(it->second.c_str());
            }
            const bool sigkill = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
            killed += sigkill;
            failed += !sigkill && status != 0;
            it = children.erase(it);
        }
    }
    // kClients clients at all times, some killed at random moments, some connections closed
    // before their handshake; every client still running at the end is killed.
    void chaos(int seconds) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < end && daemon.running()) {
            reap(false);
            while (children.size() < kClients) {
                spawn(rng() % 100 < 70 ? Way::kWellBehaved : Way::kVanish);
            }
            if (rng() % 100 < 25) {
                kill(std::next(children.begin(), long(rng() % children.size()))->first, SIGKILL);
            }
            usleep(10000 + rng() % 40000);
        }
        for (auto& child : children) {
            kill(child.first, SIGKILL);
        }
        reap(true);
    }
    // Waits until the daemon holds the descriptors and threads of `target`, and no worker.
    ProcStat settle(const ProcStat& target) {
        wait_until(30000, [&] {
            const ProcStat now = proc_stat(daemon.pid());
            return now.fds == target.fds && now.threads == target.threads &&
                   worker_pids(daemon.pid()).empty();
        });
        usleep(200000);
        return proc_stat(daemon.pid());
    }

    const char* env = getenv("SVC_SOAK_SECONDS");
    const int seconds = env != nullptr ? atoi(env) : 10;
    Daemon daemon;
    std::vector<const Clip*> clips = streams();
    std::mt19937 rng{20240611};
    std::map<pid_t, std::string> children;  // and the name of a type 3 client's object
    int started = 0, killed = 0, failed = 0;
};

TEST_F(Soak, ClientsComeAndGoAndTheDaemonReturnsToItsBaseline) {
    counts = new (mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) Counts();
    daemon.options().log = seconds <= 60;  // a long run would log gigabytes
    ASSERT_TRUE(daemon.start());
    SessionClient session;
    ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(session.start_answering(), ClientError::kOk);
    // The baseline: one client served, no worker left.
    spawn(Way::kWellBehaved);
    reap(true);
    ASSERT_TRUE(wait_until(10000, [&] { return worker_pids(daemon.pid()).empty(); }));
    const ProcStat baseline = proc_stat(daemon.pid());
    chaos(seconds);
    ASSERT_TRUE(daemon.running()) << "the daemon died during the soak";
    const ProcStat end = settle(baseline);
    EXPECT_FALSE(session.disconnected());
    printf(
        "soak: %d s, %d clients, %d killed, %d failed; %llu requests, %llu outputs; fds %d -> %d, "
        "threads %d -> %d, rss %ld -> %ld kB\n",
        seconds, started - 1, killed, failed, counts->requests.load(), counts->outputs.load(),
        baseline.fds, end.fds, baseline.threads, end.threads, baseline.rss_kb, end.rss_kb);
    EXPECT_EQ(failed, 0) << "see the clients' lines above";
    EXPECT_EQ(end.fds, baseline.fds);
    EXPECT_EQ(end.threads, baseline.threads);
    EXPECT_EQ(worker_pids(daemon.pid()).size(), 0u);
    // A new client is served: a whole stream with every answer right.
    spawn(Way::kWellBehaved);
    reap(true);
    EXPECT_EQ(failed, 0);
    // An orderly stop still works, before the session client goes away.
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(30000), 0);
}

}  // namespace
