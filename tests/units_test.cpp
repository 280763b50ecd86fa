// The parts that only a unit test reaches: the logger's line format, its files and threads; the
// ashmem class against memfds standing in for the driver; the rules that keep spinning bounded.
//
// The test hooks are compiled into this program, as they are preloaded into the daemon under
// test: the ashmem driver's size requests are answered on memfds, and the device path in
// SVC_TEST_ASHMEM_DEVICE opens a new memfd.

#include "support/testhooks.c"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/ashmem.h"
#include "base/log.h"
#include "base/spin_wait.h"
#include "support/support.h"

namespace {

const std::string kBackToStdout = "日志文件切换: 标准输出\n";

// What descriptor `fd` (1 or 2) gets while `write` runs.
std::string captured(int fd, const std::function<void()>& write) {
    TempDir dir;
    const std::string path = dir.path + "/out";
    fflush(nullptr);
    int saved = dup(fd), file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    dup2(file, fd);
    write();
    fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    close(file);
    return read_file(path);
}

// What `write` logs into a file the log is switched to and back from; the switch back always
// ends the file with the line that names the next destination.
std::string logged(const std::function<void()>& write) {
    TempDir dir;
    const std::string path = dir.path + "/log";
    SvcLogFile(path.c_str());
    write();
    SvcLogFile(nullptr);
    const std::string text = read_file(path);
    EXPECT_EQ(text.substr(text.size() - kBackToStdout.size()), kBackToStdout);
    return text.substr(0, text.size() - kBackToStdout.size());
}

TEST(Log, LinesAreFormattedCutAndPrefixed) {
    const std::string prefix = "[DEBUG] [m] f:1 ";
    struct Case {
        std::string file, message, line;
    };
    const std::vector<Case> cases = {
        {"f", std::string(510 - prefix.size(), 'a'), prefix + std::string(494, 'a') + "\n"},
        // From 511 characters on, the line is 512 bytes: 508 of text and the "~~~" mark.
        {"f", std::string(511 - prefix.size(), 'b'), prefix + std::string(492, 'b') + "~~~\n"},
        {"f", std::string(2000, 'c'), prefix + std::string(492, 'c') + "~~~\n"},
        // "[DEBUG] [m] " + file + ":1 " up to 256 characters; a longer prefix is dropped.
        {std::string(241, 'f'), "message", "[DEBUG] [m] " + std::string(241, 'f') + ":1 message\n"},
        {std::string(242, 'f'), "message", "message\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(logged([&] {
                      SvcLogWrite(SVC_LOG_DEBUG, "m", c.file.c_str(), 1, "%s", c.message.c_str());
                  }),
                  c.line);
    }
    EXPECT_EQ(logged([] {
                  SvcLogWrite(SVC_LOG_INFO, "media server", "media_server", 107,
                              "client connect: sock#[%d]", 7);
                  SvcLogWrite(SVC_LOG_WARN, "runtime", "runtime", 3, "w");
                  SvcLogWrite(SVC_LOG_ERROR, "media decoder", "media_decoder", 9, "%s", "");
              }),
              "[INFO] [media server] media_server:107 client connect: sock#[7]\n"
              "[WARN] [runtime] runtime:3 w\n[ERROR] [media decoder] media_decoder:9 \n");
}

// Each switch names the next destination in the file it leaves; a file that cannot be opened
// leaves the log where it is; files are appended to; lines to /dev/null are dropped and the next
// file gets lines again; standard output is the default.
TEST(Log, SwitchingFiles) {
    TempDir dir;
    const std::string first = dir.path + "/first", second = dir.path + "/second";
    const std::string missing = dir.path + "/missing/third";
    ASSERT_EQ(system(("echo earlier > " + first).c_str()), 0);
    SvcLogFile(first.c_str());
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 1, "one");
    SvcLogFile(second.c_str());
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 2, "two");
    SvcLogFile("/dev/null");
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 9, "unseen");
    SvcLogFile(second.c_str());
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 4, "after");
    SvcLogFile(missing.c_str());
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 3, "three");
    SvcLogFile(nullptr);
    EXPECT_EQ(read_file(first), "earlier\n[DEBUG] [m] f:1 one\n日志文件切换: " + second + "\n");
    EXPECT_EQ(read_file(second),
              "[DEBUG] [m] f:2 two\n日志文件切换: /dev/null\n[DEBUG] [m] f:4 after\n"
              "切换日志文件失败 " +
                  missing + " 2\n[DEBUG] [m] f:3 three\n" + kBackToStdout);
    EXPECT_EQ(captured(STDOUT_FILENO,
                       [] {
                           SvcLogFile(nullptr);  // already there: only the message
                           SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 1, "still here");
                       }),
              kBackToStdout + "[DEBUG] [m] f:1 still here\n");
}

TEST(Log, LinesFromThreadsAreNeverInterleaved) {
    const std::string text = logged([] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < 300; ++i) {
                    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", t, "%d %s", i,
                                std::string(100 + 50 * t, char('a' + t)).c_str());
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    });
    std::istringstream lines(text);
    std::set<std::string> seen;
    for (std::string line; std::getline(lines, line);) {
        int t = -1, i = -1;
        char filler[512] = {};
        ASSERT_EQ(sscanf(line.c_str(), "[DEBUG] [m] f:%d %d %511s", &t, &i, filler), 3) << line;
        ASSERT_EQ(std::string(filler), std::string(100 + 50 * t, char('a' + t)));
        seen.insert(line);
    }
    EXPECT_EQ(seen.size(), 1200u);
}

