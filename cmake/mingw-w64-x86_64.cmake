# Cross toolchain: x64 Windows through mingw-w64 (posix threads), run under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(QV_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${QV_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QV_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${QV_TRIPLE}-windres)
set(CMAKE_AR ${QV_TRIPLE}-gcc-ar-posix CACHE FILEPATH "")
set(CMAKE_RANLIB ${QV_TRIPLE}-gcc-ranlib-posix CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH /usr/${QV_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Every binary we ship or test is linked statically, so no mingw runtime DLL travels with it.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
