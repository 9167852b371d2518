# The terminal's machine: ARMv7 hard-float Linux, by Debian's cross compiler against the sysroot that
# cmake/armhf-sysroot.sh makes. -DLS_SYSROOT=DIR takes another sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(LS_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" CACHE PATH "Sysroot of the ARMv7 build")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LS_SYSROOT)
get_filename_component(CMAKE_SYSROOT "${LS_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${CMAKE_SYSROOT}/.packages")
  message(FATAL_ERROR "No sysroot in ${CMAKE_SYSROOT}: make it with cmake/armhf-sysroot.sh")
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# -Wno-psabi: GCC's remark that GCC 6 passed some arguments differently; all of it is built by one compiler.
set(ls_machine "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -Wno-psabi")
set(CMAKE_C_FLAGS_INIT "${ls_machine}")
set(CMAKE_CXX_FLAGS_INIT "${ls_machine}")

# Libraries and headers from the sysroot only, programs from this machine only.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

# A processor with nothing beyond what the flags above ask for, so that a stray newer instruction is seen.
find_program(LS_QEMU_ARM qemu-arm-static)
if(LS_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${LS_QEMU_ARM};-cpu;cortex-a9;-L;${CMAKE_SYSROOT}")
endif()
