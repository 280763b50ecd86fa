// Registered clients misbehaving after the handshake: a session client and three decoder clients
// (two with an ashmem descriptor, one with a POSIX shared memory object) against a real
// MediaServer, with arbitrary requests in their blocks, doorbells of any length at any moment
// (while a request runs, after the worker ended), empty records, disconnects and reconnects.
//
// Input: a sequence of operations, at most kMaxOps:
//   u8 op % 7
//   0 request    u8 slot, 40-byte request header, u16 n, n bytes for the input area; written
//                only while no sync msg is due on that slot (a client owns its block then)
//   1 ring       u8 slot, u8 length (0 sends an empty record, which ends the client)
//   2 wait       u8 slot: waits for the sync msg that is due
//   3 close      u8 slot
//   4 reconnect  u8 slot: registers a closed slot again, with the same block
//   5 session    u8: even answers a ping, odd closes the session client (the server stops)
//   6 drain      runs the loop without blocking
// At the end every client is closed and the server stopped and destroyed.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <ev++.h>

#include "fuzz_support.h"
#include "server_fixture.h"

namespace {

constexpr int kMaxOps = 64;
constexpr int kSlots = 3;
// A request that never completes is a hang.
constexpr double kWatchdogSeconds = 20.0;
// A worker that set quit either signals its last completion at once or never again.
constexpr double kEndedWorkerGrace = 0.05;

struct Slot {
    bool posix = false;
    std::string shm_name;
    int shm_fd = -1;
    uint8_t* block = nullptr;
    size_t dirty_input = 0;

