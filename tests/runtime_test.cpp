// The service process as a whole: where it listens, how it stops, how it daemonises. Drives the
// real binary.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/client_util.h"
#include "support/daemon_process.h"
#include "support/test_util.h"

namespace {

constexpr int kWaitMs = 10000;
const std::string kSocketTail = "/vessa/sockets/media-service.socket";

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

bool is_socket(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// Field `index` (1-based, as in proc(5)) of /proc/<pid>/stat.
long proc_stat_field(pid_t pid, int index) {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t end = stat.rfind(')');  // the command name may hold blanks
    if (end == std::string::npos) {
        return -1;
    }
    std::istringstream fields(stat.substr(end + 2));
    std::string field;
    for (int i = 3; i <= index && fields >> field; ++i) {
        if (i == index) {
            return std::stol(field);
        }
    }
    return -1;
}

TEST(RuntimeTest, ListensUnderXdgRuntimeDir) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    const std::string path = daemon.runtime_dir() + kSocketTail;
    EXPECT_TRUE(is_socket(path));
    EXPECT_EQ(listener_pid(path), daemon.pid());
    EXPECT_TRUE(log_has_line(daemon.log(), "DEBUG", "[runtime] runtime:"));
    EXPECT_EQ(lines_of(daemon.log()).front().find("[DEBUG] [runtime] runtime:"), 0u);
}

// Without XDG_RUNTIME_DIR the service listens under /run/user/<euid>. The directory is made for
// the test where it is missing and can be made, and removed again; a directory that exists
// already may belong to a running session and is left alone.
TEST(RuntimeTest, ListensUnderRunUserWithoutXdgRuntimeDir) {
    const std::string user_dir = "/run/user/" + std::to_string(geteuid());
    const std::string socket_dir = user_dir + "/vessa/sockets";
    struct stat st;
    if (stat((user_dir + "/vessa").c_str(), &st) == 0) {
        GTEST_SKIP() << user_dir << "/vessa exists already";
    }
    std::vector<std::string> made;
    for (const std::string& dir :
         {std::string("/run/user"), user_dir, user_dir + "/vessa", socket_dir}) {
        if (mkdir(dir.c_str(), 0700) == 0) {
            made.push_back(dir);
        } else if (errno != EEXIST) {
            for (auto it = made.rbegin(); it != made.rend(); ++it) {
                rmdir(it->c_str());
            }
            GTEST_SKIP() << "cannot make " << dir;
        }
    }
    const std::string path = user_dir + kSocketTail;
    {
        DaemonProcess::Options options;
        options.unset_xdg_runtime_dir = true;
        DaemonProcess daemon(options);
        EXPECT_EQ(daemon.socket_path(), path);
        EXPECT_TRUE(daemon.start());
        EXPECT_TRUE(is_socket(path));
        EXPECT_EQ(listener_pid(path), daemon.pid());
        daemon.signal(SIGTERM);
        EXPECT_EQ(daemon.wait_exit(kWaitMs), 0);
    }
    unlink(path.c_str());
    for (auto it = made.rbegin(); it != made.rend(); ++it) {
        EXPECT_EQ(rmdir(it->c_str()), 0) << *it;
    }
}

// The socket path is composed in 4096 bytes: a longer one is cut at 4095. The cut path still
// names a file here (the stale-socket unlink removes it), while the whole path would be too long
// for any system call.
TEST(RuntimeTest, SocketPathIsCutAt4095Bytes) {
    TempDir dir;
    ASSERT_TRUE(dir.valid());
    const std::string sockets = "/vessa/sockets/";
    const size_t runtime_size = 4095 - sockets.size() - std::string("media-se").size();
    std::string runtime = dir.path();
    while (runtime_size - runtime.size() > 250) {
        runtime += "/" + std::string(200, 'd');
    }
    runtime += "/" + std::string(runtime_size - runtime.size() - 1, 'e');
    ASSERT_EQ(runtime.size(), runtime_size);
    ASSERT_TRUE(make_dirs(runtime + sockets));
    const std::string cut = runtime + sockets + "media-se";
    ASSERT_EQ(cut.size(), 4095u);
    ASSERT_TRUE(write_file(cut, "stale"));

    DaemonProcess::Options options;
    options.env["XDG_RUNTIME_DIR"] = runtime;
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.start());
    struct stat st;
    EXPECT_NE(lstat(cut.c_str(), &st), 0);
    EXPECT_EQ(errno, ENOENT);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(kWaitMs), 0);
}

