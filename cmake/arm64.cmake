# Builds for arm64 with Debian's cross compiler, against Debian's libraries for arm64, which `scripts/deps --for arm64` installs.
# Programs of the build run under qemu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)
set(PKG_CONFIG_EXECUTABLE /usr/bin/${CMAKE_LIBRARY_ARCHITECTURE}-pkg-config)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