// An out-of-range level is FATAL and aborts, the line being the last thing in the file (exit
// handlers do not run); an ordinary exit ends the log file with the switch back.
TEST(LogDeathTest, FatalAbortsAndExitSwitchesBack) {
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
    EXPECT_EXIT(
        {
            SvcLogFile(path.c_str());
            SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 1, "bye");
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(read_file(path), "[DEBUG] [m] f:1 bye\n" + kBackToStdout);
}

bool fd_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// The class's lines on standard error are verbatim, leftovers of the original included.
TEST(AshMemory, RefusesWhatIsNoRegion) {
    TempDir dir;
    const std::string plain = dir.path + "/plain";
    ASSERT_EQ(system(("head -c 8192 /dev/zero > " + plain).c_str()), 0);
    int fd = open(plain.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(captured(STDERR_FILENO,
                       [fd] {
                           AshMemory memory(fd);
                           EXPECT_EQ(memory.mSize, 0u);
                           EXPECT_EQ(memory.MapMemory(), nullptr);
                       }),
              "[WRN] ashmem:38 ioctl(fd, (((0U) << (((0+8)+8)+14)) | (((0x77)) << (0+8)) | (((4)) "
              "<< 0) | ((0) << ((0+8)+8)))) result(-1) errno(25) Inappropriate ioctl for device\n"
              "[ERR] ashmem:60 bad descriptor ??? zero size\n");
    EXPECT_FALSE(fd_open(fd));  // owned, and closed on destruction
    EXPECT_EQ(captured(STDERR_FILENO,
                       [&] {
                           AshMemory memory(4096, (dir.path + "/no-such-device").c_str());
                           EXPECT_EQ(memory.MapMemory(), nullptr);
                           AshMemory nameless(4096, nullptr);
                           EXPECT_EQ(nameless.MapMemory(), nullptr);
                       }),
              "[WRN] ashmem:53 open(mDeviceName.c_str(), 02) result(-1) errno(2) No such file or "
              "directory\n");
}

// A region is mapped once, shared both ways, and released with its descriptor; a region made
// through the device has the asked size.
TEST(AshMemory, MapsAndReleasesARegion) {
    int fd = make_memfd(3 * 4096);
    ASSERT_EQ(pwrite(fd, "abc", 3, 4096), 3);
    EXPECT_EQ(captured(STDERR_FILENO,
                       [fd] {
                           AshMemory memory(fd);
                           EXPECT_EQ(memory.mSize, 3u * 4096);
                           auto* bytes = static_cast<char*>(memory.MapMemory());
                           ASSERT_NE(bytes, nullptr);
                           EXPECT_EQ(memory.MapMemory(), bytes);
                           EXPECT_EQ(std::string(bytes + 4096, 3), "abc");
                           memcpy(bytes + 2 * 4096, "xyz", 3);
                           char back[3];
                           ASSERT_EQ(pread(fd, back, 3, 2 * 4096), 3);
                           EXPECT_EQ(std::string(back, 3), "xyz");
                           memory._destroy();
                           memory._destroy();  // again: nothing left to release
                           EXPECT_EQ(memory.mMemory, nullptr);
                       }),
              "");
    EXPECT_FALSE(fd_open(fd));

    setenv("SVC_TEST_ASHMEM_DEVICE", "/dev/ashmem", 1);
    {
        AshMemory memory(2 * 4096, "/dev/ashmem");
        auto* mapped = static_cast<char*>(memory.MapMemory());
        ASSERT_NE(mapped, nullptr);
        struct stat st;
        ASSERT_EQ(fstat(memory.mFd, &st), 0);
        EXPECT_EQ(st.st_size, 2 * 4096);
        mapped[2 * 4096 - 1] = 1;  // the whole size is mapped
        fd = memory.mFd;
    }
    EXPECT_FALSE(fd_open(fd));
    unsetenv("SVC_TEST_ASHMEM_DEVICE");
}

TEST(AshMemory, FailedReleaseStillForgetsMappingAndDescriptor) {
    int fd = make_memfd(4096);
    AshMemory memory(fd);
    void* mapped = memory.MapMemory();
    memory.mMemory = static_cast<char*>(mapped) + 1;  // not page aligned: munmap fails
    EXPECT_EQ(captured(STDERR_FILENO,
                       [&] {
                           close(fd);  // gone behind its back
                           memory._destroy();
                       }),
              "[WRN] ashmem:28 munmap(mMemory, mSize) result(-1) errno(22) Invalid argument\n"
              "[WRN] ashmem:32 close(mFd) result(-1) errno(9) Bad file descriptor\n");
    EXPECT_EQ(memory.mFd, -1);
    munmap(mapped, 4096);
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
    // Each run-out skips twice as many of the following spins as the one before.
    for (int skipped : {1, 2, 4}) {
        for (int i = 0; i < skipped; ++i) {
            EXPECT_EQ(spin_calls(wait, 2), 1) << "after a run-out skipping " << skipped;
        }
        EXPECT_GT(spin_calls(wait), 1);
    }
    for (int i = 0; i < 8; ++i) {
        spin_calls(wait, 2);
    }
    EXPECT_EQ(spin_calls(wait, 2), 2);  // a spin that sees its event resets the backoff
    EXPECT_GT(spin_calls(wait), 1);
    EXPECT_EQ(spin_calls(wait, 2), 1);
    // Only while the waits are short: a player keeping to its frame rate never spins.
    wait.waited(std::chrono::seconds(1));
    EXPECT_EQ(spin_calls(wait, 2), 1);
    EXPECT_EQ(spin_calls(wait, 2), 1);
    wait.waited(std::chrono::microseconds(20));
    EXPECT_EQ(spin_calls(wait, 2), 2);
}

}  // namespace
