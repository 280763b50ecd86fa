// Names for the protocol's numbers (codecs, pixel and sample formats) and the checks that refuse a
// request the service can only fail, each with a text that names the field and its limit.
#include "client/client_internal.h"

#include <cstdint>
#include <cstring>
#include <initializer_list>

// The service's own rules for formats and channel layouts, so that a refusal here is exactly a
// request the service would fail: the output layouts come from the one header of FFmpeg version
// switches, which includes nothing of the service's.
#include "decoder/ffmpeg_compat.h"
#include "protocol/ffmpeg_protocol.h"

namespace mediaclient {

using namespace protocol;

namespace {

constexpr bool same(const char* a, const char* b) {
    return *a == *b && (*a == '\0' || same(a + 1, b + 1));
}
constexpr bool row_named(VideoCodec codec, const char* name) {
    return same(VIDEO_CODEC_NAMES[static_cast<uint32_t>(codec)], name);
}
constexpr bool row_named(AudioCodec codec, const char* name) {
    return same(AUDIO_CODEC_NAMES[static_cast<uint32_t>(codec)], name);
}
// A request carries the enumerator as the row: a row that moved would set up another codec.
static_assert(row_named(VideoCodec::kMpeg4, "mpeg4") && row_named(VideoCodec::kFlv1, "flv1") &&
              row_named(VideoCodec::kH264, "h264") && row_named(VideoCodec::kH263, "h263") &&
              row_named(VideoCodec::kHevc, "hevc") &&
              row_named(VideoCodec::kMpeg2Video, "mpeg2video") &&
              row_named(VideoCodec::kRv40, "rv40") && row_named(VideoCodec::kVc1, "vc1") &&
              row_named(VideoCodec::kVp8, "vp8") && row_named(VideoCodec::kVp9, "vp9") &&
              row_named(VideoCodec::kWmv2, "wmv2") &&
              static_cast<int>(VideoCodec::kWmv2) + 1 == VIDEO_CODEC_COUNT);
static_assert(row_named(AudioCodec::kAac, "aac") && row_named(AudioCodec::kAc3, "ac3") &&
              row_named(AudioCodec::kApe, "ape") && row_named(AudioCodec::kDts, "dts") &&
              row_named(AudioCodec::kFlac, "flac") && row_named(AudioCodec::kMp2, "mp2") &&
              row_named(AudioCodec::kMp3, "mp3") && row_named(AudioCodec::kCook, "cook") &&
              row_named(AudioCodec::kVorbis, "vorbis") && row_named(AudioCodec::kWmav2, "wmav2") &&
              row_named(AudioCodec::kAlac, "alac") && row_named(AudioCodec::kOpus, "opus") &&
              static_cast<int>(AudioCodec::kOpus) + 1 == AUDIO_CODEC_COUNT);

int table_row(const char* const* names, int count, const std::string& name) {
    for (int row = 0; row < count; ++row) {
        if (name == names[row]) {
            return row;
        }
    }
    return -1;
}

// One limit of a request: `field` must hold `min` to `max`; `note` follows the limit.
struct Range {
    const char* field;
    int64_t value, min, max;
    const char* what;
    const char* note;
};

// The text of the first range the request leaves, or "".
std::string first_outside(std::initializer_list<Range> ranges) {
    for (const Range& r : ranges) {
        if (r.value < r.min || r.value > r.max) {
            return std::string(r.field) + " " + std::to_string(r.value) + ": " + r.what +
                   " must be " + std::to_string(r.min) + " to " + std::to_string(r.max) + r.note;
        }
    }
    return "";
}

std::string quoted(const std::string& name) {
    return "\"" + name + "\"";
}

// A coded (input) format: FFmpeg's, or -1 for none.
std::string input_format_refusal(const char* field, bool unknown_name, const std::string& name,
                                 bool known) {
    if (unknown_name) {
        return std::string(field) + " " + quoted(name) + ": FFmpeg has no format of that name";
    }
    return known ? "" : std::string(field) + " " + name + ": FFmpeg has no format of that number";
}

}  // namespace

std::optional<VideoCodec> video_codec(const std::string& name) {
    const int row = table_row(VIDEO_CODEC_NAMES, VIDEO_CODEC_COUNT, name);
    return row < 0 ? std::nullopt : std::optional<VideoCodec>(static_cast<VideoCodec>(row));
}

std::optional<AudioCodec> audio_codec(const std::string& name) {
    const int row = table_row(AUDIO_CODEC_NAMES, AUDIO_CODEC_COUNT, name);
    return row < 0 ? std::nullopt : std::optional<AudioCodec>(static_cast<AudioCodec>(row));
}

const char* codec_name(VideoCodec codec) {
    const uint32_t row = static_cast<uint32_t>(codec);
    return row < VIDEO_CODEC_COUNT ? VIDEO_CODEC_NAMES[row] : "";
}

const char* codec_name(AudioCodec codec) {
    const uint32_t row = static_cast<uint32_t>(codec);
    return row < AUDIO_CODEC_COUNT ? AUDIO_CODEC_NAMES[row] : "";
}

PixelFormat::PixelFormat(const char* name) : number_(-1) {
    if (name != nullptr && strcmp(name, "none") != 0) {
        number_ = av_get_pix_fmt(name);
        if (number_ == AV_PIX_FMT_NONE) {
            unknown_ = name;
        }
    }
}

std::string PixelFormat::name() const {
    if (!unknown_.empty()) {
        return unknown_;
    }
    const char* known = number_ == -1 ? "none" : av_get_pix_fmt_name(pixel_format_from(number_));
    return known != nullptr ? known : std::to_string(number_);
}

SampleFormat::SampleFormat(const char* name) : number_(-1) {
    if (name != nullptr && strcmp(name, "none") != 0) {
        number_ = av_get_sample_fmt(name);
        if (number_ == AV_SAMPLE_FMT_NONE) {
            unknown_ = name;
        }
    }
}

std::string SampleFormat::name() const {
    if (!unknown_.empty()) {
        return unknown_;
    }
    const char* known =
        number_ == -1 ? "none" : av_get_sample_fmt_name(sample_format_from(number_));
    return known != nullptr ? known : std::to_string(number_);
}

namespace internal {

std::string video_output_refusal(int32_t width, int32_t height, const PixelFormat& format) {
    std::string refusal = first_outside({
        {"out_width", width, 1, kMaxPictureSide, "an output picture side", ""},
        {"out_height", height, 1, kMaxPictureSide, "an output picture side", ""},
    });
    if (!refusal.empty()) {
        return refusal;
    }
    const std::string field = "out_pix_fmt " + quoted(format.name());
    if (format.unknown_name()) {
        return field + ": FFmpeg has no pixel format of that name (ffmpeg -pix_fmts lists them)";
    }
    // The service takes other numbers for yuv420p; asking for them is a mistake.
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(pixel_format_from(format));
    if (desc == nullptr || effective_out_pix_fmt(format) != format) {
        return "out_pix_fmt " + std::to_string(format) + ": the service converts to FFmpeg's " +
               "pixel formats 0 to " + std::to_string(OUT_PIX_FMT_LIMIT - 1);
    }
    if (desc->flags & (AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BAYER)) {
        return field + ": the service converts to no hardware, paletted or Bayer format";
    }
    const int bytes = av_image_get_buffer_size(pixel_format_from(format), width, height, 1);
    if (bytes < 0 || static_cast<size_t>(bytes) > SHM_AREA_SIZE) {
        return "output picture " + std::to_string(width) + "x" + std::to_string(height) + " " +
               format.name() + " of " + (bytes < 0 ? "more than 2 GiB" : std::to_string(bytes)) +
               " bytes: the output area holds " + std::to_string(SHM_AREA_SIZE);
    }
    return "";
}

std::string video_init_refusal(uint32_t codec_index, const VideoInitParams& p) {
    std::string refusal = first_outside({
        {"codec_index", codec_index, 0, VIDEO_CODEC_COUNT - 1, "a video codec row", ""},
        {"coded_width", p.coded_width, 0, kMaxPictureSide, "a coded picture side",
         " (0: from the stream)"},
        {"coded_height", p.coded_height, 0, kMaxPictureSide, "a coded picture side",
         " (0: from the stream)"},
    });
    if (refusal.empty()) {
        const PixelFormat& f = p.coded_pix_fmt;
        refusal = input_format_refusal("coded_pix_fmt", f.unknown_name(), f.name(),
                                       f == -1 || av_pix_fmt_desc_get(pixel_format_from(f)));
    }
    return refusal.empty() ? video_output_refusal(p.out_width, p.out_height, p.out_pix_fmt)
                           : refusal;
}

std::string audio_output_refusal(const SampleFormat& format, int32_t channels) {
    if (format.unknown_name()) {
        return "out_sample_fmt " + quoted(format.name()) +
               ": FFmpeg has no sample format of that name (ffmpeg -sample_fmts lists them)";
    }
    if (av_get_sample_fmt_name(sample_format_from(format)) == nullptr) {
        return "out_sample_fmt " + std::to_string(format) +
               ": FFmpeg has no sample format of that number";
    }
    // The output layout is the default one for the channel count.
    if (channels <= 0 || ffcompat::default_channel_layout(channels) == 0) {
        return "out_channels " + std::to_string(channels) +
               ": the service has output channel layouts for 1 to 8 and 16 channels";
    }
    return "";
}

std::string audio_init_refusal(uint32_t codec_index, const AudioInitParams& p) {
    std::string refusal = first_outside({
        {"codec_index", codec_index, 0, AUDIO_CODEC_COUNT - 1, "an audio codec row", ""},
    });
    if (refusal.empty() && p.in_channels < 0) {
        refusal = "in_channels " + std::to_string(p.in_channels) +
                  ": an input channel count must be 0 (from the stream) or more";
    }
    if (refusal.empty()) {
        const SampleFormat& f = p.in_sample_fmt;
        refusal = input_format_refusal("in_sample_fmt", f.unknown_name(), f.name(),
                                       f == -1 || av_get_sample_fmt_name(sample_format_from(f)));
    }
    return refusal.empty() ? audio_output_refusal(p.out_sample_fmt, p.out_channels) : refusal;
}

std::string data_refusal(const char* what, size_t size, bool empty_allowed) {
    const std::string field = std::string(what) + " of " + std::to_string(size) + " bytes: ";
    if (size != 0 && !fits_area(static_cast<int64_t>(size))) {
        return field + "the input area holds " + std::to_string(SHM_AREA_SIZE);
    }
    return size == 0 && !empty_allowed ? field + "the service fails an empty one" : "";
}

}  // namespace internal
}  // namespace mediaclient
