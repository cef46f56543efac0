# Cross-compiles the 64-bit Windows DLL with MinGW-w64 (posix thread model,
# which has std::mutex for GoogleTest) and runs what it builds under 64-bit
# Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Wine's 64-bit loader is called by itself: Debian's wine wrapper always
# starts the 32-bit loader first, which machines without 32-bit support
# cannot run, and Debian keeps wine64 in Wine's library folder, off the path.
# The programs run in a Wine prefix of their own (KAVO_WINE64_PREFIX, else
# ~/.wine64): a prefix keeps the architecture it was made with, and one made
# by the 32-bit loader cannot run 64-bit programs. scripts/install-win32-toolchain
# and .ci/run use the same loader and prefix.
if(NOT KAVO_WINE64)
  find_program(KAVO_WINE64 NAMES wine64
               PATHS /usr/lib/wine /usr/lib64/wine /opt/wine-stable/bin NO_CMAKE_FIND_ROOT_PATH)
  if(NOT KAVO_WINE64)
    set(KAVO_WINE64 wine64)
  endif()
endif()
if(DEFINED ENV{KAVO_WINE64_PREFIX})
  set(KAVO_WINE64_PREFIX "$ENV{KAVO_WINE64_PREFIX}")
else()
  set(KAVO_WINE64_PREFIX "$ENV{HOME}/.wine64")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR env "WINEPREFIX=${KAVO_WINE64_PREFIX}" "${KAVO_WINE64}")
# The C and C++ runtimes and the thread library go inside the DLL and the
# programs, so that they need nothing but Windows' own DLLs.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
