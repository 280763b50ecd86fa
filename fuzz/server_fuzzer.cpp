// Whole clients against a real MediaServer on the default loop, as the daemon runs it: records
// with arbitrary ancillary data on pending connections (the client type msg), then, on the
// connections that registered as decoder clients, requests in their blocks, doorbells of any
// length at any moment, waits for the sync msg and disconnects. One server per input, so that no
// session or decoder carries over. Its decoder clients are served by worker processes of the
// service's own program, as in the daemon: a worker that ends by a signal or with a failure status
// (a sanitizer's report) fails the input.
//
// Input: at most kMaxOps operations, each u8 op % 5 and its arguments:
//   0 connect  a new connection (ignored while kMaxClients are open)
//   1 send     u8 client, u8 ancillary, u16 length % kMaxRecord, that many bytes; ancillary % 8
//              picks the descriptors (kFdKinds), ancillary & 8 adds explicit credentials:
//              u32 pid (0: own), u32 uid, u32 gid (0xffffffff: own). To a registered decoder
//              client this is a doorbell (an empty record ends it), to the session a ping answer.
//   2 close    u8 client
//   3 call     u8 client, one request of the exchange block input (read_request), written into
//              a decoder client's block unless a sync msg is still due; then a one-byte doorbell
//   4 wait     u8 client: waits for the sync msg that is due (a worker that a request ended answers
//              no more: the wait ends after a bound)
// After every operation the loop runs what is due.

// The host has no ashmem driver: the test hooks answer its size request on memfds, which stand in
// for ashmem regions.
#include "support/testhooks.c"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <ev++.h>

extern "C" {
#include <libavutil/log.h>
}

#include "base/log.h"
#include "client/media_client.h"
#include "server/media_server.h"

using namespace mediaclient::protocol;

namespace {

constexpr int kMaxOps = 64;
constexpr size_t kMaxClients = 6;
constexpr size_t kMaxRecord = 600;
// A POSIX shared memory object of SHM_BLOCK_SIZE bytes for type 3 clients; the seeds name it.
constexpr const char* kShmName = "/svc-fuzz-block";

// The descriptors a record carries, by ancillary % 8, one letter each: B a memfd of a block's size
// (an ashmem region to the service), s a one-page memfd, n /dev/null, p a pipe, S kShmName.
constexpr const char* kFdKinds[8] = {"", "B", "s", "n", "p", "Bn", "nnn", "S"};

// Reads the input front to back. Past its end numbers read as zero and byte runs come out short,
// so that every input means something.
class FuzzReader {
  public:
    FuzzReader(const uint8_t* data, size_t size) : data_(data), left_(size) {}
    bool empty() const { return left_ == 0; }
    uint8_t u8() { return left_ == 0 ? 0 : (--left_, *data_++); }
    uint16_t u16() {
        uint16_t low = u8();
        return static_cast<uint16_t>(low | u8() << 8);
    }
    uint32_t u32() {
        uint32_t low = u16();
        return low | static_cast<uint32_t>(u16()) << 16;
    }
    // Up to `*n` bytes; `*n` becomes the count taken.
    const uint8_t* bytes(size_t* n) {
        *n = std::min(*n, left_);
        const uint8_t* start = data_;
        data_ += *n;
        left_ -= *n;
        return start;
    }

