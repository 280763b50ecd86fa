#include "base/log.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "base/system_log.h"

namespace {

constexpr size_t kLineSize = 512;
constexpr int kMaxPrefix = 256;

const char* const kLevelNames[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

std::mutex log_mutex;

// Set by a static initialiser so that logging works before main().
FILE* log_stream = stdout;

// Lines written from other static initialisers may come before log_stream is set.
FILE* current_stream() {
    return log_stream != nullptr ? log_stream : stdout;
}

// Whether the log goes to /dev/null, as it does once daemon() has pointed standard output there:
// then a line is dropped before it is formatted, since formatting it and writing it would cost a
// short request more than the request itself. Worked out at the first line after each switch of
// the stream (daemon() redirects the descriptor after the static initialisers, before any line).
enum StreamKind { kUnknown, kWrites, kDiscards };
std::atomic<int> stream_kind{kUnknown};
std::atomic<bool> log_off{false};

bool is_dev_null(FILE* stream) {
    struct stat st;
    struct stat null_st;
    return fstat(fileno(stream), &st) == 0 && S_ISCHR(st.st_mode) &&
           stat("/dev/null", &null_st) == 0 && st.st_rdev == null_st.st_rdev;
}

bool discarding() {
    int kind = stream_kind.load(std::memory_order_relaxed);
    if (kind == kUnknown) {
        std::lock_guard<std::mutex> lock(log_mutex);
        kind = is_dev_null(current_stream()) ? kDiscards : kWrites;
        stream_kind.store(kind, std::memory_order_relaxed);
    }
    return kind == kDiscards;
}

}  // namespace

static LogCloseGuard log_close_guard;

void SvcLogWrite(int level, const char* module, const char* file, int line, const char* fmt, ...) {
    if (static_cast<unsigned>(level) > SVC_LOG_FATAL) {
        level = SVC_LOG_FATAL;
    }
    // Warnings and errors are formatted for the system log even when the log itself is dropped.
    const bool to_stream = !discarding();
    if (!to_stream && level < SVC_LOG_WARN) {
        return;
    }

    char buffer[kLineSize];
    int n = snprintf(buffer, kLineSize, "[%s] [%s] %s:%d ", kLevelNames[level], module, file, line);
    if (n < 1 || n > kMaxPrefix) {
        n = 0;  // a failed or oversized prefix is dropped, the message keeps the whole buffer
    }

    va_list args;
    va_start(args, fmt);
    int m = vsnprintf(buffer + n, kLineSize - n, fmt, args);
    va_end(args);
    if (m < 0) {
        m = 0;
    }

    size_t total = static_cast<size_t>(n) + static_cast<size_t>(m);
    size_t length;
    if (total <= kLineSize - 2) {
        buffer[total] = '\n';
        length = total + 1;
    } else {
        memcpy(buffer + kLineSize - 4, "~~~\n", 4);
        length = kLineSize;
    }

    if (to_stream) {
        std::lock_guard<std::mutex> lock(log_mutex);
        FILE* out = current_stream();
        fwrite(buffer, 1, length, out);
        fflush(out);
    }
    if (level >= SVC_LOG_WARN) {
        buffer[length - 1] = '\0';  // the newline, or the last byte of the cut mark
        SvcSystemLogWrite(level, module, buffer + n);
    }

    if (level == SVC_LOG_FATAL) {
        abort();
    }
}

// The switch messages are verbatim (Chinese in the original): "switching the log file failed"
// and "log file switched: <destination>".
void SvcLogFile(const char* path) {
    std::lock_guard<std::mutex> lock(log_mutex);
    if (log_off.load()) {
        return;
    }
    stream_kind.store(kUnknown, std::memory_order_relaxed);
    log_stream = current_stream();
    if (path != nullptr) {
        FILE* file = fopen(path, "ab+");
        if (file == nullptr) {
            fprintf(log_stream, "切换日志文件失败 %s %d\n", path, errno);
            fflush(log_stream);
            return;
        }
        fprintf(log_stream, "日志文件切换: %s\n", path);
        if (log_stream == stdout) {
            fflush(stdout);
        } else {
            fclose(log_stream);
        }
        log_stream = file;
        return;
    }

    static const char kBackToStdout[] = "日志文件切换: 标准输出\n";
    fwrite(kBackToStdout, 1, sizeof(kBackToStdout) - 1, log_stream);
    if (log_stream != stdout) {
        fclose(log_stream);
        log_stream = stdout;
    } else {
        fflush(stdout);
    }
}

void SvcLogOff() {
    std::lock_guard<std::mutex> lock(log_mutex);
    log_off.store(true);
    stream_kind.store(kDiscards, std::memory_order_relaxed);
}

LogCloseGuard::~LogCloseGuard() {
    SvcLogFile(nullptr);
}
