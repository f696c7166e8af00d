# Cross-compiling the library for 64-bit Windows with mingw-w64:
#   cmake -S . -B build-mingw -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake
# The -posix variant of the compiler is required: the -win32 one has no
# std::mutex. The C++ runtime is linked statically so that the DLLs and
# programs made with it load without mingw's runtime DLLs beside them.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KV_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${KV_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KV_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${KV_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${KV_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
