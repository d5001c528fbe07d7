# Installs the project's build into a fresh prefix and checks what a host
# gets: the list of files, a library without debug information, and include/
# (not include/roomcrate, whose generic names would then stand on a host's
# path) as the include folder of both the CMake target, which asks for C++17,
# and roomcrate.pc. Then builds the example host, which includes
# <roomcrate/IZV_FileShare.h>, against that prefix alone: through
# find_package(roomcrate), run to move its file, and by hand with the flags
# of roomcrate.pc; both builds name the version of <roomcrate/ZV_Version.h>.
# With SERVER set, roomcrate-server is there too, beside the library, and
# runs from the prefix. EXTRA_FLAGS are the compiler and linker flags the
# module was built with that a program linking it needs as well (the
# sanitizers, gcov counters).
# Run as: cmake -DBUILD_DIR= -DEXAMPLE_DIR= -DWORK_DIR= -DCXX= -DOBJDUMP= -DVERSION= [-DLAUNCHER=] [-DSERVER=ON]
#               [-DEXTRA_FLAGS=] -P InstallAndBuildExample.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE RC OUTPUT_VARIABLE OUT ERROR_VARIABLE OUT)
  if(NOT RC EQUAL 0)
    string(REPLACE ";" " " LINE "${ARGN}")
    message(FATAL_ERROR "failed (${RC}): ${LINE}\n${OUT}")
  endif()
  set(OUT "${OUT}" PARENT_SCOPE)
endfunction()

function(expect WHAT TEXT PART)
  string(FIND "${TEXT}" "${PART}" AT)
  if(AT EQUAL -1)
    message(FATAL_ERROR "${WHAT}: no \"${PART}\" in:\n${TEXT}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(PREFIX ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

file(GLOB_RECURSE INSTALLED RELATIVE ${PREFIX} ${PREFIX}/*)
list(SORT INSTALLED)
string(REGEX REPLACE "lib/[^;]*-linux-gnu/" "lib/" INSTALLED "${INSTALLED}")
string(REGEX REPLACE "roomcrateTargets-[a-z]+\\.cmake" "roomcrateTargets-CONFIG.cmake" INSTALLED "${INSTALLED}")
set(EXPECTED include/roomcrate/IZV_FileShare.h include/roomcrate/QB_ByteStreamBase.h include/roomcrate/QB_UserID.h
    include/roomcrate/ZV_ResultText.h include/roomcrate/ZV_Version.h
    lib/cmake/roomcrate/roomcrateConfig.cmake lib/cmake/roomcrate/roomcrateConfigVersion.cmake
    lib/cmake/roomcrate/roomcrateTargets-CONFIG.cmake lib/cmake/roomcrate/roomcrateTargets.cmake
    lib/libroomcrate.so lib/libroomcrate.so.1 lib/libroomcrate.so.${VERSION} lib/pkgconfig/roomcrate.pc
    share/doc/roomcrate/CHANGELOG.md share/doc/roomcrate/LICENSE)
if(SERVER)
  list(PREPEND EXPECTED bin/roomcrate bin/roomcrate-server)
  list(APPEND EXPECTED share/roomcrate/roomcrate-server.service share/roomcrate/roomcrate-server.toml)
endif()
if(NOT INSTALLED STREQUAL EXPECTED)
  message(FATAL_ERROR "installed:\n${INSTALLED}\nexpected:\n${EXPECTED}")
endif()

file(GLOB_RECURSE LIBRARY ${PREFIX}/libroomcrate.so.${VERSION})
set(BINARIES ${LIBRARY})
if(SERVER)
  run(${PREFIX}/bin/roomcrate-server --version)
  list(APPEND BINARIES ${PREFIX}/bin/roomcrate-server ${PREFIX}/bin/roomcrate)
endif()
foreach(BINARY IN LISTS BINARIES)
  run(${OBJDUMP} -h ${BINARY})
  if(OUT MATCHES "\\.debug_")
    message(FATAL_ERROR "${BINARY} is installed with debug information:\n${OUT}")
  endif()
endforeach()

file(GLOB_RECURSE TARGETS_FILE ${PREFIX}/roomcrateTargets.cmake)
file(READ ${TARGETS_FILE} TARGETS)
expect("the CMake target" "${TARGETS}" "INTERFACE_INCLUDE_DIRECTORIES \"\${_IMPORT_PREFIX}/include\"")
expect("the CMake target" "${TARGETS}" "INTERFACE_COMPILE_FEATURES \"cxx_std_17\"")

set(LAUNCH)
if(LAUNCHER)
  set(LAUNCH -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
endif()
run(${CMAKE_COMMAND} -S ${EXAMPLE_DIR} -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${EXTRA_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${EXTRA_FLAGS}" ${LAUNCH})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/minimal_host)
expect("the example built from the install" "${OUT}" "identical")
run(${WORK_DIR}/build/minimal_host --help)
expect("the example built from the install" "${OUT}" "roomcrate ${VERSION}")

file(GLOB_RECURSE PC_FILE ${PREFIX}/roomcrate.pc)
get_filename_component(PC_DIR ${PC_FILE} DIRECTORY)
get_filename_component(LIBRARY_DIR ${LIBRARY} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${PC_DIR})
run(pkg-config --cflags roomcrate)
string(STRIP "${OUT}" CFLAGS)
string(REGEX REPLACE "^-I" "" PC_INCLUDE "${CFLAGS}")
get_filename_component(PC_INCLUDE "${PC_INCLUDE}" REALPATH)
if(NOT CFLAGS MATCHES "^-I[^ ]+$" OR NOT PC_INCLUDE STREQUAL "${PREFIX}/include")
  message(FATAL_ERROR "roomcrate.pc gives \"${CFLAGS}\", not -I${PREFIX}/include alone")
endif()
run(pkg-config --cflags --libs roomcrate)
separate_arguments(PC_FLAGS UNIX_COMMAND "${OUT}")
separate_arguments(HOST_FLAGS UNIX_COMMAND "${EXTRA_FLAGS}")
run(${CXX} -std=c++17 ${HOST_FLAGS} ${EXAMPLE_DIR}/minimal_host.cpp ${PC_FLAGS} -o ${WORK_DIR}/minimal_host_pc)
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${LIBRARY_DIR} ${WORK_DIR}/minimal_host_pc --help)
expect("the example built with roomcrate.pc" "${OUT}" "roomcrate ${VERSION}")
file(REMOVE_RECURSE ${WORK_DIR})
