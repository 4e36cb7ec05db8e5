# Cross-builds for 64-bit Windows with Debian's MinGW-w64 (package g++-mingw-w64-x86-64-posix).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
# The oldest Windows that the program is for is 10.
set(CMAKE_SYSTEM_VERSION 10.0)

set(triplet x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${triplet}-gcc-posix)
set(CMAKE_CXX_COMPILER ${triplet}-g++-posix)
set(CMAKE_RC_COMPILER ${triplet}-windres)
set(CMAKE_MC_COMPILER ${triplet}-windmc)

# The libraries are those that scripts/windows-libraries.sh has built; this machine's own are never the ones wanted.
if(DEFINED ENV{KELTOP_WINDOWS_CACHE})
  set(libraries $ENV{KELTOP_WINDOWS_CACHE}/current)
elseif(DEFINED ENV{XDG_CACHE_HOME})
  set(libraries $ENV{XDG_CACHE_HOME}/keltop-windows/current)
else()
  set(libraries $ENV{HOME}/.cache/keltop-windows/current)
endif()
file(GLOB CMAKE_PREFIX_PATH ${libraries}/*)
set(CMAKE_FIND_ROOT_PATH /usr/${triplet} ${libraries})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# One file that needs nothing installed: the compiler's libraries go into the program.
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
