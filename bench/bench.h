#pragma once

// What every section of media-bench shares: messages, the service it measures, CPU accounting,
// the two ways of decoding a packet that the figures compare, and the result table.

#include <sched.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/media_client.h"
#include "tools/in_process.h"
#include "tools/media_file.h"

namespace mediabench {

using Clock = std::chrono::steady_clock;

// ---- messages and small sums ----

[[noreturn]] void die(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// A progress line on standard error; the table alone goes to standard output.
void note(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
double seconds_since(Clock::time_point start);
// The p-quantile (0..1) of an ascending vector, by nearest rank; 0 when empty.
double percentile(std::vector<double>& sorted, double p);
void check(mediaclient::ClientError e, const char* what);
void sleep_seconds(double seconds);

// ---- the service ----

struct Service {
    std::string socket;
    bool started_here = false;
    pid_t pid = -1;
    mediaclient::SessionClient session;
};

// Registers the session client, after starting the service when none listens on s->socket.
void connect_service(Service* s);
// Closes the session and stops the service when this process started it.
void disconnect_service(Service* s);

// ---- CPU time and affinity ----

// CPU time of every thread of a process, in seconds. Threads that end in between are lost, so
// measure while the clients stay connected.
double process_cpu(pid_t pid);
double thread_cpu();
double own_process_cpu();
// Sets the CPU affinity of every thread of process `pid`.
void set_affinity(pid_t pid, const cpu_set_t& cpus);

// ---- the machine ----

std::string cpu_model();
// The 1-minute load average; -1 when unknown.
double load_average();

// ---- decoding the clip ----

// Every figure decodes the clip at its own size.
mediaclient::VideoInitParams video_params(const mediatools::Stream& clip, int pix_fmt);
void init_video(mediaclient::DecoderClient& client, const mediatools::Stream& clip, int pix_fmt);
void init_video(mediatools::InProcessDecoder& decoder, const mediatools::Stream& clip, int pix_fmt);

// Decodes one packet, through the service or in-process, and returns the answer.
using DecodeOne = std::function<mediatools::Answer(const mediatools::Packet& packet)>;

DecodeOne through_service(mediaclient::DecoderClient& client);

// The decoder is looked up per packet: contenders replace it when they start the clip again.
template <typename Decoder>
DecodeOne in_process(const std::unique_ptr<Decoder>& decoder) {
    return [&decoder](const mediatools::Packet& p) {
        return decoder->decode(p.data.data(), static_cast<int>(p.data.size()), p.pts_us);
    };
}

// Decodes packets [from, to) of the clip; returns the answers that delivered output.
long count_outputs(const mediatools::Stream& clip, size_t from, size_t to, const DecodeOne& decode);

// ---- the table ----

struct Row {
    std::string what, service, baseline, ratio, target;
};

// Rows print in the order they are added.
void add_row(Row row);
std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));
// The target text with whether the figure met it.
std::string verdict(bool met, const std::string& target);
void print_table();

}  // namespace mediabench
