// The client type msg: every refusal closes the connection with its log line and leaves nothing
// open behind; what is accepted registers. (One session client per service: service_test.)

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "support/support.h"

using namespace mediaclient;

namespace {

constexpr int kWaitMs = 5000;

class Handshake : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon.start()); }
    Daemon daemon;
};

std::string shm_open_error_of_empty_name() {
    errno = 0;
    const int fd = shm_open("", O_RDWR, 0600), err = errno;
    close(fd);
    return "shared memory object open failed: [" + std::to_string(err) + "] ";
}

TEST_F(Handshake, RefusalsAreLoggedAndLeaveNothingOpen) {
    const std::string missing = "/svc-test-missing-" + std::to_string(getpid());
    shm_unlink(missing.c_str());
    ScopedShm small(SHM_BLOCK_SIZE - 4096);  // larger than any one area, smaller than the block
    UniqueFd null_fd(open("/dev/null", O_RDONLY | O_CLOEXEC)), region(make_memfd(SHM_BLOCK_SIZE));
    UniqueFd small_region(make_memfd(4096));
    UniqueFd plain(
        open((daemon.runtime_dir() + "/plain").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(ftruncate(plain.get(), SHM_BLOCK_SIZE), 0);
    const int n = null_fd.get(), r = region.get();
    const std::string malformed = "malformed control msg received",
                      unknown = "unknown client type message received",
                      failed = "decoder instance create failed";
    struct Case {
        uint8_t type;
        std::string shm_name;
        std::vector<int> fds;
        std::string line;
        const char* level = "ERROR";
    };
    const std::vector<Case> cases = {
        // Credentials alone, or with three descriptors: the control data arrives cut.
        {CLIENT_TYPE_SESSION, "", {}, malformed},
        {CLIENT_TYPE_ASHMEM_DECODER, "", {r, n, n}, malformed},
        // Two descriptors pass the length check but count as none.
        {CLIENT_TYPE_ASHMEM_DECODER,
         "",
         {r, r},
         "no ashmem file descriptor or posix shared "
         "memory descriptor sent"},
        {0, "", {n}, unknown},
        {255, "", {n}, unknown},
        {CLIENT_TYPE_SHM_DECODER, "", {r}, shm_open_error_of_empty_name()},
        {CLIENT_TYPE_SHM_DECODER,
         missing,
         {r},
         "shared memory object open failed: [2] No such "
         "file or directory"},
        {CLIENT_TYPE_ASHMEM_DECODER, "", {plain.get()}, failed},  // a plain file is no region
        {CLIENT_TYPE_SHM_DECODER, small.name, {n}, failed},
        {CLIENT_TYPE_ASHMEM_DECODER, "", {small_region.get()}, failed},
        {0, "", {r}, "client disconnected: ", "INFO"},  // an empty record, sent as such below
    };
    // Each refusal with its own line: another case's line must not stand in for it.
    auto run_all = [&](bool check) {
        for (size_t i = 0; i < cases.size(); ++i) {
            const Case& c = cases[i];
            const size_t logged = check ? daemon.log().size() : 0;
            UniqueFd fd(connect_service(daemon.socket_path()));
            ssize_t sent = i + 1 == cases.size()
                               ? send_record(fd.get(), nullptr, 0, c.fds.data(), 1, nullptr)
                               : send_type_msg(fd.get(), c.type, c.shm_name, c.fds);
            ASSERT_GE(sent, 0) << i;
            EXPECT_TRUE(wait_closed(fd.get(), kWaitMs)) << i;
            EXPECT_TRUE(!check || log_has(daemon.log().substr(logged), c.level, c.line))
                << "case " << i << ": no " << c.level << " " << c.line;
        }
    };
    run_all(true);
    ASSERT_TRUE(daemon.barrier());
    // Whatever the service opens once is open by now; a hundred more rounds leave no more.
    const ProcStat before = proc_stat(daemon.pid());
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        run_all(false);
    }
    ASSERT_TRUE(daemon.barrier());
    EXPECT_TRUE(wait_until(3000, [&] { return proc_stat(daemon.pid()).fds == before.fds; }))
        << proc_stat(daemon.pid()).fds << " descriptors, " << before.fds << " before";
    EXPECT_EQ(proc_stat(daemon.pid()).threads, before.threads);
}

}  // namespace
