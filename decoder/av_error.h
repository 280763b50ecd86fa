#pragma once

// FFmpeg's text for an error code, as every FFmpeg failure line of the service prints it (a buffer
// of 64 bytes), and as the tools print it too.

extern "C" {
#include <libavutil/error.h>
}

struct AvErrorText {
    explicit AvErrorText(int err) { av_strerror(err, text, sizeof(text)); }
    char text[64];
};
