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

telvor_add_windows_program(telvor "TELVOR VPN service")
target_link_libraries(telvor PRIVATE telvor_logic telvor_platform)