  private:
    const uint8_t* data_;
    size_t left_;
};

// One request of the exchange block input: the 40-byte request header, copied to the start of the
// block as it is, then u16 n and n bytes (fewer where the input ends) copied to the start of the
// input area. False, with nothing written, when the header is incomplete. A null `block` consumes
// the request without writing it.
bool read_request(FuzzReader& in, uint8_t* block) {
    size_t header_size = sizeof(ExchangeInitRequest);
    const uint8_t* header = in.bytes(&header_size);
    if (header_size < sizeof(ExchangeInitRequest)) {
        return false;
    }
    size_t input_size = in.u16();
    const uint8_t* input = in.bytes(&input_size);
    if (block != nullptr) {
        memcpy(block + SHM_REQUEST_OFFSET, header, header_size);
        memcpy(block + SHM_INPUT_OFFSET, input, input_size);
    }
    return true;
}

char socket_dir[] = "/tmp/svc-fuzz-XXXXXX";

std::string socket_path() {
    return std::string(socket_dir) + "/media-service.socket";
}

void remove_files() {
    unlink(socket_path().c_str());
    rmdir(socket_dir);
    shm_unlink(kShmName);
}

int open_fd(char kind) {
    int fds[2];
    switch (kind) {
        case 'B':
        case 's': {
            const int fd = memfd_create("svc-fuzz", MFD_CLOEXEC);
            if (fd < 0 || ftruncate(fd, kind == 'B' ? SHM_BLOCK_SIZE : 4096) != 0) {
                abort();  // nothing can be fuzzed without it
            }
            return fd;
        }
        case 'S':
            return shm_open(kShmName, O_RDWR | O_CLOEXEC, 0);
        case 'p':
            if (pipe2(fds, O_CLOEXEC) != 0) {
                abort();
            }
            close(fds[1]);
            return fds[0];
        default:
            return open("/dev/null", O_RDWR | O_CLOEXEC);
    }
}

// The block that a record's descriptor passes, mapped as the client maps it; null for none.
uint8_t* map_block(char kind, int fd) {
    if (kind != 'B' && kind != 'S') {
        return nullptr;
    }
    void* block = mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return block != MAP_FAILED ? static_cast<uint8_t*>(block) : nullptr;
}

// One record with the descriptors of `kinds` and, when `creds` is not null, explicit credentials;
// `*block` is the mapping of the block it passes, if any.
ssize_t send_record(int fd, const uint8_t* data, size_t size, const char* kinds, const ucred* creds,
                    uint8_t** block = nullptr) {
    std::vector<int> fds;
    for (const char* kind = kinds; *kind != '\0'; ++kind) {
        fds.push_back(open_fd(*kind));
        if (block != nullptr && *block == nullptr) {
            *block = map_block(*kind, fds.back());
        }
    }
    ssize_t sent = mediaclient::send_record(fd, data, size, fds.data(), fds.size(), creds);
    for (int passed : fds) {
        close(passed);
    }
    return sent;
}

struct Client {
    int fd;
    uint8_t* block = nullptr;  // once registered as a decoder client
    bool sync_due = false;
};

class Run {
  public:
    Run() : server_(socket_path(), UniqueFd(open(MEDIA_SERVICE_BIN, O_RDONLY | O_CLOEXEC))) {
        server_.on_media_server_stopped([this] { stopped_ = true; });
    }

    void play(FuzzReader& in) {
        for (int op = 0; op < kMaxOps && !in.empty() && !stopped_; ++op) {
            uint8_t code = in.u8() % 5;
            if (code == 0) {
                connect_client();
            } else if (code == 1) {
                send(in);
            } else {
                Client* client = pick(in.u8());
                if (code == 3) {
                    call(client, in);
                } else if (client != nullptr && code == 2) {
                    forget(*client);
                    clients_.erase(clients_.begin() + (client - clients_.data()));
                } else if (client != nullptr) {
                    wait_sync(*client);
                }
            }
            drain();
        }
    }

    // Closes every client, then stops the server as the runtime's signal handler does and
    // destroys it, which waits for its workers.
    ~Run() {
        for (Client& client : clients_) {
            forget(client);
        }
        drain();
        server_.stop();
    }

  private:
    // Lets libev run what is due without blocking: accepts, handshakes, workers' ends, purges.
    static void drain() {
        for (int i = 0; i < 4; ++i) {
            ev_run(EV_DEFAULT, EVRUN_NOWAIT);
        }
    }

    static void forget(Client& client) {
        close(client.fd);
        if (client.block != nullptr) {
            munmap(client.block, SHM_BLOCK_SIZE);
        }
    }

    void connect_client() {
        if (clients_.size() >= kMaxClients) {
            return;
        }
        int fd = mediaclient::connect_service(socket_path());
        if (fd < 0) {
            abort();
        }
        clients_.push_back(Client{fd});
    }

