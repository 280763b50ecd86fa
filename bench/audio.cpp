// Audio (AAC 48 kHz stereo) to s16 44.1 kHz stereo as a real-time factor, through the service and
// in-process.

#include <memory>
#include <string>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include "bench/bench.h"
#include "bench/race.h"
#include "bench/sections.h"
#include "bench/targets.h"
#include "protocol/media_protocol.h"

using namespace mediatools;
using namespace mediaclient::protocol;

namespace mediabench {

void bench_audio(Service& s, const Stream& clip, int runs) {
    const int out_fmt = AV_SAMPLE_FMT_S16, out_channels = 2, out_rate = 44100;
    mediaclient::DecoderClient client;
    check(client.connect_posix(s.socket), "decoder client");
    std::unique_ptr<InProcessDecoder> local_decoder;

    Contender service;
    const mediaclient::AudioInitParams params =
        audio_init_params(clip.info, out_fmt, out_channels, out_rate);
    service.reset = [&] {
        ExchangeResult r{};
        check(client.init_audio(static_cast<uint32_t>(audio_codec_index(clip.info.codec_name)),
                                params, clip.info.extradata.data(), clip.info.extradata.size(), &r),
              "audio init");
        if (r.status != STATUS_OK) {
            die("the service could not set up the audio decoder");
        }
    };
    service.run = [&clip, decode = through_service(client)](size_t from, size_t to) {
        return count_outputs(clip, from, to, decode);
    };
    const pid_t pid = s.pid;
    service.cpu = [pid] { return process_cpu(pid) + thread_cpu(); };

    Contender local;
    local.reset = [&] {
        local_decoder.reset(new InProcessDecoder());
        if (!local_decoder->init_audio(clip.info.codec_id, params, clip.info.extradata)) {
            die("the in-process audio decoder could not be set up");
        }
    };
    local.run = [&clip, decode = in_process(local_decoder)](size_t from, size_t to) {
        return count_outputs(clip, from, to, decode);
    };
    local.cpu = thread_cpu;

    race({&service, &local}, clip.packets.size(), 100, runs);
    // Media seconds decoded per second of wall time.
    const double media = clip.info.duration_us / 1e6 * runs;
    const double sv = media / service.secs, lo = media / local.secs;
    add_row({fmt("AAC %d Hz %d ch -> s16 44100 Hz 2 ch, x real time", clip.info.sample_rate,
                 clip.info.channels),
             fmt("%.0fx", sv), fmt("%.0fx in-process", lo), fmt("%.3f", sv / lo),
             verdict(sv / lo >= kAudioAgainstInProcess.limit, kAudioAgainstInProcess.text)});
    const double scpu = service.cpu_secs * 1e6 / service.packets;
    const double lcpu = local.cpu_secs * 1e6 / local.packets;
    add_row({"AAC, CPU per packet (service + client)", fmt("%.0f us", scpu),
             fmt("%.0f us in-process", lcpu), fmt("%.3f", lcpu / scpu), ""});
}

}  // namespace mediabench
