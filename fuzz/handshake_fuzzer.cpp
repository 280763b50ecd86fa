// Arbitrary records with arbitrary ancillary data on pending connections of a real MediaServer.
// The first record of a connection is its client type msg; later records on a registered
// connection reach the session or decoder client handlers.
//
// Input: a sequence of operations, at most kMaxOps:
//   u8 op % 3
//   0 connect       a new client connection (ignored when kMaxConnections are open)
//   1 send          u8 connection, u8 ancillary, u16 length % kMaxRecord, length bytes;
//                   ancillary & 7 is an FdKind; ancillary & 8 adds explicit credentials:
//                   u32 pid (0: own), u32 uid, u32 gid (0xffffffff: own)
//   2 close         u8 connection
// After every operation the loop runs what is due. At the end every connection is closed and the
// server is stopped and destroyed; sanitizers report leaks and bad accesses per input.

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "fuzz_support.h"
#include "server_fixture.h"

namespace {

constexpr int kMaxOps = 64;
constexpr size_t kMaxConnections = 6;
constexpr size_t kMaxRecord = 600;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_logs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static ServerFixture* fixture = new ServerFixture();
    fixture->start_server();
    std::vector<int> clients;

    FuzzReader in(data, size);
    for (int op_count = 0; op_count < kMaxOps && !in.empty(); ++op_count) {
        switch (in.u8() % 3) {
            case 0:
                if (clients.size() < kMaxConnections) {
                    int fd = fixture->connect_client();
                    if (fd >= 0) {
                        clients.push_back(fd);
                    }
                }
                break;
            case 1: {
                uint8_t index = in.u8();
                uint8_t ancillary = in.u8();
                size_t length = in.u16() % kMaxRecord;
                std::vector<uint8_t> record = in.bytes(length);
                Credentials creds = {getpid(), getuid(), getgid()};
                bool explicit_creds = (ancillary & 8) != 0;
                if (explicit_creds) {
                    uint32_t pid = in.u32();
                    uint32_t uid = in.u32();
                    uint32_t gid = in.u32();
                    if (pid != 0) {
                        creds.pid = static_cast<pid_t>(pid);
                    }
                    if (uid != 0xffffffffu) {
                        creds.uid = uid;
                    }
                    if (gid != 0xffffffffu) {
                        creds.gid = gid;
                    }
                }
                if (!clients.empty()) {
                    ServerFixture::send_record(clients[index % clients.size()], record.data(),
                                               record.size(), static_cast<FdKind>(ancillary & 7),
                                               explicit_creds ? &creds : nullptr);
                }
                break;
            }
            case 2: {
                uint8_t index = in.u8();
                if (!clients.empty()) {
                    size_t i = index % clients.size();
                    close(clients[i]);
                    clients.erase(clients.begin() + static_cast<long>(i));
                }
                break;
            }
        }
        ServerFixture::drain();
    }

    for (int fd : clients) {
        close(fd);
    }
    ServerFixture::drain();
    fixture->stop_server();
    return 0;
}
