// Video throughput through the service, to yuv420p and to rgba, against a plain in-process decode
// + conversion and against the same work in-process as the service did it.

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

Contender local_video(std::unique_ptr<LocalVideoDecoder>& decoder, const Stream& clip, int pix_fmt,
                      LocalVideoDecoder::Output mode) {
    Contender c;
    c.reset = [&decoder, &clip, pix_fmt, mode] {
        decoder.reset(new LocalVideoDecoder());
        open_local(*decoder, clip, pix_fmt, mode);
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
        std::unique_ptr<LocalVideoDecoder> same_decoder, plain_decoder;
        Contender service = service_video(s, client, clip, pix_fmt);
        Contender same =
            local_video(same_decoder, clip, pix_fmt, LocalVideoDecoder::Output::kLikeService);
        Contender plain =
            local_video(plain_decoder, clip, pix_fmt, LocalVideoDecoder::Output::kScaleOnly);
        race({&service, &same, &plain}, clip.packets.size(), 10, runs);

        const double sv = service.per_second(), sm = same.per_second(), pl = plain.per_second();
        note("%s: service %.1f fps, decode+convert %.1f, same work %.1f", name, sv, pl, sm);
        const int h = clip.info.height;
        add_row({fmt("%dp H.264 -> %s, against in-process decode + convert", h, name),
                 fmt("%.1f fps", sv), fmt("%.1f fps", pl), fmt("%.3f", sv / pl),
                 verdict(sv / pl >= kVideoAgainstPlain.limit, kVideoAgainstPlain.text)});
        add_row({fmt("%dp H.264 -> %s, same work in-process, area written", h, name),
                 fmt("%.1f fps", sv), fmt("%.1f fps", sm), fmt("%.3f", sv / sm),
                 verdict(sv / sm >= kVideoAgainstSameWork.limit, kVideoAgainstSameWork.text)});
        add_row({fmt("%dp H.264 -> %s, CPU per picture (service + client)", h, name),
                 fmt("%.2f ms", service.cpu_per_output_ms()),
                 fmt("%.2f ms decode + convert", plain.cpu_per_output_ms()),
                 fmt("%.3f", plain.cpu_per_output_ms() / service.cpu_per_output_ms()), ""});
    }
}

}  // namespace mediabench
