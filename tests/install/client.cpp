// A client built outside the source tree, with the installed headers and library only: it
// registers a decoder client on the default socket, opens an MP2 decoder and destroys it.
#include <cstdio>
#include <cstring>

#include <media_client.h>

namespace {

int audio_codec_index(const char* name) {
    for (int i = 0; i < AUDIO_CODEC_COUNT; ++i) {
        if (std::strcmp(AUDIO_CODEC_NAMES[i], name) == 0) {
            return i;
        }
    }
    return -1;
}

int fail(const char* step, mediaclient::ClientError error) {
    std::fprintf(stderr, "%s: %s\n", step, mediaclient::error_text(error));
    return 1;
}

}  // namespace

int main() {
    using mediaclient::ClientError;
    mediaclient::DecoderClient client;
    ClientError error = client.connect_posix();
    if (error != ClientError::kOk) {
        return fail("connect", error);
    }
    mediaclient::AudioInitParams params;
    params.in_channels = 2;
    params.in_sample_rate = 48000;
    ExchangeResult result{};
    error = client.init_audio(audio_codec_index("mp2"), params, nullptr, 0, &result);
    if (error != ClientError::kOk) {
        return fail("init", error);
    }
    if (result.status != STATUS_OK) {
        std::fprintf(stderr, "init: status %d\n", result.status);
        return 1;
    }
    error = client.destroy();
    if (error != ClientError::kOk) {
        return fail("destroy", error);
    }
    std::printf("mp2 decoder opened and destroyed through %s\n",
                mediaclient::default_socket_path().c_str());
    return 0;
}
