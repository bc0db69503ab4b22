# Windows on x86-64 by mingw-w64 with the POSIX thread model, whose std::mutex the product uses.
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

# The same bytes come out wherever the tree and the build directory lie. Of two maps that fit, the later one
# counts.
get_filename_component(sourceRoot "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(reproducible "-ffile-prefix-map=${sourceRoot}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=build")

set(hardened "-fstack-protector-strong -D_FORTIFY_SOURCE=2")
foreach(language C CXX)
  set(CMAKE_${language}_FLAGS_INIT "${reproducible}")
  set(CMAKE_${language}_FLAGS_RELEASE "-O2 -g -DNDEBUG -ffunction-sections -fdata-sections ${hardened}"
      CACHE STRING "Flags of a release")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_RELEASE "-Wl,--gc-sections -Wl,--no-insert-timestamp"
    CACHE STRING "Flags of a release")
