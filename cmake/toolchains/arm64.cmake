# 64-bit ARM panels, with Debian's cross compiler and the libraries of build/sysroot/arm64.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(NIMBRA_DEBIAN_ARCHITECTURE arm64)
set(NIMBRA_TRIPLET aarch64-linux-gnu)
set(NIMBRA_EMULATOR qemu-aarch64)
include("${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake")
