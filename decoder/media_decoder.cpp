#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "base/defer_action.h"
#include "base/shm_guard.h"
#include "base/system_log.h"
#include "decoder/ffmpeg_protocol.h"
#include "decoder/media_decoder_internal.h"

using namespace decoder_detail;

MediaDecoder::hw_seam_t* MediaDecoder::hw_seam = nullptr;

namespace {

// A size from the client is usable only if it fits the input area.
bool area_size_ok(int32_t size) {
    return size > 0 && static_cast<size_t>(size) <= SHM_AREA_SIZE;
}

}  // namespace

namespace decoder_detail {

MediaDecoder::av_ptr<AVCodecContext> own_codec_context(AVCodecContext* ctx, const char* what) {
    return MediaDecoder::av_ptr<AVCodecContext>(ctx, [what](AVCodecContext* c) {
        LOGD("%s", what);
        avcodec_free_context(&c);
    });
}

MediaDecoder::av_ptr<AVCodecContext> own_hw_codec_context(AVCodecContext* ctx) {
    return MediaDecoder::av_ptr<AVCodecContext>(ctx, [](AVCodecContext* c) {
        auto* user_data = static_cast<MediaDecoder::hw_user_data_t*>(c->opaque);
        if (user_data != nullptr) {
            LOGD("freeing video decoder context's opaque data");
            if (user_data->hw_device_ctx != nullptr) {
                av_buffer_unref(&user_data->hw_device_ctx);
            }
            delete user_data;
            c->opaque = nullptr;
        }
        LOGD("freeing HW video decoder context");
        avcodec_free_context(&c);
    });
}

MediaDecoder::av_ptr<AVPacket> own_packet(AVPacket* packet, const char* what) {
    return MediaDecoder::av_ptr<AVPacket>(packet, [what](AVPacket* p) {
        LOGD("%s", what);
        av_packet_free(&p);
    });
}

MediaDecoder::av_ptr<AVFrame> own_frame(AVFrame* frame, const char* what) {
    return MediaDecoder::av_ptr<AVFrame>(frame, [what](AVFrame* f) {
        LOGD("%s", what);
        av_frame_free(&f);
    });
}

}  // namespace decoder_detail

MediaDecoder::video_context_t::~video_context_t() {
    // Conversion context, candidates in order, chosen context, then the software context.
    sws_ctx.reset();
    for (auto& candidate : hw_codec_candidates) {
        candidate.reset();
    }
    hw_codec_candidates.clear();
    hw_codec_ctx.reset();
    sw_codec_ctx.reset();
}

MediaDecoder::audio_context_t::~audio_context_t() {
    swr_ctx.reset();
    codec_ctx.reset();
}

MediaDecoder::MediaDecoder(const std::weak_ptr<ev::async>& notify, int fd, bool is_ashmem)
    : shm_fd(fd), notify(notify) {
    if (!is_ashmem) {
        // Mapping past the end of a smaller object would fault on first access.
        struct stat st;
        if (fstat(fd, &st) == 0 && st.st_size < static_cast<off_t>(SHM_BLOCK_SIZE)) {
            LOGE("shared memory too small: %ld bytes", static_cast<long>(st.st_size));
            return;
        }
        void* mapped = mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        block = static_cast<uint8_t*>(mapped);
        if (mapped == MAP_FAILED) {
            LOGE("map shared memory failed: [%d] %s", errno, strerror(errno));
            return;
        }
    } else {
        ashmem.reset(new AshMemory(shm_fd.release()));
        block = static_cast<uint8_t*>(ashmem->MapMemory());
        if (block == nullptr) {
            LOGE("failed mapping android shared memory");
            return;
        }
        if (ashmem->mSize < SHM_BLOCK_SIZE) {
            LOGE("shared memory too small: %ld bytes", static_cast<long>(ashmem->mSize));
            return;
        }
    }
    guard_slot = ShmGuard::add(block, ashmem ? ashmem->mSize : SHM_BLOCK_SIZE);
    valid = true;
}

MediaDecoder::~MediaDecoder() {
    if (worker && worker->joinable()) {
        worker->join();
    }
    LOGD("ummapping shared memory");  // sic: verbatim log text
    ShmGuard::remove(guard_slot);
    if (ashmem) {
        ashmem.reset();
    } else if (block != nullptr && block != MAP_FAILED) {
        munmap(block, SHM_BLOCK_SIZE);
    }
    // The decoder's state goes now, in the order of the members' destruction, so that what the
    // allocator keeps of it can be given back to the system: once per departed client, so that the
    // service's resident memory follows what its clients hold.
    audio_ctx.reset();
    video_ctx.reset();
    packet.reset();
    frame.reset();
    malloc_trim(0);
    LOGD("the decoder held at most %lld KiB of the memory budget",
         static_cast<long long>(account.peak() >> 10));
}

