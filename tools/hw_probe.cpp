#include "tools/hw_probe.h"

#include <unistd.h>

#include <algorithm>

#include "decoder/av_error.h"
#include "decoder/ffmpeg_compat.h"
#include "decoder/media_codec.h"
#include "protocol/ffmpeg_protocol.h"
#include "tools/device_driver.h"

using namespace mediaclient::protocol;

namespace mediatools {

namespace {

// What each device type needs, since FFmpeg's error texts rarely say.
std::string device_hint(const std::string& name) {
    if (name == "vdpau") {
        return " (needs an X display and a VDPAU driver)";
    }
    if (name == "cuda") {
        return " (needs an NVIDIA GPU with its driver's libcuda)";
    }
    if (name == "vaapi") {
        return access("/dev/dri", F_OK) == 0
                   ? " (needs a VA-API driver for the GPU and access to /dev/dri/renderD*)"
                   : " (no /dev/dri: no GPU device node in this system or container)";
    }
    return "";
}

// Tries each device type the service uses; `devices` gets the opened ones (null where none).
void probe_devices(ProbeReport& report, std::vector<AVBufferRef*>& devices) {
    for (const char* name : HW_DEVICE_TYPES) {
        DeviceProbe probe;
        probe.name = name;
        AVHWDeviceType type = av_hwdevice_find_type_by_name(name);
        probe.known = type != AV_HWDEVICE_TYPE_NONE;
        AVBufferRef* device = nullptr;
        if (!probe.known) {
            probe.error = "this FFmpeg was built without it";
        } else {
            int ret = av_hwdevice_ctx_create(&device, type, nullptr, nullptr, 0);
            probe.opened = ret >= 0;
            probe.driver = device_driver(device);
            if (ret < 0) {
                probe.error = AvErrorText(ret).text + device_hint(name);
                device = nullptr;
            }
        }
        devices.push_back(device);
        report.devices.push_back(probe);
    }
    for (AVHWDeviceType t = av_hwdevice_iterate_types(AV_HWDEVICE_TYPE_NONE);
         t != AV_HWDEVICE_TYPE_NONE; t = av_hwdevice_iterate_types(t)) {
        std::string name = av_hwdevice_get_type_name(t);
        bool used = false;
        for (const char* s : HW_DEVICE_TYPES) {
            used = used || name == s;
        }
        if (!used) {
            report.other_types.push_back(name);
        }
    }
}

// The devices the probe opened, lent to the codec's setups as a worker lends its own.
class ProbedDevices : public MediaCodec::HardwareSeam {
  public:
    explicit ProbedDevices(const std::vector<AVBufferRef*>& devices) : devices_(devices) {}
    int create_device(AVBufferRef** device, AVHWDeviceType type) const override {
        for (size_t d = 0; d < devices_.size(); ++d) {
            if (devices_[d] != nullptr &&
                av_hwdevice_find_type_by_name(HW_DEVICE_TYPES[d]) == type) {
                *device = av_buffer_ref(devices_[d]);
                return *device != nullptr ? 0 : AVERROR(ENOMEM);
            }
        }
        return AVERROR(ENODEV);
    }

