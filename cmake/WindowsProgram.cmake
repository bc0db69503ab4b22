# An executable as it is shipped: with a version resource, without symbols.
enable_language(RC)

# Adds the executable of this name; sources and libraries are the caller's.
function(telvor_add_windows_program TELVOR_PROGRAM TELVOR_DESCRIPTION)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${TELVOR_PROGRAM}.rc @ONLY)
  add_executable(${TELVOR_PROGRAM} ${CMAKE_CURRENT_BINARY_DIR}/${TELVOR_PROGRAM}.rc)
  set_target_properties(${TELVOR_PROGRAM} PROPERTIES
    LINKER_LANGUAGE CXX
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
  # The map names all that was linked in, for the bill of materials.
  target_link_options(${TELVOR_PROGRAM} PRIVATE -municode
    LINKER:-Map=${CMAKE_BINARY_DIR}/bin/${TELVOR_PROGRAM}.exe.map)

  # What is shipped holds no symbols; they lie beside it, tied to it by their check sum. objcopy stamps its
  # output with the time unless it is told another.
  set(objcopy ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=0 ${CMAKE_OBJCOPY})
  set(file $<TARGET_FILE:${TELVOR_PROGRAM}>)
  add_custom_command(TARGET ${TELVOR_PROGRAM} POST_BUILD
    COMMAND ${objcopy} --only-keep-debug ${file} ${file}.debug
    COMMAND ${objcopy} --strip-all --add-gnu-debuglink=${file}.debug ${file}
    BYPRODUCTS ${CMAKE_BINARY_DIR}/bin/${TELVOR_PROGRAM}.exe.debug
    VERBATIM)
endfunction()