bool MediaDecoder::run() {
    // std::thread reports a failed pthread_create only by throwing; this is the one place that
    // catches, because a client must not be able to end the service by exhausting threads.
    try {
        worker.reset(new std::thread(&MediaDecoder::media_decoding_thread, this));
    } catch (const std::system_error& e) {
        LOGE("decoder worker thread create failed: [%d] %s", e.code().value(),
             strerror(e.code().value()));
        return false;
    }
    return true;
}

void MediaDecoder::signal_request() {
    {
        std::lock_guard<std::mutex> lock(request_mutex);
        request_ready.store(1);
    }
    request_cond.notify_one();
}

void MediaDecoder::signal_quit() {
    {
        std::lock_guard<std::mutex> lock(request_mutex);
        quit.store(1);
        request_ready.store(1);
    }
    request_cond.notify_all();
}

void MediaDecoder::write_result(int32_t status, uint32_t output_size, int64_t output_pts) {
    ExchangeResult result{};
    result.status = status;
    result.output_size = output_size;
    result.output_pts = output_pts;
    memcpy(block + SHM_RESULT_OFFSET, &result, sizeof(result));
}

// The request is taken under the mutex, where the signals store the flags; before sleeping on the
// condition variable the worker spins for a moment on the flag when its client's requests have
// been coming back to back, since a client that got its sync msg a few microseconds ago usually
// rings again at once and a sleeping worker would cost it a wake-up.
bool MediaDecoder::wait_for_request() {
    const SpinWait::Clock::time_point idle_since = SpinWait::Clock::now();
    request_spin.spin([this] { return request_ready.load(std::memory_order_acquire) == 1; });
    std::unique_lock<std::mutex> lock(request_mutex);
    request_cond.wait(lock, [this] { return request_ready.load() == 1; });
    request_spin.waited(SpinWait::Clock::now() - idle_since);
    request_ready.store(0);
    return quit.load() == 0;
}

void MediaDecoder::media_decoding_thread() {
    SvcLogSetClient(client_number);
    name_worker();
    for (;;) {
        if (quit.load() == 1) {
            return;
        }
        if (!wait_for_request()) {
            return;
        }

        const uint32_t request_type = read_request<uint32_t>(REQ_TYPE_OFFSET);
        // A header read from a vanished object reads as zeros; do not act on it.
        if (!check_block_lost()) {
            dispatch(request_type);
            check_block_lost();
            name_worker();
        }

        requests_done.fetch_add(1, std::memory_order_release);
        if (auto watcher = notify.lock()) {
            watcher->send();
        }
    }
}

void MediaDecoder::dispatch(uint32_t request_type) {
    switch (request_type) {
        case REQUEST_INIT_CODEC:
            init_codec();
            break;
        case REQUEST_RESET_CONTEXT:
            reset_context();
            break;
        case REQUEST_DECODE_FRAME:
            decode_frame();
            break;
        case REQUEST_FLUSH:
            flush();
            break;
        case REQUEST_CODEC_CONFIG:
            codec_config();
            break;
        case REQUEST_DESTROY_CONTEXT:
            destroy_context();
            break;
        default:
            LOGW("unknown client request type, stop further processing");
            quit.store(1);
            break;
    }
}

// Names the worker after its client and its work, for top -H, ps -L and /proc/PID/task/*/comm:
// "dec7" without a decoder, "dec7 h264 sw" or "dec7 h264 vdpau" (where the video decodes),
// "dec3 aac". The kernel keeps 15 characters; the thread is renamed only when the name changes.
void MediaDecoder::name_worker() {
    const char* codec = nullptr;
    const char* where = nullptr;
    if (media_type == MEDIA_TYPE_VIDEO && video_ctx && video_ctx->sw_codec_ctx) {
        codec = avcodec_get_name(video_ctx->sw_codec_ctx->codec_id);
        where = video_ctx->hw_codec_ctx ? chosen_device_name() : "sw";
    } else if (media_type == MEDIA_TYPE_AUDIO && audio_ctx && audio_ctx->codec_ctx) {
        codec = avcodec_get_name(audio_ctx->codec_ctx->codec_id);
    }
    char name[sizeof(worker_name)];
    if (codec == nullptr) {
        snprintf(name, sizeof(name), "dec%d", client_number);
    } else {
        snprintf(name, sizeof(name), "dec%d %s%s%s", client_number, codec, where ? " " : "",
                 where ? where : "");
    }
    if (strcmp(name, worker_name) != 0) {
        memcpy(worker_name, name, sizeof(name));
        pthread_setname_np(pthread_self(), name);
    }
}

