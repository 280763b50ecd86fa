#include "bench/bench.h"

#include <dirent.h>
#include <time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <utility>

#include "decoder/exchange_block.h"
#include "tools/proc_stat.h"
#include "client/service_link.h"

using namespace mediaclient;
using namespace mediatools;

namespace mediabench {

// ---- messages and small sums ----

void die(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("media-bench: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    exit(1);
}

void note(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("  .. ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
}

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double percentile(std::vector<double>& sorted, double p) {
    if (sorted.empty()) {
        return 0;
    }
    size_t rank = static_cast<size_t>(p * sorted.size() + 0.999999);
    return sorted[std::min(sorted.size(), std::max<size_t>(rank, 1)) - 1];
}

void check(mediaclient::ClientError e, const char* what) {
    if (e != mediaclient::ClientError::kOk) {
        die("%s: %s", what, mediaclient::error_text(e));
    }
}

void sleep_seconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// ---- the service ----

void connect_service(Service* s) {
    std::string error;
    if (!service_listening(s->socket)) {
        if (!start_service(s->socket, "", 5000, &error)) {
            die("%s", error.c_str());
        }
        s->started_here = true;
    }
    check(s->session.connect(s->socket), "registering the session client");
    check(s->session.start_answering(), "answering the session pings");
    s->pid = peer_pid(s->session.fd());
    if (s->pid <= 0) {
        die("cannot tell the service's process id");
    }
}

void disconnect_service(Service* s) {
    s->session.close();
    if (s->started_here && !stop_process(s->pid, 5000)) {
        fprintf(stderr, "media-bench: the service (pid %d) did not stop\n",
                static_cast<int>(s->pid));
    }
}

// ---- CPU time and affinity ----

double process_cpu(pid_t pid) {
    return service_stat(pid).cpu_s;
}

double thread_cpu() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

double own_process_cpu() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

void set_affinity(pid_t pid, const cpu_set_t& cpus) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return;
    }
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            sched_setaffinity(atoi(e->d_name), sizeof(cpus), &cpus);
        }
    }
    closedir(d);
}

// ---- the machine ----

std::string cpu_model() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("model name", 0) == 0) {
            size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    }
    return "unknown CPU";
}

double load_average() {
    double load = -1;
    FILE* f = fopen("/proc/loadavg", "re");
    if (f != nullptr) {
        if (fscanf(f, "%lf", &load) != 1) {
            load = -1;
        }
        fclose(f);
    }
    return load;
}

// ---- decoding the clip ----

mediaclient::VideoInitParams video_params(const Stream& clip, int pix_fmt) {
    return video_init_params(clip.info, clip.info.width, clip.info.height, pix_fmt);
}

void init_video(mediaclient::DecoderClient& client, const Stream& clip, int pix_fmt) {
    ExchangeResult r{};
    check(client.init_video(static_cast<uint32_t>(video_codec_index(clip.info.codec_name)),
                            video_params(clip, pix_fmt), clip.info.extradata.data(),
                            clip.info.extradata.size(), &r),
          "video init");
    if (r.status != STATUS_OK) {
        die("the service could not set up the video decoder");
    }
}

void init_video(InProcessDecoder& decoder, const Stream& clip, int pix_fmt) {
    if (!decoder.init_video(clip.info.codec_id, video_params(clip, pix_fmt), clip.info.extradata)) {
        die("the in-process video decoder could not be set up");
    }
}

DecodeOne through_service(mediaclient::DecoderClient& client) {
    return [&client](const Packet& p) {
        ExchangeResult r{};
        check(client.decode_frame(p.data.data(), p.data.size(), p.pts_us, &r), "decode");
        return answer_of(r);
    };
}

long count_outputs(const Stream& clip, size_t from, size_t to, const DecodeOne& decode) {
    long outputs = 0;
    for (size_t i = from; i < std::min(to, clip.packets.size()); ++i) {
        const Answer a = decode(clip.packets[i]);
        outputs += a.status == STATUS_OK && a.size > 0;
    }
    return outputs;
}

// ---- the table ----

namespace {

std::vector<Row> rows;

}  // namespace

void add_row(Row row) {
    rows.push_back(std::move(row));
}

std::string fmt(const char* f, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof(buf), f, ap);
    va_end(ap);
    return buf;
}

std::string verdict(bool met, const std::string& target) {
    return target + (met ? " (met)" : " (MISSED)");
}

void print_table() {
    size_t w[5] = {0, 0, 0, 0, 0};
    const Row header{"measurement", "service", "baseline", "ratio", "target"};
    std::vector<Row> all = {header};
    all.insert(all.end(), rows.begin(), rows.end());
    for (const Row& r : all) {
        w[0] = std::max(w[0], r.what.size());
        w[1] = std::max(w[1], r.service.size());
        w[2] = std::max(w[2], r.baseline.size());
        w[3] = std::max(w[3], r.ratio.size());
        w[4] = std::max(w[4], r.target.size());
    }
    auto line = [&](const Row& r) {
        printf("| %-*s | %*s | %-*s | %*s | %-*s |\n", static_cast<int>(w[0]), r.what.c_str(),
               static_cast<int>(w[1]), r.service.c_str(), static_cast<int>(w[2]),
               r.baseline.c_str(), static_cast<int>(w[3]), r.ratio.c_str(), static_cast<int>(w[4]),
               r.target.c_str());
    };
    line(header);
    printf("|%s|%s|%s|%s|%s|\n", std::string(w[0] + 2, '-').c_str(),
           std::string(w[1] + 2, '-').c_str(), std::string(w[2] + 2, '-').c_str(),
           std::string(w[3] + 2, '-').c_str(), std::string(w[4] + 2, '-').c_str());
    for (const Row& r : rows) {
        line(r);
    }
}

}  // namespace mediabench
