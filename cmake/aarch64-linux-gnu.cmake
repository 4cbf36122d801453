# Cross-compiling for 64-bit ARM Linux with Debian's cross toolchain, against the arm64 packages of
# the dependencies installed side by side with the host ones (multiarch). The results run on this
# host under user-mode emulation, which is also how CMake runs them (test discovery, ctest).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Packages are found in /usr/lib/aarch64-linux-gnu, never in the host's /usr/lib/x86_64-linux-gnu.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# The emulator takes the dynamic loader from the cross toolchain's sysroot (-L). The C and C++
# runtimes must come from there too: the arm64 packages install a second libc, of another build,
# whose private interface to that loader differs (mixed, the first thread creation spins forever).
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-aarch64 -L /usr/aarch64-linux-gnu -E LD_LIBRARY_PATH=/usr/aarch64-linux-gnu/lib)
