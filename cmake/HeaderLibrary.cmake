# Libraries that are headers alone. The folder that Debian puts them in holds the headers of Linux too, which
# a compiler for Windows must not see: so the library's own folder is linked into the build directory.

# Target telvor_<folder> with <folder>/<header> on its path, from the Debian package named if it is missing.
function(telvor_add_header_library folder header package)
  string(TOUPPER TELVOR_${folder}_INCLUDE found)
  find_path(${found} ${folder}/${header} NO_CMAKE_FIND_ROOT_PATH NO_DEFAULT_PATH PATHS
    /usr/include
    /usr/local/include)
  mark_as_advanced(${found})
  if(NOT ${found})
    message(FATAL_ERROR "<${folder}/${header}> was not found. Please install it (Debian: ${package}).")
  endif()
  string(TOLOWER telvor_${folder} target)
  set(include ${PROJECT_BINARY_DIR}/include/${folder})
  file(MAKE_DIRECTORY ${include})
  file(CREATE_LINK ${${found}}/${folder} ${include}/${folder} SYMBOLIC)
  add_library(${target} INTERFACE)
  target_include_directories(${target} SYSTEM INTERFACE ${include})
endfunction()

telvor_add_header_library(nlohmann json.hpp nlohmann-json3-dev)
telvor_add_header_library(CLI CLI.hpp libcli11-dev)
