# SPDX-License-Identifier: Apache-2.0
# 32-bit ARM with hardware floating point: Debian's cross compiler, the libraries that tools/packages-arm.sh
# unpacks under build/arm-root (elsewhere: the environment variable VNLOG_ARM_ROOT), and qemu-arm to run the programs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
if(DEFINED ENV{VNLOG_ARM_ROOT})
  set(CMAKE_SYSROOT $ENV{VNLOG_ARM_ROOT})
else()
  get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm-root ABSOLUTE)
endif()
set(CMAKE_FIND_ROOT_PATH ${CMAKE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-arm -L ${CMAKE_SYSROOT} -E LD_LIBRARY_PATH=${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/android)
