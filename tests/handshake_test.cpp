// The client type msg: every refusal closes the connection with its log line and leaves nothing
// open behind; what is accepted registers; one session client per service.

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

    // Sends one record on a new connection; whether the service closed it.
    bool refused(uint8_t type, const std::string& name, const std::vector<int>& fds) {
        UniqueFd fd(connect_service(daemon.socket_path()));
        return send_type_msg(fd.get(), type, name, fds) >= 0 && wait_closed(fd.get(), kWaitMs);
    }

    Daemon daemon;
    UniqueFd null_fd{open("/dev/null", O_RDONLY | O_CLOEXEC)};
};

std::string shm_open_error_of_empty_name() {
    errno = 0;
    int fd = shm_open("", O_RDWR, 0600);
    const int err = errno;
    close(fd);
    return "shared memory object open failed: [" + std::to_string(err) + "] ";
}

TEST_F(Handshake, RefusalsAreLoggedAndLeaveNothingOpen) {
    const std::string missing = "/svc-test-missing-" + std::to_string(getpid());
    shm_unlink(missing.c_str());
    ScopedShm small(4096);
    UniqueFd region(make_memfd(SHM_BLOCK_SIZE));
    UniqueFd small_region(make_memfd(4096));
    const std::string plain_path = daemon.runtime_dir() + "/plain";
    UniqueFd plain(open(plain_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(ftruncate(plain.get(), SHM_BLOCK_SIZE), 0);
    const int n = null_fd.get(), r = region.get();
    const std::string no_fd = "no ashmem file descriptor or posix shared memory descriptor sent";
    const std::string failed = "decoder instance create failed";
    struct Case {
        const char* name;
        uint8_t type;
        std::string shm_name;
        std::vector<int> fds;
        const char* level;
        std::string line;
        bool empty_record = false;
    };
    const std::vector<Case> cases = {
        // Credentials alone, or with three descriptors (the control data arrives cut).
        {"NoDescriptor", CLIENT_TYPE_SESSION, "", {}, "ERROR", "malformed control msg received"},
        {"ThreeDescriptors",
         CLIENT_TYPE_ASHMEM_DECODER,
         "",
         {r, n, n},
         "ERROR",
         "malformed control msg received"},
        // Two descriptors pass the length check but count as none.
        {"TwoDescriptors", CLIENT_TYPE_ASHMEM_DECODER, "", {r, r}, "ERROR", no_fd},
        {"UnknownType0", 0, "", {n}, "ERROR", "unknown client type message received"},
        {"UnknownType255", 255, "", {n}, "ERROR", "unknown client type message received"},
        {"EmptyShmName", CLIENT_TYPE_SHM_DECODER, "", {r}, "ERROR", shm_open_error_of_empty_name()},
        {"MissingShm",
         CLIENT_TYPE_SHM_DECODER,
         missing,
         {r},
         "ERROR",
         "shared memory object open failed: [2] No such file or directory"},
        {"PlainFileIsNoAshmem", CLIENT_TYPE_ASHMEM_DECODER, "", {plain.get()}, "ERROR", failed},
        {"SmallShm", CLIENT_TYPE_SHM_DECODER, small.name, {n}, "ERROR", failed},
        {"SmallRegion", CLIENT_TYPE_ASHMEM_DECODER, "", {small_region.get()}, "ERROR", failed},
        {"EmptyRecord", 0, "", {r}, "INFO", "client disconnected: ", true},
    };
    auto run_all = [&] {
        for (const Case& c : cases) {
            UniqueFd fd(connect_service(daemon.socket_path()));
            ssize_t sent = c.empty_record ? send_record(fd.get(), nullptr, 0, c.fds.data(),
                                                        c.fds.size(), nullptr)
                                          : send_type_msg(fd.get(), c.type, c.shm_name, c.fds);
            ASSERT_GE(sent, 0) << c.name;
            EXPECT_TRUE(wait_closed(fd.get(), kWaitMs)) << c.name;
        }
    };
    run_all();
    ASSERT_TRUE(daemon.barrier());
    const std::string log = daemon.log();
    for (const Case& c : cases) {
        EXPECT_TRUE(log_has(log, c.level, c.line)) << c.name << ": no " << c.level << " " << c.line;
    }
    // Whatever the service opens once is open by now; a hundred more rounds leave no more.
    const ProcStat before = proc_stat(daemon.pid());
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        run_all();
    }
    ASSERT_TRUE(daemon.barrier());
    EXPECT_TRUE(wait_until(3000, [&] { return proc_stat(daemon.pid()).fds == before.fds; }))
        << proc_stat(daemon.pid()).fds << " descriptors, " << before.fds << " before";
    EXPECT_EQ(proc_stat(daemon.pid()).threads, before.threads);
}

// A 255-byte name fills the record without a terminator; what follows is cut by the socket. The
// client is registered and served.
TEST_F(Handshake, LongRecordIsCutAndAccepted) {
    ScopedShm shm(SHM_BLOCK_SIZE, "/" + std::string(254, 'n'));
    if (shm.fd < 0 && errno == EINVAL) {
        GTEST_SKIP() << "the C library refuses a name of 254 characters (glibc before 2.34)";
    }
    ASSERT_GE(shm.fd, 0) << strerror(errno);
    auto* block = static_cast<uint8_t*>(
        mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, shm.fd, 0));
    ASSERT_NE(block, MAP_FAILED);
    std::string record_name = shm.name + std::string(143, 'Z');
    UniqueFd fd(connect_service(daemon.socket_path()));
    ASSERT_GE(send_type_msg(fd.get(), CLIENT_TYPE_SHM_DECODER, record_name, {shm.fd}), 0);

    // A decode before any init answers with an all-zero result.
    const ExchangeResult marker{77, 0, 0, 0, 77};
    memcpy(block + SHM_RESULT_OFFSET, &marker, sizeof(marker));
    const ExchangeDataRequest request{REQUEST_DECODE_FRAME, 0, 1, 0, 0};
    memcpy(block, &request, sizeof(request));
    ASSERT_EQ(send(fd.get(), "D", 1, MSG_NOSIGNAL), 1);
    ASSERT_EQ(wait_readable(fd.get(), kWaitMs), ClientError::kOk);
    uint8_t sync = 0;
    ASSERT_EQ(read(fd.get(), &sync, 1), 1);
    EXPECT_EQ(sync, SYNC_MSG_BYTE);
    ExchangeResult result;
    memcpy(&result, block + SHM_RESULT_OFFSET, sizeof(result));
    EXPECT_EQ(result.status, STATUS_OK);
    EXPECT_EQ(result.output_pts, 0);
    munmap(block, SHM_BLOCK_SIZE);
}

// One session client per service: a second is refused while the first keeps being pinged, and a
// session client refused before registering leaves the session free for the next one.
TEST_F(Handshake, OneSessionClient) {
    EXPECT_TRUE(refused(CLIENT_TYPE_SESSION, "", {}));
    SessionClient first;
    ASSERT_EQ(first.connect(daemon.socket_path()), ClientError::kOk);
    ASSERT_EQ(first.start_answering(), ClientError::kOk);
    EXPECT_TRUE(refused(CLIENT_TYPE_SESSION, "", {null_fd.get()}));
    EXPECT_TRUE(daemon.wait_log("client already registered"));
    EXPECT_TRUE(log_has(daemon.log(), "WARN", "client already registered"));
    EXPECT_TRUE(wait_until(8000, [&] { return first.pings() >= 2; }));
    EXPECT_FALSE(first.disconnected());
    // The first one still owns the session: its end ends the service.
    first.close();
    EXPECT_EQ(daemon.wait_exit(kWaitMs), 0);
}

}  // namespace
