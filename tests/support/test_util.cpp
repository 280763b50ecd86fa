#include "support/test_util.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

bool remove_tree(const std::string& path) {
    if (path.empty()) {
        return true;
    }
    // rm works through directory descriptors, so trees deeper than PATH_MAX go as well.
    pid_t child = fork();
    if (child == 0) {
        execlp("rm", "rm", "-rf", "--", path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        return false;
    }
    struct stat st;
    return lstat(path.c_str(), &st) != 0 && errno == ENOENT;
}

TempDir::TempDir() {
    char path[] = "/tmp/svc-test-XXXXXX";
    if (mkdtemp(path) != nullptr) {
        path_ = path;
    }
}

TempDir::~TempDir() {
    if (!path_.empty() && !remove_tree(path_)) {
        fprintf(stderr, "could not remove %s\n", path_.c_str());
    }
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool write_file(const std::string& path, const std::string& content, mode_t mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        return false;
    }
    bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    return close(fd) == 0 && ok;
}

bool make_dirs(const std::string& path, mode_t mode) {
    for (size_t pos = path.find('/', 1);; pos = path.find('/', pos + 1)) {
        std::string prefix = path.substr(0, pos);
        if (mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
            return false;
        }
        if (pos == std::string::npos) {
            break;
        }
    }
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

FdCapture::FdCapture(int fd) : fd_(fd) {
    char path[] = "/tmp/svc-capture-XXXXXX";
    file_ = mkstemp(path);
    if (file_ < 0) {
        return;
    }
    unlink(path);
    fflush(stdout);
    fflush(stderr);
    saved_ = dup(fd_);
    dup2(file_, fd_);
}

FdCapture::~FdCapture() {
    finish();
}

std::string FdCapture::finish() {
    if (file_ < 0) {
        return "";
    }
    fflush(stdout);
    fflush(stderr);
    dup2(saved_, fd_);
    close(saved_);
    std::string content;
    char buffer[4096];
    ssize_t n;
    off_t offset = 0;
    while ((n = pread(file_, buffer, sizeof(buffer), offset)) > 0) {
        content.append(buffer, static_cast<size_t>(n));
        offset += n;
    }
    close(file_);
    file_ = -1;
    saved_ = -1;
    return content;
}

std::string read_link(const std::string& path) {
    char target[4096];
    ssize_t n = readlink(path.c_str(), target, sizeof(target));
    return n < 0 ? std::string() : std::string(target, static_cast<size_t>(n));
}

int connect_socket(const std::string& path) {
    sockaddr_un addr{};
    if (path.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int ret;
    do {
        ret = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    } while (ret < 0 && errno == EINTR);
    if (ret < 0) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

pid_t peer_pid(int fd) {
    ucred cred{};
    socklen_t len = sizeof(cred);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 ? cred.pid : -1;
}

pid_t listener_pid(const std::string& path) {
    int fd = connect_socket(path);
    if (fd < 0) {
        return -1;
    }
    pid_t pid = peer_pid(fd);
    close(fd);
    return pid;
}
