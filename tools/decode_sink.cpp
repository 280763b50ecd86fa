#include "tools/decode_sink.h"

#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>

namespace mediatools {

namespace {

// A file that exists is only replaced when asked for (-y), as ffmpeg does; devices and pipes
// are written to.
FILE* open_file(const std::string& path, bool overwrite) {
    if (path == "-") {
        return stdout;
    }
    struct stat st;
    if (!overwrite && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
        fail(kExitError, "%s already exists (give -y to overwrite it)", path.c_str());
    }
    FILE* out = fopen(path.c_str(), "wbe");
    if (out == nullptr) {
        fail(kExitError, "cannot write %s: %s", path.c_str(), strerror(errno));
    }
    return out;
}

}  // namespace

DecodeSink::DecodeSink(const DecodeOptions& opt, const OutputShape& shape)
    : opt_(opt), shape_(shape), kind_(ContainerWriter::kind_of(opt.out_path)) {
    const std::string refusal =
        opt.framemd5 ? FrameMd5::refusal(shape) : ContainerWriter::refusal(kind_, shape);
    if (!refusal.empty()) {
        fail(kExitUsage, "%s", refusal.c_str());
    }
    if (!opt.out_path.empty()) {
        out_ = open_file(opt.out_path, opt.overwrite);
    }
}

DecodeSink::~DecodeSink() {
    if (out_ != nullptr && out_ != stdout) {
        fclose(out_);
    }
}

void DecodeSink::begin(const StreamInfo& info) {
    std::string error;
    if (opt_.md5) {
        printf("#%s stream %d: %s\n#packet, status, size, pts, md5\n",
               info.video ? "video" : "audio", info.kind_index, info.codec_name.c_str());
    } else if (opt_.framemd5 && !framemd5_.begin(shape_, &error)) {
        fail(kExitError, "%s", error.c_str());
    } else if (out_ != nullptr && !container_.begin(out_, kind_, shape_)) {
        fail(kExitError, "writing %s: %s", opt_.out_path.c_str(), strerror(errno));
    }
}

bool DecodeSink::write(long packet, const Answer& answer, const uint8_t* bytes,
                       std::string* error) {
    if (opt_.md5) {
        printf("%ld, %d, %u, %" PRId64 ", %s\n", packet, answer.status, answer.size, answer.pts,
               answer.size > 0 ? md5_hex(bytes, answer.size).c_str() : "-");
        return true;
    }
    if (answer.size == 0) {
        return true;
    }
    if (opt_.framemd5) {
        return framemd5_.write(bytes, answer.size, answer.pts, error);
    }
    if (out_ != nullptr && !container_.write(bytes, answer.size)) {
        *error = "writing " + opt_.out_path + ": " + strerror(errno);
        return false;
    }
    return true;
}

void DecodeSink::finish() {
    std::string error;
    if (opt_.framemd5 && !framemd5_.finish(&error)) {
        fail(kExitError, "%s", error.c_str());
    }
    FILE* out = out_;
    out_ = nullptr;
    if (out != nullptr && (!container_.finish() || (out != stdout && fclose(out) != 0))) {
        fail(kExitError, "writing %s: %s", opt_.out_path.c_str(), strerror(errno));
    }
}

}  // namespace mediatools