bool MediaDecoder::check_block_lost() {
    if (block_lost.load() == 0 && ShmGuard::lost(guard_slot)) {
        LOGE("shared memory block lost, dropping decoder client");
        block_lost.store(1);
        quit.store(1);
    }
    return block_lost.load() != 0;
}

// The media type is taken before the codec row is looked up, so an unknown row still changes it.
// Everything that fails here ends the worker once the request is answered.
void MediaDecoder::init_codec() {
    switch (read_request<int32_t>(REQ_MEDIA_TYPE_OFFSET)) {
        case MEDIA_TYPE_VIDEO: {
            media_type = MEDIA_TYPE_VIDEO;
            ExchangeVideoInit r;
            memcpy(&r, request_header(), sizeof(r));
            if (r.codec_index >= static_cast<uint32_t>(VIDEO_CODEC_COUNT)) {
                LOGE("unknown video codec specified");
                quit.store(1);
            } else if (!init_video_codec_context(table_codec_id(MEDIA_TYPE_VIDEO, r.codec_index),
                                                 r.coded_width, r.coded_height, r.coded_pix_fmt,
                                                 r.config_size, r.out_width, r.out_height,
                                                 r.out_pix_fmt)) {
                quit.store(1);
            }
            break;
        }
        case MEDIA_TYPE_AUDIO: {
            media_type = MEDIA_TYPE_AUDIO;
            ExchangeAudioInit r;
            memcpy(&r, request_header(), sizeof(r));
            if (r.codec_index >= static_cast<uint32_t>(AUDIO_CODEC_COUNT)) {
                LOGE("unknown audio codec specified");
                quit.store(1);
            } else if (!init_audio_codec_context(table_codec_id(MEDIA_TYPE_AUDIO, r.codec_index),
                                                 r.in_sample_fmt, r.in_channels, r.in_sample_rate,
                                                 r.config_size, r.out_sample_fmt, r.out_channels,
                                                 r.out_sample_rate)) {
                quit.store(1);
            }
            break;
        }
        default:
            LOGW("unknown media type specified, initialization failed");
            quit.store(1);
            break;
    }
}

void MediaDecoder::decode_frame() {
    LOGD("decode frame");
    if (!video_ctx && !audio_ctx) {
        LOGE("decoder context not initialized!!");
        clear_result();
        return;
    }
    // After destroy context a state of the other media type may still be held, but no media type
    // is in use and the packet and frame are released: the request is answered with nothing
    // written.
    if (media_type == MEDIA_TYPE_NONE || !packet || !frame) {
        return;
    }

    ExchangeDataRequest request;
    memcpy(&request, request_header(), sizeof(request));
    AVPacket* pkt = packet.get();
    ffcompat::init_packet(pkt);
    pkt->pts = request.pts;
    pkt->data = input_area();
    pkt->size = request.data_size;
    LOGD("packet size: %d, pts: %ld", pkt->size, static_cast<long>(pkt->pts));

    // Sizes beyond the input area are refused like empty packets.
    if (!area_size_ok(pkt->size)) {
        LOGE("wrong packet size passed");
        write_failure();
        return;
    }
    // FFmpeg copies the packet, and a parser may keep a second copy while it decodes.
    MemoryCharge packet_charge(&account);
    if (!packet_charge.set(2 * int64_t{pkt->size} + AV_INPUT_BUFFER_PADDING_SIZE, "packet")) {
        write_failure();
        return;
    }

    if (media_type == MEDIA_TYPE_VIDEO) {
        decode_video_branch();
    } else if (media_type == MEDIA_TYPE_AUDIO) {
        if (!audio_ctx || !audio_ctx->codec_ctx) {
            // A reset whose setup failed leaves a state without a decoder.
            LOGE("decoder context not initialized!!");
            clear_result();
            return;
        }
        decode_audio(audio_ctx->codec_ctx.get(), pkt, frame.get());
    }
}

void MediaDecoder::flush() {
    LOGD("flush decoder");
    if (media_type == MEDIA_TYPE_VIDEO) {
        if (video_ctx) {
            AVCodecContext* ctx = video_ctx->hw_codec_ctx ? video_ctx->hw_codec_ctx.get()
                                                          : video_ctx->sw_codec_ctx.get();
            if (ctx != nullptr) {
                avcodec_flush_buffers(ctx);
            }
        }
    } else if (media_type == MEDIA_TYPE_AUDIO) {
        if (audio_ctx && audio_ctx->codec_ctx) {
            avcodec_flush_buffers(audio_ctx->codec_ctx.get());
        }
    }
}

