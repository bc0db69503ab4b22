# The Windows half: the translation of the platform layer, and the executable.
add_library(telvor_platform STATIC
  service/platform_windows.cpp
  engine/platform_windows.cpp
  controlplane/platform_windows.cpp
  wireguard/platform_windows.cpp
  firewall/platform_windows.cpp
  splittunnel/platform_windows.cpp
  ipc/platform_windows.cpp)
target_link_libraries(telvor_platform
  PUBLIC telvor_options
  PRIVATE winhttp ws2_32 iphlpapi fwpuclnt crypt32 bcrypt advapi32)

enable_language(RC)
configure_file(service/telvor.rc.in telvor.rc @ONLY)
add_executable(telvor ${CMAKE_CURRENT_BINARY_DIR}/telvor.rc)
set_target_properties(telvor PROPERTIES
  LINKER_LANGUAGE CXX
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
target_link_options(telvor PRIVATE -municode)
target_link_libraries(telvor PRIVATE telvor_logic telvor_platform)

# What is shipped holds no symbols; they lie beside it, tied to it by their check sum. objcopy stamps its output
# with the time unless it is told another.
set(telvorObjcopy ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=0 ${CMAKE_OBJCOPY})
add_custom_command(TARGET telvor POST_BUILD
  COMMAND ${telvorObjcopy} --only-keep-debug $<TARGET_FILE:telvor> $<TARGET_FILE:telvor>.debug
  COMMAND ${telvorObjcopy} --strip-all --add-gnu-debuglink=$<TARGET_FILE:telvor>.debug $<TARGET_FILE:telvor>
  BYPRODUCTS ${CMAKE_BINARY_DIR}/bin/telvor.exe.debug
  VERBATIM)
