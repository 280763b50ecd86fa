// What a taken-over decoder can do: nothing else. The test hooks play code that a decoder bug has
// smuggled into a client's worker (tests/support/attacker.c): on a marked packet they try one
// action inside avcodec_send_packet. Each must fail, or end that worker by the kernel's signal,
// which costs its own client only: a bystander client of the same service decodes on exactly,
// and the attacker's next connection is served.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

using namespace mediaclient;
using namespace mediaclient::protocol;

namespace {

constexpr int kWaitMs = 20000;
// Read by the attacker in a process of the user's: a fork of this one, so at the same address.
volatile char victim_byte = 42;

// How a confined worker answers an action: an error it returns to the caller, or its end by a
// signal. Builds with LeakSanitizer let ptrace through the system call filter (the leak checker
// needs it at exit); the file system policy still refuses it any process outside the service.
enum class Answer { kRefused, kKilled, kRefusedOrKilled };
constexpr bool kLeakChecker = std::string_view(SVC_SANITIZER) == "address";
// Actions answered alike: refused with `code` (an errno), ended by signal `code`, or either.
struct Attacks {
    Answer answer;
    int code;
    bool file_policy;  // refused by the file system policy, which an old kernel lacks
    std::vector<const char*> actions;
};
const Attacks kAttacks[] = {
    // Not on the decoding worker's allow-list: programs, processes, sockets, creating or
    // handle-only opens, executable memory, other processes, the user's files' modes, watches,
    // SysV and memfd memory, the personality.
    {Answer::kRefused, EPERM, false, {"execve", "execveat", "fork", "vfork", "inet-socket"}},
    {Answer::kRefused, EPERM, false, {"unix-connect", "home-create", "home-opath"}},
    {Answer::kRefused, EPERM, false, {"send-fd", "accept-any", "wx-memory", "wx-mprotect"}},
    {Answer::kRefused, EPERM, false, {"rx-mprotect", "prlimit-other", "setpriority-user"}},
    {Answer::kRefused, EPERM, false, {"affinity-other", "ioprio-set", "chmod-home", "inotify"}},
    {Answer::kRefused, EPERM, false, {"sysv-shm", "memfd", "personality"}},
    {Answer::kRefused, ENOSYS, false, {"clone3"}},
    {Answer::kRefused, EMFILE, false, {"descriptors"}},
    {Answer::kRefused, EACCES, true, {"home-read", "var-read", "shm-open"}},
    {Answer::kRefusedOrKilled, kLeakChecker ? EPERM : SIGSYS, kLeakChecker, {"ptrace"}},
    // The calls only an attack makes are a list of data: these stand for the rest of it.
    {Answer::kKilled, SIGSYS, false, {"process_vm_readv", "io_uring", "unshare", "mount"}},
    {Answer::kKilled, SIGSEGV, false, {"segv"}},
};

class Confinement : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(system(("echo secret > " + home.path + "/secret").c_str()), 0);
        victim = fork();
        if (victim == 0) {
            pause();
            _exit(0);
        }
        ASSERT_GT(victim, 0);
        daemon.options().workers_may_fail = true;
        auto& env = daemon.options().env;
        env["HOME"] = home.path;
        env["SVC_TEST_ATTACK_PID"] = std::to_string(victim);
        env["SVC_TEST_ATTACK_ADDR"] = std::to_string(reinterpret_cast<uintptr_t>(&victim_byte));
        env["SVC_TEST_ATTACK_SHM"] = shm.name;
        ASSERT_TRUE(daemon.start());
        ASSERT_EQ(bystander.connect_posix(daemon.socket_path()), ClientError::kOk);
        ASSERT_EQ(set_up(bystander, h264, 64, 48, 0), STATUS_OK);
        ASSERT_TRUE(oracle.open_video(h264.info, 64, 48, 0, h264.info.extradata));
    }
    void TearDown() override {
        kill(victim, SIGKILL);
        waitpid(victim, nullptr, 0);
    }
    // A new attacker with an H.264 decoder set up.
    void connect() {
        attacker.reset(new DecoderClient());
        ASSERT_EQ(attacker->connect_posix(daemon.socket_path()), ClientError::kOk);
        ASSERT_EQ(set_up(*attacker, h264, 64, 48, 0), STATUS_OK);
    }
    // Sends a packet; false when the worker went away instead of answering.
    bool decode(const void* data, size_t size, ExchangeResult* r) {
        return attacker->decode_frame(data, size, 0, r, kWaitMs) == ClientError::kOk;
    }
    // The bystander's next packet, compared with the oracle.
    void bystander_decodes() {
        const size_t i = next++ % h264.packets.size();
        if (i == 0) {
            ASSERT_EQ(bystander.flush(kWaitMs), ClientError::kOk);
            ASSERT_TRUE(oracle.open_video(h264.info, 64, 48, 0, h264.info.extradata));
        }
        EXPECT_EQ(decode_packets(bystander, h264, i, i + 1, &oracle).unanswered, 0u);
    }

    TempDir home;
    ScopedShm shm{SHM_BLOCK_SIZE};
    pid_t victim = -1;
    Daemon daemon;
    const Clip& h264 =
        clip("attack.h264", "-f lavfi -i testsrc=size=64x48 -frames:v 6 -c:v libx264");
    DecoderClient bystander;
    Oracle oracle;
    size_t next = 0;
    std::unique_ptr<DecoderClient> attacker;
};

// A kernel without Landlock leaves the file system open: the worker says so in its one line, and
// the rows that need it are left out (and named) rather than failed.
TEST_F(Confinement, ATakenOverDecoderCanDoNothingElse) {
    ASSERT_NO_FATAL_FAILURE(connect());
    const std::string confined = daemon.log();
    const bool file_policy = log_has(confined, "DEBUG", "confined for its devices: ");
    ASSERT_TRUE(file_policy || log_has(confined, "WARN", "not fully confined: no file system"))
        << confined.substr(0, 2000);
    for (const Attacks& a : kAttacks) {
        for (const char* action : a.actions) {
            SCOPED_TRACE(action);
            if (a.file_policy && !file_policy) {
                printf("not checked without Landlock: %s\n", action);
                continue;
            }
            const std::string packet = std::string("ATTACK ") + action;
            // A sanitizer reports a fault itself and exits with its status.
            const std::string signal = a.code == SIGSEGV && !std::string_view(SVC_SANITIZER).empty()
                                           ? "exited with status"
                                           : "ended by signal " + std::to_string(a.code) + " (";
            const size_t ended = daemon.count(signal);
            ExchangeResult r{};
            if (decode(packet.data(), packet.size(), &r)) {
                EXPECT_NE(a.answer, Answer::kKilled) << "the worker survived";
                EXPECT_EQ(daemon.count(std::string("attack: ") + action + " refused " +
                                       std::to_string(a.code) + "\n"),
                          1u);
                // The worker goes on serving.
                const auto& p = h264.packets[0].data;
                ASSERT_TRUE(decode(p.data(), p.size(), &r));
                EXPECT_NE(r.status, STATUS_FAILED);
            } else {
                EXPECT_NE(a.answer, Answer::kRefused) << "the worker died";
                EXPECT_TRUE(daemon.wait_log(signal, ended + 1, kWaitMs));
                ASSERT_NO_FATAL_FAILURE(connect());
            }
            ASSERT_NO_FATAL_FAILURE(bystander_decodes());
        }
    }
    EXPECT_EQ(daemon.count("SUCCEEDED"), 0u) << daemon.log();
    EXPECT_EQ(read_file(home.path + "/created"), "");
    EXPECT_TRUE(daemon.running());
}

}  // namespace
