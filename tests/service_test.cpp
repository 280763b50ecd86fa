// The service process as a whole, driven as its users drive it: where it listens, every way it
// stops and what it closes on the way out; hostile clients and exhaustion: a client that shrinks
// its shared memory under the service, the process out of descriptors, a worker thread that cannot
// be created. Another client is served throughout, and the daemon comes back to what it held.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "support/support.h"
#include "client/service_link.h"

using namespace mediaclient;
using namespace mediaclient::protocol;

namespace {

constexpr int kWaitMs = 10000, kLongWaitMs = 20000;
constexpr const char* kForceEnd =
    "session process exists, but no response from session client in a period of time, now force "
    "ending...";
constexpr const char* kUnmap = "ummapping shared memory";  // sic: the service's text

mode_t socket_mode(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) ? st.st_mode & 07777 : 0;
}

// The path is composed in 4096 bytes (a longer one is cut at 4095) and the socket address holds
// 107 of them; removing a stale file and setting the mode use the whole composed path.
TEST(Listen, LongPathsAreCut) {
    for (size_t whole : {size_t(4200), size_t(200)}) {
        SCOPED_TRACE(whole);
        TempDir dir;
        const size_t tail = std::string(SOCKET_PATH_IN_RUNTIME_DIR).size();
        std::string runtime = dir.path;
        while (runtime.size() + tail + 1 < whole) {
            runtime +=
                "/" + std::string(std::min<size_t>(200, whole - runtime.size() - tail - 2), 'd');
        }
        ASSERT_EQ(system(("mkdir -p '" + runtime + "/vessa/sockets'").c_str()), 0);
        const std::string path = (runtime + SOCKET_PATH_IN_RUNTIME_DIR).substr(0, 4095);
        if (whole > 4095) {
            ASSERT_EQ(close(open(path.c_str(), O_CREAT | O_WRONLY, 0600)), 0);  // stale
        }
        Daemon daemon;
        daemon.options().env["XDG_RUNTIME_DIR"] = runtime;
        ASSERT_TRUE(daemon.start());
        if (whole > 4095) {
            EXPECT_NE(access(path.c_str(), F_OK), 0) << "the cut path's stale file stays";
        } else {  // bound to the first 107 bytes: created under the umask there, never chmod'ed
            EXPECT_EQ(socket_mode(path.substr(0, 107)), 0755u);
            EXPECT_EQ(mediaclient::listener_pid(path.substr(0, 107)), daemon.pid());
        }
    }
}

