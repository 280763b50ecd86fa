// media-probe --json: the report as one JSON object, for scripts and monitoring.

#include <string>

extern "C" {
#include <libavcodec/version.h>
#include <libavutil/version.h>
}

#include "tools/hw_probe.h"

namespace mediatools {

namespace {

// A JSON string: quoted, with quotes, backslashes and control characters escaped.
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

const char* boolean(bool value) {
    return value ? "true" : "false";
}

void print_devices(const ProbeReport& report, FILE* out) {
    fprintf(out, "  \"devices\": [\n");
    for (size_t i = 0; i < report.devices.size(); ++i) {
        const DeviceProbe& d = report.devices[i];
        fprintf(
            out,
            "    {\"type\": %s, \"known\": %s, \"opens\": %s, \"driver\": %s, \"error\": %s}%s\n",
            quoted(d.name).c_str(), boolean(d.known), boolean(d.opened), quoted(d.driver).c_str(),
            quoted(d.error).c_str(), i + 1 < report.devices.size() ? "," : "");
    }
    fprintf(out, "  ],\n");
}

void print_codecs(const ProbeReport& report, const std::vector<CodecProbe>& codecs, bool video,
                  FILE* out) {
    fprintf(out, "  \"%s\": [\n", video ? "video" : "audio");
    for (size_t i = 0; i < codecs.size(); ++i) {
        const CodecProbe& c = codecs[i];
        fprintf(out, "    {\"index\": %d, \"codec\": %s, \"decoder\": %s", c.index,
                quoted(c.name).c_str(), c.have_decoder ? quoted(c.decoder_name).c_str() : "null");
        if (video) {
            fprintf(out, ", \"devices\": {");
            for (size_t d = 0; d < c.per_device.size(); ++d) {
                fprintf(out, "%s%s: %s", d > 0 ? ", " : "", quoted(report.devices[d].name).c_str(),
                        quoted(state_text(c.per_device[d])).c_str());
            }
            fprintf(out, "}, \"decodes_on\": %s", quoted(decodes_on(report, c)).c_str());
        }
        fprintf(out, "}%s\n", i + 1 < codecs.size() ? "," : "");
    }
    fprintf(out, "  ]%s\n", video ? "," : "");
}

}  // namespace

void print_probe_json(const ProbeReport& report, bool confined, FILE* out) {
    fprintf(out, "{\n  \"confined\": %s,\n", boolean(confined));
    fprintf(out, "  \"ffmpeg\": {\"libavcodec\": \"%s\", \"libavutil\": \"%s\"},\n",
            AV_STRINGIFY(LIBAVCODEC_VERSION), AV_STRINGIFY(LIBAVUTIL_VERSION));
    print_devices(report, out);
    print_codecs(report, report.video, true, out);
    print_codecs(report, report.audio, false, out);
    fprintf(out, "}\n");
}

}  // namespace mediatools
