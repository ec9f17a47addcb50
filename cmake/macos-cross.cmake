# Builds the macOS programs on Linux: Zig's clang and Mach-O linker through
# the wrappers in tools/zig/ (tools/macos-build.sh installs Zig and builds
# both architectures):
#
#   cmake -S . -B build-macos/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/macos-cross.cmake \
#         -DZQIM_MACOS_ARCH=arm64          # or x86_64
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 20.0)  # Darwin 20: macOS 11

if(NOT ZQIM_MACOS_ARCH)
  set(ZQIM_MACOS_ARCH arm64)
endif()
if(NOT ZQIM_MACOS_ARCH MATCHES "^(arm64|x86_64)$")
  message(FATAL_ERROR "ZQIM_MACOS_ARCH must be arm64 or x86_64, not ${ZQIM_MACOS_ARCH}")
endif()
set(CMAKE_SYSTEM_PROCESSOR ${ZQIM_MACOS_ARCH})
# The compiler checks run in projects of their own that read this file again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZQIM_MACOS_ARCH)

# The oldest macOS the programs are built and checked for: the wrappers
# compile against newer headers, and every call newer than this must be
# guarded by __builtin_available.
set(CMAKE_OSX_DEPLOYMENT_TARGET 11.0 CACHE STRING "Minimum macOS version")
# No Xcode SDK: Zig brings the headers and libSystem stubs; and one
# architecture per build tree (tools/macos-build.sh joins them with lipo).
set(CMAKE_OSX_SYSROOT "" CACHE PATH "No macOS SDK: Zig's headers and stubs")
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "One architecture: ZQIM_MACOS_ARCH")

# Nothing can run what this builds, so what the compiler says is all there
# is to see: every warning fails the build. The availability warning is on
# by default; named, so that it stays on.
set(CMAKE_C_FLAGS_INIT "-Werror -Wunguarded-availability-new")
set(CMAKE_CXX_FLAGS_INIT "-Werror -Wunguarded-availability-new")

get_filename_component(_zqim_zig_dir "${CMAKE_CURRENT_LIST_DIR}/../tools/zig" ABSOLUTE)
set(CMAKE_C_COMPILER "${_zqim_zig_dir}/${ZQIM_MACOS_ARCH}-cc")
set(CMAKE_CXX_COMPILER "${_zqim_zig_dir}/${ZQIM_MACOS_ARCH}-c++")
set(CMAKE_AR "${_zqim_zig_dir}/ar" CACHE FILEPATH "Archiver")
set(CMAKE_RANLIB "${_zqim_zig_dir}/ranlib" CACHE FILEPATH "Ranlib")
# CMake asks for it on Apple platforms; nothing here has an install name or
# a run path to change. LLVM's (Debian: llvm) does the same job.
file(GLOB _zqim_llvm_bins /usr/lib/llvm-*/bin)
find_program(CMAKE_INSTALL_NAME_TOOL NAMES llvm-install-name-tool install_name_tool
             HINTS ${_zqim_llvm_bins})

# Libraries, headers and packages of this machine are Linux's, never the
# target's: none is looked for (GoogleTest is built from its sources).
# Programs run here, so they are found here.
set(CMAKE_FIND_ROOT_PATH "${CMAKE_CURRENT_LIST_DIR}/no-macos-sysroot")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
