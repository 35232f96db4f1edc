# Cross-compiling for 32-bit Windows with Debian's MinGW-w64 toolchain
# (packages g++-mingw-w64-i686-posix and binutils-mingw-w64-i686).
#
# The posix-threads variant of the compilers is used: GoogleTest needs
# std::thread and std::mutex, which the win32-threads variant lacks.
#
#   cmake -S . -B build-win32 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-i686-w64-mingw32.cmake
#
# Libraries built for the target (libopus, GoogleTest) are looked up under
# QUILLON_MINGW_PREFIX (default: build-deps/i686-w64-mingw32 in the source
# tree, where tools/scripts/build-opus-mingw.sh installs them).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)

set(QUILLON_MINGW_TRIPLET i686-w64-mingw32)
set(CMAKE_C_COMPILER ${QUILLON_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QUILLON_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${QUILLON_MINGW_TRIPLET}-windres)
find_program(CMAKE_AR ${QUILLON_MINGW_TRIPLET}-gcc-ar-posix)
find_program(CMAKE_RANLIB ${QUILLON_MINGW_TRIPLET}-gcc-ranlib-posix)
find_program(CMAKE_DLLTOOL ${QUILLON_MINGW_TRIPLET}-dlltool)
find_program(CMAKE_OBJDUMP ${QUILLON_MINGW_TRIPLET}-objdump)

# Where the target's own libraries live. The variable reaches try_compile
# projects too, so the default is computed from this file's location.
if(NOT QUILLON_MINGW_PREFIX)
  get_filename_component(QUILLON_MINGW_PREFIX
    "${CMAKE_CURRENT_LIST_DIR}/../build-deps/${QUILLON_MINGW_TRIPLET}" ABSOLUTE)
endif()
set(QUILLON_MINGW_PREFIX "${QUILLON_MINGW_PREFIX}" CACHE PATH "Prefix of libraries built for the Windows target")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUILLON_MINGW_PREFIX)

set(CMAKE_FIND_ROOT_PATH /usr/${QUILLON_MINGW_TRIPLET} ${QUILLON_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must see the target's .pc files only, never the build host's.
set(ENV{PKG_CONFIG_LIBDIR} "${QUILLON_MINGW_PREFIX}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# MinGW's <math.h> defines M_PI and friends only on request when compiling
# strict ISO C++ (CMAKE_CXX_EXTENSIONS OFF); the sources expect them.
set(CMAKE_C_FLAGS_INIT "-D_USE_MATH_DEFINES")
set(CMAKE_CXX_FLAGS_INIT "-D_USE_MATH_DEFINES")

# Everything is linked statically: the DLL and the test programs import
# nothing but Windows system DLLs (no libgcc_s, libstdc++ or winpthread DLLs).
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")

# Test programs run under Wine.
find_program(QUILLON_WINE wine)
if(QUILLON_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QUILLON_WINE})
endif()
