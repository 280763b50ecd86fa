// What a taken-over decoder can do: nothing else. The test hooks play code that a decoder bug has
// smuggled into the daemon (tests/support/attacker.c): on a marked packet they try one action
// from the decoder worker, inside avcodec_send_packet. Each must fail, or end the process by the
// kernel's signal; a daemon that survives goes on serving.

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

namespace {

constexpr int kWaitMs = 20000;
// Read by the attacker in a process of the user's: a fork of this one, so at the same address.
volatile char victim_byte = 42;

// How the confined daemon answers an action: an error it returns to the caller, or its end by
// SIGSYS. Builds with LeakSanitizer let ptrace through the system call filter (the leak checker
// needs it at exit); the file system policy still refuses it any process outside the daemon.
enum class Answer { kRefused, kKilled, kRefusedOrKilled };
constexpr bool kLeakChecker = std::string_view(SVC_SANITIZER) == "address";
// Actions answered alike: refused with `error`, ended by SIGSYS, or either.
struct Attacks {
    Answer answer;
    int error;
    bool file_policy;  // refused by the file system policy, which an old kernel lacks
    std::vector<const char*> actions;
};
const Attacks kAttacks[] = {
    {Answer::kRefused, EACCES, false, {"execve", "execveat", "fork", "vfork"}},
    {Answer::kRefused, ENOSYS, false, {"clone3"}},
    {Answer::kRefused, EACCES, false, {"inet-socket", "unix-connect"}},
    {Answer::kRefused, EACCES, true, {"home-read", "home-create", "tmp-create", "var-read"}},
    {Answer::kRefused, EACCES, false, {"wx-memory", "wx-mprotect"}},
    {Answer::kRefusedOrKilled, EPERM, kLeakChecker, {"ptrace"}},
    {Answer::kKilled, 0, false, {"process_vm_readv", "io_uring", "bpf", "userfaultfd"}},
    {Answer::kKilled, 0, false, {"perf_event_open", "keyctl", "unshare", "mount"}},
    {Answer::kKilled, 0, false, {"init_module", "kexec_load"}},
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
    }
    void TearDown() override {
        kill(victim, SIGKILL);
        waitpid(victim, nullptr, 0);
    }
    // A daemon with an H.264 decoder set up; false when it is not confined at all here.
    bool start() {
        daemon.reset(new Daemon());
        auto& env = daemon->options().env;
        env["SVC_TEST_ATTACKS"] = home.path + "/attacks";
        env["HOME"] = home.path;
        env["SVC_TEST_ATTACK_PID"] = std::to_string(victim);
        env["SVC_TEST_ATTACK_ADDR"] = std::to_string(reinterpret_cast<uintptr_t>(&victim_byte));
        client.reset(new DecoderClient());
        return daemon->start() &&
               client->connect_posix(daemon->socket_path()) == ClientError::kOk &&
               set_up(*client, h264, 64, 48, 0) == STATUS_OK;
    }
    // Sends a packet; false when the daemon went away instead of answering.
    bool decode(const void* data, size_t size, ExchangeResult* r) {
        return client->decode_frame(data, size, 0, r, kWaitMs) == ClientError::kOk;
    }

    TempDir home;
    pid_t victim = -1;
    std::unique_ptr<Daemon> daemon;
    std::unique_ptr<DecoderClient> client;
    const Clip& h264 =
        clip("attack.h264", "-f lavfi -i testsrc=size=64x48 -frames:v 2 -c:v libx264");
};

// A kernel without Landlock leaves the file system open: the daemon says so in its one line, and
// the rows that need it are left out (and named) rather than failed.
TEST_F(Confinement, ATakenOverDecoderCanDoNothingElse) {
    ASSERT_TRUE(start());
    const std::string confined = daemon->log();
    const bool file_policy = log_has(confined, "DEBUG", "confined: ");
    ASSERT_TRUE(file_policy || log_has(confined, "WARN", "not fully confined: no file system"))
        << confined.substr(0, 2000);
    for (const Attacks& a : kAttacks) {
        for (const char* action : a.actions) {
            SCOPED_TRACE(action);
            if (a.file_policy && !file_policy) {
                printf("not checked without Landlock: %s\n", action);
                continue;
            }
            if (!daemon->running()) {
                ASSERT_TRUE(start());
            }
            const std::string packet = std::string("ATTACK ") + action;
            ExchangeResult r{};
            const bool answered = decode(packet.data(), packet.size(), &r);
            const std::string outcomes = read_file(home.path + "/attacks");
            if (answered) {
                EXPECT_NE(a.answer, Answer::kKilled) << "the daemon survived";
                const std::string refused = " refused " + std::to_string(a.error) + "\n";
                EXPECT_NE(outcomes.find(action + refused), std::string::npos) << outcomes;
                // The daemon goes on serving.
                const auto& p = h264.packets[0].data;
                ASSERT_TRUE(decode(p.data(), p.size(), &r));
                EXPECT_NE(r.status, STATUS_FAILED);
            } else {
                EXPECT_NE(a.answer, Answer::kRefused) << "the daemon died";
                EXPECT_EQ(daemon->wait_exit(kWaitMs), 128 + SIGSYS);
            }
            EXPECT_EQ(outcomes.find("SUCCEEDED"), std::string::npos) << outcomes;
        }
    }
    EXPECT_EQ(read_file(home.path + "/created"), "");
    EXPECT_EQ(access("/tmp/svc-attacker-file", F_OK), -1);
}

}  // namespace