// Without XDG_RUNTIME_DIR the service listens under /run/user/<euid> (made for the test where it
// can be, and removed again); without its socket directory it runs on, listening nowhere. The
// preloaded daemon() records its arguments: nochdir 1, noclose 0 (the unhooked call: InstallTree).
TEST(Listen, RunUserDirAndMissingSocketDir) {
    TempDir empty;
    Daemon orphan;
    orphan.options().env = {{"XDG_RUNTIME_DIR", empty.path},
                            {"SVC_TEST_DAEMON_ARGS", empty.path + "/args"}};
    ASSERT_TRUE(orphan.start());
    EXPECT_EQ(read_file(empty.path + "/args"), "1 0\n");
    EXPECT_TRUE(log_has(orphan.log(), "ERROR", "bind failed: [2] No such file or directory"));

    const std::string user_dir = "/run/user/" + std::to_string(geteuid());
    if (access((user_dir + "/vessa").c_str(), F_OK) == 0 ||
        system(("mkdir -p " + user_dir + "/vessa/sockets 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << user_dir << "/vessa exists already or cannot be made";
    }
    {
        Daemon daemon;
        daemon.options().env["XDG_RUNTIME_DIR"] = "";
        ASSERT_TRUE(daemon.start());
        EXPECT_EQ(mediaclient::listener_pid(user_dir + SOCKET_PATH_IN_RUNTIME_DIR), daemon.pid());
    }
    EXPECT_TRUE(remove_tree(user_dir + "/vessa"));
}

// Sends one record on a new connection; whether the service closed it.
bool refused(const Daemon& daemon, uint8_t type, const std::vector<int>& fds) {
    UniqueFd fd(connect_service(daemon.socket_path()));
    return send_type_msg(fd.get(), type, "", fds) >= 0 && wait_closed(fd.get(), kWaitMs);
}

// A session client that ends the service without hanging up: the log line that says why, the
// least time it takes, and the pings it reads (never answering them) until then.
struct SessionEnd {
    const char* name;
    const char* why;
    double min_seconds;
    int pings;
};
class Stop : public ::testing::TestWithParam<SessionEnd> {};

// Each ends with the same three last lines and status 0; a SIGHUP before is ignored without a
// word. One session client per service: one refused before registering leaves the place free; a
// second is refused while the first owns the session. (Stopped by a signal or a session client
// that hangs up, with clients registered: Teardown.)
TEST_P(Stop, EndsInOrderWithStatusZero) {
    const std::string how = GetParam().name;
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    const auto start = std::chrono::steady_clock::now();
    daemon.signal(SIGHUP);
    ASSERT_TRUE(daemon.barrier());  // the signal reaches the loop before the barrier's client
    if (how == "SessionProcessGone") {
        // A child registers over our connection and lives until the service has read its program
        // name, then exits; the connection stays open here.
        UniqueFd fd(connect_service(daemon.socket_path()));
        int release[2];
        ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
        const pid_t child = fork();
        if (child == 0) {
            close(release[1]);
            bool sent = send_client_type_msg(fd.get(), CLIENT_TYPE_SESSION, "",
                                             open("/dev/null", O_RDONLY)) == 0;
            char byte;
            _exit(read(release[0], &byte, 1) >= 0 && sent ? 0 : 1);
        }
        bool registered =
            daemon.wait_log("pid: " + std::to_string(child) + " rececived") && daemon.barrier();
        close(release[1]);
        close(release[0]);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        ASSERT_TRUE(registered);
        ASSERT_EQ(daemon.wait_exit(kWaitMs), 0);  // with the connection still open here
    } else {
        SessionClient session;
        EXPECT_TRUE(refused(daemon, CLIENT_TYPE_SESSION, {}));
        ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
        if (how == "SessionStopsAnswering") {
            ASSERT_EQ(session.respond(), ClientError::kOk);
            SessionClient second;
            EXPECT_EQ(second.connect(daemon.socket_path()), ClientError::kOk);
            EXPECT_EQ(second.start_answering(), ClientError::kDisconnected);
            EXPECT_EQ(second.last_error_text(),
                      "start answering pings: the service has closed the connection: it refused "
                      "the registration (a service serves one session client and has one already; "
                      "its log says why)");
            EXPECT_TRUE(log_has(daemon.log(), "WARN", "client already registered"));
        }
        while (session.answer_ping(kLongWaitMs, false) == ClientError::kOk) {
        }
        EXPECT_TRUE(session.disconnected());
        // Answered once: pinged at the ticks of 2, 4 and 6 s; at 8 s the one answer is more than
        // 8 s old. The first ping carries a descriptor, later ones none.
        EXPECT_EQ(session.pings(), GetParam().pings);
        EXPECT_EQ(session.first_ping_fd_count(), GetParam().pings > 0 ? 1 : -1);
        EXPECT_EQ(session.later_ping_fd_count(), 0);
    }
    ASSERT_EQ(daemon.wait_exit(kWaitMs), 0);
    EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
              GetParam().min_seconds);
    const std::string log = daemon.log();
    EXPECT_TRUE(log_has(log, "DEBUG", GetParam().why)) << log;
    // The server's stop report, the end of the loop, then the log guard's line at exit.
    EXPECT_TRUE(std::regex_search(
        log, std::regex("\n\\[DEBUG\\] \\[runtime\\] runtime:\\d+ media server stopped, now "
                        "quiting\\.\\.\\.\n\\[DEBUG\\] \\[runtime\\] runtime:\\d+ stopping media "
                        "service\\.\\.\\.\n日志文件切换: 标准输出\n$")))
        << log;
    EXPECT_EQ(daemon.count("media server stopped"), 1u);
    // The accepting process confined itself (or said what stays open).
    EXPECT_TRUE(log_has(log, "DEBUG", "confined: system calls filtered") ||
                log_has(log, "WARN", "not fully confined"))
        << log;
}

INSTANTIATE_TEST_SUITE_P(
    Ways, Stop,
    ::testing::Values(SessionEnd{"SessionSilent", kForceEnd, 1.5, 0},
                      SessionEnd{"SessionStopsAnswering", kForceEnd, 7.5, 3},
                      SessionEnd{"SessionProcessGone", "session process not found, now quiting...",
                                 0, 0}),
    [](const ::testing::TestParamInfo<SessionEnd>& info) { return info.param.name; });

// Frozen with SIGSTOP in the middle of a long decode, the daemon wakes to a stop, two client type
// msgs on accepted connections (types 2 and 3) and a doorbell of a registered client, all in one
// loop iteration; registrations that follow the stop start workers that stop() never reached. The
// teardown ends every worker, each closing its client's connection only after it has released its
// block, and the accepting process closes the pending connection and the session's; the socket
// file stays.
class Teardown : public ::testing::TestWithParam<int> {};

TEST_P(Teardown, ClosesEveryConnectionAfterItsWorker) {
    const int stop = GetParam();  // the signal, or 0: the session client leaves
    Daemon daemon;
    daemon.options().env["SVC_TEST_STOP_AT_UNMAP"] = std::to_string(SHM_BLOCK_SIZE);
    ASSERT_TRUE(daemon.start());
    SessionClient session;
    ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(session.start_answering(), ClientError::kOk);
    const Clip& big =
        clip("teardown.mkv", "-f lavfi -i testsrc=size=3840x2160 -frames:v 1 -c:v mpeg4");
    DecoderClient idle, busy;  // registered in this order
    ASSERT_EQ(idle.connect_descriptor(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(busy.connect_posix(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(idle.flush(kWaitMs), ClientError::kOk);
    ASSERT_EQ(set_up(busy, big, 2560, 1440, 2), STATUS_OK);
    UniqueFd pending(connect_service(daemon.socket_path()));
    UniqueFd ashmem_client(connect_service(daemon.socket_path()));
    UniqueFd posix_client(connect_service(daemon.socket_path()));
    ASSERT_TRUE(daemon.wait_log("client connect: sock#", 6));
    UniqueFd memfd(make_memfd(SHM_BLOCK_SIZE));
    ScopedShm shm(SHM_BLOCK_SIZE);
    const auto& packet = big.packets[0].data;
    ASSERT_EQ(busy.write_decode_frame(packet.data(), packet.size(), 0), ClientError::kOk);
    ASSERT_EQ(busy.ring(), ClientError::kOk);
    ASSERT_TRUE(daemon.wait_log("decode frame"));

    daemon.signal(SIGSTOP);
    ASSERT_GE(send_type_msg(ashmem_client.get(), CLIENT_TYPE_ASHMEM_DECODER, "", {memfd.get()}), 0);
    ASSERT_GE(send_type_msg(posix_client.get(), CLIENT_TYPE_SHM_DECODER, shm.name, {shm.fd}), 0);
    ASSERT_EQ(idle.ring(), ClientError::kOk);
    if (stop == 0) {
        session.close();
    } else {
        daemon.signal(stop);
    }
    daemon.signal(SIGCONT);
    // Each worker (the late ones too) stops itself as it unmaps its client's block, which it does
    // before it lets the client's connection go; the busy one after the request the stop lets
    // finish.
    const auto stopped = [&] {
        size_t n = 0;
        for (pid_t worker : worker_pids(daemon.pid())) {
            n += proc_stat(worker).state == 'T';
        }
        return n == 4;
    };
    ASSERT_TRUE(wait_until(kWaitMs, stopped));
    EXPECT_FALSE(wait_closed(idle.fd(), 0));
    EXPECT_FALSE(wait_closed(busy.fd(), 0));
    for (pid_t worker : worker_pids(daemon.pid())) {
        kill(worker, SIGCONT);
    }
    // Every connection closes: each decoder client's by its worker; the session's and the pending
    // one by the accepting process, before it exits.
    EXPECT_TRUE(wait_closed(idle.fd(), kWaitMs));
    EXPECT_TRUE(wait_closed(busy.fd(), kWaitMs));
    // Told to end at once, the workers are done long before the teardown's bound of 10 s.
    EXPECT_EQ(daemon.wait_exit(5000), 0);
    EXPECT_TRUE(stop == 0 || wait_closed(session.fd(), 0));
    EXPECT_TRUE(wait_closed(pending.get(), 0));
    EXPECT_TRUE(wait_closed(ashmem_client.get(), 0));
    EXPECT_TRUE(wait_closed(posix_client.get(), 0));
    EXPECT_EQ(daemon.count(kUnmap), 4u) << "both late registrations ran";
    EXPECT_EQ(socket_mode(daemon.socket_path()), 0777u);
}

INSTANTIATE_TEST_SUITE_P(Stops, Teardown, ::testing::Values(SIGTERM, SIGINT, 0),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == SIGTERM  ? "Sigterm"
                                                : info.param == SIGINT ? "Sigint"
                                                                       : "SessionEnds");
                         });

const Clip& small() {
    return clip("hard.mp4", "-f lavfi -i testsrc=size=160x120 -frames:v 30 -c:v libx264 -g 10");
}

// A registered client of either type; the test keeps a descriptor of a type 2 client's block.
struct Client : DecoderClient {
    Client(const Daemon& daemon, bool posix) : memfd(posix ? -1 : make_memfd(SHM_BLOCK_SIZE)) {
        ok = (posix ? connect_posix(daemon.socket_path())
                    : connect_descriptor(daemon.socket_path(), memfd.get())) == ClientError::kOk;
    }
    bool init(const Clip& s, int w, int h) { return ok && set_up(*this, s, w, h, 0) == STATUS_OK; }
    // Whether packets [from, to) of the clip give pictures, and every other answer asks for more.
    bool decodes(const Clip& s, size_t from, size_t to) {
        const Decoded d = decode_packets(*this, s, from, to);
        return d.outputs > 0 && d.failures + d.unanswered == 0;
    }
    // Truncates the object to nothing; the client's own mapping is gone as well then.
    bool shrink() {
        UniqueFd fd(memfd.valid() ? dup(memfd.get()) : shm_open(shm_name().c_str(), O_RDWR, 0600));
        return fd.valid() && ftruncate(fd.get(), 0) == 0;
    }
    UniqueFd memfd;
    bool ok = false;
};

// A client that shrinks its block is dropped, while a bystander decodes the same stream before
// and after, and the daemon comes back to what it held: the next doorbell makes the worker read
// the vanished header; the service survives the fault, answers nothing and closes the connection.
// A client of each type, the second one's block perhaps mapped where the first one's was.
TEST(Shrink, TheClientIsDropped) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    Client bystander(daemon, true);
    ASSERT_TRUE(bystander.init(small(), 160, 120));
    ASSERT_TRUE(bystander.decodes(small(), 0, 10));
    const ProcStat before = proc_stat(daemon.pid());
    for (bool posix : {false, true}) {
        Client victim(daemon, posix);
        ASSERT_TRUE(victim.init(small(), 160, 120));
        ASSERT_TRUE(victim.decodes(small(), 0, 10));
        ASSERT_TRUE(victim.shrink());
        EXPECT_EQ(victim.ring(), ClientError::kOk);
        EXPECT_EQ(victim.wait_sync(kLongWaitMs), ClientError::kDisconnected);
        EXPECT_TRUE(
            daemon.wait_log("shared memory block lost, dropping decoder client", 1 + posix));
    }
    EXPECT_TRUE(bystander.decodes(small(), 10, SIZE_MAX));
    EXPECT_TRUE(wait_until(kLongWaitMs, [&] { return proc_stat(daemon.pid()).fds == before.fds; }));
    EXPECT_EQ(proc_stat(daemon.pid()).threads, before.threads);
}

// The daemon under exhaustion: with an address space too small for a worker's program and
// libraries, a client's worker ends at its start and the client's connection with it; the next
// one is served once the limit is lifted. With no descriptor left, accept fails: the service
// pauses accepting instead of spinning, serves its registered clients meanwhile, and accepts the
// waiting clients once descriptors are back.
TEST(Exhaustion, RefusesOrPausesAndRecovers) {
    Daemon daemon;
    daemon.options().workers_may_fail = true;
    ASSERT_TRUE(daemon.start());
    const ProcStat fresh = proc_stat(daemon.pid());
    rlimit as{}, files{};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, nullptr, &as), 0);
    rlimit tight = as;
    tight.rlim_cur = 16 << 20;
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &tight, nullptr), 0);
    {
        Client refused(daemon, true);
        EXPECT_TRUE(wait_closed(refused.fd(), kLongWaitMs));
        EXPECT_TRUE(daemon.wait_log("exited with status 127"));
    }
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &as, nullptr), 0);
    EXPECT_TRUE(wait_until(kLongWaitMs, [&] { return proc_stat(daemon.pid()).fds == fresh.fds; }));

    Client working(daemon, true);
    // Decoding before the descriptors run out also fills a sanitizer build's type cache, whose
    // first check needs a pipe.
    ASSERT_TRUE(working.init(small(), 160, 120) && working.decodes(small(), 0, 10));
    const ProcStat before = proc_stat(daemon.pid());
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &files), 0);
    rlimit exhausted = files;
    exhausted.rlim_cur = 0;  // to the lowest free descriptor number
    const std::string fds = "/proc/" + std::to_string(daemon.pid()) + "/fd/";
    while (access((fds + std::to_string(exhausted.rlim_cur)).c_str(), F_OK) == 0) {
        ++exhausted.rlim_cur;
    }
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &exhausted, nullptr), 0);
    std::deque<Client> waiting;  // connected and registering, not yet accepted
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(waiting.emplace_back(daemon, true).ok);
    }
    ASSERT_TRUE(daemon.wait_log("media server accept failed: [24] Too many open files"));
    const double cpu = proc_stat(daemon.pid()).cpu_s;
    std::this_thread::sleep_for(std::chrono::seconds(2));  // a window to measure, not a wait
    // A loop retrying accept at once would burn the whole two seconds.
    EXPECT_LT(proc_stat(daemon.pid()).cpu_s - cpu, 0.5);
    EXPECT_LT(daemon.count("media server accept failed"), 40u);
    EXPECT_TRUE(working.decodes(small(), 10, SIZE_MAX));

    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &files, nullptr), 0);
    EXPECT_TRUE(wait_until(kLongWaitMs, [&] { return worker_pids(daemon.pid()).size() == 1 + 3; }));
    for (Client& c : waiting) {
        EXPECT_EQ(c.flush(kLongWaitMs), ClientError::kOk);
    }
    waiting.clear();
    EXPECT_TRUE(wait_until(kLongWaitMs, [&] { return proc_stat(daemon.pid()).fds == before.fds; }));
}

