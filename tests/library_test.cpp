// The client library on its own, without a service: the requests it refuses before they are sent,
// with the text that names the field and its limit; the names it gives the protocol's numbers; the
// texts of a connection that fails. A request that passes the checks meets the missing block
// (kNotConnected), so every case shows which side of a limit it is on.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "client/decoder_seam.h"
#include "support/support.h"

using namespace mediaclient;

namespace {

// An output, and a coded geometry other than the stream's.
VideoInitParams video(int32_t width, int32_t height, PixelFormat format, int32_t coded_width = 0,
                      int32_t coded_height = 0, PixelFormat coded_format = -1) {
    return {coded_width, coded_height, coded_format, width, height, format};
}
AudioInitParams audio(SampleFormat format, int32_t channels, int32_t in_channels = 0) {
    return {-1, in_channels, 0, format, channels, 0};
}

// A request the service can only fail is refused with a text that names the field and its limit;
// one just inside the limit passes. (The service's own answers to them: clients_test, media_test.)
TEST(Library, RefusesWhatTheServiceCanOnlyFail) {
    const uint32_t h264 = 2, vp9 = 9;
    const struct {
        std::function<ClientError(DecoderClient&)> call;
        const char* refusal;  // nullptr: passes the checks
    } cases[] = {
        {[](auto& c) { return c.init_video(VideoCodec::kH264, VideoInitParams{}); },
         "out_width 0: an output picture side must be 1 to 16384"},
        {[](auto& c) { return c.init_video(11u, video(64, 48, 0)); },
         "codec_index 11: a video codec row must be 0 to 10"},
        {[](auto& c) { return c.init_video(h264, video(64, 48, "yuv420p", -16)); },
         "coded_width -16: a coded picture side must be 0 to 16384 (0: from the stream)"},
        {[](auto& c) { return c.init_video(h264, video(64, 48, "yuv420p", 0, 16385)); },
         "coded_height 16385: a coded picture side must be 0 to 16384 (0: from the stream)"},
        {[](auto& c) { return c.init_video(h264, video(64, 48, "yuv420p", 0, 0, "yuv4200p")); },
         "coded_pix_fmt \"yuv4200p\": FFmpeg has no format of that name"},
        {[](auto& c) { return c.init_video(h264, video(64, 16385, "rgba")); },
         "out_height 16385: an output picture side must be 1 to 16384"},
        {[](auto& c) { return c.init_video(h264, video(4097, 4096, "gray")); },
         "output picture 4097x4096 gray of 16781312 bytes: the output area holds 16777216"},
        {[](auto& c) { return c.init_video(h264, video(4096, 4096, "gray")); }, nullptr},
        {[](auto& c) { return c.init_video(h264, video(16384, 16, "yuv420p")); }, nullptr},
        {[](auto& c) { return c.init_video(vp9, video(64, 48, "nv21x")); },
         "out_pix_fmt \"nv21x\": FFmpeg has no pixel format of that name (ffmpeg -pix_fmts lists "
         "them)"},
        {[](auto& c) { return c.init_video(vp9, video(64, 48, 187)); },
         "out_pix_fmt 187: the service converts to FFmpeg's pixel formats 0 to 186"},
        {[](auto& c) { return c.init_video(vp9, video(64, 48, -1)); },
         "out_pix_fmt -1: the service converts to FFmpeg's pixel formats 0 to 186"},
        {[](auto& c) { return c.init_video(vp9, video(64, 48, "pal8")); },
         "out_pix_fmt \"pal8\": the service converts to no hardware, paletted or Bayer format"},
        {[](auto& c) { return c.init_video(vp9, video(64, 48, "cuda")); },
         "out_pix_fmt \"cuda\": the service converts to no hardware, paletted or Bayer format"},
        {[](auto& c) { return c.init_video(vp9, video(64, 48, "nv12"), "", 16777217); },
         "configuration bytes of 16777217 bytes: the input area holds 16777216"},
        {[](auto& c) { return c.init_audio(12u, audio("s16", 2)); },
         "codec_index 12: an audio codec row must be 0 to 11"},
        {[](auto& c) { return c.init_audio(AudioCodec::kAac, AudioInitParams{}); }, nullptr},
        {[](auto& c) { return c.init_audio(AudioCodec::kMp2, audio("s16", 2, -3)); },
         "in_channels -3: an input channel count must be 0 (from the stream) or more"},
        {[](auto& c) { return c.init_audio(AudioCodec::kMp2, audio("s16", 9)); },
         "out_channels 9: the service has output channel layouts for 1 to 8 and 16 channels"},
        {[](auto& c) { return c.init_audio(AudioCodec::kMp2, audio("fltp", 0)); },
         "out_channels 0: the service has output channel layouts for 1 to 8 and 16 channels"},
        {[](auto& c) { return c.init_audio(AudioCodec::kMp2, audio("fltp", 16)); }, nullptr},
        {[](auto& c) { return c.init_audio(AudioCodec::kMp2, audio("s16x", 2)); },
         "out_sample_fmt \"s16x\": FFmpeg has no sample format of that name (ffmpeg -sample_fmts "
         "lists them)"},
        {[](auto& c) { return c.init_audio(AudioCodec::kMp2, audio(99, 2)); },
         "out_sample_fmt 99: FFmpeg has no sample format of that number"},
        {[](auto& c) { return c.decode_frame(nullptr, 0, 0); },
         "packet of 0 bytes: the service fails an empty one"},
        {[](auto& c) { return c.decode_frame(nullptr, 16777217, 0); },
         "packet of 16777217 bytes: the input area holds 16777216"},
        {[](auto& c) { return c.decode_frame(nullptr, 16777216, 0); }, nullptr},
        {[](auto& c) { return c.codec_config(nullptr, 16777217); },
         "configuration bytes of 16777217 bytes: the input area holds 16777216"},
        {[](auto& c) { return c.reset_video(0, 48, "rgba"); },
         "out_width 0: an output picture side must be 1 to 16384"},
        {[](auto& c) { return c.reset_audio("s16", 24, 48000); },
         "out_channels 24: the service has output channel layouts for 1 to 8 and 16 channels"},
    };
    for (const auto& e : cases) {
        SCOPED_TRACE(&e - cases);
        DecoderClient c;
        EXPECT_EQ(e.call(c),
                  e.refusal ? ClientError::kInvalidArgument : ClientError::kNotConnected);
        if (e.refusal != nullptr) {
            EXPECT_EQ(c.last_error_text(), e.refusal);
        }
        // Unchecked, the same request goes out as given, unless its bytes do not fit their area.
        DecoderClientSeam::check_requests(c, false);
        const bool beyond_area = e.refusal && strstr(e.refusal, "input area holds") != nullptr;
        EXPECT_EQ(e.call(c),
                  beyond_area ? ClientError::kInvalidArgument : ClientError::kNotConnected);
    }
}

// Names for the protocol's numbers: codecs by FFmpeg's codec names, formats by FFmpeg's format
// names, as libavutil numbers them here (FFmpeg's headers, not the library, give the numbers).
TEST(Library, NamesForNumbers) {
    EXPECT_EQ(video_codec("h264"), VideoCodec::kH264);
    EXPECT_EQ(static_cast<uint32_t>(VideoCodec::kH264), 2u);
    EXPECT_EQ(video_codec("wmv2"), VideoCodec(10));
    EXPECT_EQ(audio_codec("aac"), AudioCodec(0));
    EXPECT_EQ(audio_codec("opus"), AudioCodec::kOpus);
    EXPECT_EQ(static_cast<uint32_t>(AudioCodec::kOpus), 11u);
    EXPECT_EQ(video_codec("aac"), std::nullopt);
    EXPECT_EQ(audio_codec("H264"), std::nullopt);
    EXPECT_STREQ(codec_name(VideoCodec::kMpeg2Video), "mpeg2video");

    EXPECT_EQ(PixelFormat("nv12"), AV_PIX_FMT_NV12);
    EXPECT_EQ(PixelFormat(AV_PIX_FMT_RGBA).name(), "rgba");
    EXPECT_EQ(PixelFormat("none"), -1);
    EXPECT_FALSE(PixelFormat("none").unknown_name());
    EXPECT_EQ(PixelFormat("nv21x"), -1);
    EXPECT_EQ(PixelFormat("nv21x").name(), "nv21x");
    EXPECT_EQ(PixelFormat(100000).name(), "100000");
    EXPECT_EQ(SampleFormat(std::string("fltp")), AV_SAMPLE_FMT_FLTP);
    EXPECT_TRUE(SampleFormat("s16x").unknown_name());
}

// A connection that fails says what was being done, to which path, the system's reason, and a
// hint where the reason has a usual cause.
TEST(Library, ConnectionErrorsSayWhatHappened) {
    TempDir dir;
    const std::string stale = dir.path + "/stale.socket";  // a socket file nothing listens on
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", stale.c_str());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(listener);
    const std::pair<std::string, std::string> cases[] = {
        {dir.path + "/none.socket", "No such file or directory (is the service running?)"},
        {stale, "Connection refused (is the service running?)"},
        {dir.path + "/" + std::string(120, 's'),
         "File name too long (a socket path holds at most 107 bytes)"},
    };
    for (const auto& [path, reason] : cases) {
        DecoderClient decoder;
        EXPECT_EQ(decoder.connect_posix(path), ClientError::kSystem);
        EXPECT_EQ(decoder.last_error_text(), "connect to " + path + ": " + reason);
        SessionClient session;
        EXPECT_EQ(session.connect(path), ClientError::kSystem);
        EXPECT_EQ(session.last_error_text(), "connect to " + path + ": " + reason);
    }
}

}  // namespace
