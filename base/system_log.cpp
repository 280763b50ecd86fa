#include "base/system_log.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <syslog.h>
// The code location would always be this file's: the fields name the client instead.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "base/log.h"

namespace {

using Clock = std::chrono::steady_clock;

// Token buckets: a burst, then a steady rate. One client: 5 lines, then one every 10 seconds; all
// lines together: 50 lines, then one a second.
struct Rate {
    double burst;
    double per_second;
};
constexpr Rate kClientRate{5, 0.1};
constexpr Rate kTotalRate{50, 1};

struct Bucket {
    double tokens = -1;  // -1: not used yet, full at the first line
    Clock::time_point refilled;
    unsigned held_back = 0;

    // Adds what the time since the last refill has earned; whether a line may go out.
    bool refill(const Rate& rate, Clock::time_point now) {
        if (tokens < 0) {
            tokens = rate.burst;
        } else {
            const double elapsed = std::chrono::duration<double>(now - refilled).count();
            tokens = std::min(rate.burst, tokens + elapsed * rate.per_second);
        }
        refilled = now;
        return tokens >= 1;
    }
};

enum class Sink { kNone, kSyslog, kJournal, kRelay };

constexpr const char* kIdentifier = "media-service";

// Set once, before any other thread runs.
Sink sink = Sink::kNone;
int relay_fd = -1;

std::mutex limiter_mutex;  // guards the buckets, the devices' outcomes and log_work
std::map<int, Bucket> client_buckets;
Bucket total_bucket;
// What was told once for the whole service: each device's outcome, and the workers' own lines.
std::map<std::string, std::string> told;

thread_local int log_client = -1;
thread_local int mute_depth = 0;
thread_local char log_reason[96] = "";
char log_work[32] = "";  // a worker's; its decoder's threads log too

// Whom a line concerns.
struct Origin {
    int client = -1;
    pid_t pid = 0;
    const char* work = "";
    const char* device = "";
};

// Whether a line may go out now, charged to its client's allowance when `per_client`; how many of
// the lines it stands for were held back before it.
bool admit(int client, bool per_client, unsigned* held_back) {
    std::lock_guard<std::mutex> lock(limiter_mutex);
    const Clock::time_point now = Clock::now();
    Bucket* own = per_client && client >= 0 ? &client_buckets[client] : nullptr;
    const bool own_ok = own == nullptr || own->refill(kClientRate, now);
    Bucket& counted = own != nullptr ? *own : total_bucket;
    if (!total_bucket.refill(kTotalRate, now) || !own_ok) {
        ++counted.held_back;
        return false;
    }
    total_bucket.tokens -= 1;
    if (own != nullptr) {
        own->tokens -= 1;
    }
    *held_back = counted.held_back;
    counted.held_back = 0;
    return true;
}

int priority_of(int level) {
    return level >= SVC_LOG_ERROR ? LOG_ERR : level == SVC_LOG_WARN ? LOG_WARNING : LOG_INFO;
}

// One journal entry: the message, its priority and whom it concerns, as fields.
int send_to_journal(int level, const char* message, const Origin& origin) {
    char fields[7][704];  // room for the whole message
    int n = 0;
    snprintf(fields[n++], sizeof(fields[0]), "MESSAGE=%s", message);
    snprintf(fields[n++], sizeof(fields[0]), "PRIORITY=%d", priority_of(level));
    snprintf(fields[n++], sizeof(fields[0]), "SYSLOG_IDENTIFIER=%s", kIdentifier);
    if (origin.client >= 0) {
        snprintf(fields[n++], sizeof(fields[0]), "CLIENT=%d", origin.client);
    }
    if (origin.pid > 0) {
        snprintf(fields[n++], sizeof(fields[0]), "CLIENT_PID=%d", static_cast<int>(origin.pid));
    }
    if (origin.work[0] != '\0') {
        // The codec alone: "h264" of "h264 vaapi".
        snprintf(fields[n++], sizeof(fields[0]), "CODEC=%.*s",
                 static_cast<int>(strcspn(origin.work, " ")), origin.work);
    }
    if (origin.device[0] != '\0') {
        snprintf(fields[n++], sizeof(fields[0]), "DEVICE=%s", origin.device);
    }
    iovec iov[7];
    for (int i = 0; i < n; ++i) {
        iov[i] = {fields[i], strlen(fields[i])};
    }
    return sd_journal_sendv(iov, n);
}

void emit(int level, const char* module, const char* text, const Origin& origin,
          unsigned held_back) {
    char who[64] = "";
    if (origin.device[0] != '\0') {
        snprintf(who, sizeof(who), "hardware device %s: ", origin.device);
    } else if (origin.client >= 0 && origin.work[0] != '\0') {
        snprintf(who, sizeof(who), "client %d (%s): ", origin.client, origin.work);
    } else if (origin.client >= 0) {
        snprintf(who, sizeof(who), "client %d: ", origin.client);
    }
    char note[64] = "";
    if (held_back > 0) {
        snprintf(note, sizeof(note), " (%u earlier lines held back)", held_back);
    }
    char message[640];
    snprintf(message, sizeof(message), "[%s] %s%s%s", module, who, text, note);
    if (sink == Sink::kJournal) {
        send_to_journal(level, message, origin);
    } else {
        syslog(priority_of(level), "%s", message);
    }
}

// A worker's texts end within their fields and hold no line breaks or other control characters.
template <size_t N>
void make_safe(char (&text)[N]) {
    text[N - 1] = '\0';
    for (char* c = text; *c != '\0'; ++c) {
        if (static_cast<unsigned char>(*c) < 0x20 || *c == 0x7f) {
            *c = '?';
        }
    }
}

template <size_t N>
void copy_text(char (&field)[N], const char* text) {
    snprintf(field, N, "%s", text != nullptr ? text : "");
}

void relay(int level, const char* module, const char* text, const char* device) {
    SystemLogNote note{};
    note.level = level;
    note.about_client = log_client >= 0;
    copy_text(note.module, module);
    {
        std::lock_guard<std::mutex> lock(limiter_mutex);
        copy_text(note.work, log_work);
    }
    copy_text(note.device, device);
    copy_text(note.text, text);
    // Never waits: a copy is not worth stalling the client's decoding for.
    ssize_t sent = send(relay_fd, &note, sizeof(note), MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)sent;
}

// A line for the whole service, told when what `key` names is new or has changed to `text`:
// a device's outcome (`device` set), or a line that every worker writes alike.
void tell_once(int level, const char* module, const std::string& key, const char* text,
               const char* device) {
    {
        std::lock_guard<std::mutex> lock(limiter_mutex);
        std::string& last = told[key];
        if (last == text) {
            return;
        }
        last = text;
    }
    unsigned held_back = 0;
    if (admit(-1, false, &held_back)) {
        Origin origin;
        origin.device = device;
        emit(level, module, text, origin, held_back);
    }
}

}  // namespace

