// media-decode against the real daemon, which the tool starts itself in a private runtime
// directory. The test process is a subreaper, so each daemon (orphaned by its own daemon() fork)
// and each run's session keeper are reaped here once they end.

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "protocol/media_protocol.h"
#include "support/support.h"
#include "client/service_link.h"

using namespace mediaclient::protocol;

namespace {

// A framemd5 text's header, and its rows with their first `skip` columns left out.
struct FrameMd5Text {
    std::string header;
    std::vector<std::string> rows;
};

FrameMd5Text framemd5(const std::string& text, int skip) {
    FrameMd5Text t;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        size_t at = 0;
        for (int i = 0; i < skip && at != std::string::npos; ++i) {
            at = line.find(',', at + 1);
        }
        if (line[0] == '#') {
            t.header += line + "\n";
        } else {
            t.rows.push_back(line.substr(at));
        }
    }
    return t;
}

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
    // The exit status of `tool` with `args`; the standard streams in out and err.
    int run(const std::string& args) {
        const int status =
            system((tool + " " + args + " >" + dir.path + "/out 2>" + dir.path + "/err").c_str());
        out = read_file(dir.path + "/out");
        err = read_file(dir.path + "/err");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // A run in the background, its standard output in a pipe: a run that writes pictures there
    // stops once the pipe is full, until the test reads.
    FILE* start(const std::string& args) {
        return popen(("exec " MEDIA_DECODE_BIN " " + args + " 2>/dev/null").c_str(), "r");
    }
    // Everything the run writes, up to its end; a note of its status instead unless that is 0.
    std::string finish(FILE* run) {
        std::string bytes;
        char buffer[65536];
        for (size_t n; run != nullptr && (n = fread(buffer, 1, sizeof(buffer), run)) > 0;) {
            bytes.append(buffer, n);
        }
        const int status = run != nullptr ? pclose(run) : -1;
        return status == 0 ? bytes : "exit status " + std::to_string(status);
    }

    std::string tool = "timeout 60 " MEDIA_DECODE_BIN;
    TempDir dir;
    const std::string socket = "--socket " + dir.path + SOCKET_PATH_IN_RUNTIME_DIR + " ";
    std::string out, err;
    const Clip& video = clip("tools.mp4",
                             "-f lavfi -i testsrc2=size=176x144:rate=25 -t 1 -c:v libx264 "
                             "-pix_fmt yuv420p");
    const Clip& aac =
        clip("tools.m4a", "-f lavfi -i sine=sample_rate=48000 -ac 2 -t 1 -c:a aac", false);
};

