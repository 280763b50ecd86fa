#pragma once

// Starting a decoder client's worker: a fresh process of the service's own program, re-executed
// (not merely forked) so that it gets an address layout of its own and none of the accepting
// process's memory, and holding only its client's connection, its block and its control
// connection, at fixed descriptor numbers.

#include <sys/types.h>

#include <cstdint>

#include "base/unique_fd.h"

namespace worker_launch {

// argv[1] of a worker; the service itself takes no arguments.
constexpr const char* kWorkerArgument = "--decoder-worker";
// Where a worker finds what it holds; the program's descriptor, which it closes at once, after
// them.
constexpr int kClientFd = 3, kBlockFd = 4, kControlFd = 5, kProgramFd = 6;

struct Launch {
    int program = -1;  // the service's program, opened at start (an upgrade on disk cannot mix)
    int client = -1;   // the client's connection
    int block = -1;    // its shared memory
    int control = -1;  // the worker's end of the control connection
    int client_number = -1;
    bool is_ashmem = false;
    int64_t budget = 0;  // the service's memory budget, which no setup may exceed
};

// The worker's pid, or -1 with errno set when no process could be made.
pid_t launch(const Launch& launch);

// Opens the running program for launch(): -1 when it cannot be opened.
UniqueFd open_own_program();

}  // namespace worker_launch
