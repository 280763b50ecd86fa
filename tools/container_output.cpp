#include "tools/container_output.h"

#include <cstring>

extern "C" {
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

namespace mediatools {

namespace {

// The pixel formats of a .y4m file and their colour space tags.
struct Y4mFormat {
    AVPixelFormat format;
    const char* tag;
};
const Y4mFormat kY4mFormats[] = {
    {AV_PIX_FMT_YUV420P, "420jpeg"},
    {AV_PIX_FMT_YUV422P, "422"},
    {AV_PIX_FMT_YUV444P, "444"},
    {AV_PIX_FMT_GRAY8, "mono"},
};

const char* y4m_tag(int pix_fmt) {
    for (const Y4mFormat& f : kY4mFormats) {
        if (f.format == pix_fmt) {
            return f.tag;
        }
    }
    return nullptr;
}

// The WAVE format tag of each (packed) sample format: 1 integer PCM, 3 IEEE float.
struct WavFormat {
    AVSampleFormat format;
    uint16_t tag;
};
const WavFormat kWavFormats[] = {
    {AV_SAMPLE_FMT_U8, 1},  {AV_SAMPLE_FMT_S16, 1}, {AV_SAMPLE_FMT_S32, 1},
    {AV_SAMPLE_FMT_FLT, 3}, {AV_SAMPLE_FMT_DBL, 3},
};

uint16_t wav_tag(int sample_fmt) {
    const AVSampleFormat packed = av_get_packed_sample_fmt(static_cast<AVSampleFormat>(sample_fmt));
    for (const WavFormat& f : kWavFormats) {
        if (f.format == packed) {
            return f.tag;
        }
    }
    return 0;
}

bool ends_with(const std::string& text, const char* end) {
    const size_t n = strlen(end);
    return text.size() >= n && text.compare(text.size() - n, n, end) == 0;
}

void put_le(uint8_t* at, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        at[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

// The 44-byte header of a WAVE file whose data chunk has `data_bytes`.
void wav_header(uint8_t* h, uint16_t tag, int channels, int rate, int bytes_per_sample,
                uint32_t data_bytes) {
    const uint32_t block = static_cast<uint32_t>(channels * bytes_per_sample);
    memcpy(h, "RIFF", 4);
    put_le(h + 4, data_bytes + 36, 4);
    memcpy(h + 8, "WAVEfmt ", 8);
    put_le(h + 16, 16, 4);
    put_le(h + 20, tag, 2);
    put_le(h + 22, static_cast<uint32_t>(channels), 2);
    put_le(h + 24, static_cast<uint32_t>(rate), 4);
    put_le(h + 28, static_cast<uint32_t>(rate) * block, 4);
    put_le(h + 32, block, 2);
    put_le(h + 34, static_cast<uint32_t>(bytes_per_sample * 8), 2);
    memcpy(h + 36, "data", 4);
    put_le(h + 40, data_bytes, 4);
}

}  // namespace

ContainerWriter::Kind ContainerWriter::kind_of(const std::string& path) {
    return ends_with(path, ".y4m") ? Kind::kY4m : ends_with(path, ".wav") ? Kind::kWav : Kind::kRaw;
}

std::string ContainerWriter::refusal(Kind kind, const OutputShape& shape) {
    if (kind == Kind::kY4m && (!shape.video || y4m_tag(shape.pix_fmt) == nullptr)) {
        return "a .y4m file holds yuv420p, yuv422p, yuv444p or gray pictures (see --pix-fmt)";
    }
    if (kind == Kind::kWav && (shape.video || wav_tag(shape.sample_fmt) == 0)) {
        return "a .wav file holds u8, s16, s32, flt or dbl samples, or their planar forms (see "
               "--sample-fmt)";
    }
    return "";
}

bool ContainerWriter::begin(FILE* out, Kind kind, const OutputShape& shape) {
    out_ = out;
    kind_ = kind;
    if (kind == Kind::kY4m) {
        // A0:0 is YUV4MPEG2's unknown aspect ratio, as 0/1 is FFmpeg's.
        return fprintf(out, "YUV4MPEG2 W%d H%d F%d:%d Ip A%d:%d C%s\n", shape.width, shape.height,
                       shape.rate_num, shape.rate_den, shape.sar_num,
                       shape.sar_num == 0 ? 0 : shape.sar_den, y4m_tag(shape.pix_fmt)) > 0;
    }
    if (kind == Kind::kWav) {
        const AVSampleFormat format = static_cast<AVSampleFormat>(shape.sample_fmt);
        channels_ = shape.channels;
        bytes_per_sample_ = av_get_bytes_per_sample(format);
        planar_ = av_sample_fmt_is_planar(format) != 0;
        // The sizes stay at their largest until finish() knows them (a pipe keeps them so).
        uint8_t header[44];
        wav_header(header, wav_tag(format), channels_, shape.sample_rate, bytes_per_sample_,
                   UINT32_MAX - 36);
        return fwrite(header, 1, sizeof(header), out) == sizeof(header);
    }
    return true;
}

bool ContainerWriter::write(const uint8_t* data, uint32_t size) {
    if (kind_ == Kind::kY4m && fputs("FRAME\n", out_) < 0) {
        return false;
    }
    if (kind_ == Kind::kWav && planar_ && channels_ > 1) {
        const size_t samples = size / channels_ / bytes_per_sample_;
        interleaved_.resize(size);
        uint8_t* to = interleaved_.data();
        for (size_t s = 0; s < samples; ++s) {
            for (int c = 0; c < channels_; ++c, to += bytes_per_sample_) {
                memcpy(to, data + (c * samples + s) * bytes_per_sample_, bytes_per_sample_);
            }
        }
        data = interleaved_.data();
    }
    data_bytes_ += size;
    return fwrite(data, 1, size, out_) == size;
}

bool ContainerWriter::finish() {
    if (kind_ != Kind::kWav || fseek(out_, 4, SEEK_SET) != 0) {
        return true;
    }
    const uint32_t data =
        data_bytes_ > UINT32_MAX - 36 ? UINT32_MAX - 36 : static_cast<uint32_t>(data_bytes_);
    uint8_t riff[4], chunk[4];
    put_le(riff, data + 36, 4);
    put_le(chunk, data, 4);
    return fwrite(riff, 1, 4, out_) == 4 && fseek(out_, 40, SEEK_SET) == 0 &&
           fwrite(chunk, 1, 4, out_) == 4;
}

}  // namespace mediatools
