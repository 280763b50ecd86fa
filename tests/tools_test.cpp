// media-decode against the real daemon, which the tool starts itself in a private runtime
// directory. The test process is a subreaper, so the daemon (orphaned by its own daemon() fork)
// is reaped here once it stops with the tool's session client.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/media_fixtures.h"

extern char** environ;

namespace {

struct RunResult {
    int status = -1;  // exit status, or -1 when killed for running too long
    std::string out, err;
};

// Unused when the tools are not built (SVC_BUILD_TOOLS=OFF).
[[maybe_unused]] std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int count_lines(const std::string& text) {
    int lines = 0;
    for (char c : text) {
        lines += c == '\n';
    }
    return lines;
}

class ToolsTest : public ::testing::Test {
  protected:
    void SetUp() override {
#ifndef MEDIA_DECODE_BIN
        GTEST_SKIP() << "media-decode is not built (SVC_BUILD_TOOLS=OFF)";
#else
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        char dir[] = "/tmp/svc-tools-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        socket_ = dir_ + "/vessa/sockets/media-service.socket";
        video_ = make_media("tools_h264.mp4",
                            "-f lavfi -i testsrc2=size=176x144:rate=25 -t 1 -c:v libx264 "
                            "-pix_fmt yuv420p");
        audio_ = make_media("tools_aac.m4a",
                            "-f lavfi -i sine=frequency=440:sample_rate=48000 -ac 2 -t 1 -c:a aac");
        ASSERT_FALSE(video_.empty());
        ASSERT_FALSE(audio_.empty());
#endif
    }

    void TearDown() override {
        reap_daemons();
        if (!dir_.empty()) {
            std::string cmd = "rm -rf '" + dir_ + "'";
            EXPECT_EQ(system(cmd.c_str()), 0);
        }
    }

    // Every daemon the tool started ends with the tool's session client; waits until all of
    // them are reaped.
    void reap_daemons() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (;;) {
            pid_t pid = waitpid(-1, nullptr, WNOHANG);
            if (pid < 0) {
                return;  // no children left
            }
            if (pid == 0) {
                if (std::chrono::steady_clock::now() > deadline) {
                    ADD_FAILURE() << "a daemon started by media-decode did not stop";
                    return;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        }
    }

    // Runs media-decode with `args`; bounded by 60 s.
    RunResult run(const std::vector<std::string>& args) {
        RunResult result;
#ifdef MEDIA_DECODE_BIN
        const std::string out_path = dir_ + "/out.txt", err_path = dir_ + "/err.txt";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::vector<std::string> all = {MEDIA_DECODE_BIN};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& a : all) {
            argv.push_back(&a[0]);
        }
        argv.push_back(nullptr);
        pid_t pid = -1;
        int ret = posix_spawn(&pid, MEDIA_DECODE_BIN, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (ret != 0) {
            ADD_FAILURE() << "cannot run media-decode: " << strerror(ret);
            return result;
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        int status = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                ADD_FAILURE() << "media-decode did not finish in time";
                return result;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.out = slurp(out_path);
        result.err = slurp(err_path);
#else
        (void)args;
#endif
        return result;
    }

    std::string dir_, socket_, video_, audio_;
};

TEST_F(ToolsTest, ServiceOutputEqualsInProcessDecoding) {
    // Video to another size and format, and audio resampled, so both conversions are covered.
    const std::vector<std::vector<std::string>> cases = {
        {video_, "--size", "320x240", "--pix-fmt", "rgba"},
        {audio_, "--sample-fmt", "s16", "--rate", "44100"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> service = {"--socket", socket_, "--md5", "-q"};
        service.insert(service.end(), c.begin(), c.end());
        RunResult via_service = run(service);
        ASSERT_EQ(via_service.status, 0) << via_service.err;
        // The tool started the daemon, which stops when the tool's session client goes away.
        struct stat st;
        EXPECT_EQ(stat(socket_.c_str(), &st), 0);
        reap_daemons();

        std::vector<std::string> local = {"--in-process", "--md5", "-q"};
        local.insert(local.end(), c.begin(), c.end());
        RunResult in_process = run(local);
        ASSERT_EQ(in_process.status, 0) << in_process.err;
        EXPECT_EQ(via_service.out, in_process.out);
        // Outputs were delivered: lines with a digest, not only need-more-data answers.
        EXPECT_NE(via_service.out.find(", 0, "), std::string::npos) << via_service.out;

        std::vector<std::string> verify = {"--socket", socket_, "--verify"};
        verify.insert(verify.end(), c.begin(), c.end());
        RunResult verified = run(verify);
        reap_daemons();
        EXPECT_EQ(verified.status, 0) << verified.err;
        EXPECT_NE(verified.err.find("answers equal in-process decoding"), std::string::npos)
            << verified.err;
    }
}

TEST_F(ToolsTest, ErrorsAreOneLineAndNonZero) {
    std::string wav = make_media("tools_pcm.wav", "-f lavfi -i sine -t 0.2 -c:a pcm_s16le");
    ASSERT_FALSE(wav.empty());
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string says;
    };
    const std::vector<Case> cases = {
        {{"--socket", socket_, dir_ + "/missing.mp4"}, 1, "cannot open"},
        {{"--socket", socket_, "-a", "0", video_}, 1, "no audio stream"},
        {{"--socket", socket_, "-v", "1", video_}, 1, "no video stream 1"},
        {{"--socket", socket_, wav}, 1, "not in the service's audio codec table"},
        {{"--no-start", "--socket", dir_ + "/none/vessa/sockets/media-service.socket", video_},
         1,
         "not running"},
        {{"--socket", socket_, "--pix-fmt", "nonesuch", video_}, 2, "unknown pixel format"},
        {{video_, "--bogus"}, 2, "unknown option"},
    };
    for (const Case& c : cases) {
        RunResult r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.says << ": " << r.err;
        EXPECT_EQ(count_lines(r.err), 1) << r.err;
        EXPECT_EQ(r.err.rfind("media-decode: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
}

}  // namespace
