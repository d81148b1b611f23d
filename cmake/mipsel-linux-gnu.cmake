# Cross-build for the appliance: 32-bit little-endian MIPS Linux, with
# Debian's mipsel-linux-gnu cross compilers. Programs built here run on this
# machine under qemu-mipsel with the target's sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)

set(KOVDSK_TARGET mipsel-linux-gnu)
set(KOVDSK_SYSROOT /usr/${KOVDSK_TARGET})

set(CMAKE_C_COMPILER ${KOVDSK_TARGET}-gcc)
set(CMAKE_CXX_COMPILER ${KOVDSK_TARGET}-g++)

set(CMAKE_FIND_ROOT_PATH ${KOVDSK_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# CTest and test discovery run the target's programs through this.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel -L ${KOVDSK_SYSROOT})
