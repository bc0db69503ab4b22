# Writes a .def file that exports our own functions of iphlpapi.dll and forwards all others of Wine's library.
# Left out are the names with a stack size behind them (_PfBindInterfaceToIndex@16): Wine's are empty, a call
# ends the program, and a .def file would read the size as an ordinal.
#   cmake -DOBJDUMP=<objdump> -DLIBRARY=<Wine's iphlpapi.dll> -DOUTPUT=<.def> -P forward_exports.cmake
cmake_minimum_required(VERSION 3.25)

set(own
  InitializeIpForwardEntry
  CreateIpForwardEntry2
  SetIpForwardEntry2
  DeleteIpForwardEntry2
  GetBestRoute2)

execute_process(COMMAND ${OBJDUMP} -p ${LIBRARY} OUTPUT_VARIABLE dump COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE ".*\\[Ordinal/Name Pointer\\] Table[^\n]*\n" "" table "${dump}")
string(REGEX REPLACE "\n\n.*" "\n" table "${table}")
# A bracket would keep two entries of a list together, so only what stands behind it is taken.
string(REGEX MATCHALL " [A-Za-z_][A-Za-z0-9_]*\n" names "${table}")
list(LENGTH names count)
if(count EQUAL 0)
  message(FATAL_ERROR "No exports were found in ${LIBRARY}.")
endif()

set(definition "LIBRARY iphlpapi.dll\nEXPORTS\n")
foreach(name IN LISTS own)
  string(APPEND definition "  ${name}\n")
endforeach()
foreach(entry IN LISTS names)
  string(STRIP "${entry}" name)
  if(NOT name IN_LIST own)
    string(APPEND definition "  ${name}=iphlpapi_wine.${name}\n")
  endif()
endforeach()
file(WRITE ${OUTPUT} "${definition}")