  private:
    const std::vector<AVBufferRef*>& devices_;  // in HW_DEVICE_TYPES order, null where none
};

// The device types that get a hardware candidate in the service's own video setup of `codec_id`
// (a small picture, no configuration bytes) on the probe's devices.
std::vector<AVHWDeviceType> candidate_types(AVCodecID codec_id, const ProbedDevices& devices) {
    ExchangeResult result{};
    // No packet is decoded: the output area is never written.
    MediaCodec codec({&result, nullptr, [](size_t) {}}, MemoryBudget::service(), &devices);
    MediaCodec::Setup setup;
    setup.media_type = MEDIA_TYPE_VIDEO;
    setup.codec_id = codec_id;
    setup.video.coded_width = setup.video.out_width = 640;
    setup.video.coded_height = setup.video.out_height = 480;
    setup.video.coded_pix_fmt = setup.video.out_pix_fmt = AV_PIX_FMT_YUV420P;
    std::vector<AVHWDeviceType> types;
    if (codec.init(setup)) {
        const std::vector<const AVCodecContext*> contexts = codec.video_contexts();
        for (size_t c = 2; c < contexts.size(); ++c) {  // after the software and the chosen one
            const AVBufferRef* device = contexts[c]->hw_device_ctx;
            types.push_back(reinterpret_cast<const AVHWDeviceContext*>(device->data)->type);
        }
    }
    return types;
}

// Row `row` of a codec table; for video, what each device would make of it.
CodecProbe probe_codec(int32_t media_type, int row, const ProbeReport& report,
                       const ProbedDevices& devices) {
    CodecProbe codec;
    codec.index = row;
    codec.name = media_type == MEDIA_TYPE_VIDEO ? VIDEO_CODEC_NAMES[row] : AUDIO_CODEC_NAMES[row];
    const AVCodec* decoder = avcodec_find_decoder(table_codec_id(media_type, row));
    codec.have_decoder = decoder != nullptr;
    codec.decoder_name = decoder != nullptr ? decoder->name : "";
    const std::vector<AVHWDeviceType> candidates =
        decoder != nullptr && media_type == MEDIA_TYPE_VIDEO ? candidate_types(decoder->id, devices)
                                                             : std::vector<AVHWDeviceType>();
    for (size_t d = 0; media_type == MEDIA_TYPE_VIDEO && d < report.devices.size(); ++d) {
        const DeviceProbe& device = report.devices[d];
        const AVHWDeviceType type = av_hwdevice_find_type_by_name(device.name.c_str());
        std::string surface;
        if (decoder != nullptr && device.known) {
            const AVPixelFormat format = hw_surface_format(decoder, type);
            const char* name = av_get_pix_fmt_name(format);
            surface = format == AV_PIX_FMT_NONE ? "" : name != nullptr ? name : "?";
        }
        CandidateState state = CandidateState::kNoDevice;
        if (decoder != nullptr && surface.empty()) {
            state = CandidateState::kNoConfig;
        } else if (decoder != nullptr && device.opened) {
            state = std::count(candidates.begin(), candidates.end(), type) > 0
                        ? CandidateState::kCandidate
                        : CandidateState::kOpenFailed;
        }
        codec.per_device.push_back(state);
        codec.hw_pix_fmt.push_back(surface);
    }
    return codec;
}

void print_devices(const ProbeReport& report, FILE* out) {
    fprintf(out, "Hardware device types, in the order the service tries them:\n");
    for (const DeviceProbe& d : report.devices) {
        if (d.opened) {
            fprintf(out, "  %-6s opens (default device)%s%s\n", d.name.c_str(),
                    d.driver.empty() ? "" : ": ", d.driver.c_str());
        } else {
            fprintf(out, "  %-6s cannot be opened: %s\n", d.name.c_str(), d.error.c_str());
        }
    }
    if (!report.other_types.empty()) {
        fprintf(out, "Other device types this FFmpeg knows (the service does not use them):");
        for (const std::string& t : report.other_types) {
            fprintf(out, " %s", t.c_str());
        }
        fprintf(out, "\n");
    }
}

void print_video_codecs(const ProbeReport& report, FILE* out) {
    fprintf(out, "\nVideo codecs of the service's table:\n");
    fprintf(out, "  %-3s %-11s %-11s", "#", "codec", "decoder");
    for (const DeviceProbe& d : report.devices) {
        fprintf(out, " %-12s", d.name.c_str());
    }
    fprintf(out, " decodes on\n");
    for (const CodecProbe& c : report.video) {
        fprintf(out, "  %-3d %-11s %-11s", c.index, c.name.c_str(),
                c.have_decoder ? c.decoder_name.c_str() : "(none)");
        for (CandidateState state : c.per_device) {
            fprintf(out, " %-12s", state_text(state));
        }
        fprintf(out, " %s\n", decodes_on(report, c).c_str());
    }
}

}  // namespace

const char* state_text(CandidateState state) {
    switch (state) {
        case CandidateState::kCandidate:
            return "candidate";
        case CandidateState::kNoDevice:
            return "no device";
        case CandidateState::kNoConfig:
            return "no support";
        case CandidateState::kOpenFailed:
            return "open failed";
    }
    return "?";
}

std::string decodes_on(const ProbeReport& report, const CodecProbe& codec) {
    if (!codec.have_decoder) {
        return "nothing: this FFmpeg has no decoder";
    }
    for (size_t d = 0; d < codec.per_device.size(); ++d) {
        if (codec.per_device[d] == CandidateState::kCandidate) {
            return report.devices[d].name + " (" + codec.hw_pix_fmt[d] +
                   "), if it takes the stream";
        }
    }
    return "software";
}

ProbeReport probe_host() {
    ProbeReport report;
    // Silence FFmpeg's own complaints while devices are tried; the report says what failed.
    const int level = av_log_get_level();
    av_log_set_level(AV_LOG_QUIET);
    std::vector<AVBufferRef*> devices;
    probe_devices(report, devices);
    const ProbedDevices lent(devices);
    for (int i = 0; i < VIDEO_CODEC_COUNT; ++i) {
        report.video.push_back(probe_codec(MEDIA_TYPE_VIDEO, i, report, lent));
    }
    for (int i = 0; i < AUDIO_CODEC_COUNT; ++i) {
        report.audio.push_back(probe_codec(MEDIA_TYPE_AUDIO, i, report, lent));
    }
    for (AVBufferRef*& device : devices) {
        av_buffer_unref(&device);
    }
    av_log_set_level(level);
    return report;
}

void print_probe(const ProbeReport& report, FILE* out) {
    fprintf(out, "FFmpeg: libavcodec %s, libavutil %s\n\n", AV_STRINGIFY(LIBAVCODEC_VERSION),
            AV_STRINGIFY(LIBAVUTIL_VERSION));
    print_devices(report, out);
    print_video_codecs(report, out);
    fprintf(out, "\nAudio codecs of the service's table (always decoded in software):\n");
    for (const CodecProbe& c : report.audio) {
        fprintf(out, "  %-3d %-11s %s\n", c.index, c.name.c_str(),
                c.have_decoder ? c.decoder_name.c_str() : "(no decoder in this FFmpeg)");
    }

    fprintf(out,
            "\ncandidate: the device opens, the decoder supports it and the context opens; the "
            "first packet\n"
            "           the candidate accepts makes it the decoder of the stream.\n"
            "no device: the decoder supports the device type, but its default device cannot be "
            "opened here.\n"
            "no support: the decoder has no configuration for the device type; where the device "
            "opens, the\n"
            "           service still makes a candidate, which never decodes.\n");
    if (std::none_of(report.devices.begin(), report.devices.end(),
                     [](const DeviceProbe& d) { return d.opened; })) {
        fprintf(out,
                "\nNo hardware device opens here: the service decodes everything in "
                "software.\n");
    }
}

}  // namespace mediatools
