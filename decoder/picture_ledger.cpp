#define LOG_MODULE "media decoder"
#define LOG_FILE "picture_ledger"

#include "decoder/picture_ledger.h"

#include <algorithm>
#include <new>

#include "base/log.h"

namespace {

// The bytes of all the frame's buffers.
int64_t frame_bytes(const AVFrame* frame) {
    int64_t bytes = 0;
    for (AVBufferRef* buf : frame->buf) {
        bytes += buf != nullptr ? static_cast<int64_t>(buf->size) : 0;
    }
    for (int i = 0; i < frame->nb_extended_buf; ++i) {
        bytes += static_cast<int64_t>(frame->extended_buf[i]->size);
    }
    return bytes;
}

}  // namespace

struct PictureLedger::Loan {
    std::shared_ptr<PictureLedger> ledger;
    AVBufferRef* buffer;  // the pool's reference, given back when the wrapper goes
    const uint8_t* id;
};

std::shared_ptr<PictureLedger> PictureLedger::attach(AVCodecContext* ctx, MemoryAccount* account,
                                                     double side_bytes_per_pixel) {
    auto ledger = std::make_shared<PictureLedger>(account, side_bytes_per_pixel);
    ctx->opaque = ledger.get();
    ctx->get_buffer2 = &PictureLedger::get_buffer;
    return ledger;
}

PictureLedger::PictureLedger(MemoryAccount* account, double side_bytes_per_pixel)
    : charge_(account), side_bytes_per_pixel_(side_bytes_per_pixel) {}

int PictureLedger::get_buffer(AVCodecContext* ctx, AVFrame* frame, int flags) {
    auto* ledger = static_cast<PictureLedger*>(ctx->opaque);
    // Hardware frames come from the device's own pool, which the setup has charged.
    if (ledger == nullptr || ctx->hw_frames_ctx != nullptr) {
        return avcodec_default_get_buffer2(ctx, frame, flags);
    }
    return ledger->take(ctx, frame, flags);
}

void PictureLedger::returned(void* opaque, uint8_t* /*data*/) {
    std::unique_ptr<Loan> loan(static_cast<Loan*>(opaque));
    av_buffer_unref(&loan->buffer);
    loan->ledger->give_back(loan->id);
}

int PictureLedger::take(AVCodecContext* ctx, AVFrame* frame, int flags) {
    const bool video = ctx->codec_type == AVMEDIA_TYPE_VIDEO;
    if (video && (frame->width > kMaxSide || frame->height > kMaxSide)) {
        LOGE("picture of %dx%d refused: beyond %d on a side", frame->width, frame->height,
             kMaxSide);
        return AVERROR(EINVAL);
    }
    const Geometry geometry =
        video ? Geometry{frame->format, frame->width, frame->height}
              : Geometry{frame->format, ffcompat::frame_channels(frame), frame->nb_samples};
    if (geometry != geometry_) {
        start_pool(geometry);
    }
    int64_t reserved = 0;
    if (!pool_has_free_entry()) {
        reserved = predicted_bytes(ctx, frame);
        if (!charge_.add(reserved, video ? "picture" : "audio frame")) {
            return AVERROR(ENOMEM);
        }
    }
    int ret = avcodec_default_get_buffer2(ctx, frame, flags);
    if (ret < 0 || frame->buf[0] == nullptr) {
        charge_.add(-reserved, nullptr);
        return ret < 0 ? ret : AVERROR_BUG;
    }
    const uint8_t* id = frame->buf[0]->data;
    auto found = entries_.find(id);
    if (found == entries_.end()) {
        const int64_t bytes = frame_bytes(frame) + side_bytes(frame);
        charge_.add(bytes - reserved, nullptr);  // the prediction errs high: this gives back
        found = entries_.emplace(id, Entry{bytes, true, false}).first;
    } else {
        found->second.in_use = true;
        charge_.add(-reserved, nullptr);
    }

    // The pool's buffer stays in the loan; the frame gets a wrapper whose release gives it back.
    auto* loan = new (std::nothrow) Loan{shared_from_this(), frame->buf[0], id};
    AVBufferRef* wrapper =
        loan != nullptr
            ? av_buffer_create(frame->buf[0]->data, frame->buf[0]->size, &returned, loan, 0)
            : nullptr;
    if (wrapper == nullptr) {
        delete loan;
        found->second.in_use = false;
        av_frame_unref(frame);
        return AVERROR(ENOMEM);
    }
    frame->buf[0] = wrapper;
    return 0;
}

// FFmpeg replaces its pool when the geometry changes: the old pool's free entries are freed at
// once, those in use when they come back.
void PictureLedger::start_pool(const Geometry& geometry) {
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (!it->second.in_use) {
            charge_.add(-it->second.bytes, nullptr);
            it = entries_.erase(it);
        } else {
            it->second.retired = true;
            ++it;
        }
    }
    geometry_ = geometry;
}

bool PictureLedger::pool_has_free_entry() const {
    for (const auto& entry : entries_) {
        if (!entry.second.in_use && !entry.second.retired) {
            return true;
        }
    }
    return false;
}

// The decoder's tables beside a picture; none beside audio frames.
int64_t PictureLedger::side_bytes(const AVFrame* frame) const {
    return static_cast<int64_t>(side_bytes_per_pixel_ * std::max(frame->width, 0) *
                                std::max(frame->height, 0));
}

// What the pool will allocate for the frame, rounded up (FFmpeg aligns sizes and lines and pads
// every plane), with the picture's side tables.
int64_t PictureLedger::predicted_bytes(const AVCodecContext* ctx, const AVFrame* frame) const {
    constexpr int64_t kSlack = 4096;
    if (ctx->codec_type == AVMEDIA_TYPE_VIDEO) {
        const int width = FFALIGN(frame->width, 64) + 64, height = FFALIGN(frame->height, 64) + 64;
        int bytes =
            av_image_get_buffer_size(static_cast<AVPixelFormat>(frame->format), width, height, 64);
        const int64_t picture = bytes > 0 ? bytes : int64_t{width} * height * 8;
        return picture + kSlack + side_bytes(frame);
    }
    const int channels = ffcompat::frame_channels(frame);
    int bytes = av_samples_get_buffer_size(nullptr, channels, frame->nb_samples,
                                           static_cast<AVSampleFormat>(frame->format), 0);
    return (bytes > 0 ? bytes : int64_t{channels} * frame->nb_samples * 8) + kSlack;
}

void PictureLedger::give_back(const uint8_t* id) {
    auto it = entries_.find(id);
    if (it == entries_.end()) {
        return;
    }
    if (it->second.retired) {
        charge_.add(-it->second.bytes, nullptr);
        entries_.erase(it);
    } else {
        it->second.in_use = false;
    }
}
