#pragma once

// The entry of a decoder client's worker process (server/worker_launch.h starts it): argv is
// {program, "--decoder-worker", client number, "ashmem" or "posix", the service's memory budget}.
// Returns the exit status.
int run_decoder_worker(int argc, char** argv);
