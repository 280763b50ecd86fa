#include "decoder/media_decoder.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/shm_guard.h"
#include "base/system_log.h"
#include "decoder/av_error.h"
#include "decoder/memory_budget.h"
#include "protocol/ffmpeg_protocol.h"

using namespace mediaclient::protocol;

#define LOG_MODULE "media decoder"
#define LOG_FILE "media_decoder"

MediaDecoder::MediaDecoder(int fd, bool is_ashmem, int client)
    : shm_fd_(fd), client_number_(client) {
    if (!is_ashmem) {
        // Mapping past the end of a smaller object would fault on first access.
        struct stat st;
        if (fstat(fd, &st) == 0 && st.st_size < static_cast<off_t>(SHM_BLOCK_SIZE)) {
            LOGE("shared memory too small: %ld bytes", static_cast<long>(st.st_size));
            return;
        }
        void* mapped = mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        block_ = static_cast<uint8_t*>(mapped);
        if (mapped == MAP_FAILED) {
            LOGE("map shared memory failed: [%d] %s", errno, strerror(errno));
            return;
        }
    } else {
        ashmem_.reset(new AshMemory(shm_fd_.release()));
        block_ = static_cast<uint8_t*>(ashmem_->MapMemory());
        if (block_ == nullptr) {
            LOGE("failed mapping android shared memory");
            return;
        }
        if (ashmem_->size() < SHM_BLOCK_SIZE) {
            LOGE("shared memory too small: %ld bytes", static_cast<long>(ashmem_->size()));
            return;
        }
    }
    guard_slot_ = ShmGuard::add(block_, ashmem_ ? ashmem_->size() : SHM_BLOCK_SIZE);
    codec_.reset(new MediaCodec(
        {reinterpret_cast<ExchangeResult*>(block_ + SHM_RESULT_OFFSET), block_ + SHM_OUTPUT_OFFSET,
         [this](size_t used) { clear_output_after(used); }},
        MemoryBudget::service(), &devices_));
    valid_ = true;
    name_worker();
}

OpenedDevices::~OpenedDevices() {
    for (auto& type : opened_) {
        av_buffer_unref(&type.second.device);
    }
}

int OpenedDevices::create_device(AVBufferRef** device, AVHWDeviceType type) const {
    auto it = opened_.find(type);
    if (it == opened_.end()) {
        Opened opened{HardwareSeam::create_device(device, type), nullptr};
        opened.device = opened.result >= 0 ? av_buffer_ref(*device) : nullptr;
        if (opened.result < 0) {
            const std::string outcome =
                std::string("does not open: ") + AvErrorText(opened.result).text;
            SvcSystemLogDevice(SVC_LOG_WARN, av_hwdevice_get_type_name(type), outcome.c_str());
        }
        // FFmpeg loads NVIDIA's decoding library only when a decoder starts on the device, which
        // is after the worker has confined itself for decoding and may map no code: it is loaded
        // now, and FFmpeg's later load finds it in place. Kept for the worker's life.
        if (opened.device != nullptr && type == AV_HWDEVICE_TYPE_CUDA) {
            dlopen("libnvcuvid.so.1", RTLD_NOW | RTLD_GLOBAL);
        }
        opened_.emplace(type, opened);
        return opened.result;
    }
    if (it->second.device == nullptr) {
        return it->second.result;
    }
    *device = av_buffer_ref(it->second.device);
    return *device != nullptr ? 0 : AVERROR(ENOMEM);
}

MediaDecoder::~MediaDecoder() {
    LOGD("ummapping shared memory");  // sic: verbatim log text
    ShmGuard::remove(guard_slot_);
    if (ashmem_) {
        ashmem_.reset();
    } else if (block_ != nullptr && block_ != MAP_FAILED) {
        munmap(block_, SHM_BLOCK_SIZE);
    }
    codec_.reset();
}

bool MediaDecoder::serve_request() {
    const uint32_t request_type = read_request<uint32_t>(REQ_TYPE_OFFSET);
    // A header read from a vanished object reads as zeros; do not act on it.
    if (check_block_lost()) {
        return false;
    }
    const bool serving = dispatch(request_type);
    name_worker();
    return !check_block_lost() && serving;
}

// The request header's fields, by request, into the codec's calls; the bytes they name lie at the
// start of the input area.
bool MediaDecoder::dispatch(uint32_t request_type) {
    const uint8_t* input = block_ + SHM_INPUT_OFFSET;
    switch (request_type) {
        case REQUEST_INIT_CODEC:
            return init_codec();
        case REQUEST_RESET_CONTEXT:
            reset_codec();
            break;
        case REQUEST_DECODE_FRAME: {
            const auto r = read_request<ExchangeDataRequest>(0);
            codec_->decode_frame(input, r.data_size, r.pts);
            break;
        }
        case REQUEST_FLUSH:
            codec_->flush();
            break;
        case REQUEST_CODEC_CONFIG:
            codec_->codec_config(input, read_request<ExchangeDataRequest>(0).data_size);
            break;
        case REQUEST_DESTROY_CONTEXT:
            codec_->destroy_context();
            break;
        default:
            LOGW("unknown client request type, stop further processing");
            return false;
    }
    return true;
}

