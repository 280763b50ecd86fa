#pragma once

// What /proc tells about a process: for the benchmarks' figures and the tests' leak checks.

#include <sys/types.h>

namespace mediatools {

// 0 where it cannot be read (the process ended).
struct ProcStat {
    char state = 0;  // R, S, D, Z, ...
    int fds = 0;
    int threads = 0;
    long vm_kb = 0;
    long rss_kb = 0, rss_anon_kb = 0, rss_file_kb = 0, rss_shmem_kb = 0;
    // Proportional set size: pages shared with other processes (libraries, a block) counted in
    // parts.
    long pss_kb = 0;
    // Scheduler run time of its threads alive now, in seconds (nanosecond resolution), and of
    // its main thread alone.
    double cpu_s = 0, main_cpu_s = 0;
};
ProcStat proc_stat(pid_t pid);
// The service: the process `pid` and its child processes (its decoder clients' workers), summed.
ProcStat service_stat(pid_t pid);

}  // namespace mediatools