void SvcSystemLogOpen() {
    // The journal's socket is made by its first entry: made now, and the journal is used when it
    // takes it.
    if (send_to_journal(SVC_LOG_INFO, "media service started", Origin()) >= 0) {
        sink = Sink::kJournal;
        return;
    }
    openlog(kIdentifier, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    sink = Sink::kSyslog;
}

void SvcSystemLogRelay(int control) {
    relay_fd = control;
    sink = Sink::kRelay;
}

void SvcSystemLogWrite(int level, const char* module, const char* message) {
    char text[sizeof(SystemLogNote::text)];
    snprintf(text, sizeof(text), "%s%s%s%s", message, log_reason[0] != '\0' ? " (" : "", log_reason,
             log_reason[0] != '\0' ? ")" : "");
    log_reason[0] = '\0';
    if (sink == Sink::kNone || level < SVC_LOG_WARN || mute_depth > 0) {
        return;
    }
    if (sink == Sink::kRelay) {
        relay(level, module, text, "");
        return;
    }
    unsigned held_back = 0;
    if (admit(log_client, false, &held_back)) {
        Origin origin;
        origin.client = log_client;
        emit(level, module, text, origin, held_back);
    }
}

void SvcSystemLogReason(const char* reason) {
    copy_text(log_reason, reason);
}

void SvcSystemLogDevice(int level, const char* device, const char* outcome) {
    if (sink == Sink::kRelay) {
        relay(level, "media decoder", outcome, device);
    } else if (sink != Sink::kNone) {
        tell_once(level, "media decoder", std::string("device ") + device, outcome, device);
    }
}

void SvcSystemLogFromWorker(const SystemLogNote& received, int client, pid_t client_pid) {
    if (sink != Sink::kJournal && sink != Sink::kSyslog) {
        return;  // a server without a system log (the fuzz target's)
    }
    SystemLogNote note = received;
    make_safe(note.module);
    make_safe(note.work);
    make_safe(note.device);
    make_safe(note.text);
    const int level = std::min(std::max(note.level, int32_t{SVC_LOG_INFO}), int32_t{SVC_LOG_ERROR});
    if (note.device[0] != '\0') {
        tell_once(level, note.module, std::string("device ") + note.device, note.text, note.device);
        return;
    }
    if (note.about_client == 0) {
        tell_once(level, note.module, std::string("line ") + note.module + note.text, note.text,
                  "");
        return;
    }
    unsigned held_back = 0;
    if (level >= SVC_LOG_WARN && admit(client, true, &held_back)) {
        Origin origin;
        origin.client = client;
        origin.pid = client_pid;
        origin.work = note.work;
        emit(level, note.module, note.text, origin, held_back);
    }
}

void SvcSystemLogNewClient(int client) {
    std::lock_guard<std::mutex> lock(limiter_mutex);
    client_buckets.erase(client);
}

void SvcLogSetClient(int client) {
    log_client = client;
}

int SvcLogClient() {
    return log_client;
}

void SvcLogSetWork(const char* work) {
    std::lock_guard<std::mutex> lock(limiter_mutex);
    copy_text(log_work, work);
}

SystemLogMute::SystemLogMute() {
    ++mute_depth;
}

SystemLogMute::~SystemLogMute() {
    --mute_depth;
}
