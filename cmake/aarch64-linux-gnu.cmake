# Cross-build for 64-bit ARM on a Debian host with multiarch: crossbuild-essential-arm64 for the
# compilers and the :arm64 -dev packages for the libraries (installed by scripts/ci-cross-arm64).
# Test programs run under qemu-aarch64-static, both for test discovery at build time and in ctest.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Headers in /usr/include are shared by every architecture; libraries and the arch-specific
# headers live under the triplet directories, which CMake searches through CMAKE_LIBRARY_ARCHITECTURE.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config must see the arm64 .pc files only, never the host's.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

find_program(SVC_QEMU_AARCH64 qemu-aarch64-static)
if(SVC_QEMU_AARCH64)
  # The multiarch libc6:arm64 puts the dynamic loader at /lib/ld-linux-aarch64.so.1, so no -L
  # prefix is needed.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${SVC_QEMU_AARCH64})
endif()
