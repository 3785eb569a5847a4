# Cross build for 64-bit Windows with Debian's MinGW-w64 toolchain
# (g++-mingw-w64-x86-64-posix: the posix thread model, which std::thread
# needs). Every program is linked statically, C and C++ runtimes and the
# thread library included, so that an .exe runs on a bare Windows. On this
# machine the programs run under Wine (wine64); WINEDEBUG=-all keeps Wine's
# own diagnostics out of the programs' standard error.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT -static)

set(CMAKE_CROSSCOMPILING_EMULATOR env;WINEDEBUG=-all;wine)
