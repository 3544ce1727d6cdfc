# How every piece of our own code is compiled: the language level, the warnings, the two flags on which the bits
# depend, and the hardening.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
# The libraries of one build lie together, so that they find each other by $ORIGIN as they do once installed.
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_INSTALL_RPATH "$ORIGIN;$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release)
endif()

set(KELRT_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize takes them")
if(KELRT_SANITIZE)
    add_compile_options("-fsanitize=${KELRT_SANITIZE}" -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options("-fsanitize=${KELRT_SANITIZE}")
endif()

add_library(kelRt_compile INTERFACE)
target_compile_options(kelRt_compile INTERFACE
    -Wall -Wextra -Wconversion -Wshadow -Werror -Wno-psabi   # (notes that g++ 7.1 changed how it passes spans)
    -ffp-contract=off                                   # a product is rounded before it is added, always
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/="           # two checkouts log the same source paths
)

# Hardening. Addresses are bound before main and read-only from then on, and calls of the C library are checked where
# the compiler knows how large an object is: in code that is optimised, and not under sanitizers, which see more.
target_link_options(kelRt_compile INTERFACE -Wl,-z,relro,-z,now)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)  # Android's 64-bit kernels may have pages of 16 KiB
    target_link_options(kelRt_compile INTERFACE -Wl,-z,max-page-size=16384)
endif()
if(NOT KELRT_SANITIZE)
    target_compile_options(kelRt_compile INTERFACE
        -U_FORTIFY_SOURCE $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>)
endif()
# Tool, simulator and examples also guard the stack of every function that has an address on it. In the library that
# costs the smallest contexts some nanoseconds of their hundred.
add_library(kelRt_hardened INTERFACE)
target_link_libraries(kelRt_hardened INTERFACE kelRt_compile)
target_compile_options(kelRt_hardened INTERFACE -fstack-protector-strong)

# What nobody waits for while it runs is built quickly. A sanitizer's checks double what the optimiser has to read: with
# them it stays out, which halves the time of such a file. But fuzzing is worth as much as it runs.
add_library(kelRt_built_quickly INTERFACE)
if(KELRT_SANITIZE AND NOT KELRT_FUZZ)
    target_compile_options(kelRt_built_quickly INTERFACE -O0)
else()
    target_compile_options(kelRt_built_quickly INTERFACE -O1)
endif()

# The library and the simulator need neither exceptions nor run-time types.
add_library(kelRt_runtime_compile INTERFACE)
target_link_libraries(kelRt_runtime_compile INTERFACE kelRt_compile)
target_compile_options(kelRt_runtime_compile INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions> $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)
# Counts which lines of the library run. At -O1, since intrinsics need their constants folded and yet each line should
# stay itself; threads count together.
option(KELRT_COVERAGE "Count the library's lines as they run" OFF)
if(KELRT_COVERAGE)
    target_compile_options(kelRt_runtime_compile INTERFACE --coverage -fprofile-update=prefer-atomic -O1)
    target_link_options(kelRt_compile INTERFACE --coverage)
endif()
# On 32-bit Arm clang turns neighbouring scalar sums into NEON arithmetic, which flushes subnormals; scalar code must
# not. What is to run on the unit is written for it.
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    target_compile_options(kelRt_runtime_compile INTERFACE -fno-vectorize -fno-slp-vectorize)
endif()

set(KELRT_LANES "" CACHE STRING "Four-lane arithmetic: empty for the best of the processor, or portable")
set_property(CACHE KELRT_LANES PROPERTY STRINGS "" portable)
if(KELRT_LANES STREQUAL "portable")
    target_compile_definitions(kelRt_compile INTERFACE KELRT_LANES_PORTABLE)
elseif(KELRT_LANES)
    message(FATAL_ERROR "KELRT_LANES: '${KELRT_LANES}' is neither empty nor portable")
endif()

set(KELRT_X86 "auto" CACHE STRING "Widest instruction set built on x86-64: auto (all), sse2, avx2 or avx512; \
avx512-emulated: its text alone, for tests on processors without it")
set_property(CACHE KELRT_X86 PROPERTY STRINGS auto sse2 avx2 avx512 avx512-emulated)
if(NOT KELRT_X86 MATCHES "^(auto|sse2|avx2|avx512|avx512-emulated)$")
    message(FATAL_ERROR "KELRT_X86: '${KELRT_X86}' is none of auto, sse2, avx2, avx512 and avx512-emulated")
endif()
