#include "tools/decode_output.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

extern "C" {
#include <libavutil/md5.h>
#include <libavutil/samplefmt.h>
}

#include "protocol/media_protocol.h"

using namespace mediaclient::protocol;

namespace mediatools {

void Payload::set_audio_layout(int channels, int sample_fmt, int frame_size) {
    planar_ = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(sample_fmt)) != 0;
    channels_ = channels;
    bytes_per_sample_ = av_get_bytes_per_sample(static_cast<AVSampleFormat>(sample_fmt));
    frame_size_ = frame_size;
}

const uint8_t* Payload::get(const uint8_t* area, uint32_t size) {
    if (!planar_ || channels_ <= 1 || size == 0) {
        return area;
    }
    const size_t plane = size / static_cast<size_t>(channels_);
    const size_t samples = plane / static_cast<size_t>(bytes_per_sample_);
    const size_t basis = frame_size_ > 0 ? static_cast<size_t>(frame_size_) : samples;
    const size_t stride = ((std::max(basis, samples) + 31) & ~size_t(31)) * bytes_per_sample_;
    if (stride * (channels_ - 1) + plane > SHM_AREA_SIZE) {
        return area;
    }
    buffer_.resize(size);
    for (int c = 0; c < channels_; ++c) {
        memcpy(buffer_.data() + c * plane, area + c * stride, plane);
    }
    return buffer_.data();
}

std::string md5_hex(const uint8_t* data, size_t size) {
    uint8_t sum[16];
    av_md5_sum(sum, data, static_cast<int>(size));
    char hex[33];
    for (int i = 0; i < 16; ++i) {
        snprintf(hex + 2 * i, 3, "%02x", sum[i]);
    }
    return std::string(hex, 32);
}

std::string describe(const Answer& a, const uint8_t* payload) {
    char text[160];
    snprintf(text, sizeof(text), "status %d, size %u, pts %" PRId64 ", md5 %s", a.status, a.size,
             a.pts, a.size > 0 ? md5_hex(payload, a.size).c_str() : "-");
    return text;
}

Progress::Progress(bool enabled, int64_t duration_us, int64_t file_size)
    : enabled_(enabled),
      duration_us_(duration_us),
      file_size_(file_size),
      start_(std::chrono::steady_clock::now()),
      last_(start_) {}

void Progress::update(long outputs, const Packet& packet, bool force) {
    if (!enabled_) {
        return;
    }
    auto now = std::chrono::steady_clock::now();
    if (!force && now - last_ < std::chrono::milliseconds(250)) {
        return;
    }
    last_ = now;
    double secs = std::chrono::duration<double>(now - start_).count();
    double percent = -1;
    if (duration_us_ > 0 && packet.pts_us != INT64_MIN) {
        percent = 100.0 * static_cast<double>(packet.pts_us) / duration_us_;
    } else if (file_size_ > 0 && packet.pos >= 0) {
        percent = 100.0 * static_cast<double>(packet.pos) / file_size_;
    }
    if (percent > 100) {
        percent = 100;
    }
    char pct[16] = "";
    if (percent >= 0) {
        snprintf(pct, sizeof(pct), "  %3.0f%%", percent);
    }
    int n = fprintf(stderr, "\routputs %ld  %.1f/s%s   ", outputs, secs > 0 ? outputs / secs : 0.0,
                    pct);
    width_ = std::max(width_, n);
}

void Progress::clear() {
    if (width_ > 0) {
        fprintf(stderr, "\r%*s\r", width_, "");
        width_ = 0;
    }
}

}  // namespace mediatools