    int fd = -1;                      // client connection, -1 when closed
    MediaDecoder* decoder = nullptr;  // the service's instance while the client is registered
    bool sync_due = false;
};

class Stream {
  public:
    Stream() {
        for (int i = 0; i < kSlots; ++i) {
            Slot& s = slots_[i];
            s.posix = i == 1;
            if (s.posix) {
                s.shm_name = "/svc-fuzz-stream-" + std::to_string(getpid());
                s.shm_fd = shm_open(s.shm_name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
                if (s.shm_fd < 0 || ftruncate(s.shm_fd, SHM_BLOCK_SIZE) != 0) {
                    abort();
                }
            } else {
                s.shm_fd = make_memfd("fuzz-stream-block", SHM_BLOCK_SIZE);
            }
            void* mapped =
                mmap(nullptr, SHM_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, s.shm_fd, 0);
            if (mapped == MAP_FAILED) {
                abort();
            }
            s.block = static_cast<uint8_t*>(mapped);
        }
        if (!slots_[1].shm_name.empty()) {
            shm_name_to_unlink = slots_[1].shm_name;
            atexit([] { shm_unlink(shm_name_to_unlink.c_str()); });
        }
    }

    void run(const uint8_t* data, size_t size) {
        fixture_.start_server();
        stopped_ = false;
        fixture_.server()->on_media_server_stopped([this] { stopped_ = true; });
        for (Slot& s : slots_) {
            memset(s.block, 0, kRequestHeaderSize);
            memset(s.block + SHM_RESULT_OFFSET, 0, SHM_RESULT_SIZE);
            memset(s.block + SHM_INPUT_OFFSET, 0, s.dirty_input);
            s.dirty_input = 0;
        }
        session_fd_ = fixture_.connect_client();
        uint8_t session_msg[2] = {CLIENT_TYPE_SESSION, 0};
        ServerFixture::send_record(session_fd_, session_msg, sizeof(session_msg), kDevNull,
                                   nullptr);
        ServerFixture::drain();
        for (int i = 0; i < kSlots; ++i) {
            connect_slot(slots_[i]);
        }

        FuzzReader in(data, size);
        for (int op_count = 0; op_count < kMaxOps && !in.empty() && !stopped_; ++op_count) {
            uint8_t op = in.u8() % 7;
            if (op == 6) {
                ServerFixture::drain();
                continue;
            }
            uint8_t arg = in.u8();
            Slot& s = slots_[arg % kSlots];
            switch (op) {
                case 0:
                    write_request(s, in);
                    break;
                case 1:
                    ring(s, in.u8());
                    break;
                case 2:
                    wait_sync(s);
                    break;
                case 3:
                    close_slot(s);
                    break;
                case 4:
                    if (s.fd < 0) {
                        connect_slot(s);
                    }
                    break;
                case 5:
                    if (arg % 2 == 0) {
                        uint8_t answer = PING_MSG_BYTE;
                        send(session_fd_, &answer, 1, MSG_NOSIGNAL);
                    } else if (session_fd_ >= 0) {
                        close(session_fd_);
                        session_fd_ = -1;
                    }
                    break;
            }
            ServerFixture::drain();
        }

        for (Slot& s : slots_) {
            close_slot(s);
        }
        if (session_fd_ >= 0) {
            close(session_fd_);
            session_fd_ = -1;
        }
        ServerFixture::drain();
        fixture_.stop_server();
    }

  private:
    void connect_slot(Slot& s) {
        s.fd = fixture_.connect_client();
        if (s.fd < 0) {
            return;
        }
        ServerFixture::drain();
        size_t before = fixture_.server()->decoder_handles.size();
        std::vector<uint8_t> msg = {s.posix ? CLIENT_TYPE_SHM_DECODER : CLIENT_TYPE_ASHMEM_DECODER,
                                    0};
        if (s.posix) {
            msg.insert(msg.end(), s.shm_name.begin(), s.shm_name.end());
            msg.push_back(0);
        }
        // The service maps the region behind the descriptor (type 2) or opens the object by name
        // (type 3); either way the client passes one descriptor.
        int passed = dup(s.shm_fd);
        ssize_t sent = send_with_fd(s.fd, msg, passed);
        close(passed);
        ServerFixture::drain();
        auto& handles = fixture_.server()->decoder_handles;
        if (sent < 0 || handles.size() != before + 1) {
            abort();  // a well-formed registration must succeed
        }
        s.decoder = handles.back()->decoder.get();
        s.sync_due = false;
    }

    static ssize_t send_with_fd(int fd, const std::vector<uint8_t>& data, int passed) {
        alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(int))] = {};
        iovec iov = {const_cast<uint8_t*>(data.data()), data.size()};
        msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(cmsg), &passed, sizeof(int));
        return sendmsg(fd, &msg, MSG_NOSIGNAL);
    }

    void write_request(Slot& s, FuzzReader& in) {
        std::vector<uint8_t> header = in.bytes(kRequestHeaderSize);
        std::vector<uint8_t> input = in.bytes(in.u16());
        if (s.fd < 0 || s.sync_due || header.size() < kRequestHeaderSize) {
            return;
        }
        memcpy(s.block, header.data(), header.size());
        if (!input.empty()) {
            memcpy(s.block + SHM_INPUT_OFFSET, input.data(), input.size());
        }
        s.dirty_input = std::max(s.dirty_input, input.size());
    }

    void ring(Slot& s, uint8_t length) {
        if (s.fd < 0) {
            return;
        }
        uint8_t bytes[255];
        memset(bytes, 1, sizeof(bytes));
        send(s.fd, bytes, length, MSG_NOSIGNAL);
        if (length == 0) {
            // An empty record reads as the end of the client: the service drops it.
            ServerFixture::drain();
            close_slot(s);
            return;
        }
        if (!s.decoder->quitting()) {
            s.sync_due = true;
        }
    }

    void wait_sync(Slot& s) {
        if (s.fd < 0 || !s.sync_due) {
            return;
        }
        double start = ev_time();
        for (;;) {
            uint8_t byte;
            ssize_t n = recv(s.fd, &byte, 1, MSG_DONTWAIT);
            if (n == 1) {
                s.sync_due = false;
                return;
            }
            if (n == 0) {
                abort();  // the service must not drop a well-behaved registered client
            }
            double waited = ev_time() - start;
            if (s.decoder->quitting() && waited > kEndedWorkerGrace) {
                s.sync_due = false;  // the worker ended before it took this doorbell
                return;
            }
            if (waited > kWatchdogSeconds) {
                fprintf(stderr, "no sync msg after %.0f s: hung request\n", waited);
                abort();
            }
            ev_run(EV_DEFAULT_UC, EVRUN_NOWAIT);
            if (!s.decoder->quitting()) {
                ev::timer tick(EV_DEFAULT_UC);
                tick.set<Stream, &Stream::on_tick>(this);
                tick.start(0.002, 0.0);
                ev_run(EV_DEFAULT_UC, EVRUN_ONCE);
            }
        }
    }

    void on_tick(ev::timer&, int) {}

    void close_slot(Slot& s) {
        if (s.fd >= 0) {
            close(s.fd);
            s.fd = -1;
        }
        s.decoder = nullptr;  // the server purges the handle once it sees the end of file
        s.sync_due = false;
    }

    static std::string shm_name_to_unlink;
    ServerFixture fixture_;
    Slot slots_[kSlots];
    int session_fd_ = -1;
    bool stopped_ = false;
};

std::string Stream::shm_name_to_unlink;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_logs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Stream* stream = new Stream();
    stream->run(data, size);
    return 0;
}