// With a small budget (the hooks give the host 512 MiB: 384 MiB for decoders), a client whose
// stream would hold more (4K H.264 with 16 references) gets -1 answers and the budget's ERROR line
// once memory runs short, while a 1080p client beside it gets every answer and picture that the
// oracle expects; sizes beyond what the budget can hold at all are refused at setup; and once the
// greedy client has left, its worker, which held its memory, has ended.
TEST(MemoryBudget, AClientOverItGivesWayAndItsMemoryComesBack) {
    const Clip& greedy = clip("budget-4k.mp4",
                              "-f lavfi -i testsrc2=size=3840x2160:rate=30 -frames:v 24 -c:v "
                              "libx264 -preset ultrafast -refs 16 -bf 0 -g 300");
    const Clip& hd = clip("budget-1080p.mp4",
                          "-f lavfi -i testsrc2=size=1920x1080:rate=30 -frames:v 30 -c:v "
                          "libx264 -preset ultrafast -bf 2");
    Daemon daemon;
    daemon.options().env["SVC_TEST_MEMORY"] = std::to_string(512 << 20);
    ASSERT_TRUE(daemon.start());
    EXPECT_TRUE(log_has(daemon.log(), "DEBUG",
                        "memory budget for decoders: 384 MiB of 512 MiB (physical memory)"));
    Client fits(daemon, true), over(daemon, false);
    Oracle oracle;
    ASSERT_TRUE(fits.init(hd, 1920, 1080));
    ASSERT_TRUE(oracle.open_video(hd.info, 1920, 1080, 0, hd.info.extradata));
    EXPECT_EQ(decode_packets(fits, hd, 0, 4, &oracle).unanswered, 0u);

    ASSERT_TRUE(over.init(greedy, 1920, 1080));
    const Decoded over_budget = decode_packets(over, greedy);
    EXPECT_GT(over_budget.outputs, 0u);
    EXPECT_GT(over_budget.failures, 0u);
    EXPECT_EQ(over_budget.unanswered, 0u);
    EXPECT_TRUE(log_has(daemon.log(), "ERROR", "memory budget exceeded: picture of"));
    EXPECT_EQ(decode_packets(fits, hd, 4, SIZE_MAX, &oracle).unanswered, 0u);

    // A setup that could never fit is refused before anything is allocated.
    DecoderClient huge;
    ASSERT_EQ(huge.connect_posix(daemon.socket_path()), ClientError::kOk);
    ExchangeResult r{};
    ASSERT_EQ(huge.init_video(greedy.codec_index(), {16384, 8192, 0, 64, 48, 0}, nullptr, 0, &r,
                              kLongWaitMs),
              ClientError::kOk);
    EXPECT_EQ(r.status, STATUS_FAILED);
    EXPECT_TRUE(log_has(daemon.log(), "ERROR", "more than the whole budget of 393216 KiB"));
    // Its memory is its worker's, which ends with it.
    const size_t workers = worker_pids(daemon.pid()).size();
    over.close();
    EXPECT_TRUE(daemon.wait_log("the decoder held at most"));
    EXPECT_TRUE(
        wait_until(kLongWaitMs, [&] { return worker_pids(daemon.pid()).size() < workers; }));
}

}  // namespace
