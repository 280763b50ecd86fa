// Orderly shutdown with clients still connected, and stops that share a loop iteration with
// registrations and doorbells.

#include <sys/stat.h>

#include <csignal>
#include <string>
#include <vector>

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

// The three ways a stop reaches the server; 0 stands for the end of the session client.
class StopDuringRegistrationTest : public ::testing::TestWithParam<int> {};

// Frozen with SIGSTOP, the daemon wakes to a stop, two client type msgs on accepted connections
// (types 2 and 3) and a doorbell of a registered client, all in one loop iteration. libev runs the
// stop first; the registrations that follow start workers that stop() never reached. The daemon
// must still end every worker, close every connection and exit with status 0.
TEST_P(StopDuringRegistrationTest, EveryWorkerEndsAndTheDaemonExits) {
    const int stop_signal = GetParam();
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.start());
    SessionClient session;
    if (stop_signal == 0) {
        ASSERT_EQ(session.connect(daemon.socket_path()), ClientError::kOk);
        ASSERT_EQ(session.start_answering(), ClientError::kOk);
    }
    DecoderClient registered;
    ASSERT_EQ(registered.connect_posix(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(registered.decode_frame("x", 1, 0, nullptr, kWaitMs), ClientError::kOk);

    UniqueFd ashmem_client(connect_service(daemon.socket_path()));
    UniqueFd posix_client(connect_service(daemon.socket_path()));
    ASSERT_TRUE(ashmem_client.valid() && posix_client.valid());
    const size_t accepted = stop_signal == 0 ? 4 : 3;
    ASSERT_TRUE(daemon.wait_for_log("client connect: sock#", kWaitMs, accepted));
    UniqueFd memfd(make_memfd(SHM_BLOCK_SIZE));
    ScopedShm shm(SHM_BLOCK_SIZE);
    ASSERT_TRUE(memfd.valid() && shm.valid());

    daemon.signal(SIGSTOP);
    ASSERT_EQ(
        send_client_type_msg(ashmem_client.get(), CLIENT_TYPE_ASHMEM_DECODER, "", memfd.get()), 0);
    ASSERT_EQ(
        send_client_type_msg(posix_client.get(), CLIENT_TYPE_SHM_DECODER, shm.name(), shm.fd()), 0);
    ASSERT_EQ(registered.ring(), ClientError::kOk);
    if (stop_signal == 0) {
        session.close();
    } else {
        daemon.signal(stop_signal);
    }
    daemon.signal(SIGCONT);

    EXPECT_EQ(daemon.wait_exit(10000), 0);
    EXPECT_TRUE(wait_closed(ashmem_client.get(), kWaitMs));
    EXPECT_TRUE(wait_closed(posix_client.get(), kWaitMs));
    EXPECT_TRUE(wait_closed(registered.fd(), kWaitMs));
    // Both late registrations had started a worker and mapped their block.
    EXPECT_EQ(daemon.count_in_log("ummapping shared memory"), 3u);
    EXPECT_TRUE(log_has_line(daemon.log(), "DEBUG", "media server stopped, now quiting..."));
}

INSTANTIATE_TEST_SUITE_P(Stops, StopDuringRegistrationTest, ::testing::Values(SIGTERM, SIGINT, 0),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == SIGTERM  ? "Sigterm"
                                                : info.param == SIGINT ? "Sigint"
                                                                       : "SessionEnd");
                         });

}  // namespace
