#pragma once

// The log's warnings and errors, copied to the system log (syslog(3): the journal under systemd,
// a syslog daemon elsewhere). The service's own log goes to standard output, which is /dev/null
// once it has daemonised, so without this copy a refused client or a failing device would be
// invisible to an operator.
//
// Each line names the client it concerns. A client that fails every request must not flood the
// journal: every client gets a small burst and then one line every few seconds, and all clients
// together a larger one; what is held back is counted in the next line that passes.

// Opens the connection to the system log at once (not at the first line), so that it exists
// before the service confines itself and may no longer make sockets. Copies are made from then on.
void SvcSystemLogOpen(const char* ident);

// Called by SvcLogWrite for WARN and ERROR lines while the system log is open; `message` is the
// line's text without its prefix.
void SvcSystemLogWrite(int level, const char* module, const char* message);

// The client (its connection's descriptor number, as "client connect: sock#[%d]" names it) that
// the calling thread works for; -1 for none. A decoder's worker sets it once; the loop thread sets
// it around the handling of one client's event.
void SvcLogSetClient(int client);
int SvcLogClient();

class LogClientScope {
  public:
    explicit LogClientScope(int client) : previous_(SvcLogClient()) { SvcLogSetClient(client); }
    LogClientScope(const LogClientScope&) = delete;
    LogClientScope& operator=(const LogClientScope&) = delete;
    ~LogClientScope() { SvcLogSetClient(previous_); }

  private:
    int previous_;
};