class StopSignalTest : public ::testing::TestWithParam<int> {};

TEST_P(StopSignalTest, StopsInOrderWithStatusZero) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    daemon.signal(GetParam());
    ASSERT_EQ(daemon.wait_exit(kWaitMs), 0);

    std::vector<std::string> lines = lines_of(daemon.log());
    ASSERT_GE(lines.size(), 3u);
    // The server's stop report, the end of the loop, then the log guard's line at exit.
    const size_t n = lines.size();
    EXPECT_EQ(lines[n - 3].find("[DEBUG] [runtime] runtime:"), 0u) << lines[n - 3];
    EXPECT_NE(lines[n - 3].find(" media server stopped, now quiting..."), std::string::npos);
    EXPECT_EQ(lines[n - 2].find("[DEBUG] [runtime] runtime:"), 0u) << lines[n - 2];
    EXPECT_NE(lines[n - 2].find(" stopping media service..."), std::string::npos);
    EXPECT_EQ(lines[n - 1], "日志文件切换: 标准输出");
    EXPECT_EQ(daemon.count_in_log("media server stopped, now quiting..."), 1u);
}

INSTANTIATE_TEST_SUITE_P(Signals, StopSignalTest, ::testing::Values(SIGTERM, SIGINT));

TEST(RuntimeTest, HangupIsIgnoredSilently) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    const size_t runtime_lines = daemon.count_in_log("[runtime]");
    daemon.signal(SIGHUP);
    // The signal reaches the loop before the barrier's connection does.
    ASSERT_TRUE(loop_barrier(daemon));
    EXPECT_TRUE(daemon.running());
    EXPECT_EQ(daemon.count_in_log("[runtime]"), runtime_lines);
    EXPECT_EQ(daemon.count_in_log("media server stopped"), 0u);

    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(kWaitMs), 0);
}

TEST(RuntimeTest, DaemonCalledToKeepWorkingDirectory) {
    TempDir cwd;
    TempDir record_dir;
    const std::string record = record_dir.file("daemon-args");
    DaemonProcess::Options options;
    options.cwd = cwd.path();
    options.env["SVC_TEST_DAEMON_ARGS"] = record;
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.start());
    // nochdir = 1, noclose = 0 (the preloaded daemon() records them and honours nochdir).
    EXPECT_EQ(read_file(record), "1 0\n");
    EXPECT_EQ(read_link("/proc/" + std::to_string(daemon.pid()) + "/cwd"), cwd.path());
}

TEST(RuntimeTest, UnmodifiedBinaryDaemonises) {
    TempDir cwd;
    DaemonProcess::Options options;
    options.preload_hooks = false;
    options.cwd = cwd.path();
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(daemon.launcher_status(), 0);
    const pid_t pid = daemon.pid();
    const std::string proc = "/proc/" + std::to_string(pid);

    // A new session, reparented to this process (the subreaper), in the same directory, with its
    // standard streams on /dev/null.
    EXPECT_EQ(getsid(pid), pid);
    EXPECT_EQ(proc_stat_field(pid, 4), getpid());
    EXPECT_EQ(read_link(proc + "/cwd"), cwd.path());
    for (int fd = 0; fd <= 2; ++fd) {
        EXPECT_EQ(read_link(proc + "/fd/" + std::to_string(fd)), "/dev/null") << fd;
    }
    EXPECT_EQ(daemon.log(), "");

    int client = connect_socket(daemon.socket_path());
    EXPECT_GE(client, 0);
    EXPECT_EQ(peer_pid(client), pid);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(kWaitMs), 0);
    EXPECT_TRUE(mediaclient::wait_closed(client, kWaitMs));
    close(client);
}

}  // namespace
