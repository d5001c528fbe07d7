# Makes the Debian package of the build with cpack into a scratch folder and
# checks it without installing it: its file list (dpkg-deb -c), that it
# depends on the libraries the server needs, and, unpacked into the scratch
# folder (dpkg-deb -x), that its server runs from there, writes credentials
# for the example configuration and finds that configuration sound.
# Run as: cmake -DBUILD_DIR= -DWORK_DIR= -DVERSION= -P DebPackage.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE RC OUTPUT_VARIABLE OUT ERROR_VARIABLE ERR INPUT_FILE ${INPUT})
  if(NOT RC EQUAL 0)
    string(REPLACE ";" " " LINE "${ARGN}")
    message(FATAL_ERROR "failed (${RC}): ${LINE}\n${OUT}${ERR}")
  endif()
  set(OUT "${OUT}" PARENT_SCOPE)
endfunction()

function(expect WHAT TEXT PART)
  string(FIND "${TEXT}" "${PART}" AT)
  if(AT EQUAL -1)
    message(FATAL_ERROR "${WHAT}: no \"${PART}\" in:\n${TEXT}")
  endif()
endfunction()

set(INPUT /dev/null)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
run(cpack -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${WORK_DIR}/out)
file(GLOB DEBS ${WORK_DIR}/out/*.deb)
list(LENGTH DEBS COUNT)
if(NOT COUNT EQUAL 1)
  message(FATAL_ERROR "one package expected, found: ${DEBS}")
endif()

# The files and links of the package, by path; folders left out.
run(dpkg-deb -c ${DEBS})
string(REGEX MATCHALL "\n[-l][^\n]* \\./[^ \n]+" ENTRIES "\n${OUT}")
set(LISTED)
foreach(ENTRY IN LISTS ENTRIES)
  string(REGEX REPLACE ".* \\./" "" ENTRY "${ENTRY}")
  list(APPEND LISTED ${ENTRY})
endforeach()
list(SORT LISTED)
string(REGEX REPLACE "lib/[^;]*-linux-gnu/" "lib/" LISTED "${LISTED}")
string(REGEX REPLACE "roomcrateTargets-[a-z]+\\.cmake" "roomcrateTargets-CONFIG.cmake" LISTED "${LISTED}")
set(EXPECTED usr/bin/roomcrate usr/bin/roomcrate-server
    usr/include/roomcrate/IZV_FileShare.h usr/include/roomcrate/QB_ByteStreamBase.h usr/include/roomcrate/QB_UserID.h
    usr/include/roomcrate/ZV_ResultText.h usr/include/roomcrate/ZV_Version.h
    usr/lib/cmake/roomcrate/roomcrateConfig.cmake usr/lib/cmake/roomcrate/roomcrateConfigVersion.cmake
    usr/lib/cmake/roomcrate/roomcrateTargets-CONFIG.cmake usr/lib/cmake/roomcrate/roomcrateTargets.cmake
    usr/lib/libroomcrate.so usr/lib/libroomcrate.so.1 usr/lib/libroomcrate.so.${VERSION} usr/lib/pkgconfig/roomcrate.pc
    usr/share/doc/roomcrate/CHANGELOG.md usr/share/doc/roomcrate/LICENSE
    usr/share/roomcrate/roomcrate-server.service usr/share/roomcrate/roomcrate-server.toml)
if(NOT LISTED STREQUAL EXPECTED)
  message(FATAL_ERROR "packed:\n${LISTED}\nexpected:\n${EXPECTED}")
endif()
run(dpkg-deb -f ${DEBS} Depends)
expect("Depends" "${OUT}" "libssl3")
expect("Depends" "${OUT}" "libgsasl")

set(ROOT ${WORK_DIR}/root)
run(dpkg-deb -x ${DEBS} ${ROOT})
run(${ROOT}/usr/bin/roomcrate-server --version)
expect("--version" "${OUT}" "roomcrate-server ")
file(READ ${ROOT}/usr/share/roomcrate/roomcrate-server.service UNIT)
expect("the unit" "${UNIT}" "ExecStart=/usr/bin/roomcrate-server ")
file(COPY ${ROOT}/usr/share/roomcrate/roomcrate-server.toml DESTINATION ${WORK_DIR}/etc)
file(WRITE ${WORK_DIR}/alice.secret "a secret of alice\n")
set(INPUT ${WORK_DIR}/alice.secret)
run(${ROOT}/usr/bin/roomcrate-server passwd --config ${WORK_DIR}/etc/roomcrate-server.toml alice)
set(INPUT /dev/null)
run(${ROOT}/usr/bin/roomcrate-server --check ${WORK_DIR}/etc/roomcrate-server.toml)
expect("--check" "${OUT}" "the configuration is sound")
file(REMOVE_RECURSE ${WORK_DIR})
