#pragma once

// An in-process MediaServer on the default loop, as the daemon runs it, with a private socket
// directory, and the client side of its connections. One server per fuzz input, so that no state
// (a registered session, a decoder) carries over from one input to the next.

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "server/media_server.h"

// What a record carries besides its bytes (the ancillary byte of the fuzz inputs, low 3 bits).
enum FdKind : uint8_t {
    kNoFd = 0,
    kBlockMemfd = 1,  // a memfd of SHM_BLOCK_SIZE bytes (an ashmem region to the service)
    kSmallMemfd = 2,  // a memfd of one page
    kDevNull = 3,
    kPipe = 4,
    kTwoFds = 5,
    kThreeFds = 6,
    kShmObject = 7,  // the kFuzzShmName object
};

struct Credentials {
    pid_t pid;
    uid_t uid;
    gid_t gid;
};

class ServerFixture {
  public:
    ServerFixture();
    ~ServerFixture();

    void start_server();
    // stop() as the runtime's signal handler calls it, then destruction as the runtime does it.
    void stop_server();
    MediaServer* server() { return server_.get(); }

    // Lets libev run what is due without blocking: accepts, handshakes, doorbells, purges.
    static void drain();

    // A connected client socket (non-blocking), or -1.
    int connect_client() const;

    // One record with the given descriptors and, when `creds` is not null, explicit credentials.
    // Never raises SIGPIPE. Returns sendmsg's result.
    static ssize_t send_record(int fd, const void* data, size_t size, FdKind kind,
                               const Credentials* creds);

  private:
    std::string dir_;
    std::string socket_path_;
    std::unique_ptr<MediaServer> server_;
};
