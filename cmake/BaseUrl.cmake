# The control plane that the service talks to is fixed when it is built. Before it builds anything ./package has
# a URL judged by this file alone, as a script.
set(TELVOR_CP_BASE_URL "https://cp.telvor.test:8443" CACHE STRING
    "Base URL of the control plane: https, a host, an optional port, no path")

if(NOT TELVOR_CP_BASE_URL MATCHES "^https://[A-Za-z0-9._-]+(:[0-9]+)?$")
  message(FATAL_ERROR
    "The control plane's base URL must be an https URL without a path, such as https://cp.example.com:8443, "
    "but it is '${TELVOR_CP_BASE_URL}'.")
endif()
if(TELVOR_CP_BASE_URL MATCHES ":([0-9]+)$")
  set(port "${CMAKE_MATCH_1}")
  string(LENGTH "${port}" digits)
  if(digits GREATER 5 OR port LESS 1 OR port GREATER 65535)
    message(FATAL_ERROR "The control plane's base URL names port ${port}; a port lies between 1 and 65535.")
  endif()
endif()
