// The listening socket and the acceptance of connections, seen from outside the real binary.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <set>
#include <string>

#include "support/client_util.h"
#include "support/daemon_process.h"
#include "support/test_util.h"

namespace {

constexpr int kWaitMs = 10000;
const std::string kSockets = "/vessa/sockets";
const std::string kSocketName = "/media-service.socket";

mode_t mode_of(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
        return static_cast<mode_t>(-1);
    }
    return st.st_mode & 07777;
}

TEST(ListenTest, SocketFileIsLeftBehindAndReplacedByTheNextStart) {
    TempDir runtime;
    ASSERT_TRUE(make_dirs(runtime.path() + kSockets));
    DaemonProcess::Options options;
    options.env["XDG_RUNTIME_DIR"] = runtime.path();
    const std::string path = runtime.path() + kSockets + kSocketName;

    DaemonProcess first(options);
    ASSERT_TRUE(first.start());
    first.signal(SIGTERM);
    ASSERT_EQ(first.wait_exit(kWaitMs), 0);
    EXPECT_EQ(mode_of(path), 0777u);  // still there, nobody behind it
    EXPECT_EQ(connect_socket(path), -1);
    EXPECT_EQ(errno, ECONNREFUSED);

    DaemonProcess second(options);
    ASSERT_TRUE(second.start());
    EXPECT_EQ(listener_pid(path), second.pid());

    // A further instance takes the path over from a running one, which keeps running unreachable.
    DaemonProcess third(options);
    ASSERT_TRUE(third.start());
    EXPECT_EQ(listener_pid(path), third.pid());
    EXPECT_TRUE(second.running());
}

TEST(ListenTest, SocketModeIs0777WhateverTheUmask) {
    DaemonProcess::Options options;
    options.umask_value = 077;
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(mode_of(daemon.socket_path()), 0777u);
}

TEST(ListenTest, MissingSocketDirectoryLeavesTheServiceRunningWithoutSocket) {
    DaemonProcess::Options options;
    options.create_socket_dir = false;
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.start());
    const std::string log = daemon.log();
    EXPECT_TRUE(std::regex_search(log, std::regex("(^|\n)\\[ERROR\\] \\[media server\\] "
                                                  "media_server:[0-9]+ bind failed: \\[2\\] No "
                                                  "such file or directory\n")))
        << log;
    EXPECT_TRUE(daemon.running());

    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(kWaitMs), 0);
    EXPECT_EQ(daemon.count_in_log("media server stopped, now quiting..."), 1u);
}

// The socket address holds 107 bytes of the path; removing a stale file and setting the mode use
// the whole path.
TEST(ListenTest, LongPathIsCutForTheAddressOnly) {
    TempDir dir;
    ASSERT_LT(dir.path().size(), 90u);
    const std::string runtime = dir.path() + "/" + std::string(150, 'r');
    const std::string whole = runtime + kSockets + kSocketName;
    const std::string cut = whole.substr(0, 107);
    ASSERT_TRUE(make_dirs(runtime + kSockets));
    ASSERT_TRUE(write_file(whole, "stale"));

    DaemonProcess::Options options;
    options.env["XDG_RUNTIME_DIR"] = runtime;
    options.umask_value = 022;
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.start());

    struct stat st;
    EXPECT_NE(lstat(whole.c_str(), &st), 0);  // the stale file was removed
    EXPECT_EQ(mode_of(cut), 0755u);           // created under the umask, never chmod'ed
    EXPECT_EQ(listener_pid(cut), daemon.pid());
}

TEST(ListenTest, ConnectionsWaitAsPendingUntilTeardown) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    int a = connect_socket(daemon.socket_path());
    int b = connect_socket(daemon.socket_path());
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ASSERT_TRUE(daemon.wait_for_log("client connect: sock#[", kWaitMs, 2));

    const std::string log = daemon.log();
    const std::regex accepted(
        "\\[INFO\\] \\[media server\\] media_server:[0-9]+ client connect: "
        "sock#\\[([0-9]+)\\]\n");
    std::set<int> sockets;
    for (std::sregex_iterator it(log.begin(), log.end(), accepted), end; it != end; ++it) {
        sockets.insert(std::stoi((*it)[1]));
    }
    EXPECT_EQ(sockets.size(), 2u) << log;

    // Nothing is said to a pending connection, and it stays open...
    char byte;
    EXPECT_EQ(recv(a, &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(daemon.running());

    // ...until the service ends.
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(kWaitMs), 0);
    EXPECT_TRUE(mediaclient::wait_closed(a, kWaitMs));
    EXPECT_TRUE(mediaclient::wait_closed(b, kWaitMs));
    EXPECT_EQ(recv(a, &byte, 1, MSG_DONTWAIT), 0);
    close(a);
    close(b);
}

}  // namespace
