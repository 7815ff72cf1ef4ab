# Cross toolchain: 64-bit Windows with MinGW-w64, posix thread model (std::thread,
# std::mutex and GoogleTest need it; the default win32-thread compilers lack them).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

if(NOT DEFINED DORVANE_DEPS)
  if(DEFINED ENV{DORVANE_DEPS})
    set(DORVANE_DEPS "$ENV{DORVANE_DEPS}")
  else()
    set(DORVANE_DEPS /opt/dorvane-deps)
  endif()
endif()

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 "${DORVANE_DEPS}/mingw")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
