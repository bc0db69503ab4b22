# The control plane that the service talks to is fixed when it is built.
set(TELVOR_CP_BASE_URL "https://cp.telvor.test:8443" CACHE STRING
    "Base URL of the control plane: https, a host, an optional port, no path")

if(NOT TELVOR_CP_BASE_URL MATCHES "^https://[^/:@?#\"\\ ]+(:[0-9]+)?$")
  message(FATAL_ERROR
    "TELVOR_CP_BASE_URL must be an https URL without a path, such as https://cp.telvor.test:8443, "
    "but it is '${TELVOR_CP_BASE_URL}'.")
endif()
if(TELVOR_CP_BASE_URL MATCHES ":([0-9]+)$")
  set(port "${CMAKE_MATCH_1}")
  string(LENGTH "${port}" digits)
  if(digits GREATER 5 OR port LESS 1 OR port GREATER 65535)
    message(FATAL_ERROR "TELVOR_CP_BASE_URL names port ${port}; a port lies between 1 and 65535.")
  endif()
endif()
