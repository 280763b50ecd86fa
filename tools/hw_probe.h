#pragma once

// What the service's video setup would find on this host: which hardware device types open,
// and which codecs of its tables would get a hardware candidate.

#include <cstdio>
#include <string>
#include <vector>

namespace mediatools {

struct DeviceProbe {
    std::string name;     // "vdpau", "cuda", "vaapi"
    bool known = false;   // this FFmpeg was built with the type
    bool opened = false;  // its default device could be created
    std::string driver;   // which driver serves it, in its own words; empty when it does not say
    std::string error;    // why not
};

enum class CandidateState {
    kCandidate,   // device opens, the decoder has a configuration for it, the context opens
    kNoDevice,    // the device cannot be opened: no candidate
    kNoConfig,    // the decoder has no configuration for the type: a candidate that never decodes
    kOpenFailed,  // the hardware context does not open: no candidate
};

struct CodecProbe {
    int index = 0;
    std::string name;           // table name
    bool have_decoder = false;  // this FFmpeg has a decoder for it
    std::string decoder_name;
    std::vector<CandidateState> per_device;  // in device order (video only)
    std::vector<std::string> hw_pix_fmt;     // surface format per device, "" when none
};

struct ProbeReport {
    std::vector<DeviceProbe> devices;      // in the service's order
    std::vector<std::string> other_types;  // further device types this FFmpeg knows
    std::vector<CodecProbe> video;
    std::vector<CodecProbe> audio;
};

ProbeReport probe_host();
void print_probe(const ProbeReport& report, FILE* out);
// The same as one JSON object, for scripts; `confined` says whether the probe ran confined.
void print_probe_json(const ProbeReport& report, bool confined, FILE* out);
// What a codec would decode on: "vaapi (vaapi_vld), if it takes the stream", "software", "nothing:
// this FFmpeg has no decoder".
std::string decodes_on(const ProbeReport& report, const CodecProbe& codec);
const char* state_text(CandidateState state);

}  // namespace mediatools
