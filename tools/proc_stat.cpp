#include "tools/proc_stat.h"

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

namespace mediatools {

namespace {

// Calls `each` with every entry of `dir` but . and ..; returns their number.
int for_entries(const std::string& dir, const std::function<void(const char*)>& each) {
    DIR* d = opendir(dir.c_str());
    int n = 0;
    while (dirent* e = d != nullptr ? readdir(d) : nullptr) {
        if (e->d_name[0] != '.') {
            ++n;
            each(e->d_name);
        }
    }
    if (d != nullptr) {
        closedir(d);
    }
    return n;
}

void read_status(const std::string& dir, ProcStat* s) {
    std::ifstream in(dir + "/status");
    std::string key;
    const std::pair<const char*, long*> fields[] = {{"VmSize:", &s->vm_kb},
                                                    {"VmRSS:", &s->rss_kb},
                                                    {"RssAnon:", &s->rss_anon_kb},
                                                    {"RssFile:", &s->rss_file_kb},
                                                    {"RssShmem:", &s->rss_shmem_kb}};
    while (in >> key) {
        if (key == "State:") {
            in >> s->state;
        }
        for (const auto& f : fields) {
            if (key == f.first) {
                in >> *f.second;
            }
        }
        in.ignore(1 << 20, '\n');
    }
}

}  // namespace

ProcStat proc_stat(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid);
    ProcStat s;
    read_status(dir, &s);
    s.fds = for_entries(dir + "/fd", [](const char*) {});
    s.threads = for_entries(dir + "/task", [&](const char* tid) {
        std::ifstream in(dir + "/task/" + tid + "/schedstat");
        double ns = 0;
        if (in >> ns) {
            s.cpu_s += ns / 1e9;
            if (atoi(tid) == pid) {
                s.main_cpu_s = ns / 1e9;
            }
        }
    });
    return s;
}

}  // namespace mediatools
