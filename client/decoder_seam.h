#pragma once

// The steps of a decoder client that only the tests of the service's own answers need: requests
// the library would refuse, raw setups with any media type, a marked result area, doorbells of
// any length. Not installed: a client has no use for them.

#include <array>
#include <cstddef>
#include <cstdint>

#include "client/media_client.h"

namespace mediaclient {

class DecoderClientSeam {
  public:
    // Off: requests the service can only fail go out as given (data larger than its area is
    // refused either way).
    static void check_requests(DecoderClient& c, bool on) { c.check_requests(on); }
    // Overwrites the result area, to see whether a request wrote it.
    static void set_result(DecoderClient& c, const ExchangeResult& r) { c.set_result(r); }
    // Any media type and codec row with raw parameters: never checked beyond the data's size.
    static ClientError write_init(DecoderClient& c, uint32_t media_type, uint32_t codec_index,
                                  const std::array<int32_t, 7>& params) {
        return c.write_init(media_type, codec_index, params);
    }
    // Rings the doorbell with a record of `bytes` bytes (at least 1).
    static ClientError ring(DecoderClient& c, size_t bytes) { return c.ring(bytes); }
};

}  // namespace mediaclient
