#pragma once

// Process-wide logger: one line per call, "[LEVEL] [module] file:line message".

enum SvcLogLevel {
    SVC_LOG_DEBUG = 0,
    SVC_LOG_INFO = 1,
    SVC_LOG_WARN = 2,
    SVC_LOG_ERROR = 3,
    SVC_LOG_FATAL = 4,
};

void SvcLogWrite(int level, const char* module, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

// Switches the output to the file at `path` (appending), or back to standard output when null.
void SvcLogFile(const char* path);
// Drops every line from now on, the switch messages too: for the tools, which run the decoding
// in-process and write their own output to standard output.
void SvcLogOff();

class LogCloseGuard {
  public:
    ~LogCloseGuard();
};

// Each source file defines LOG_MODULE and LOG_FILE before using these.
#define SVC_LOG(level, ...) SvcLogWrite((level), LOG_MODULE, LOG_FILE, __LINE__, __VA_ARGS__)
#define LOGD(...) SVC_LOG(SVC_LOG_DEBUG, __VA_ARGS__)
#define LOGI(...) SVC_LOG(SVC_LOG_INFO, __VA_ARGS__)
#define LOGW(...) SVC_LOG(SVC_LOG_WARN, __VA_ARGS__)
#define LOGE(...) SVC_LOG(SVC_LOG_ERROR, __VA_ARGS__)
