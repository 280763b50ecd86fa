// Session client supervision: pings, and every way the end of the session stops the service.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "support/client_util.h"
#include "support/daemon_process.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 5000;

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class SessionTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon.start()); }
    DaemonProcess daemon;
};

TEST_F(SessionTest, FirstPingCarriesOneDescriptorAndDisconnectStopsTheService) {
    SessionClient session;
    ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(session.start_answering(), ClientError::kOk);
    ASSERT_TRUE(eventually([&] { return session.pings() >= 3; }, 10000));
    session.stop_answering();
    EXPECT_EQ(session.first_ping_fd_count(), 1);
    EXPECT_EQ(session.later_ping_fd_count(), 0);
    EXPECT_FALSE(session.disconnected());

    session.close();
    EXPECT_EQ(daemon.wait_exit(kWaitMs), 0);
    EXPECT_TRUE(log_has_line(daemon.log(), "DEBUG", "session client disconnected"));
    EXPECT_TRUE(log_has_line(daemon.log(), "DEBUG", "media server stopped, now quiting..."));
}

TEST_F(SessionTest, SilentSessionClientEndsTheServiceAtTheFirstTick) {
    SessionClient session;
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
    EXPECT_EQ(daemon.wait_exit(8000), 0);
    EXPECT_GE(seconds_since(start), 1.5);
    EXPECT_TRUE(daemon.count_in_log("session process exists, but no response from session client "
                                    "in a period of time, now force ending...") == 1);
    EXPECT_EQ(daemon.count_in_log("send ping msg to session"), 0u);
    // The service closed the connection on its way out.
    EXPECT_TRUE(wait_closed(session.fd(), kWaitMs));
}

TEST_F(SessionTest, SessionClientThatStopsAnsweringIsEndedAfterEightSeconds) {
    SessionClient session;
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(session.respond(), ClientError::kOk);
    // Pings keep coming while the one answer is at most 8 seconds old; none is answered.
    EXPECT_EQ(daemon.wait_exit(14000), 0);
    EXPECT_GE(seconds_since(start), 7.5);
    EXPECT_GE(daemon.count_in_log("send ping msg to session"), 3u);
    EXPECT_TRUE(log_has_line(daemon.log(), "DEBUG",
                             "session process exists, but no response from session client in a "
                             "period of time, now force ending..."));
}

TEST_F(SessionTest, SessionProcessThatIsGoneEndsTheService) {
    // A child registers itself over our connection and exits; the connection stays open here.
    UniqueFd fd(connect_service(daemon.socket_path()));
    ASSERT_TRUE(fd.valid());
    int release[2];
    ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(release[1]);
        int null_fd = open("/dev/null", O_RDONLY);
        int ok = send_client_type_msg(fd.get(), CLIENT_TYPE_SESSION, "", null_fd);
        char byte;
        while (read(release[0], &byte, 1) < 0 && errno == EINTR) {
        }
        _exit(ok == 0 ? 0 : 1);
    }
    close(release[0]);
    // The service takes the program name at registration, so the child lives until then.
    bool registered =
        daemon.wait_for_log("pid: " + std::to_string(child) + " rececived", kWaitMs) &&
        loop_barrier(daemon);
    close(release[1]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(registered);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    EXPECT_EQ(daemon.wait_exit(8000), 0);
    EXPECT_TRUE(log_has_line(daemon.log(), "DEBUG", "session process not found, now quiting..."));
}

}  // namespace
