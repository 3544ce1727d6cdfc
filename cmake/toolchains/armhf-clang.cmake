# 32-bit Arm with NEON built by clang++, the compiler of Android, against Debian's cross libraries; in Thumb code as is
# Android's default (in Arm code clang loads vector constants anew in every step).
include("${CMAKE_CURRENT_LIST_DIR}/armhf.cmake")
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_CXX_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mthumb -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=neon -mthumb -mfloat-abi=hard")
