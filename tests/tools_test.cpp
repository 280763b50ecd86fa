// media-decode against the real daemon, which the tool starts itself in a private runtime
// directory. The test process is a subreaper, so each daemon (orphaned by its own daemon() fork)
// and each run's session keeper are reaped here once they end.

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "decoder/exchange_block.h"
#include "support/support.h"
#include "client/service_link.h"

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
    // A run in the background, its standard output in a pipe whose reading end comes back in
    // `*fd`: a run that writes pictures there stops once the pipe is full, until the test reads.
    pid_t start(const std::string& args, int* fd) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            return -1;
        }
        const std::string command = "exec " MEDIA_DECODE_BIN " " + args + " 2>/dev/null";
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(fds[1], STDOUT_FILENO);
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        *fd = fds[0];
        return pid;
    }
    // Everything the run writes, up to its end; a note of its status instead unless that is 0.
    std::string finish(pid_t pid, int fd) {
        std::string bytes;
        char buffer[65536];
        for (ssize_t n; (n = read(fd, buffer, sizeof(buffer))) > 0;) {
            bytes.append(buffer, static_cast<size_t>(n));
        }
        close(fd);
        int status = -1;
        const bool ok = pid > 0 && waitpid(pid, &status, 0) == pid && status == 0;
        return ok ? bytes : "exit status " + std::to_string(status);
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

// Runs share one service whatever the order in which they start and end, and the last one done
// leaves nothing behind. A's run starts the service and stops, its pipe full; B's comes and goes;
// C's starts and stops alike; A then ends while C waits; C then ends, both with every picture. Four
// runs at once then share one fresh service. A service the test started itself is used and left
// running, without a session.
TEST_F(Tools, RunsShareOneServiceAndLeaveNoneBehind) {
    const std::string path = dir.path + SOCKET_PATH_IN_RUNTIME_DIR;
    ASSERT_EQ(run("--in-process -o - -q " + video.path), 0) << err;
    const std::string pictures = out;
    int a_out = -1, c_out = -1;
    const pid_t a = start(socket + "-o - -q " + video.path, &a_out);
    ASSERT_TRUE(wait_until(10000, [&] { return mediaclient::listener_pid(path) > 0; }));
    const pid_t service = mediaclient::listener_pid(path);
    ASSERT_EQ(run(socket + "-o - -q " + video.path), 0) << err;
    EXPECT_EQ(out, pictures);
    const pid_t c = start(socket + "-o - -q " + video.path, &c_out);
    pollfd written{c_out, POLLIN, 0};
    ASSERT_EQ(poll(&written, 1, 10000), 1) << "C's run has no service";
    EXPECT_EQ(finish(a, a_out), pictures);
    EXPECT_EQ(mediaclient::listener_pid(path), service);
    EXPECT_EQ(finish(c, c_out), pictures);
    EXPECT_TRUE(wait_until(10000, [&] { return mediaclient::listener_pid(path) < 0; }));

    std::vector<std::pair<pid_t, int>> runs(4);
    for (auto& [pid, fd] : runs) {
        pid = start(socket + "-o - -q " + video.path, &fd);
    }
    for (auto [pid, fd] : runs) {
        EXPECT_EQ(finish(pid, fd), pictures);
    }
    EXPECT_TRUE(wait_until(10000, [&] { return mediaclient::listener_pid(path) < 0; }));

    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(run("--socket " + daemon.socket_path() + " -q " + video.path), 0) << err;
    mediaclient::SessionClient session;
    ASSERT_EQ(session.connect(daemon.socket_path()), mediaclient::ClientError::kOk);
    ASSERT_EQ(session.start_answering(), mediaclient::ClientError::kOk);
    ASSERT_TRUE(daemon.barrier());
    EXPECT_EQ(daemon.count("client already registered"), 0u) << "a run registered a session";
    EXPECT_TRUE(daemon.running());
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

std::string command_output(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe != nullptr && (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        out.append(buffer, n);
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return out;
}

// media-probe, confined as a worker opening its devices, reports each device that opens with its
// driver in the driver's words, as text and as JSON: the virtual VDPAU stack's here.
TEST(Probe, ReportsTheDriverOfWhatAConfinedWorkerOpens) {
    if (!have_virtual_vdpau()) {
        ASSERT_EQ(getenv("SVC_REQUIRE_VDPAU"), nullptr) << "no Xvfb or VDPAU va_gl driver";
        GTEST_SKIP() << "no Xvfb or VDPAU va_gl driver";
    }
    VirtualDisplay display;
    ASSERT_FALSE(display.name().empty()) << "Xvfb did not start";
    const std::string probe =
        "DISPLAY=" + display.name() + " VDPAU_DRIVER=va_gl timeout 60 " MEDIA_PROBE_BIN;
    const std::string driver = "OpenGL/VAAPI backend for VDPAU, VDPAU API 1";
    const std::string text = command_output(probe + " 2>/dev/null");
    EXPECT_EQ(text.rfind("probed as a confined decoder worker opens its devices\n", 0), 0u) << text;
    EXPECT_NE(text.find("\n  vdpau  opens (default device): " + driver + "\n"), std::string::npos)
        << text;
    const std::string json = command_output(probe + " --json 2>/dev/null");
    EXPECT_EQ(json.rfind("{\n  \"confined\": true,\n", 0), 0u) << json;
    EXPECT_NE(json.find("{\"type\": \"vdpau\", \"known\": true, \"opens\": true, \"driver\": \"" +
                        driver + "\", \"error\": \"\"}"),
              std::string::npos)
        << json;
}

}  // namespace
