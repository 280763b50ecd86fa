#define LOG_MODULE "runtime"
#define LOG_FILE "confinement"

#include "service/confinement.h"

#include <dirent.h>

#include "base/log.h"
#include "base/system_log.h"

namespace confinement {

namespace {

// Threads of this process now. Landlock confines the calling thread and the threads it starts
// from then on, so it must come while the loop thread is alone.
int threads() {
    int count = 0;
    DIR* tasks = opendir("/proc/self/task");
    for (dirent* e = tasks != nullptr ? readdir(tasks) : nullptr; e != nullptr;
         e = readdir(tasks)) {
        count += e->d_name[0] != '.';
    }
    if (tasks != nullptr) {
        closedir(tasks);
    }
    return count;
}

}  // namespace

bool confine(Stage stage) {
    // A worker's decoding stage narrows what its first stage, applied while it was alone, binds
    // every thread to already; FFmpeg's threads may run by then.
    const int running = stage == Stage::kWorkerDecoding ? 1 : threads();
    std::string note;
    const std::string files = restrict_file_system(stage, &note);
    const std::string calls = restrict_system_calls(stage);
    if (files.empty() && calls.empty() && running == 1) {
        LOGD("confined%s: system calls filtered, files restricted%s%s",
             stage == Stage::kAccepting       ? ""
             : stage == Stage::kWorkerDevices ? " for its devices"
                                              : " for decoding",
             note.empty() ? "" : "; ", note.c_str());
        return true;
    }
    // One line says what stays open; the service serves all the same. It is the host's matter,
    // not the client's: it does not spend the client's allowance of system-log lines.
    LogClientScope host(-1);
    LOGW("not fully confined:%s%s%s%s%s", calls.empty() ? "" : " ", calls.c_str(),
         files.empty() ? "" : " ", files.c_str(),
         running == 1 ? "" : " (other threads ran before the file system policy)");
    return false;
}

}  // namespace confinement
