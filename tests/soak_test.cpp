// Stress and soak: rounds of kClients decoder clients at once through the real daemon, beside a
// session client, each client a process of its own with a part to play that its number and the
// round's fix, so that every round is the same each run: some decode their stream to its end,
// some leave with a request in flight, some are killed with SIGKILL (by their own hand) in the
// middle of a request; both block types, four codecs. At the end the daemon must serve a new
// client and be back to its baseline of descriptors and threads, with no worker left; its
// resident memory is reported (memory is the benchmark's to judge).
//
// SVC_SOAK_SECONDS sets how long rounds keep starting (default 10, the suite's run); scripts/soak
// runs it longer. Clients that leave before or right after their handshake, and garbage requests,
// are the handshake test's and the fuzz target's.

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

using namespace mediaclient;

namespace {

constexpr int kClients = 32;

enum class Part { kWhole, kLeavesInFlight, kKilledInFlight };

// One decoder client, in a child process: its exit status is 0 unless something went wrong, which
// it says on standard error. A type 3 client gets `shm_name` (the driver unlinks it: a killed
// client cannot). Leaving or killed, it goes with packet `cut` in flight.
int run_client(const std::string& socket, const Clip& s, Part part, const std::string& shm_name,
               size_t cut) {
    DecoderClient c;
    const bool video = s.info.video;
    if ((shm_name.empty() ? c.connect_descriptor(socket) : c.connect_posix(socket, shm_name)) !=
            ClientError::kOk ||
        set_up(c, s, video ? s.info.width : 1, video ? s.info.height : 2, video ? 0 : 44100) !=
            STATUS_OK) {
        fprintf(stderr, "soak client %d: no setup for %s\n", getpid(), s.path.c_str());
        return 1;
    }
    const Decoded d = decode_packets(c, s, 0, part == Part::kWhole ? SIZE_MAX : cut);
    if ((part == Part::kWhole && d.outputs == 0) || d.failures + d.unanswered > 0) {
        fprintf(stderr, "soak client %d: %s: %zu outputs, %zu failed, %zu unanswered\n", getpid(),
                s.path.c_str(), d.outputs, d.failures, d.unanswered);
        return 1;
    }
    if (part == Part::kWhole) {
        return c.flush() == ClientError::kOk && c.destroy() == ClientError::kOk ? 0 : 1;
    }
    const auto& p = s.packets[cut].data;
    c.write_decode_frame(p.data(), p.size(), 0);
    c.ring();
    if (part == Part::kKilledInFlight) {
        raise(SIGKILL);
    }
    return 0;
}

// Round `r` of `clients` clients; how many did not end as their part says.
int run_round(const Daemon& daemon, int r, int clients) {
    const std::string video = "-f lavfi -i testsrc=size=320x240 -frames:v 50 ";
    const std::string audio = "-f lavfi -i sine=sample_rate=44100:d=2 -ac 2 ";
    const std::vector<const Clip*> clips = {&clip("soak.h264", video + "-c:v libx264 -g 10"),
                                            &clip("soak.avi", video + "-c:v mpeg4 -g 10"),
                                            &clip("soak.m4a", audio + "-c:a aac", false),
                                            &clip("soak.mp3", audio + "-c:a libmp3lame", false)};
    std::map<pid_t, std::pair<std::string, Part>> children;  // a type 3 client's object, its part
    for (int i = 0; i < clients; ++i) {
        const Clip& s = *clips[size_t(i + r) % clips.size()];
        const Part part = Part((i + r) % 3);
        const size_t cut = 4 + size_t(i * 7 + r) % (s.packets.size() - 4);
        const std::string shm = i % 2 == 0 ? ""
                                           : "/svc-soak-" + std::to_string(getpid()) + "-" +
                                                 std::to_string(r) + "-" + std::to_string(i);
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            _exit(run_client(daemon.socket_path(), s, part, shm, cut));
        }
        children[pid] = {shm, part};
    }
    int wrong = 0;
    for (const auto& [pid, child] : children) {
        int status = 0;
        waitpid(pid, &status, 0);
        if (!child.first.empty()) {
            shm_unlink(child.first.c_str());
        }
        const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        wrong += child.second == Part::kKilledInFlight ? !killed : status != 0;
    }
    return wrong;
}

TEST(Soak, ClientsComeAndGoAndTheDaemonReturnsToItsBaseline) {
    const char* env = getenv("SVC_SOAK_SECONDS");
    const int seconds = env != nullptr ? atoi(env) : 10;
    Daemon daemon;
    daemon.options().log = seconds <= 60;  // a long run would log gigabytes
    ASSERT_TRUE(daemon.start());
    SessionClient session;
    ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(session.start_answering(), ClientError::kOk);
    // The baseline: one client served, no worker left.
    ASSERT_EQ(run_round(daemon, 0, 1), 0);
    const auto no_worker = [&] { return worker_pids(daemon.pid()).empty(); };
    ASSERT_TRUE(wait_until(10000, no_worker));
    const ProcStat baseline = proc_stat(daemon.pid());
    int rounds = 0, wrong = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end && daemon.running()) {
        wrong += run_round(daemon, ++rounds, kClients);
    }
    ASSERT_TRUE(daemon.running()) << "the daemon died during the soak";
    EXPECT_EQ(wrong, 0) << "see the clients' lines above";
    EXPECT_TRUE(wait_until(30000, [&] {
        const ProcStat now = proc_stat(daemon.pid());
        return now.fds == baseline.fds && now.threads == baseline.threads && no_worker();
    }));
    const ProcStat last = proc_stat(daemon.pid());
    printf(
        "soak: %d s, %d rounds of %d clients, %d not as planned; fds %d -> %d, threads %d -> %d, "
        "rss %ld -> %ld kB\n",
        seconds, rounds, kClients, wrong, baseline.fds, last.fds, baseline.threads, last.threads,
        baseline.rss_kb, last.rss_kb);
    EXPECT_FALSE(session.disconnected());
    // A new client is served, and an orderly stop still works before the session goes away.
    EXPECT_EQ(run_round(daemon, 0, 1), 0);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(30000), 0);
}

}  // namespace
