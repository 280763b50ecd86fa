// Video throughput through the service, to yuv420p and to rgba, against the service's own decoding
// in-process: what the transport costs.

#include <memory>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include "bench/bench.h"
#include "bench/race.h"
#include "bench/sections.h"
#include "bench/targets.h"

using namespace mediatools;

namespace mediabench {

namespace {

Contender service_video(Service& s, mediaclient::DecoderClient& client, const Stream& clip,
                        int pix_fmt) {
    Contender c;
    c.reset = [&client, &clip, pix_fmt] { init_video(client, clip, pix_fmt); };
    c.run = [&clip, decode = through_service(client)](size_t from, size_t to) {
        return count_outputs(clip, from, to, decode);
    };
    const pid_t pid = s.pid;
    c.cpu = [pid] { return process_cpu(pid) + thread_cpu(); };
    return c;
}

Contender local_video(std::unique_ptr<InProcessDecoder>& decoder, const Stream& clip, int pix_fmt) {
    Contender c;
    c.reset = [&decoder, &clip, pix_fmt] {
        decoder.reset(new InProcessDecoder());
        init_video(*decoder, clip, pix_fmt);
    };
    c.run = [&clip, decode = in_process(decoder)](size_t from, size_t to) {
        return count_outputs(clip, from, to, decode);
    };
    c.cpu = thread_cpu;
    return c;
}

}  // namespace

void bench_video(Service& s, const Stream& clip, int runs) {
    for (int pix_fmt : {static_cast<int>(AV_PIX_FMT_YUV420P), static_cast<int>(AV_PIX_FMT_RGBA)}) {
        const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(pix_fmt));
        mediaclient::DecoderClient client;
        check(client.connect_posix(s.socket), "decoder client");
        std::unique_ptr<InProcessDecoder> decoder;
        Contender service = service_video(s, client, clip, pix_fmt);
        Contender local = local_video(decoder, clip, pix_fmt);
        race({&service, &local}, clip.packets.size(), 10, runs);

        const double sv = service.per_second(), lo = local.per_second();
        note("%s: service %.1f fps, in-process %.1f", name, sv, lo);
        const int h = clip.info.height;
        add_row({fmt("%dp H.264 -> %s, against in-process", h, name), fmt("%.1f fps", sv),
                 fmt("%.1f fps", lo), fmt("%.3f", sv / lo),
                 verdict(sv / lo >= kVideoAgainstInProcess.limit, kVideoAgainstInProcess.text)});
        add_row({fmt("%dp H.264 -> %s, CPU per picture (service + client)", h, name),
                 fmt("%.2f ms", service.cpu_per_output_ms()),
                 fmt("%.2f ms in-process", local.cpu_per_output_ms()),
                 fmt("%.3f", local.cpu_per_output_ms() / service.cpu_per_output_ms()), ""});
    }
}

}  // namespace mediabench