bool MediaDecoder::append_extradata(AVCodecContext* ctx, int size) {
    if (!area_size_ok(size)) {
        LOGE("codec config size out of range: %d", size);
        return false;
    }
    int old = ctx->extradata_size;
    if (old < 0 || old > INT_MAX - AV_INPUT_BUFFER_PADDING_SIZE - size) {
        LOGE("codec config size out of range: %d", size);
        return false;
    }
    auto* grown = static_cast<uint8_t*>(
        av_realloc(ctx->extradata, static_cast<size_t>(old) + size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (grown == nullptr) {
        LOGE("codec config buffer alloc failed");
        return false;
    }
    ctx->extradata = grown;
    ctx->extradata_size = old + size;
    memcpy(grown + old, input_area(), static_cast<size_t>(size));
    memset(grown + old + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    return true;
}

void MediaDecoder::codec_config() {
    LOGD("codec config");
    int32_t size = read_request<int32_t>(REQ_DATA_SIZE_OFFSET);
    if (size <= 0) {
        return;
    }
    if (media_type == MEDIA_TYPE_VIDEO) {
        if (video_ctx &&
            charge_config(video_ctx->setup_charge, size,
                          (video_ctx->sw_codec_ctx ? 1 : 0) + (video_ctx->hw_codec_ctx ? 1 : 0))) {
            if (video_ctx->sw_codec_ctx) {
                append_extradata(video_ctx->sw_codec_ctx.get(), size);
            }
            if (video_ctx->hw_codec_ctx) {
                append_extradata(video_ctx->hw_codec_ctx.get(), size);
            }
        }
    } else if (media_type == MEDIA_TYPE_AUDIO) {
        if (audio_ctx && audio_ctx->codec_ctx && charge_config(audio_ctx->setup_charge, size, 1)) {
            append_extradata(audio_ctx->codec_ctx.get(), size);
        }
    }
}

// Configuration bytes appended to `contexts` contexts, charged before they are copied; a size
// beyond the input area is left to append_extradata to refuse.
bool MediaDecoder::charge_config(MemoryCharge& charge, int32_t size, int contexts) {
    return !area_size_ok(size) || charge.add(int64_t{size} * contexts, "configuration bytes");
}

// Rebuilds the decoder of the media type in use for a new output, with the codec and the input
// format it has (for audio, as last decoded) and no configuration bytes. The setup's own result
// is not used: the result area ends up zero and the worker goes on serving. A state left without
// a codec by an earlier failed setup has nothing to rebuild and is kept as it is.
void MediaDecoder::reset_context() {
    LOGD("reset context");
    if (media_type == MEDIA_TYPE_VIDEO && video_ctx && video_ctx->sw_codec_ctx) {
        ExchangeVideoReset r;
        memcpy(&r, request_header(), sizeof(r));
        const AVCodecID codec_id = video_ctx->sw_codec_ctx->codec_id;
        const int width = video_ctx->width, height = video_ctx->height;
        const int pix_fmt = video_ctx->pix_fmt;
        video_ctx.reset();
        init_video_codec_context(codec_id, width, height, pix_fmt, 0, r.out_width, r.out_height,
                                 r.out_pix_fmt);
    } else if (media_type == MEDIA_TYPE_AUDIO && audio_ctx && audio_ctx->codec_ctx) {
        ExchangeAudioReset r;
        memcpy(&r, request_header(), sizeof(r));
        const AVCodecID codec_id = audio_ctx->codec_ctx->codec_id;
        const int sample_fmt = audio_ctx->in_sample_fmt, channels = audio_ctx->in_channels;
        const int sample_rate = audio_ctx->in_sample_rate;
        audio_ctx.reset();
        init_audio_codec_context(codec_id, sample_fmt, channels, sample_rate, 0, r.out_sample_fmt,
                                 r.out_channels, r.out_sample_rate);
    }
    clear_result();
}

void MediaDecoder::destroy_context() {
    LOGD("destroy context");
    if (media_type == MEDIA_TYPE_VIDEO) {
        video_ctx.reset();
    } else if (media_type == MEDIA_TYPE_AUDIO) {
        audio_ctx.reset();
    }
    media_type = MEDIA_TYPE_NONE;
    frame.reset();
    packet.reset();
}
