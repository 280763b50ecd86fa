// A client built outside the source tree with the installed headers and library only: it
// registers a decoder client on the default socket, opens an MP2 decoder and destroys it.
#include <cstdio>

#include <media_client.h>

int main() {
    mediaclient::DecoderClient client;
    mediaclient::AudioInitParams params;
    params.in_channels = 2;
    params.in_sample_rate = 48000;
    ExchangeResult result{};
    if (client.connect_posix() != mediaclient::ClientError::kOk ||
        client.init_audio(5, params, nullptr, 0, &result) != mediaclient::ClientError::kOk ||
        result.status != STATUS_OK || client.destroy() != mediaclient::ClientError::kOk) {
        std::fprintf(stderr, "no %s decoder through %s\n", AUDIO_CODEC_NAMES[5],
                     mediaclient::default_socket_path().c_str());
        return 1;
    }
    return 0;
}
