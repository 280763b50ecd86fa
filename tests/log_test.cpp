// The process-wide logger, in process: lines are switched into temporary files and read back.

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "support/test_util.h"

namespace {

const std::string kBackToStdout = "日志文件切换: 标准输出\n";

// What `write` logs, read back from a file that the log is switched to and back from.
std::string logged(void (*write)(const std::string&), const std::string& arg = "") {
    TempDir dir;
    const std::string path = dir.file("log");
    SvcLogFile(path.c_str());
    write(arg);
    SvcLogFile(nullptr);
    std::string text = read_file(path);
    // Leaving a file always ends it with the line that names the next destination.
    EXPECT_GE(text.size(), kBackToStdout.size());
    if (text.size() >= kBackToStdout.size() &&
        text.compare(text.size() - kBackToStdout.size(), std::string::npos, kBackToStdout) == 0) {
        text.resize(text.size() - kBackToStdout.size());
    } else {
        ADD_FAILURE() << "no switch line at the end of: " << text;
    }
    return text;
}

void write_debug(const std::string& message) {
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 1, "%s", message.c_str());
}

void write_long_file(const std::string& file) {
    SvcLogWrite(SVC_LOG_DEBUG, "m", file.c_str(), 1, "message");
}

TEST(LogTest, LineHasLevelModuleAndLocation) {
    EXPECT_EQ(logged([](const std::string&) {
                  SvcLogWrite(SVC_LOG_INFO, "media server", "media_server", 107,
                              "client connect: sock#[%d]", 7);
                  SvcLogWrite(SVC_LOG_WARN, "runtime", "runtime", 3, "w");
                  SvcLogWrite(SVC_LOG_ERROR, "media decoder", "media_decoder", 9, "%s", "");
              }),
              "[INFO] [media server] media_server:107 client connect: sock#[7]\n"
              "[WARN] [runtime] runtime:3 w\n"
              "[ERROR] [media decoder] media_decoder:9 \n");
}

TEST(LogTest, LineIsCutAt512BytesWithMark) {
    const std::string prefix = "[DEBUG] [m] f:1 ";
    // 510 characters of text still fit with their newline.
    std::string fits(510 - prefix.size(), 'a');
    EXPECT_EQ(logged(write_debug, fits), prefix + fits + "\n");

    // From 511 characters on, the line is 512 bytes: 508 of text and the "~~~" mark.
    for (size_t text_size : {511, 512, 2000}) {
        std::string message(text_size - prefix.size(), 'b');
        std::string line = logged(write_debug, message);
        ASSERT_EQ(line.size(), 512u) << text_size;
        EXPECT_EQ(line, (prefix + message).substr(0, 508) + "~~~\n") << text_size;
    }
}

TEST(LogTest, PrefixOver256CharactersIsDropped) {
    // "[DEBUG] [m] " + file + ":1 " is 15 characters around the file name.
    const std::string at_limit(256 - 15, 'f');
    EXPECT_EQ(logged(write_long_file, at_limit), "[DEBUG] [m] " + at_limit + ":1 message\n");
    EXPECT_EQ(logged(write_long_file, at_limit + "f"), "message\n");
    EXPECT_EQ(logged(write_long_file, std::string(600, 'f')), "message\n");
}

TEST(LogTest, SwitchingFilesNamesTheNextDestination) {
    TempDir dir;
    const std::string first = dir.file("first.log");
    const std::string second = dir.file("second.log");
    const std::string unopenable = dir.file("missing/third.log");
    ASSERT_TRUE(write_file(first, "earlier\n"));

    SvcLogFile(first.c_str());
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 1, "one");
    SvcLogFile(second.c_str());
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 2, "two");
    // Lines to /dev/null are dropped unformatted; the next file gets lines again.
    SvcLogFile("/dev/null");
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 9, "unseen");
    SvcLogFile(second.c_str());
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 4, "after");
    // A file that cannot be opened leaves the log where it is.
    SvcLogFile(unopenable.c_str());
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 3, "three");
    SvcLogFile(nullptr);

    // Files are appended to.
    EXPECT_EQ(read_file(first), "earlier\n[DEBUG] [m] f:1 one\n日志文件切换: " + second + "\n");
    EXPECT_EQ(read_file(second), std::string("[DEBUG] [m] f:2 two\n日志文件切换: /dev/null\n") +
                                     "[DEBUG] [m] f:4 after\n切换日志文件失败 " + unopenable +
                                     " 2\n[DEBUG] [m] f:3 three\n" + kBackToStdout);
}

TEST(LogTest, StandardOutputByDefaultAndWhenSwitchedBack) {
    FdCapture out(STDOUT_FILENO);
    SvcLogFile(nullptr);  // already there: only the message
    SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 1, "still here");
    std::string text = out.finish();
    EXPECT_EQ(kBackToStdout.size(), 33u);
    EXPECT_EQ(text, kBackToStdout + "[DEBUG] [m] f:1 still here\n");
}

TEST(LogTest, LinesFromThreadsAreNeverInterleaved) {
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    TempDir dir;
    const std::string path = dir.file("log");
    SvcLogFile(path.c_str());
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string filler(100 + 50 * t, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i) {
                SvcLogWrite(SVC_LOG_DEBUG, "m", "f", t, "%d %s", i, filler.c_str());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    SvcLogFile(nullptr);

    std::istringstream lines(read_file(path));
    std::string line;
    std::set<std::string> seen;
    while (std::getline(lines, line) && line + "\n" != kBackToStdout) {
        int t = -1, i = -1;
        char filler[512] = {};
        ASSERT_EQ(sscanf(line.c_str(), "[DEBUG] [m] f:%d %d %511s", &t, &i, filler), 3) << line;
        ASSERT_EQ(std::string(filler), std::string(100 + 50 * t, static_cast<char>('a' + t)));
        seen.insert(line);
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
}

class LogDeathTest : public ::testing::TestWithParam<int> {};

TEST_P(LogDeathTest, OutOfRangeLevelIsFatalAndAborts) {
    TempDir dir;
    const std::string path = dir.file("log");
    const int level = GetParam();
    EXPECT_EXIT(
        {
            SvcLogFile(path.c_str());
            SvcLogWrite(level, "m", "f", 1, "level %d", level);
        },
        ::testing::KilledBySignal(SIGABRT), "");
    // Exit handlers do not run after abort(): the line is the last thing in the file.
    EXPECT_EQ(read_file(path), "[FATAL] [m] f:1 level " + std::to_string(level) + "\n");
}

INSTANTIATE_TEST_SUITE_P(Levels, LogDeathTest, ::testing::Values(5, -1, SVC_LOG_FATAL));

TEST(LogExitDeathTest, LastLineAtExitNamesStandardOutput) {
    TempDir dir;
    const std::string path = dir.file("log");
    EXPECT_EXIT(
        {
            SvcLogFile(path.c_str());
            SvcLogWrite(SVC_LOG_DEBUG, "m", "f", 1, "bye");
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(read_file(path), "[DEBUG] [m] f:1 bye\n" + kBackToStdout);
}

}  // namespace
