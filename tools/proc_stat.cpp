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

long read_pss_kb(const std::string& dir) {
    std::ifstream in(dir + "/smaps_rollup");
    std::string key;
    long kb = 0;
    while (in >> key && key != "Pss:") {
        in.ignore(1 << 20, '\n');
    }
    return in >> kb ? kb : 0;
}

}  // namespace

ProcStat proc_stat(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid);
    ProcStat s;
    read_status(dir, &s);
    s.pss_kb = read_pss_kb(dir);
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

ProcStat service_stat(pid_t pid) {
    ProcStat all = proc_stat(pid);
    const std::string p = std::to_string(pid);
    std::ifstream children("/proc/" + p + "/task/" + p + "/children");
    for (pid_t child; children >> child;) {
        const ProcStat s = proc_stat(child);
        all.fds += s.fds, all.threads += s.threads, all.vm_kb += s.vm_kb;
        all.rss_kb += s.rss_kb, all.rss_anon_kb += s.rss_anon_kb, all.rss_file_kb += s.rss_file_kb;
        all.rss_shmem_kb += s.rss_shmem_kb, all.pss_kb += s.pss_kb, all.cpu_s += s.cpu_s;
    }
    return all;
}

}  // namespace mediatools
