// The round trip of a request that decodes nothing, against a bare ping-pong between two
// processes, and the CPU time both sides spend per request.

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "bench/bench.h"
#include "bench/sections.h"
#include "bench/targets.h"
#include "protocol/media_protocol.h"

using namespace mediaclient::protocol;

namespace mediabench {

namespace {

struct RoundTrips {
    std::vector<double> service_us, bare_us;  // sorted once measured
    double service_cpu = 0, bare_cpu = 0;     // seconds, both sides
};

// Empty requests through the service and bare ping-pongs take turns, 100 at a time; the first
// tenth is warm-up.
RoundTrips measure_round_trips(Service& s, mediaclient::DecoderClient& client, int ping_fd,
                               pid_t ping_child, int count) {
    RoundTrips rt;
    const int block = 100;
    for (int done = 0; done < count / 10 + count; done += block) {
        const bool counted = done >= count / 10;
        double cpu0 = process_cpu(s.pid) + thread_cpu();
        for (int i = 0; i < block; ++i) {
            auto t0 = Clock::now();
            check(client.call(), "round trip");
            if (counted) {
                rt.service_us.push_back(seconds_since(t0) * 1e6);
            }
        }
        if (counted) {
            rt.service_cpu += process_cpu(s.pid) + thread_cpu() - cpu0;
        }
        cpu0 = process_cpu(ping_child) + thread_cpu();
        for (int i = 0; i < block; ++i) {
            char byte = 'D';
            auto t0 = Clock::now();
            if (write(ping_fd, &byte, 1) != 1 || read(ping_fd, &byte, 1) != 1) {
                die("ping-pong: %s", strerror(errno));
            }
            if (counted) {
                rt.bare_us.push_back(seconds_since(t0) * 1e6);
            }
        }
        if (counted) {
            rt.bare_cpu += process_cpu(ping_child) + thread_cpu() - cpu0;
        }
    }
    std::sort(rt.service_us.begin(), rt.service_us.end());
    std::sort(rt.bare_us.begin(), rt.bare_us.end());
    return rt;
}

// Bare ping-pong: one byte each way over a sequenced-packet socket pair between two processes,
// blocking reads on both sides. Returns the child that answers; *fd is this side's end.
pid_t start_ping_pong(int* fd) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0) {
        die("socketpair: %s", strerror(errno));
    }
    pid_t child = fork();
    if (child < 0) {
        die("fork: %s", strerror(errno));
    }
    if (child == 0) {
        close(sv[0]);
        char byte;
        while (read(sv[1], &byte, 1) == 1) {
            if (write(sv[1], &byte, 1) != 1) {
                break;
            }
        }
        _exit(0);
    }
    close(sv[1]);
    *fd = sv[0];
    return child;
}

// The first CPU of `all`, alone.
cpu_set_t first_cpu(const cpu_set_t& all) {
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &all)) {
            CPU_SET(cpu, &one);
            break;
        }
    }
    return one;
}

void add_round_trip_rows(RoundTrips& free_rt, RoundTrips& pinned_rt) {
    const size_t n = free_rt.service_us.size();
    const double s50 = percentile(free_rt.service_us, 0.5), b50 = percentile(free_rt.bare_us, 0.5);
    const double s99 = percentile(free_rt.service_us, 0.99);
    const double b99 = percentile(free_rt.bare_us, 0.99);
    const double p50 = percentile(pinned_rt.service_us, 0.5);
    const double q50 = percentile(pinned_rt.bare_us, 0.5);
    const double cpu = free_rt.service_cpu * 1e6 / n;
    add_row({fmt("round trip, empty request, median (%zu)", n), fmt("%.1f us", s50),
             fmt("ping-pong %.1f us", b50), fmt("%.2fx", s50 / b50),
             verdict(s50 <= kRoundTripMedian.limit * b50, kRoundTripMedian.text)});
    add_row({"round trip, 99th percentile", fmt("%.1f us", s99), fmt("ping-pong %.1f us", b99),
             fmt("%.2fx", s99 / b99),
             verdict(s99 <= kRoundTripP99.limit * b99, kRoundTripP99.text)});
    add_row({"round trip, median, every thread on one CPU", fmt("%.1f us", p50),
             fmt("ping-pong %.1f us", q50), fmt("%.2fx", p50 / q50), ""});
    add_row({"round trip, CPU per request (service + client)", fmt("%.1f us", cpu),
             fmt("ping-pong %.1f us", free_rt.bare_cpu * 1e6 / n),
             fmt("%.2fx", free_rt.service_cpu / free_rt.bare_cpu),
             verdict(free_rt.service_cpu <= kRoundTripCpu.limit * free_rt.bare_cpu,
                     kRoundTripCpu.text)});
}

}  // namespace

void bench_round_trip(Service& s, int count) {
    // Service: a flush on a client without a decoder executes nothing but the dispatch.
    mediaclient::DecoderClient client;
    check(client.connect_posix(s.socket), "decoder client");
    check(client.write_request_type(REQUEST_FLUSH), "request");
    check(client.call(), "round trip");  // the worker exists from here on

    int ping_fd = -1;
    const pid_t child = start_ping_pong(&ping_fd);
    RoundTrips free_rt = measure_round_trips(s, client, ping_fd, child, count);
    // Every thread of both pairs on the first CPU this process may use: no wake-up crosses CPUs.
    cpu_set_t all;
    sched_getaffinity(0, sizeof(all), &all);
    const cpu_set_t one = first_cpu(all);
    for (pid_t pid : {s.pid, child, getpid()}) {
        set_affinity(pid, one);
    }
    RoundTrips pinned_rt = measure_round_trips(s, client, ping_fd, child, count / 4);
    for (pid_t pid : {s.pid, child, getpid()}) {
        set_affinity(pid, all);
    }
    close(ping_fd);
    waitpid(child, nullptr, 0);
    client.close();
    add_round_trip_rows(free_rt, pinned_rt);
}

}  // namespace mediabench
