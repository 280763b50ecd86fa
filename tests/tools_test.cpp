// media-decode against the real daemon, which the tool starts itself in a private runtime
// directory. The test process is a subreaper, so each daemon (orphaned by its own daemon() fork)
// is reaped here once it stops with the tool's session client.

#include <sys/prctl.h>
#include <sys/wait.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "decoder/exchange_block.h"
#include "support/support.h"

namespace {

struct Outcome {
    int status = -1;
    std::string out, err;
};

class Tools : public ::testing::Test {
  protected:
    void SetUp() override {
#ifndef MEDIA_DECODE_BIN
        GTEST_SKIP() << "media-decode is not built (SVC_BUILD_TOOLS=OFF)";
#endif
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        socket = dir.path + SOCKET_PATH_IN_RUNTIME_DIR;
    }

    // Reaps every daemon a run started: each ends with the tool's session client.
    void TearDown() override {
        EXPECT_TRUE(wait_until(10000, [] {
            while (waitpid(-1, nullptr, WNOHANG) > 0) {
            }
            return waitpid(-1, nullptr, WNOHANG) < 0;
        }));
    }

    Outcome run(const std::string& args) {
        Outcome r;
#ifdef MEDIA_DECODE_BIN
        const std::string out = dir.path + "/out", err = dir.path + "/err";
        int status =
            system(("timeout 60 " MEDIA_DECODE_BIN " " + args + " >" + out + " 2>" + err).c_str());
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = read_file(out);
        r.err = read_file(err);
#endif
        return r;
    }

    TempDir dir;
    std::string socket;
    const Clip& video = clip("tools.mp4",
                             "-f lavfi -i testsrc2=size=176x144:rate=25 -t 1 -c:v libx264 "
                             "-pix_fmt yuv420p");
    const Clip& audio =
        clip("tools.m4a", "-f lavfi -i sine=sample_rate=48000 -ac 2 -t 1 -c:a aac", false);
};

// Through the service, in-process, and both at once (--verify): the same answers and bytes.
TEST_F(Tools, ServiceOutputEqualsInProcessDecoding) {
    for (const std::string& c : {video.path + " --size 320x240 --pix-fmt rgba",
                                 audio.path + " --sample-fmt s16 --rate 44100"}) {
        Outcome service = run("--socket " + socket + " --md5 -q " + c);
        ASSERT_EQ(service.status, 0) << service.err;
        Outcome local = run("--in-process --md5 -q " + c);
        ASSERT_EQ(local.status, 0) << local.err;
        EXPECT_EQ(service.out, local.out);
        EXPECT_NE(service.out.find(", 0, "), std::string::npos) << "no output at all";
        Outcome verified = run("--socket " + socket + " --verify " + c);
        EXPECT_EQ(verified.status, 0) << verified.err;
        EXPECT_NE(verified.err.find("answers equal in-process decoding"), std::string::npos)
            << verified.err;
    }
}

TEST_F(Tools, ErrorsAreOneLineAndNonZero) {
    const Clip& wav = clip("tools.wav", "-f lavfi -i sine -t 0.2 -c:a pcm_s16le", false);
    const std::string s = "--socket " + socket + " ";
    const std::vector<std::tuple<std::string, int, std::string>> cases = {
        {s + dir.path + "/missing.mp4", 1, "cannot open"},
        {s + "-a 0 " + video.path, 1, "no audio stream"},
        {s + "-v 1 " + video.path, 1, "no video stream 1"},
        {s + wav.path, 1, "not in the service's audio codec table"},
        {"--no-start --socket " + dir.path + "/none.socket " + video.path, 1, "not running"},
        {s + "--pix-fmt nonesuch " + video.path, 2, "unknown pixel format"},
        {video.path + " --bogus", 2, "unknown option"},
    };
    for (const auto& c : cases) {
        Outcome r = run(std::get<0>(c));
        EXPECT_EQ(r.status, std::get<1>(c)) << std::get<2>(c) << ": " << r.err;
        EXPECT_EQ(r.err.rfind("media-decode: ", 0), 0u) << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
        EXPECT_NE(r.err.find(std::get<2>(c)), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
}

}  // namespace
