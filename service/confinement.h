#pragma once

// What a taken-over decoder may still do. The service runs FFmpeg's parsers, as the host user,
// on streams any app of the container chooses; a decoder bug turns a crafted stream into code
// running in this process. Once the service is a daemon and listens, before it serves anyone, it
// confines itself for good, every thread it has and will have:
// - a system call filter (seccomp): no new program or process, no new socket or connection, no
//   writable and executable memory, none of the kernel's interfaces a decoder never needs
//   (ptrace, process_vm_*, bpf, userfaultfd, io_uring, perf_event_open, keys, namespaces,
//   mounts, modules, kexec);
// - a file system policy (Landlock): read-only what libraries and hardware drivers read, the
//   devices they use, POSIX shared memory; nothing under the user's home, /tmp or /var.
// Where the kernel lacks one of them (or an ABI version), the service says so in one line and
// serves on; it never refuses to start.

#include <string>

namespace confinement {

// Installs the system call filter for every thread of the process. Empty on success, else what
// could not be confined and why.
std::string restrict_system_calls();

// Restricts the file system (and, where the kernel can, abstract sockets and signals) to what
// the service needs, for the calling thread and the threads it starts. Empty on success (also
// when the kernel's Landlock lacks a newer right: `note` then says which), else why not.
std::string restrict_file_system(std::string* note);

// Both, and the one log line that says how it went.
void confine_process();

}  // namespace confinement
