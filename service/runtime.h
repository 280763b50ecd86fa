#pragma once

#include <memory>

#include <ev++.h>

#include "server/media_server.h"

// The process: the default event loop, the signals that end it, and the one media server.
// Members are destroyed in reverse order: the server (with every client and decoder) first, then
// the signal watchers, then the loop wrapper.
class Runtime {
  public:
    Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;
    ~Runtime();

    // Runs the loop until a stop request breaks it.
    void run();

  private:
    // Spelled "singal": the name is part of the service's documented interface.
    void on_singal_event(ev::sig& watcher, int revents);
    void set_memory_budget();

    // All of it on the main thread, the loop's.
    std::unique_ptr<ev::default_loop> loop_;
    std::unique_ptr<ev::sig> sigterm_watcher_;
    std::unique_ptr<ev::sig> sigint_watcher_;
    std::unique_ptr<ev::sig> sighup_watcher_;
    std::unique_ptr<MediaServer> media_server_;
};
