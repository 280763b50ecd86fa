// The parts that only a unit test reaches: the logger's line format and its files; the
// ashmem class against memfds standing in for the driver; the rules that keep spinning bounded.
//
// The test hooks are compiled into this program, as they are preloaded into the daemon under
// test: the ashmem driver's size requests are answered on memfds.

#include "support/testhooks.c"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "base/ashmem.h"
#include "base/log.h"
#include "base/memory_limit.h"
#include "base/spin_wait.h"
#include "decoder/memory_budget.h"
#include "support/support.h"

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

const std::string kBackToStdout = "日志文件切换: 标准输出\n";

// What `write` logs into a file the log is switched to and back from, the interface that only the
// fuzz target uses: the file is appended to, a switch to a file that cannot be opened leaves the
// log where it is (and says so there), and the switch back ends the file with the line that names
// the next destination.
std::string logged(const std::function<void()>& write) {
    TempDir dir;
    const std::string path = dir.path + "/log", missing = dir.path + "/missing/log";
    std::ofstream(path) << "earlier\n";
    SvcLogFile(path.c_str());
    SvcLogFile(missing.c_str());
    write();
    SvcLogFile(nullptr);
    const std::string text = read_file(path),
                      before = "earlier\n切换日志文件失败 " + missing + " 2\n";
    EXPECT_EQ(text.substr(0, before.size()), before);
    EXPECT_EQ(text.substr(text.size() - kBackToStdout.size()), kBackToStdout);
    return text.substr(before.size(), text.size() - before.size() - kBackToStdout.size());
}

TEST(Log, LinesAreFormattedCutAndPrefixed) {
    const std::string prefix = "[DEBUG] [m] f:1 ", file(241, 'f');
    const struct {
        int level;
        std::string file, message, line;
    } cases[] = {
        {SVC_LOG_INFO, "media_server", "connect", "[INFO] [m] media_server:1 connect\n"},
        {SVC_LOG_WARN, "runtime", "w", "[WARN] [m] runtime:1 w\n"},
        {SVC_LOG_ERROR, "media_decoder", "", "[ERROR] [m] media_decoder:1 \n"},
        {SVC_LOG_DEBUG, "f", std::string(494, 'a'), prefix + std::string(494, 'a') + "\n"},
        // From 511 characters on, the line is 512 bytes: 508 of text and the "~~~" mark.
        {SVC_LOG_DEBUG, "f", std::string(495, 'b'), prefix + std::string(492, 'b') + "~~~\n"},
        {SVC_LOG_DEBUG, "f", std::string(2000, 'c'), prefix + std::string(492, 'c') + "~~~\n"},
        // "[DEBUG] [m] " + file + ":1 " up to 256 characters; a longer prefix is dropped.
        {SVC_LOG_DEBUG, file, "message", "[DEBUG] [m] " + file + ":1 message\n"},
        {SVC_LOG_DEBUG, file + "f", "message", "message\n"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(
            logged([&] { SvcLogWrite(c.level, "m", c.file.c_str(), 1, "%s", c.message.c_str()); }),
            c.line);
    }
}

// An out-of-range level is FATAL and aborts, the line being the last thing in the file (exit
// handlers do not run). (An ordinary exit ends the file with the switch back: the stop tests.)
TEST(LogDeathTest, FatalAborts) {
    TempDir dir;
    const std::string path = dir.path + "/log";
    for (int level : {5, -1, int(SVC_LOG_FATAL)}) {
        EXPECT_EXIT(
            {
                SvcLogFile(path.c_str());
                SvcLogWrite(level, "m", "f", 1, "level %d", level);
            },
            ::testing::KilledBySignal(SIGABRT), "");
        EXPECT_EQ(read_file(path), "[FATAL] [m] f:1 level " + std::to_string(level) + "\n");
        unlink(path.c_str());
    }
}

// The class's lines on standard error are verbatim, leftovers of the original included. What is
// no region is refused; a region is mapped once and shared both ways; one made through the device
// (a memfd's /proc path stands in for it) has the asked size; each is released with its
// descriptor, which is forgotten even when closing it fails.
TEST(AshMemory, MapsAndReleasesRegionsOnly) {
    const int plain = open("/dev/zero", O_RDWR | O_CLOEXEC), region = make_memfd(3 * 4096);
    ASSERT_EQ(pwrite(region, "abc", 3, 4096), 3);
    const int device = make_memfd(0);
    const std::string device_path = "/proc/self/fd/" + std::to_string(device);
    CaptureStderr();
    {
        AshMemory none(plain), missing(4096, "/no-such-device");
        EXPECT_EQ(none.MapMemory(), nullptr);
        EXPECT_EQ(missing.MapMemory(), nullptr);
        AshMemory made(2 * 4096, device_path.c_str());
        ASSERT_NE(made.MapMemory(), nullptr);
        EXPECT_EQ(lseek(made.fd(), 0, SEEK_END), 2 * 4096);
        close(made.fd());  // gone behind its back
        made._destroy();
        made._destroy();  // again: nothing left to release
        EXPECT_EQ(made.fd(), -1);
        AshMemory memory(region);
        EXPECT_EQ(memory.size(), 3u * 4096);
        auto* bytes = static_cast<char*>(memory.MapMemory());
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(memory.MapMemory(), bytes);
        EXPECT_EQ(std::string(bytes + 4096, 3), "abc");
        memcpy(bytes + 2 * 4096, "xyz", 3);
        EXPECT_EQ(read_file("/proc/self/fd/" + std::to_string(region)).substr(2 * 4096, 3), "xyz");
    }
    EXPECT_EQ(fcntl(plain, F_GETFD) + fcntl(region, F_GETFD), -2);  // owned, closed on release
    close(device);
    EXPECT_EQ(GetCapturedStderr(),
              "[WRN] ashmem:38 ioctl(fd, (((0U) << (((0+8)+8)+14)) | (((0x77)) << (0+8)) | (((4)) "
              "<< 0) | ((0) << ((0+8)+8)))) result(-1) errno(25) Inappropriate ioctl for device\n"
              "[ERR] ashmem:60 bad descriptor ??? zero size\n"
              "[WRN] ashmem:53 open(mDeviceName.c_str(), 02) result(-1) errno(2) No such file or "
              "directory\n"
              "[WRN] ashmem:32 close(mFd) result(-1) errno(9) Bad file descriptor\n");
}

// The memory the host gives the service: its cgroup's limit, the smallest along the path from its
// own cgroup up, cgroup v2 or v1, and never more than the physical memory; decoders get all but a
// quarter of it, and at least 64 MiB is kept.
TEST(MemoryLimit, FromTheCgroupElseThePhysicalMemory) {
    constexpr int64_t MiB = 1 << 20, GiB = 1 << 30;
    const struct {
        std::string cgroup, file, limit;  // /proc/self/cgroup; a file under /sys/fs/cgroup
        int64_t physical, bytes;
        std::string source;
    } cases[] = {
        {"0::/a/b", "a/b/memory.max", "1073741824", 8 * GiB, GiB, "cgroup v2 /a/b"},
        // The smallest limit on the path up counts; a level without the file has none.
        {"0::/a/b", "a/memory.max", "536870912", 8 * GiB, 512 * MiB, "cgroup v2 /a/b"},
        {"0::/a", "a/memory.max", "max", 8 * GiB, 8 * GiB, "physical memory"},
        {"0::/a", "a/memory.max", "17179869184", 4 * GiB, 4 * GiB, "physical memory"},
        {"4:memory:/x\n1:cpu,cpuacct:/y\n0::/", "memory/x/memory.limit_in_bytes", "268435456",
         8 * GiB, 256 * MiB, "cgroup v1 /x"},
        {"3:cpu,memory:/x", "memory/x/memory.limit_in_bytes", "9223372036854771712", 2 * GiB,
         2 * GiB, "physical memory"},
        {"", "", "", 4 * GiB, 4 * GiB, "physical memory"},  // no cgroup
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cgroup);
        TempDir root;
        const std::string file = root.path + "/sys/fs/cgroup/" + c.file;
        const std::string dirs = root.path + "/proc/self " + file.substr(0, file.rfind('/'));
        ASSERT_EQ(system(("mkdir -p " + dirs).c_str()), 0);
        if (!c.cgroup.empty()) {
            std::ofstream(root.path + "/proc/self/cgroup") << c.cgroup << "\n";
            std::ofstream(file) << c.limit << "\n";
        }
        const MemoryLimit limit = memory_limit(root.path, c.physical);
        EXPECT_EQ(limit.bytes, c.bytes);
        EXPECT_EQ(limit.source, c.source);
    }
    EXPECT_EQ(decoding_budget(GiB), 768 * MiB);
    EXPECT_EQ(decoding_budget(200 * MiB), 136 * MiB);
    EXPECT_EQ(decoding_budget(48 * MiB), 0);
}

