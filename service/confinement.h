#pragma once

// What a taken-over process of the service may still do. The service runs FFmpeg's parsers, as the
// host user, on streams any app of the container chooses; a decoder bug turns a crafted stream
// into code running in that client's worker. Each kind of process confines itself for good, with
// allow-lists written as data (syscall_policy.cpp, landlock_rules.cpp):
// - the accepting process, once it listens and before it serves anyone: the handshake's calls,
//   starting workers, and what a starting worker needs until it confines itself (a system call
//   filter stays through exec, so a worker starts inside this one); reading libraries, POSIX
//   shared memory, the session's command line;
// - a worker, before it reads a byte of its client's requests: what opening its hardware devices
//   needs (driver libraries mapped executable, the X server's socket, device nodes), then, once
//   its first setup has opened them and before its first packet, only what decoding needs:
//   no executable memory, no socket, no file but what is already open.
// Where the kernel lacks seccomp or Landlock (or an ABI version), the process says so in one line
// and serves on; it never refuses to start.

#include <string>

namespace confinement {

enum class Stage {
    kAccepting,       // the accepting process
    kWorkerDevices,   // a worker, until its devices are open
    kWorkerDecoding,  // a worker from its first packet on
};

// Installs the system call filter of `stage` for every thread of the process, on top of any
// filter it already has. Empty on success, else what could not be confined and why.
std::string restrict_system_calls(Stage stage);

// Restricts the file system (and, where the kernel can, abstract sockets and signals) to what
// `stage` needs, for the calling thread and the threads it starts. Empty on success (also when
// the kernel's Landlock lacks a newer right: `note` then says which), else why not.
std::string restrict_file_system(Stage stage, std::string* note);

// Both, and the one log line that says how it went; whether both were applied in full.
bool confine(Stage stage);

}  // namespace confinement