// The setup by the names of the block's views; the codec takes the media type before it looks at
// the codec row, so an unknown row still changes it. Everything that fails here ends the worker
// once the request is answered.
bool MediaDecoder::init_codec() {
    MediaCodec::Setup setup;
    setup.media_type = static_cast<int32_t>(read_request<uint32_t>(REQ_MEDIA_TYPE_OFFSET));
    setup.config = block_ + SHM_INPUT_OFFSET;
    if (setup.media_type == MEDIA_TYPE_VIDEO) {
        const auto r = read_request<ExchangeVideoInit>(0);
        setup.codec_id = table_codec_id(MEDIA_TYPE_VIDEO, r.codec_index);
        setup.config_size = r.config_size;
        setup.video = MediaCodec::video_setup_of(r);
    } else if (setup.media_type == MEDIA_TYPE_AUDIO) {
        const auto r = read_request<ExchangeAudioInit>(0);
        setup.codec_id = table_codec_id(MEDIA_TYPE_AUDIO, r.codec_index);
        setup.config_size = r.config_size;
        setup.audio = MediaCodec::audio_setup_of(r);
    }
    return codec_->init(setup);
}

// A reset's new output, read as either media type's view: the codec takes the one in use.
void MediaDecoder::reset_codec() {
    const auto v = read_request<ExchangeVideoReset>(0);
    const auto a = read_request<ExchangeAudioReset>(0);
    MediaCodec::Setup output;
    output.video.out_width = v.out_width;
    output.video.out_height = v.out_height;
    output.video.out_pix_fmt = v.out_pix_fmt;
    output.audio.out_sample_fmt = a.out_sample_fmt;
    output.audio.out_channels = a.out_channels;
    output.audio.out_sample_rate = a.out_sample_rate;
    codec_->reset(output);
}

// Names the worker after its client and its work, for top, ps and /proc/PID/comm:
// "dec7" without a decoder, "dec7 h264 sw" or "dec7 h264 vdpau" (where the video decodes),
// "dec3 aac". The kernel keeps 15 characters; the thread is renamed only when the name changes.
void MediaDecoder::name_worker() {
    const std::string work = codec_->work();
    char name[sizeof(worker_name_)];
    snprintf(name, sizeof(name), "dec%d%s%s", client_number_, work.empty() ? "" : " ",
             work.c_str());
    if (strcmp(name, worker_name_) != 0) {
        memcpy(worker_name_, name, sizeof(name));
        pthread_setname_np(pthread_self(), name);
        SvcLogSetWork(work.c_str());
    }
}

bool MediaDecoder::check_block_lost() {
    if (!lost_ && ShmGuard::lost(guard_slot_)) {
        LOGE("shared memory block lost, dropping decoder client");
        lost_ = true;
    }
    return lost_;
}

// Everything after the picture reads as zero, so stale bytes never reach the client. Writing
// zeros over the rest of the area would cost more than the conversion for a small picture; the
// whole pages behind it are released from the client's object instead: they then read as zeros
// on both sides, and pages nobody touches are never written again. Where that is refused (a
// sealed object, a block the shared-memory guard has replaced by private pages), they are written
// as before.
void MediaDecoder::clear_output_after(size_t used) {
    static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    // The mapping is page-aligned, and so are the area's offset and size for the page sizes of
    // x86-64 and arm64 kernels (4, 16 or 64 KiB).
    static_assert(SHM_OUTPUT_OFFSET % 0x10000 == 0 && SHM_AREA_SIZE % 0x10000 == 0,
                  "output area aligned to 64 KiB");
    uint8_t* area = block_ + SHM_OUTPUT_OFFSET;
    const size_t boundary = std::min((used + page - 1) / page * page, SHM_AREA_SIZE);
    memset(area + used, 0, boundary - used);
    if (boundary < SHM_AREA_SIZE &&
        !release_pages(SHM_OUTPUT_OFFSET + boundary, SHM_AREA_SIZE - boundary)) {
        memset(area + boundary, 0, SHM_AREA_SIZE - boundary);
    }
}

// Punches a hole into the object through its descriptor (a POSIX object, a memfd), else through
// the mapping (an ashmem region: its driver has no fallocate, but its mapping is of the backing
// object). The descriptor comes first because user-mode emulators answer madvise with success
// without doing anything.
bool MediaDecoder::release_pages(size_t offset, size_t length) {
    const int fd = ashmem_ ? ashmem_->fd() : shm_fd_.get();
    if (fd >= 0 && fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                             static_cast<off_t>(offset), static_cast<off_t>(length)) == 0) {
        return true;
    }
    return madvise(block_ + offset, length, MADV_REMOVE) == 0;
}
