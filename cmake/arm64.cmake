# Toolchain: builds for arm64 on another Debian machine that has the cross compiler and the libraries of
# both processors (scripts/packages, arm64). Tests run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_STRIP aarch64-linux-gnu-strip)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config)
