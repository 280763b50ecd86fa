// AshMemory in process. This host has no ashmem driver: the test program carries the same hooks
// that are preloaded into the daemon under test, so the driver's size requests are answered on
// memfd descriptors and the device path in SVC_TEST_ASHMEM_DEVICE opens a new memfd. A definition
// in the program binds before the C library's for the statically linked AshMemory.

#include "support/testhooks.c"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "base/ashmem.h"
#include "support/test_util.h"

namespace {

const std::string kSizeRequestFailed =
    "[WRN] ashmem:38 ioctl(fd, (((0U) << (((0+8)+8)+14)) | (((0x77)) << (0+8)) | (((4)) << 0) | "
    "((0) << ((0+8)+8)))) result(-1) errno(25) Inappropriate ioctl for device\n";
const std::string kZeroSize = "[ERR] ashmem:60 bad descriptor ??? zero size\n";

bool fd_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// How many mappings of the memfd named `name` the process has.
int mappings_of(const std::string& name) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int n = 0;
    while (std::getline(maps, line)) {
        if (line.find("/memfd:" + name + " ") != std::string::npos) {
            ++n;
        }
    }
    return n;
}

TEST(AshMemoryTest, OrdinaryFileIsRefused) {
    TempDir dir;
    ASSERT_TRUE(write_file(dir.file("plain"), std::string(8192, 'x')));
    int fd = open(dir.file("plain").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    {
        FdCapture err(STDERR_FILENO);
        AshMemory memory(fd);
        EXPECT_EQ(memory.mSize, 0u);
        EXPECT_EQ(err.finish(), kSizeRequestFailed);

        FdCapture err2(STDERR_FILENO);
        EXPECT_EQ(memory.MapMemory(), nullptr);
        EXPECT_EQ(memory.mMemory, nullptr);
        EXPECT_EQ(err2.finish(), kZeroSize);
    }
    EXPECT_FALSE(fd_open(fd));  // owned, and closed on destruction
}

TEST(AshMemoryTest, RegionIsMappedOnceAndReleased) {
    int fd = memfd_create("ashmem-test-region", MFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 3 * 4096), 0);
    ASSERT_EQ(pwrite(fd, "abc", 3, 4096), 3);

    FdCapture err(STDERR_FILENO);
    AshMemory memory(fd);
    EXPECT_EQ(memory.mSize, 3u * 4096);
    void* first = memory.MapMemory();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(memory.MapMemory(), first);
    EXPECT_EQ(mappings_of("ashmem-test-region"), 1);

    // The mapping is the region itself, shared both ways.
    char* bytes = static_cast<char*>(first);
    EXPECT_EQ(std::string(bytes + 4096, 3), "abc");
    memcpy(bytes + 2 * 4096, "xyz", 3);
    char back[3];
    ASSERT_EQ(pread(fd, back, 3, 2 * 4096), 3);
    EXPECT_EQ(std::string(back, 3), "xyz");

    memory._destroy();
    EXPECT_EQ(memory.mMemory, nullptr);
    EXPECT_EQ(memory.mFd, -1);
    EXPECT_EQ(mappings_of("ashmem-test-region"), 0);
    EXPECT_FALSE(fd_open(fd));
    memory._destroy();  // again: nothing left to release
    EXPECT_EQ(err.finish(), "");
}

TEST(AshMemoryTest, FailedReleaseStillForgetsMappingAndDescriptor) {
    int fd = memfd_create("ashmem-test-release", MFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 4096), 0);
    AshMemory memory(fd);
    void* mapped = memory.MapMemory();
    ASSERT_NE(mapped, nullptr);
    FdCapture err(STDERR_FILENO);
    close(fd);  // the object's descriptor is gone behind its back
    memory.mMemory = static_cast<char*>(mapped) + 1;  // not page aligned: munmap fails
    memory._destroy();
    EXPECT_EQ(err.finish(),
              "[WRN] ashmem:28 munmap(mMemory, mSize) result(-1) errno(22) Invalid argument\n"
              "[WRN] ashmem:32 close(mFd) result(-1) errno(9) Bad file descriptor\n");
    EXPECT_EQ(memory.mMemory, nullptr);
    EXPECT_EQ(memory.mFd, -1);
    munmap(mapped, 4096);
}

TEST(AshMemoryTest, CreatingWithoutDeviceNameMapsNothing) {
    FdCapture err(STDERR_FILENO);
    {
        AshMemory memory(4096, nullptr);
        EXPECT_EQ(memory.mFd, -1);
        EXPECT_EQ(memory.mSize, 4096u);
        EXPECT_EQ(memory.mDeviceName, "");
        EXPECT_EQ(memory.MapMemory(), nullptr);
        EXPECT_EQ(memory.mFd, -1);
    }
    EXPECT_EQ(err.finish(), "");
}

TEST(AshMemoryTest, CreatingOpensTheDeviceAndSetsTheSize) {
    setenv("SVC_TEST_ASHMEM_DEVICE", "/dev/ashmem", 1);
    FdCapture err(STDERR_FILENO);
    int fd = -1;
    {
        AshMemory memory(2 * 4096, "/dev/ashmem");
        void* mapped = memory.MapMemory();
        ASSERT_NE(mapped, nullptr);
        fd = memory.mFd;
        ASSERT_GE(fd, 0);
        struct stat st;
        ASSERT_EQ(fstat(fd, &st), 0);
        EXPECT_EQ(st.st_size, 2 * 4096);
        static_cast<char*>(mapped)[2 * 4096 - 1] = 1;  // the whole size is mapped
        EXPECT_EQ(memory.MapMemory(), mapped);
    }
    EXPECT_FALSE(fd_open(fd));
    EXPECT_EQ(err.finish(), "");
    unsetenv("SVC_TEST_ASHMEM_DEVICE");
}

TEST(AshMemoryTest, MissingDeviceIsReported) {
    TempDir dir;
    const std::string device = dir.file("no-such-device");
    FdCapture err(STDERR_FILENO);
    {
        AshMemory memory(4096, device.c_str());
        EXPECT_EQ(memory.MapMemory(), nullptr);
        EXPECT_EQ(memory.mFd, -1);  // the failed open's result; nothing to close
    }
    EXPECT_EQ(err.finish(),
              "[WRN] ashmem:53 open(mDeviceName.c_str(), 02) result(-1) errno(2) No such file or "
              "directory\n");
}

}  // namespace
