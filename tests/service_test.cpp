// The service process as a whole, driven as its users drive it: where it listens, how it
// daemonises, every way it stops, and what it closes on the way out.

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "support/support.h"
#include "tools/service_link.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 10000;
constexpr const char* kStopped = "media server stopped, now quiting...";
constexpr const char* kForceEnd =
    "session process exists, but no response from session client in a period of time, now force "
    "ending...";

mode_t socket_mode(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) ? st.st_mode & 07777 : 0;
}

pid_t listener(const std::string& path) {
    UniqueFd fd(connect_service(path));
    return fd.valid() ? mediatools::peer_pid(fd.get()) : -1;
}

std::string link_of(pid_t pid, const std::string& what) {
    char target[4096];
    ssize_t n = readlink(("/proc/" + std::to_string(pid) + "/" + what).c_str(), target, 4096);
    return n < 0 ? "" : std::string(target, static_cast<size_t>(n));
}

// A stale file at the path is replaced (mode 0777 whatever the umask) and left behind at exit;
// a later instance takes the path over from a running one, which runs on unreachable.
TEST(Listen, SocketFileLifecycle) {
    TempDir runtime;
    ASSERT_EQ(system(("mkdir -p " + runtime.path + "/vessa/sockets").c_str()), 0);
    const std::string path = runtime.path + SOCKET_PATH_IN_RUNTIME_DIR;
    ASSERT_EQ(close(open(path.c_str(), O_CREAT | O_WRONLY, 0600)), 0);
    Daemon::Options options;
    options.env["XDG_RUNTIME_DIR"] = runtime.path;
    options.umask_value = 077;

    Daemon first(options);
    ASSERT_TRUE(first.start());
    EXPECT_EQ(socket_mode(path), 0777u);
    first.signal(SIGTERM);
    ASSERT_EQ(first.wait_exit(), 0);
    EXPECT_EQ(socket_mode(path), 0777u);
    EXPECT_EQ(listener(path), -1);

    Daemon second(options);
    Daemon third(options);
    ASSERT_TRUE(second.start());
    EXPECT_EQ(listener(path), second.pid());
    ASSERT_TRUE(third.start());
    EXPECT_EQ(listener(path), third.pid());
    EXPECT_TRUE(second.running());
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
        Daemon::Options options;
        options.env["XDG_RUNTIME_DIR"] = runtime;
        Daemon daemon(options);
        ASSERT_TRUE(daemon.start());
        struct stat st;
        if (whole > 4095) {
            EXPECT_NE(lstat(path.c_str(), &st), 0) << "the cut path's stale file stays";
        } else {
            // Bound to the first 107 bytes: created under the umask there, never chmod'ed.
            EXPECT_EQ(socket_mode(path.substr(0, 107)), 0755u);
            EXPECT_EQ(listener(path.substr(0, 107)), daemon.pid());
        }
    }
}