    void send(FuzzReader& in) {
        uint8_t index = in.u8();
        uint8_t ancillary = in.u8();
        size_t length = in.u16() % kMaxRecord;
        const uint8_t* record = in.bytes(&length);
        ucred creds = {getpid(), getuid(), getgid()};
        if ((ancillary & 8) != 0) {
            const uint32_t pid = in.u32(), uid = in.u32(), gid = in.u32();  // read in this order
            creds = {pid != 0 ? static_cast<pid_t>(pid) : creds.pid,
                     uid != 0xffffffffu ? uid : creds.uid, gid != 0xffffffffu ? gid : creds.gid};
        }
        Client* client = pick(index);
        if (client == nullptr) {
            return;
        }
        size_t registered = server_.workers().size();
        uint8_t* block = nullptr;
        ssize_t sent = send_record(client->fd, record, length, kFdKinds[ancillary % 8],
                                   (ancillary & 8) != 0 ? &creds : nullptr, &block);
        rung(*client, sent);
        drain();
        if (client->block == nullptr && server_.workers().size() > registered) {
            client->block = block;
        } else if (block != nullptr) {
            munmap(block, SHM_BLOCK_SIZE);
        }
    }

    Client* pick(uint8_t index) {
        return clients_.empty() ? nullptr : &clients_[index % clients_.size()];
    }

    // After a record on a decoder client: a doorbell is answered unless the worker has ended; an
    // empty record ends the client.
    static void rung(Client& client, ssize_t sent) {
        if (client.block != nullptr && sent == 0) {
            munmap(client.block, SHM_BLOCK_SIZE);
            client.block = nullptr;
            client.sync_due = false;
        } else if (client.block != nullptr && sent > 0) {
            client.sync_due = true;
        }
    }

    void call(Client* client, FuzzReader& in) {
        uint8_t* block = client != nullptr && !client->sync_due ? client->block : nullptr;
        read_request(in, block);
        if (client != nullptr && client->block != nullptr) {
            uint8_t doorbell = 1;
            rung(*client, send_record(client->fd, &doorbell, 1, "", nullptr));
        }
    }

    // A worker that a request ended (a failed setup, an unknown request) answers no more; one that
    // ended its client's connection is gone. Either way, nothing more is due.
    void wait_sync(Client& client) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (client.sync_due && !stopped_ && std::chrono::steady_clock::now() < deadline) {
            uint8_t byte;
            ssize_t n = recv(client.fd, &byte, 1, MSG_DONTWAIT);
            if (n >= 0) {
                client.sync_due = false;
            } else {
                ev_run(EV_DEFAULT, EVRUN_NOWAIT);
                usleep(100);
            }
        }
        client.sync_due = false;
    }

    MediaServer server_;
    std::vector<Client> clients_;
    bool stopped_ = false;
};

// The server's log: a worker that ended by a signal or with a failure status is a finding.
int log_fd = -1;

void check_workers_ended_well() {
    const off_t size = lseek(log_fd, 0, SEEK_END);
    std::string log(static_cast<size_t>(std::max<off_t>(size, 0)), '\0');
    if (size > 0 && pread(log_fd, &log[0], log.size(), 0) != size) {
        abort();
    }
    if (log.find("ended by signal") != std::string::npos ||
        log.find("exited with status") != std::string::npos) {
        fprintf(stderr, "%s", log.c_str());
        abort();
    }
    if (ftruncate(log_fd, 0) != 0) {
        abort();
    }
}

}  // namespace

// The server's log goes to a memory file, read after each input; the workers' own logs to
// /dev/null (standard output, which they inherit). They load the test hooks, which stand in for
// the ashmem driver.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_fd = memfd_create("svc-fuzz-log", MFD_CLOEXEC);
    const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (log_fd < 0 || null_fd < 0 || dup2(null_fd, STDOUT_FILENO) < 0) {
        abort();
    }
    close(null_fd);
    SvcLogFile(("/proc/self/fd/" + std::to_string(log_fd)).c_str());
    setenv("LD_PRELOAD", SVC_TESTHOOKS_LIB, 1);
    av_log_set_level(AV_LOG_QUIET);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = [] {
        if (mkdtemp(socket_dir) == nullptr) {
            abort();
        }
        return atexit(remove_files) == 0;
    }();
    // Every input finds kShmName empty and of a block's size.
    int shm = shm_open(kShmName, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (!ready || shm < 0 || ftruncate(shm, SHM_BLOCK_SIZE) != 0) {
        abort();
    }
    close(shm);
    FuzzReader in(data, size);
    {
        Run run;
        run.play(in);
    }
    check_workers_ended_well();
    return 0;
}
