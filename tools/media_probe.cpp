// media-probe: what the service's hardware decoding can use on this host.

#include <cstdio>
#include <cstring>

extern "C" {
#include <libavutil/log.h>
}

#include "base/log.h"
#include "service/confinement.h"
#include "tools/hw_probe.h"

namespace {

// The --help text.
void print_usage() {
    printf(
        "Usage: media-probe [--json]\n"
        "\n"
        "Tries the hardware device types the media service uses (vdpau, cuda, vaapi, in "
        "its order)\n"
        "on their default devices, and tells for each video codec of the service's table "
        "whether it\n"
        "would get a hardware candidate or be decoded in software, and why. Runs in this "
        "process,\n"
        "with the FFmpeg libraries the service links, confined first as a decoder worker "
        "is when it\n"
        "opens its devices, so that it reports what the service can open; the service "
        "need not run.\n"
        "Run it as the user the service runs as, in the service's environment (DISPLAY "
        "for VDPAU):\n"
        "device access depends on both. Each device that opens is reported with its "
        "driver, in the\n"
        "driver's own words (VA-API's vendor string, VDPAU's information string, the CUDA "
        "driver's\n"
        "version).\n"
        "\n"
        "--json  the same report as one JSON object: \"confined\", \"ffmpeg\", "
        "\"devices\" (type,\n"
        "        known, opens, driver, error), \"video\" (per codec: decoder, its state "
        "per device,\n"
        "        decodes_on) and \"audio\".\n"
        "\n"
        "To see what a running service decodes where, look at its worker processes (top,\n"
        "ps --ppid, /proc/PID/comm): each decoder client's worker is named after\n"
        "the client (its connection's number in the service log, \"client connect:\n"
        "sock#[N]\") and its work: \"decN\" without a decoder, \"decN h264 sw\" decoding\n"
        "in software, \"decN h264 vaapi\" on a device, \"decN aac\" for audio (15\n"
        "characters at most).\n");
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0) {
            json = true;
            continue;
        }
        if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            print_usage();
            return 0;
        }
        fprintf(stderr, "media-probe: unknown argument %s (see --help)\n", argv[i]);
        return 2;
    }
    av_log_set_level(AV_LOG_ERROR);
    // The confinement's own line would go to standard output with the report: its outcome is
    // the report's first line instead.
    SvcLogOff();
    // A worker starts inside the accepting process's policy and narrows it for its devices.
    const bool confined = confinement::confine(confinement::Stage::kAccepting) &&
                          confinement::confine(confinement::Stage::kWorkerDevices);
    const mediatools::ProbeReport report = mediatools::probe_host();
    if (json) {
        mediatools::print_probe_json(report, confined, stdout);
        return 0;
    }
    printf("%s\n", confined ? "probed as a confined decoder worker opens its devices"
                            : "probed NOT confined (this kernel lacks seccomp or Landlock, as "
                              "the service then does too)");
    mediatools::print_probe(report, stdout);
    return 0;
}
