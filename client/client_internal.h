#pragma once

// What the client library's files share and do not install: system-call loops, error texts, and
// the checks of request parameters.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "client/media_client.h"

namespace mediaclient {
namespace internal {

// The most descriptors a record sends or a ping brings.
constexpr size_t kMaxPassedFds = 16;
// The service reads at most 256 bytes of a signal; a sync msg or ping is one byte.
constexpr size_t kSignalBufferSize = 256;

ssize_t read_retry(int fd, void* buf, size_t size);
ssize_t send_retry(int fd, const void* buf, size_t size);

// The peer closing with our bytes still unread shows as a reset rather than end of file.
bool is_disconnect_errno(int err);

// "<doing>: <strerror(err)>", with a hint where the error has a usual cause.
std::string system_error_text(const std::string& doing, int err);
// The text of an error met while `doing`: the system error `err` for kSystem, the refusal itself
// (in `doing`) for kInvalidArgument.
std::string error_text_of(ClientError error, const std::string& doing, int err);

// The checks of a request's parameters against what the service can honour: each returns ""
// when the service can answer the request, else why it cannot ("out_width 0: ...").
std::string video_init_refusal(uint32_t codec_index, const VideoInitParams& params);
std::string audio_init_refusal(uint32_t codec_index, const AudioInitParams& params);
std::string video_output_refusal(int32_t width, int32_t height, const PixelFormat& format);
std::string audio_output_refusal(const SampleFormat& format, int32_t channels);
// Bytes for an area of the block: `what` ("packet", "configuration bytes") of `size` bytes.
std::string data_refusal(const char* what, size_t size, bool empty_allowed);

}  // namespace internal
}  // namespace mediaclient
