# Monocypher, of which crypto_x25519_public_key is used: target telvor_monocypher, header <monocypher.h>.
# Taken from the first of these that is there: an installed one, the official release archive, and the npm
# package, which carries version 2. Nothing of it is kept in the repository; downloads go into the build
# directory and are used again by the next configure run, also by that of a build directory beside this one.
set(monocypherArchive monocypher-4.0.3.tar.gz)
set(monocypherArchiveUrl https://monocypher.org/download/${monocypherArchive})
set(monocypherArchiveSha256 8cc9bc341a66249016db9bd70e9142d8d0aef9945973744b1ac05dbc55d8ee66)
set(monocypherPackageVersion 0.0.4)
set(monocypherPackage monocypher-${monocypherPackageVersion}.tgz)
set(monocypherPackageSha256 94100f178ed975cc41fc9ba66b01bab33d2c072fef28149c084ef7ce910a676f)
set(monocypherFolder ${PROJECT_BINARY_DIR}/monocypher)

# Puts `file` into the build directory from an earlier download, if one with this hash is at hand.
function(telvor_reuse_download file sha256)
  file(GLOB candidates ${monocypherFolder}/${file} ${PROJECT_BINARY_DIR}/../*/monocypher/${file})
  foreach(candidate IN LISTS candidates)
    file(SHA256 ${candidate} hash)
    if(hash STREQUAL sha256)
      file(COPY ${candidate} DESTINATION ${monocypherFolder})
      return()
    endif()
  endforeach()
  file(REMOVE ${monocypherFolder}/${file})
endfunction()

# Keeps a download only if it has the hash that is expected.
function(telvor_check_download file sha256)
  if(NOT EXISTS ${monocypherFolder}/${file})
    return()
  endif()
  file(SHA256 ${monocypherFolder}/${file} hash)
  if(NOT hash STREQUAL sha256)
    file(REMOVE ${monocypherFolder}/${file})
    message(STATUS "Monocypher: ${file} has an unexpected SHA-256 (${hash}) and is not used")
  endif()
endfunction()

function(telvor_fetch_archive)
  telvor_reuse_download(${monocypherArchive} ${monocypherArchiveSha256})
  if(NOT EXISTS ${monocypherFolder}/${monocypherArchive})
    file(DOWNLOAD ${monocypherArchiveUrl} ${monocypherFolder}/${monocypherArchive}
         INACTIVITY_TIMEOUT 5 TIMEOUT 30 STATUS status)
    list(GET status 0 code)
    if(NOT code EQUAL 0)
      file(REMOVE ${monocypherFolder}/${monocypherArchive})
    endif()
    telvor_check_download(${monocypherArchive} ${monocypherArchiveSha256})
  endif()
endfunction()

function(telvor_fetch_package)
  telvor_reuse_download(${monocypherPackage} ${monocypherPackageSha256})
  find_program(TELVOR_NPM npm)
  mark_as_advanced(TELVOR_NPM)
  if(NOT EXISTS ${monocypherFolder}/${monocypherPackage} AND TELVOR_NPM)
    file(MAKE_DIRECTORY ${monocypherFolder})
    execute_process(COMMAND ${TELVOR_NPM} pack monocypher@${monocypherPackageVersion}
                    WORKING_DIRECTORY ${monocypherFolder} TIMEOUT 120 OUTPUT_QUIET ERROR_QUIET)
    telvor_check_download(${monocypherPackage} ${monocypherPackageSha256})
  endif()
endfunction()

# Version 2 as the npm package has it: behind the library stands OCaml glue, which is cut off, and the header
# is made fit for C++, which later versions are by themselves.
function(telvor_cut_package)
  file(ARCHIVE_EXTRACT INPUT ${monocypherFolder}/${monocypherPackage} DESTINATION ${monocypherFolder})
  file(READ ${monocypherFolder}/package/src/monocypher_stubs.c source)
  string(FIND "${source}" "/// Custom and OCaml code" glue)
  string(SUBSTRING "${source}" 0 ${glue} source)
  file(READ ${monocypherFolder}/package/src/monocypher.h header)
  string(CONCAT header
    "#include <inttypes.h>\n#include <stddef.h>\n#ifdef __cplusplus\nextern \"C\" {\n#endif\n"
    "${header}"
    "\n#ifdef __cplusplus\n}\n#endif\n")
  file(CONFIGURE OUTPUT ${monocypherFolder}/version2/monocypher.c CONTENT "${source}" @ONLY)
  file(CONFIGURE OUTPUT ${monocypherFolder}/version2/monocypher.h CONTENT "${header}" @ONLY)
endfunction()

function(telvor_monocypher_from_sources folder)
  add_library(telvor_monocypher STATIC ${folder}/monocypher.c)
  target_include_directories(telvor_monocypher SYSTEM INTERFACE ${folder})
endfunction()

# For the bill of materials: what was taken, with the file that holds its licence.
function(telvor_note_monocypher version origin sha256 licence)
  file(CONFIGURE OUTPUT ${monocypherFolder}/origin.txt @ONLY
       CONTENT "version @version@\norigin @origin@\nsha256 @sha256@\nlicence @licence@\n")
endfunction()

function(telvor_add_monocypher)
  find_path(TELVOR_MONOCYPHER_INCLUDE monocypher.h)
  find_library(TELVOR_MONOCYPHER_LIBRARY monocypher)
  mark_as_advanced(TELVOR_MONOCYPHER_INCLUDE TELVOR_MONOCYPHER_LIBRARY)
  if(TELVOR_MONOCYPHER_INCLUDE AND TELVOR_MONOCYPHER_LIBRARY)
    message(STATUS "Monocypher: the installed one, ${TELVOR_MONOCYPHER_LIBRARY}")
    add_library(telvor_monocypher INTERFACE)
    target_include_directories(telvor_monocypher SYSTEM INTERFACE ${TELVOR_MONOCYPHER_INCLUDE})
    target_link_libraries(telvor_monocypher INTERFACE ${TELVOR_MONOCYPHER_LIBRARY})
    file(SHA256 ${TELVOR_MONOCYPHER_LIBRARY} hash)
    telvor_note_monocypher(installed ${TELVOR_MONOCYPHER_LIBRARY} ${hash} ${TELVOR_MONOCYPHER_INCLUDE}/monocypher.h)
    return()
  endif()

  telvor_fetch_archive()
  if(EXISTS ${monocypherFolder}/${monocypherArchive})
    message(STATUS "Monocypher: the release archive ${monocypherArchive}")
    file(ARCHIVE_EXTRACT INPUT ${monocypherFolder}/${monocypherArchive} DESTINATION ${monocypherFolder})
    telvor_monocypher_from_sources(${monocypherFolder}/monocypher-4.0.3/src)
    telvor_note_monocypher(4.0.3 ${monocypherArchiveUrl} ${monocypherArchiveSha256}
                           ${monocypherFolder}/monocypher-4.0.3/LICENCE.md)
    return()
  endif()

  telvor_fetch_package()
  if(EXISTS ${monocypherFolder}/${monocypherPackage})
    message(STATUS "Monocypher: version 2 of the npm package monocypher ${monocypherPackageVersion}")
    telvor_cut_package()
    telvor_monocypher_from_sources(${monocypherFolder}/version2)
    telvor_note_monocypher("2 (npm package ${monocypherPackageVersion})"
                           pkg:npm/monocypher@${monocypherPackageVersion} ${monocypherPackageSha256}
                           ${monocypherFolder}/package/LICENCE.md)
    return()
  endif()

  message(FATAL_ERROR
    "Monocypher was not found. Any one of these will do: install its header and library for the target, let "
    "this machine reach ${monocypherArchiveUrl}, or install npm and let it fetch the package "
    "monocypher@${monocypherPackageVersion}.")
endfunction()

telvor_add_monocypher()
