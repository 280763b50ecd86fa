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

class Tools : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }
    // Every daemon a run started ends with the tool's session client.
    void TearDown() override {
        EXPECT_TRUE(wait_until(10000, [] {
            while (waitpid(-1, nullptr, WNOHANG) > 0) {
            }
            return waitpid(-1, nullptr, WNOHANG) < 0;
        }));
    }
    // The exit status; the standard streams in out and err.
    int run(const std::string& args) {
        const int status = system(("timeout 60 " MEDIA_DECODE_BIN " " + args + " >" + dir.path +
                                   "/out 2>" + dir.path + "/err")
                                      .c_str());
        out = read_file(dir.path + "/out");
        err = read_file(dir.path + "/err");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    TempDir dir;
    const std::string socket = "--socket " + dir.path + SOCKET_PATH_IN_RUNTIME_DIR + " ";
    std::string out, err;
    const Clip& video = clip("tools.mp4",
                             "-f lavfi -i testsrc2=size=176x144:rate=25 -t 1 -c:v libx264 "
                             "-pix_fmt yuv420p");
};

// Through the service, in-process, and both at once (--verify): the same answers and bytes.
TEST_F(Tools, ServiceOutputEqualsInProcessDecoding) {
    const Clip& audio =
        clip("tools.m4a", "-f lavfi -i sine=sample_rate=48000 -ac 2 -t 1 -c:a aac", false);
    for (const std::string& c : {video.path + " --size 320x240 --pix-fmt rgba",
                                 audio.path + " --sample-fmt s16 --rate 44100"}) {
        ASSERT_EQ(run(socket + "--md5 -q " + c), 0) << err;
        const std::string service = out;
        ASSERT_EQ(run("--in-process --md5 -q " + c), 0) << err;
        EXPECT_EQ(service, out);
        EXPECT_NE(out.find(", 0, "), std::string::npos) << "no output at all";
        EXPECT_EQ(run(socket + "--verify " + c), 0) << err;
        EXPECT_NE(err.find("answers equal in-process decoding"), std::string::npos) << err;
    }
}

TEST_F(Tools, ErrorsAreOneLineAndNonZero) {
    const Clip& wav = clip("tools.wav", "-f lavfi -i sine -t 0.2 -c:a pcm_s16le", false);
    const std::vector<std::tuple<std::string, int, std::string>> cases = {
        {socket + dir.path + "/missing.mp4", 1, "cannot open"},
        {socket + "-a 0 " + video.path, 1, "no audio stream"},
        {socket + "-v 1 " + video.path, 1, "no video stream 1"},
        {socket + wav.path, 1, "not in the service's audio codec table"},
        {"--no-start --socket " + dir.path + "/none.socket " + video.path, 1, "not running"},
        {socket + "--pix-fmt nonesuch " + video.path, 2, "unknown pixel format"},
        {video.path + " --bogus", 2, "unknown option"},
    };
    for (const auto& [args, status, text] : cases) {
        EXPECT_EQ(run(args), status) << text << ": " << err;
        EXPECT_EQ(err.rfind("media-decode: ", 0), 0u) << err;
        EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
        EXPECT_NE(err.find(text), std::string::npos) << err;
        EXPECT_TRUE(out.empty()) << out;
    }
}

}  // namespace
