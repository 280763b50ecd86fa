#include "tools/in_process.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

#include "protocol/ffmpeg_protocol.h"
#include "decoder/media_codec.h"

using namespace mediaclient::protocol;

namespace mediatools {

namespace {

// No device opens in-process: what runs is the service's software path, the reference for
// --verify and the same work on every host.
class SoftwareOnly : public MediaCodec::HardwareSeam {
  public:
    int create_device(AVBufferRef** /*device*/, AVHWDeviceType /*type*/) const override {
        return AVERROR(ENODEV);
    }
};

const SoftwareOnly software_only;

}  // namespace

Answer answer_of(const ExchangeResult& r) {
    return Answer{r.status, r.output_size, r.output_pts};
}

mediaclient::VideoInitParams video_init_params(const StreamInfo& info, int out_width,
                                               int out_height, int out_pix_fmt) {
    mediaclient::VideoInitParams p;
    p.coded_width = info.width;
    p.coded_height = info.height;
    p.coded_pix_fmt = info.pix_fmt;
    p.out_width = out_width;
    p.out_height = out_height;
    p.out_pix_fmt = out_pix_fmt;
    return p;
}

mediaclient::AudioInitParams audio_init_params(const StreamInfo& info, int out_sample_fmt,
                                               int out_channels, int out_sample_rate) {
    mediaclient::AudioInitParams p;
    p.in_sample_fmt = info.sample_fmt;
    p.in_channels = info.channels;
    p.in_sample_rate = info.sample_rate;
    p.out_sample_fmt = out_sample_fmt;
    p.out_channels = out_channels;
    p.out_sample_rate = out_sample_rate;
    return p;
}

// The area reads zero until written, like a fresh shared memory block, and costs no memory
// before then.
InProcessDecoder::InProcessDecoder() : result_(new ExchangeResult{}) {
    void* mapped =
        mmap(nullptr, SHM_AREA_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
        throw std::bad_alloc();
    }
    area_ = static_cast<uint8_t*>(mapped);
    codec_.reset(new MediaCodec({result_.get(), area_, [this](size_t used) { clear_after(used); }},
                                MemoryBudget::service(), &software_only));
}

InProcessDecoder::~InProcessDecoder() {
    codec_.reset();
    munmap(area_, SHM_AREA_SIZE);
}

// Behind a picture the area reads zero, as the service's does; only what an earlier answer wrote
// needs clearing.
void InProcessDecoder::clear_after(size_t used) {
    if (written_ > used) {
        memset(area_ + used, 0, written_ - used);
    }
    written_ = used;
}

namespace {

MediaCodec::Setup setup_of(int32_t media_type, int codec_id, const std::vector<uint8_t>& config) {
    MediaCodec::Setup setup;
    setup.media_type = media_type;
    setup.codec_id = static_cast<AVCodecID>(codec_id);
    setup.config = config.data();
    setup.config_size = static_cast<int32_t>(config.size());
    return setup;
}

}  // namespace

bool InProcessDecoder::init_video(int codec_id, const mediaclient::VideoInitParams& p,
                                  const std::vector<uint8_t>& config) {
    MediaCodec::Setup setup = setup_of(MEDIA_TYPE_VIDEO, codec_id, config);
    setup.video = MediaCodec::video_setup_of(p);
    return codec_->init(setup);
}

bool InProcessDecoder::init_audio(int codec_id, const mediaclient::AudioInitParams& p,
                                  const std::vector<uint8_t>& config) {
    MediaCodec::Setup setup = setup_of(MEDIA_TYPE_AUDIO, codec_id, config);
    setup.audio = MediaCodec::audio_setup_of(p);
    return codec_->init(setup);
}

Answer InProcessDecoder::decode(const uint8_t* data, int size, int64_t pts) {
    codec_->decode_frame(data, size, pts);
    const Answer answer = answer_of(*result_);
    // Planar samples lie spread over the area; a picture that follows them in a new setup
    // clears it all.
    if (answer.size > 0 && codec_->media_type() == MEDIA_TYPE_AUDIO) {
        written_ = SHM_AREA_SIZE;
    }
    return answer;
}

void InProcessDecoder::flush() {
    codec_->flush();
}

}  // namespace mediatools