// Without XDG_RUNTIME_DIR the service listens under /run/user/<euid>; the directory is made for
// the test where it can be and removed again, and left alone where it exists.
TEST(Listen, UnderRunUserWithoutXdgRuntimeDir) {
    const std::string user_dir = "/run/user/" + std::to_string(geteuid());
    struct stat st;
    if (stat((user_dir + "/vessa").c_str(), &st) == 0 ||
        system(("mkdir -p " + user_dir + "/vessa/sockets 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << user_dir << "/vessa exists already or cannot be made";
    }
    {
        Daemon::Options options;
        options.unset_xdg_runtime_dir = true;
        Daemon daemon(options);
        EXPECT_EQ(daemon.socket_path(), user_dir + SOCKET_PATH_IN_RUNTIME_DIR);
        ASSERT_TRUE(daemon.start());
        EXPECT_EQ(listener(daemon.socket_path()), daemon.pid());
    }
    EXPECT_TRUE(remove_tree(user_dir + "/vessa"));
}

TEST(Listen, MissingSocketDirectoryLeavesItRunningWithoutSocket) {
    Daemon::Options options;
    options.create_socket_dir = false;
    Daemon daemon(options);
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(log_line(daemon.log(), "bind failed: [2] No such file or directory")
                  .find("[ERROR] [media server] media_server:"),
              0u);
    EXPECT_TRUE(daemon.running());
}

// The preloaded daemon() records its arguments: nochdir 1, noclose 0. The unmodified binary
// becomes a new session in the same directory with its streams on /dev/null.
TEST(Runtime, Daemonises) {
    TempDir cwd;
    Daemon::Options hooked;
    hooked.cwd = cwd.path;
    hooked.env["SVC_TEST_DAEMON_ARGS"] = cwd.path + "/args";
    Daemon daemon(hooked);
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(read_file(cwd.path + "/args"), "1 0\n");
    EXPECT_EQ(daemon.log().find("[DEBUG] [runtime] runtime:"), 0u);

    Daemon::Options plain;
    plain.preload_hooks = false;
    plain.cwd = cwd.path;
    Daemon real(plain);
    ASSERT_TRUE(real.start());
    EXPECT_EQ(getsid(real.pid()), real.pid());
    EXPECT_EQ(link_of(real.pid(), "cwd"), cwd.path);
    for (int fd = 0; fd <= 2; ++fd) {
        EXPECT_EQ(link_of(real.pid(), "fd/" + std::to_string(fd)), "/dev/null") << fd;
    }
    EXPECT_EQ(real.log(), "");
}

TEST(Runtime, HangupIsIgnoredSilently) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    daemon.signal(SIGHUP);
    ASSERT_TRUE(daemon.barrier());  // the signal reaches the loop before the barrier's client
    EXPECT_TRUE(daemon.running());
    EXPECT_EQ(daemon.count("[runtime]"), 1u);
}

// Every way the service stops ends with the same three last lines and status 0.
struct StopCase {
    const char* name;
    const char* why;  // the log line that says why, or null
    double min_seconds;
};

class Stop : public ::testing::TestWithParam<StopCase> {};

TEST_P(Stop, EndsInOrderWithStatusZero) {
    const std::string how = GetParam().name;
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    const auto start = std::chrono::steady_clock::now();
    SessionClient session;
    pid_t child = -1;
    if (how == "Sigterm" || how == "Sigint") {
        daemon.signal(how == "Sigterm" ? SIGTERM : SIGINT);
    } else if (how == "SessionEnds") {
        ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
        ASSERT_EQ(session.start_answering(), ClientError::kOk);
        ASSERT_TRUE(wait_until(kWaitMs, [&] { return session.pings() >= 2; }));
        EXPECT_EQ(session.first_ping_fd_count(), 1);
        EXPECT_EQ(session.later_ping_fd_count(), 0);
        session.close();
    } else if (how == "SessionSilent" || how == "SessionStopsAnswering") {
        ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
        if (how == "SessionStopsAnswering") {
            ASSERT_EQ(session.respond(), ClientError::kOk);
        }
    } else {
        // The session's process is gone: a child registers over our connection and lives until
        // the service has read its program name, then exits; the connection stays open here.
        UniqueFd fd(connect_service(daemon.socket_path()));
        int release[2];
        ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
        child = fork();
        if (child == 0) {
            close(release[1]);
            int null_fd = open("/dev/null", O_RDONLY);
            bool sent = send_client_type_msg(fd.get(), CLIENT_TYPE_SESSION, "", null_fd) == 0;
            char byte;
            _exit(read(release[0], &byte, 1) >= 0 && sent ? 0 : 1);
        }
        bool registered =
            daemon.wait_log("pid: " + std::to_string(child) + " rececived") && daemon.barrier();
        close(release[1]);
        close(release[0]);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        ASSERT_TRUE(registered);
        ASSERT_EQ(daemon.wait_exit(kWaitMs), 0);
    }
    ASSERT_EQ(daemon.wait_exit(16000), 0);
    EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
              GetParam().min_seconds);
    const std::string log = daemon.log();
    if (GetParam().why != nullptr) {
        EXPECT_TRUE(log_has(log, "DEBUG", GetParam().why)) << log;
    }
    EXPECT_EQ(daemon.count(kStopped), 1u);
    // The server's stop report, the end of the loop, then the log guard's line at exit.
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = log.find('\n', at)) != std::string::npos; at = end + 1) {
        lines.push_back(log.substr(at, end - at));
    }
    ASSERT_GE(lines.size(), 3u);
    const std::string runtime = "[DEBUG] [runtime] runtime:";
    const size_t n = lines.size();
    EXPECT_EQ(lines[n - 3].find(runtime), 0u);
    EXPECT_EQ(lines[n - 3].substr(lines[n - 3].find(' ', runtime.size()) + 1), kStopped);
    EXPECT_EQ(lines[n - 2].find(runtime), 0u);
    EXPECT_EQ(lines[n - 2].substr(lines[n - 2].find(' ', runtime.size()) + 1),
              "stopping media service...");
    EXPECT_EQ(lines[n - 1], "日志文件切换: 标准输出");
    if (how == "SessionSilent") {
        EXPECT_EQ(daemon.count("send ping msg to session"), 0u);
        EXPECT_TRUE(wait_closed(session.fd(), kWaitMs));
    } else if (how == "SessionStopsAnswering") {
        // Pinged at the ticks of 2, 4 and 6 s; at 8 s the one answer is more than 8 s old.
        EXPECT_EQ(daemon.count("send ping msg to session"), 3u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Ways, Stop,
    ::testing::Values(StopCase{"Sigterm", nullptr, 0}, StopCase{"Sigint", nullptr, 0},
                      StopCase{"SessionEnds", "session client disconnected", 0},
                      StopCase{"SessionSilent", kForceEnd, 1.5},
                      StopCase{"SessionStopsAnswering", kForceEnd, 7.5},
                      StopCase{"SessionProcessGone", "session process not found, now quiting...",
                               0}),
    [](const ::testing::TestParamInfo<StopCase>& info) { return info.param.name; });

// SIGTERM with a pending connection, the session client and two decoder clients, one of them in
// the middle of a long decode: the teardown closes the pending connection and the session's
// first, then ends each worker and closes its client's connection only after the worker has
// ended and released its block; the socket file stays.
TEST(Teardown, ClosesEveryConnectionAfterItsWorker) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    SessionClient session;
    ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(session.start_answering(), ClientError::kOk);
    const Clip& big =
        clip("teardown.mkv", "-f lavfi -i testsrc=size=3840x2160 -frames:v 1 -c:v mpeg4");
    DecoderClient busy, idle;
    ExchangeResult r{};
    ASSERT_EQ(busy.connect_posix(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(idle.connect_descriptor(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(idle.flush(kWaitMs), ClientError::kOk);
    ASSERT_EQ(
        busy.init_video(big.codec_index(), mediatools::video_init_params(big.info, 2560, 1440, 2),
                        big.info.extradata.data(), big.info.extradata.size(), &r, kWaitMs),
        ClientError::kOk);
    UniqueFd pending(connect_service(daemon.socket_path()));
    ASSERT_TRUE(daemon.wait_log("client connect: sock#", 4));
    char byte;
    EXPECT_EQ(recv(pending.get(), &byte, 1, MSG_DONTWAIT), -1) << "nothing is said to it";
    ASSERT_EQ(busy.write_decode_frame(big.packets[0].data.data(), big.packets[0].data.size(), 0),
              ClientError::kOk);
    ASSERT_EQ(busy.ring(), ClientError::kOk);
    ASSERT_TRUE(daemon.wait_log("decode frame"));

    daemon.signal(SIGTERM);
    EXPECT_TRUE(wait_closed(busy.fd(), kWaitMs));
    // By the time the busy client's connection closes, its worker has released the block, and
    // the session's and the pending connections are closed.
    EXPECT_GE(daemon.count("ummapping shared memory"), 1u);
    EXPECT_TRUE(wait_closed(session.fd(), 0));
    EXPECT_TRUE(wait_closed(pending.get(), 0));
    EXPECT_EQ(daemon.wait_exit(), 0);
    EXPECT_TRUE(wait_closed(idle.fd(), kWaitMs));
    const std::string log = daemon.log();
    EXPECT_EQ(daemon.count("ummapping shared memory"), 2u);
    EXPECT_LT(log.find(kStopped), log.find("ummapping shared memory"));
    EXPECT_EQ(socket_mode(daemon.socket_path()), 0777u);
}

// Frozen with SIGSTOP, the daemon wakes to a stop, two client type msgs on accepted connections
// (types 2 and 3) and a doorbell of a registered client, all in one loop iteration. libev runs the
// stop first; the registrations that follow start workers that stop() never reached. The daemon
// must still end every worker, close every connection and exit with status 0.
class StopDuringRegistration : public ::testing::TestWithParam<int> {};

TEST_P(StopDuringRegistration, EveryWorkerEndsAndTheDaemonExits) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    SessionClient session;
    if (GetParam() == 0) {
        ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
        ASSERT_EQ(session.start_answering(), ClientError::kOk);
    }
    DecoderClient registered;
    ASSERT_EQ(registered.connect_posix(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(registered.flush(kWaitMs), ClientError::kOk);
    UniqueFd ashmem_client(connect_service(daemon.socket_path()));
    UniqueFd posix_client(connect_service(daemon.socket_path()));
    ASSERT_TRUE(daemon.wait_log("client connect: sock#", GetParam() == 0 ? 4 : 3));
    UniqueFd memfd(make_memfd(SHM_BLOCK_SIZE));
    ScopedShm shm(SHM_BLOCK_SIZE);

    daemon.signal(SIGSTOP);
    ASSERT_GE(send_type_msg(ashmem_client.get(), CLIENT_TYPE_ASHMEM_DECODER, "", {memfd.get()}), 0);
    ASSERT_GE(send_type_msg(posix_client.get(), CLIENT_TYPE_SHM_DECODER, shm.name, {shm.fd}), 0);
    ASSERT_EQ(registered.ring(), ClientError::kOk);
    if (GetParam() == 0) {
        session.close();
    } else {
        daemon.signal(GetParam());
    }
    daemon.signal(SIGCONT);

    EXPECT_EQ(daemon.wait_exit(), 0);
    for (int fd : {ashmem_client.get(), posix_client.get(), registered.fd()}) {
        EXPECT_TRUE(wait_closed(fd, kWaitMs));
    }
    EXPECT_EQ(daemon.count("ummapping shared memory"), 3u) << "both late registrations ran";
}

INSTANTIATE_TEST_SUITE_P(Stops, StopDuringRegistration, ::testing::Values(SIGTERM, SIGINT, 0),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == SIGTERM  ? "Sigterm"
                                                : info.param == SIGINT ? "Sigint"
                                                                       : "SessionEnds");
                         });

}  // namespace
