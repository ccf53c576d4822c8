# 32-bit Windows with the posix-thread variant of mingw-w64, since the win32-thread variant has no std::mutex.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)
set(CMAKE_C_COMPILER i686-w64-mingw32-gcc-posix)  # GoogleTest asks for one
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/i686-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/../scripts/wine")

# The mail server's threads keep the stack aligned to 4 bytes only, while the compiler assumes 16 for vector
# code. So every function aligns its own part.
set(CMAKE_CXX_FLAGS_INIT "-msse2 -mstackrealign")
set(CMAKE_C_FLAGS_INIT "-msse2 -mstackrealign")
set(linking "-static -Wl,--dynamicbase,--nxcompat,--no-insert-timestamp")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${linking}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${linking}")
set(CMAKE_EXE_LINKER_FLAGS_RELEASE_INIT "-s")
set(CMAKE_SHARED_LINKER_FLAGS_RELEASE_INIT "-s")