// Through the service, in-process, and both at once (--verify): the same answers and bytes. And
// --framemd5 against this host's `ffmpeg -f framemd5` of the same output, less what the service
// does otherwise: audio timestamps (rows compared from their duration on: `skip` columns), and the
// last pictures a decoder holds back, which ffmpeg drains (its rows go on).
TEST_F(Tools, ServiceOutputEqualsInProcessAndFfmpegDecoding) {
    const Clip& flac =
        clip("tools.flac", "-f lavfi -i sine=sample_rate=44100 -ac 2 -t 1 -c:a flac", false);
    const std::vector<std::tuple<const Clip*, std::string, std::string, int>> cases = {
        {&video, "--size 320x240 --pix-fmt rgba", "-s 320x240 -sws_flags bilinear -pix_fmt rgba",
         0},
        {&aac, "--sample-fmt s16 --rate 44100", "", 0},  // resampled: frames differ
        {&flac, "--sample-fmt s16p", "-c:a pcm_s16le_planar", 3},
        {&flac, "--sample-fmt flt", "-c:a pcm_f32le", 3},
    };
    for (const auto& [input, args, ffmpeg, skip] : cases) {
        const std::string c = input->path + " " + args;
        ASSERT_EQ(run(socket + "--md5 -q " + c), 0) << err;
        const std::string service = out;
        ASSERT_EQ(run("--in-process --md5 -q " + c), 0) << err;
        EXPECT_EQ(service, out);
        // A line "packet, status, size, ..." of status 0 with a size: some output at all.
        EXPECT_TRUE(std::regex_search(out, std::regex("(^|\n)[0-9]+, 0, [1-9]"))) << out;
        EXPECT_EQ(run(socket + "--verify " + c), 0) << err;
        EXPECT_NE(err.find("answers equal in-process decoding"), std::string::npos) << err;
        EXPECT_NE(err.find("\nmedia-decode: decoder: "), std::string::npos) << err;
        if (ffmpeg.empty()) {
            continue;
        }
        ASSERT_EQ(run(socket + "-q --framemd5 -i " + c), 0) << err;
        const FrameMd5Text ours = framemd5(out, skip);
        const std::string command = "ffmpeg -v error -y -i " + input->path + " " + ffmpeg +
                                    " -f framemd5 " + dir.path + "/ffmpeg";
        ASSERT_EQ(system(command.c_str()), 0) << command;
        const FrameMd5Text theirs = framemd5(read_file(dir.path + "/ffmpeg"), skip);
        EXPECT_EQ(ours.header, theirs.header);
        ASSERT_GT(ours.rows.size(), 8u) << out;
        ASSERT_LE(ours.rows.size(), theirs.rows.size()) << out;
        EXPECT_LE(theirs.rows.size() - ours.rows.size(), 16u) << "more than held back pictures";
        for (size_t i = 0; i < ours.rows.size(); ++i) {
            EXPECT_EQ(ours.rows[i], theirs.rows[i]) << i;
        }
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
    FILE* a = start(socket + "-o - -q " + video.path);
    ASSERT_TRUE(wait_until(10000, [&] { return mediaclient::listener_pid(path) > 0; }));
    const pid_t service = mediaclient::listener_pid(path);
    ASSERT_EQ(run(socket + "-o - -q " + video.path), 0) << err;
    EXPECT_EQ(out, pictures);
    FILE* c = start(socket + "-o - -q " + video.path);
    pollfd written{c != nullptr ? fileno(c) : -1, POLLIN, 0};
    ASSERT_EQ(poll(&written, 1, 10000), 1) << "C's run has no service";
    EXPECT_EQ(finish(a), pictures);
    EXPECT_EQ(mediaclient::listener_pid(path), service);
    EXPECT_EQ(finish(c), pictures);
    EXPECT_TRUE(wait_until(10000, [&] { return mediaclient::listener_pid(path) < 0; }));

    std::vector<FILE*> runs(4);
    for (FILE*& run : runs) {
        run = start(socket + "-o - -q " + video.path);
    }
    for (FILE* run : runs) {
        EXPECT_EQ(finish(run), pictures);
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

// -o's name picks the container, whose header is checked byte by byte; the .wav file's samples
// are the flt output interleaved. A file there is replaced only with -y.
TEST_F(Tools, OutputFileNameGivesTheContainer) {
    const std::string y4m = dir.path + "/a.y4m", wav = dir.path + "/a.wav";
    ASSERT_EQ(run("--in-process -q -o " + y4m + " " + video.path), 0) << err;
    ASSERT_EQ(run("--in-process -q -y -o " + y4m + " " + video.path), 0) << err;
    const std::string pictures = read_file(y4m),
                      header = "YUV4MPEG2 W176 H144 F25:1 Ip A1:1 C420jpeg\n";
    EXPECT_EQ(pictures.rfind(header + "FRAME\n", 0), 0u);
    EXPECT_EQ((pictures.size() - header.size()) % (6 + 176 * 144 * 3 / 2), 0u);
    ASSERT_EQ(run("--in-process -q --sample-fmt fltp -o " + wav + " " + aac.path), 0) << err;
    const std::string samples = read_file(wav);
    ASSERT_EQ(run("--in-process -q --sample-fmt flt -o - " + aac.path), 0) << err;
    const uint32_t n = static_cast<uint32_t>(out.size());
    const char sizes[] = {char(n + 36), char((n + 36) >> 8), char((n + 36) >> 16), 0,
                          char(n),      char(n >> 8),        char(n >> 16),        0};
    const std::string format(
        "WAVEfmt \x10\0\0\0\x03\0\x02\0\x80\xbb\0\0\0\xdc\x05\0\x08\0\x20\0data", 32);
    EXPECT_EQ(samples.substr(0, 44),
              "RIFF" + std::string(sizes, 4) + format + std::string(sizes + 4, 4));
    EXPECT_TRUE(samples.compare(44, std::string::npos, out) == 0) << "not the flt samples";
    EXPECT_EQ(run("-version"), 0);
    EXPECT_EQ(out.rfind("media-decode ", 0), 0u) << out;
}

TEST_F(Tools, ErrorsAreOneLineAndNonZero) {
    const Clip& wav = clip("tools.wav", "-f lavfi -i sine -t 0.2 -c:a pcm_s16le", false);
    const std::vector<std::tuple<std::string, int, std::string>> cases = {
        {socket + "-loglevel error -i " + dir.path + "/missing.mp4", 1, "cannot open"},
        {socket + "-a 0 " + video.path, 1, "no audio stream"},
        {socket + "-v 1 " + video.path, 1, "no video stream 1"},
        {socket + wav.path, 1, "not in the service's audio codec table"},
        {"--no-start --socket " + dir.path + "/none.socket " + video.path, 1, "not running"},
        {socket + "--pix-fmt nonesuch " + video.path, 2, "unknown pixel format"},
        {video.path + " --bogus", 2, "unknown option"},
        {"-v loud " + video.path, 2, "bad value 'loud' for -v (a log level: quiet, panic, fatal,"},
        // The shell's redirection of standard output has made that file.
        {socket + "-o " + dir.path + "/out " + video.path, 1, "/out already exists (give -y to"},
        {"-o x.y4m --pix-fmt rgba " + video.path, 2, "a .y4m file holds yuv420p, yuv422p, yuv444p"},
    };
    for (const auto& [args, status, text] : cases) {
        EXPECT_EQ(run(args), status) << text << ": " << err;
        EXPECT_EQ(err.rfind("media-decode: ", 0), 0u) << err;
        EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
        EXPECT_NE(err.find(text), std::string::npos) << err;
        EXPECT_TRUE(out.empty()) << out;
    }
}

// media-probe, confined as a worker opening its devices, reports each device that opens with its
// driver in the driver's words, as text and as JSON: the virtual VDPAU stack's here.
TEST_F(Tools, ProbeReportsTheDriverOfWhatAConfinedWorkerOpens) {
    if (!have_virtual_vdpau()) {
        ASSERT_EQ(getenv("SVC_REQUIRE_VDPAU"), nullptr) << "no Xvfb or VDPAU va_gl driver";
        GTEST_SKIP() << "no Xvfb or VDPAU va_gl driver";
    }
    VirtualDisplay display;
    ASSERT_FALSE(display.name().empty()) << "Xvfb did not start";
    // Confined, a sanitizer's leak check at exit cannot read its suppressions of the driver's own
    // leaks: the probe's memory errors are still checked, its leaks are not.
    tool = "DISPLAY=" + display.name() +
           " VDPAU_DRIVER=va_gl ASAN_OPTIONS=detect_leaks=0 timeout 60 " MEDIA_PROBE_BIN;
    const std::string driver = "OpenGL/VAAPI backend for VDPAU, VDPAU API 1";
    ASSERT_EQ(run(""), 0) << err;
    EXPECT_EQ(out.rfind("probed as a confined decoder worker opens its devices\n", 0), 0u) << out;
    EXPECT_NE(out.find("\n  vdpau  opens (default device): " + driver + "\n"), std::string::npos)
        << out;
    ASSERT_EQ(run("--json"), 0) << err;
    const std::string json = out;
    EXPECT_EQ(json.rfind("{\n  \"confined\": true,\n", 0), 0u) << json;
    EXPECT_NE(json.find("{\"type\": \"vdpau\", \"known\": true, \"opens\": true, \"driver\": \"" +
                        driver + "\", \"error\": \"\"}"),
              std::string::npos)
        << json;
}

}  // namespace
