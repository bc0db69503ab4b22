# What every target of the project is compiled with.
add_library(telvor_options INTERFACE)
target_include_directories(telvor_options INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_compile_options(telvor_options INTERFACE
  -Wall -Wextra -Werror -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wold-style-cast -Wimplicit-fallthrough)

set(TELVOR_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize= takes them")
if(TELVOR_SANITIZE)
  target_compile_options(telvor_options INTERFACE
    -fsanitize=${TELVOR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(telvor_options INTERFACE -fsanitize=${TELVOR_SANITIZE})
endif()

option(TELVOR_FUZZ "Build the fuzz targets with libFuzzer; for clang" OFF)
if(TELVOR_FUZZ)
  target_compile_options(telvor_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# The branches and lines that are run are counted in what links this: the system's own sources.
option(TELVOR_COVERAGE "Count what the tests run of the system; for gcc" OFF)
add_library(telvor_coverage INTERFACE)
if(TELVOR_COVERAGE)
  target_compile_options(telvor_coverage INTERFACE --coverage -fprofile-abs-path -fprofile-update=atomic)
  target_link_options(telvor_coverage INTERFACE --coverage)
endif()

if(WIN32)
  target_compile_definitions(telvor_options INTERFACE
    _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000000 UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX)
  target_compile_options(telvor_options INTERFACE -fstack-protector-strong)
  target_link_options(telvor_options INTERFACE -static
    LINKER:--dynamicbase LINKER:--high-entropy-va LINKER:--nxcompat)
else()
  find_package(Threads REQUIRED)
  target_link_libraries(telvor_options INTERFACE Threads::Threads)
endif()
