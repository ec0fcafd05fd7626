# Cross-builds for Debian arm64 with Debian's cross toolchain (crossbuild-essential-arm64)
# and the arm64 libraries installed beside the build machine's own (multiarch):
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake ...
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# GNUInstallDirs gives plain "lib" when cross-building; Debian's tshark looks for Lua plugins here.
set(CMAKE_INSTALL_LIBDIR lib/aarch64-linux-gnu)
# Test programs cannot run at build time: they are listed when CTest runs them (under qemu-user).
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)
