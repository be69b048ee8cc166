# 32-bit ARM panels (ARMv7 with floating point), with Debian's cross compiler and the libraries of
# build/sysroot/armhf.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(NIMBRA_DEBIAN_ARCHITECTURE armhf)
set(NIMBRA_TRIPLET arm-linux-gnueabihf)
set(NIMBRA_EMULATOR qemu-arm)
include("${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake")
