// media-probe: what the service's hardware decoding can use on this host.

#include <cstdio>
#include <cstring>

extern "C" {
#include <libavutil/log.h>
}

#include "tools/hw_probe.h"

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            printf(
                "Usage: media-probe\n"
                "\n"
                "Tries the hardware device types the media service uses (vdpau, cuda, vaapi, in "
                "its order)\n"
                "on their default devices, and tells for each video codec of the service's table "
                "whether it\n"
                "would get a hardware candidate or be decoded in software, and why. Runs in this "
                "process,\n"
                "with the FFmpeg libraries the service links; the service need not run. Run it as "
                "the user\n"
                "the service runs as: device access depends on permissions.\n"
                "\n"
                "To see what a running service decodes where, look at its threads (top -H,\n"
                "ps -L, /proc/PID/task/*/comm): each decoder client's worker is named after\n"
                "the client (its connection's number in the service log, \"client connect:\n"
                "sock#[N]\") and its work: \"decN\" without a decoder, \"decN h264 sw\" decoding\n"
                "in software, \"decN h264 vaapi\" on a device, \"decN aac\" for audio (15\n"
                "characters at most).\n");
            return 0;
        }
        fprintf(stderr, "media-probe: unknown argument %s (see --help)\n", argv[i]);
        return 2;
    }
    av_log_set_level(AV_LOG_ERROR);
    mediatools::print_probe(mediatools::probe_host(), stdout);
    return 0;
}
