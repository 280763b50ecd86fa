#pragma once

// Small helpers shared by the tests: temporary directories, files, and capturing what a piece of
// code writes to one of the process's own descriptors.

#include <sys/types.h>

#include <string>

// Removes a file or a whole directory tree (rm -rf); true when nothing is left.
bool remove_tree(const std::string& path);

// A fresh directory under /tmp, removed with everything in it on destruction.
class TempDir {
  public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    bool valid() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// The whole content of a file; empty when it cannot be read.
std::string read_file(const std::string& path);
bool write_file(const std::string& path, const std::string& content, mode_t mode = 0644);
// Makes every missing directory of `path`; true when it exists afterwards.
bool make_dirs(const std::string& path, mode_t mode = 0755);

// Points descriptor `fd` (1 or 2) at a temporary file until finish(), which restores it and
// returns what was written. Flushes the C streams on both sides of the switch.
class FdCapture {
  public:
    explicit FdCapture(int fd);
    FdCapture(const FdCapture&) = delete;
    FdCapture& operator=(const FdCapture&) = delete;
    ~FdCapture();

    std::string finish();

  private:
    int fd_;
    int saved_ = -1;
    int file_ = -1;
};

// The target of a symbolic link, e.g. /proc/<pid>/cwd; empty on failure.
std::string read_link(const std::string& path);

// A sequenced-packet connection to the socket at `path` (at most 107 bytes), close-on-exec; -1
// with errno set on failure.
int connect_socket(const std::string& path);
// The pid of the process at the other end of a connected socket, or -1.
pid_t peer_pid(int fd);
// The pid of whoever listens on `path`, or -1 when nobody answers.
pid_t listener_pid(const std::string& path);
