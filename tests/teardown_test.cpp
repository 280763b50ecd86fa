// Orderly shutdown on SIGTERM with clients still connected.

#include <sys/stat.h>

#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "support/client_util.h"
#include "support/daemon_process.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 5000;

TEST(TeardownTest, SigtermEndsWorkersClosesEveryConnectionAndKeepsTheSocketFile) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());

    DecoderClient first;
    DecoderClient second;
    ExchangeResult result{};
    ASSERT_EQ(first.connect_posix(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(second.connect_descriptor(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(first.decode_frame("x", 1, 0, &result, kWaitMs), ClientError::kOk);
    ASSERT_EQ(second.decode_frame("x", 1, 0, &result, kWaitMs), ClientError::kOk);
    const int threads = daemon.thread_count();

    // Accepted, but no client type msg yet.
    UniqueFd pending(connect_service(daemon.socket_path()));
    ASSERT_TRUE(pending.valid());
    ASSERT_TRUE(daemon.wait_for_log("client connect: sock#", kWaitMs, 3));

    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(10000), 0);

    EXPECT_TRUE(wait_closed(first.fd(), kWaitMs));
    EXPECT_TRUE(wait_closed(second.fd(), kWaitMs));
    EXPECT_TRUE(wait_closed(pending.get(), kWaitMs));
    EXPECT_EQ(first.wait_sync(0), ClientError::kDisconnected);

    // Both workers were running and both blocks were released on the way out.
    EXPECT_GE(threads, 3);
    const std::string log = daemon.log();
    EXPECT_EQ(daemon.count_in_log("ummapping shared memory"), 2u);
    EXPECT_TRUE(log_has_line(log, "DEBUG", "media server stopped, now quiting..."));
    EXPECT_TRUE(log_has_line(log, "DEBUG", "stopping media service..."));
    EXPECT_LT(log.find("media server stopped, now quiting..."),
              log.find("ummapping shared memory"));

    struct stat st;
    ASSERT_EQ(stat(daemon.socket_path().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
}

}  // namespace
