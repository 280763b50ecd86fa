#pragma once

// The log's warnings and errors, copied to the system log: the journal where it runs (with the
// client's number, its pid and its codec as fields an operator can filter by:
// `journalctl --user -u media-service CLIENT=7`), syslog(3) elsewhere. The service's own log goes
// to standard output, which is /dev/null once it has daemonised, so without this copy a refused
// client or a failing device would be invisible to an operator.
//
// The accepting process writes the system log for the whole service. A decoder worker cannot
// reach it (it reaches nothing but its client and its accepting process): it relays its copies
// over its control connection, and the accepting process writes them with the client's fields.
//
// A client that fails every request must not flood the journal: each client gets a small burst of
// lines and then one every few seconds, an allowance of its own that a later client with the same
// connection number does not inherit, and all lines together a larger one; what is held back is
// counted in the next line that passes. The hardware trial's lines are left out: each device's
// outcome is told once for the whole service instead, and again when it changes.

#include <sys/types.h>

#include <cstdint>

// Opens the system log at once (not at the first line), so that its connection exists before the
// service confines itself and may no longer make sockets. Copies are made from then on.
void SvcSystemLogOpen();

// In a decoder worker: copies go to the accepting process over `control`, the control connection.
void SvcSystemLogRelay(int control);

// Called by SvcLogWrite for WARN and ERROR lines; `message` is the line's text without its prefix.
void SvcSystemLogWrite(int level, const char* module, const char* message);

// Why the calling thread's next line failed, in FFmpeg's words ("Invalid data found when
// processing input"), where the log's own text does not say: the system log's copy adds it.
void SvcSystemLogReason(const char* reason);

// The outcome of the hardware trial for `device`: a device type ("vaapi": "does not open: ...")
// or a device type and a codec ("vdpau h264": "decodes", "does not decode: software decodes").
// Told when it is new to the service or has changed.
void SvcSystemLogDevice(int level, const char* device, const char* outcome);

// A copy or a device outcome as a worker relays it: one datagram of this size on the control
// connection, every text cut to its field and terminated.
struct SystemLogNote {
    int32_t level;
    int32_t about_client;  // 0: a line about the worker itself (its confinement), not its client
    char module[16];
    char work[32];    // what the worker decodes ("h264 sw"), empty without a decoder
    char device[32];  // a device outcome's device; empty for a copied line
    char text[400];
};

// In the accepting process: a note that the worker of `client` (whose process is `client_pid`)
// relayed. Its texts are the worker's, which a crafted stream may control: they are treated as
// untrusted text. A line about the worker itself, which every worker of this host would write
// alike, is told once for the service.
void SvcSystemLogFromWorker(const SystemLogNote& note, int client, pid_t client_pid);

// A new client with this connection number: its allowance starts full.
void SvcSystemLogNewClient(int client);

// The client (its connection's descriptor number, as "client connect: sock#[%d]" names it) that
// the calling thread works for; -1 for none. A worker sets it once; the accepting process sets it
// around the handling of one client's event.
void SvcLogSetClient(int client);
int SvcLogClient();
// What the worker decodes ("h264 sw"), for the copies' fields; empty without a decoder.
void SvcLogSetWork(const char* work);

class LogClientScope {
  public:
    explicit LogClientScope(int client) : previous_(SvcLogClient()) { SvcLogSetClient(client); }
    LogClientScope(const LogClientScope&) = delete;
    LogClientScope& operator=(const LogClientScope&) = delete;
    ~LogClientScope() { SvcLogSetClient(previous_); }

  private:
    int previous_;
};

// Keeps the calling thread's lines out of the system log while it lasts: for the hardware trial,
// whose failures are the devices' news, told once by SvcSystemLogDevice, not each client's.
class SystemLogMute {
  public:
    SystemLogMute();
    SystemLogMute(const SystemLogMute&) = delete;
    SystemLogMute& operator=(const SystemLogMute&) = delete;
    ~SystemLogMute();
};
