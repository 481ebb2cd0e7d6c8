# Cross-compiling for Windows x86-64 with Debian's MinGW-w64 (the POSIX thread
# model, for std::thread). Use:
#   cmake -S . -B build-windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(ZARN_MINGW_TRIPLET x86_64-w64-mingw32)

set(CMAKE_C_COMPILER ${ZARN_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZARN_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${ZARN_MINGW_TRIPLET}-windres)

# Libraries and headers come from the MinGW sysroot and from the libraries
# cross-built by scripts/cross-deps.sh (ZARN_WINDOWS_DEPS, a prefix), never
# from the Linux system.
if(NOT ZARN_WINDOWS_DEPS)
  set(ZARN_WINDOWS_DEPS ${CMAKE_CURRENT_LIST_DIR}/../build/windows-deps/prefix)
endif()
get_filename_component(ZARN_WINDOWS_DEPS ${ZARN_WINDOWS_DEPS} ABSOLUTE)
set(ZARN_WINDOWS_DEPS ${ZARN_WINDOWS_DEPS} CACHE PATH "Prefix of the cross-built dependencies")
set(CMAKE_FIND_ROOT_PATH /usr/${ZARN_MINGW_TRIPLET} ${ZARN_WINDOWS_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
