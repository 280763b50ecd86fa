#pragma once

// Command-line runs share one service, whatever the order in which they start and end.
//
// A run that finds nothing listening starts the service together with a session keeper: a small
// process of its own that registers as the service's session client and ends that session, which
// stops the service, once no run uses the service any more. A run that finds a service listening
// uses it and never registers a session: a service it did not start (the user unit's, or one that
// another run started) is left alone.
//
// Runs meet in open file description locks on "<socket>.lock":
//   byte 0: held exclusively while a run looks for the service and starts it, so that runs that
//           start together start one service;
//   byte 1: read-locked by each run for as long as it uses a service: its lease. The keeper waits
//           for a write lock, which it gets once the last lease is gone; it then ends the session
//           and waits for the service to exit before it lets go, so that a run arriving meanwhile
//           starts a fresh service instead of joining one that is stopping.
// The kernel drops a run's lease when the run ends, however it ends.

#include <string>

#include "base/unique_fd.h"

namespace mediatools {

class ServiceLease {
  public:
    ServiceLease() = default;
    ServiceLease(const ServiceLease&) = delete;
    ServiceLease& operator=(const ServiceLease&) = delete;
    ~ServiceLease() = default;  // closing the lock file gives the lease up

    // Takes a lease on the service at `socket_path`. When nothing listens there, starts the
    // service, unless `may_start` is false, and its session keeper, unless `keep_running` is true
    // (the service then runs until SIGTERM). May be called again after the service went away.
    // False with one line in `error` when there is no service to use.
    bool acquire(const std::string& socket_path, bool may_start, bool keep_running,
                 std::string* error);

    // Whether this run started the service it holds.
    bool started() const { return started_; }

  private:
    UniqueFd lock_;
    bool started_ = false;
};

}  // namespace mediatools