// The share rule at its edges, on a budget of 400 bytes: a client within its share (the budget
// divided among the clients holding something) is granted up to the whole budget; past its share
// it is granted only out of the last quarter (the reserve, here 100 bytes).
TEST(MemoryBudget, SharesAndTheReserve) {
    MemoryBudget budget(400);
    MemoryAccount a(budget), b(budget);
    MemoryCharge charge_a(&a), charge_b(&b);
    const struct {
        MemoryCharge& charge;
        int64_t bytes;
        bool granted;
        int64_t total;  // afterwards
    } rows[] = {
        {charge_a, 200, true, 200},   // alone, its share is the whole budget
        {charge_b, 50, true, 250},    // within its share of 200
        {charge_a, 50, true, 300},    // past its share, up to the reserve's edge
        {charge_a, 1, false, 300},    // past its share, into the reserve
        {charge_b, 100, true, 400},   // within its share, into the reserve, up to the limit
        {charge_b, 1, false, 400},    // within its share, past the limit
        {charge_a, -250, true, 150},  // a gives everything back: b is alone
        {charge_b, 250, true, 400},   // alone again, up to the whole budget
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        EXPECT_EQ(r.charge.add(r.bytes, nullptr), r.granted);
        EXPECT_EQ(budget.total(), r.total);
    }
    charge_b.set(0, nullptr);
    EXPECT_EQ(budget.total(), 0);
}

// Spinning, counted in asks of the readiness test so that no figure depends on the machine's
// speed. The bound is long enough that a spin never runs out between two asks, however loaded
// the machine: a spin that asks twice spun, one that asks once was skipped.
int spin_calls(SpinWait& wait, int ready_at = 0) {
    int calls = 0;
    wait.spin([&] { return ++calls == ready_at; });
    return calls;
}

TEST(SpinWait, BoundedAndBackingOff) {
    SpinWait wait(std::chrono::milliseconds(50));
    EXPECT_EQ(spin_calls(wait, 5), 5);
    const auto start = SpinWait::Clock::now();
    EXPECT_GT(spin_calls(wait), 1);
    EXPECT_GE(SpinWait::Clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(spin_calls(wait, 2), 1);  // a run-out skips the next spin
    // Only while the waits are short: a player keeping to its frame rate never spins.
    wait.waited(std::chrono::seconds(1));
    EXPECT_EQ(spin_calls(wait, 2), 1);
    EXPECT_EQ(spin_calls(wait, 2), 1);
    wait.waited(std::chrono::microseconds(20));
    EXPECT_EQ(spin_calls(wait, 2), 2);
}

}  // namespace
