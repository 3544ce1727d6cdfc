# 64-bit Arm built by clang++, against Debian's cross libraries.
include("${CMAKE_CURRENT_LIST_DIR}/aarch64.cmake")
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)
