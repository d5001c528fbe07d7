# Installs the project's build into a fresh prefix, then builds the example
# host against that prefix alone: once through find_package(roomcrate) in
# C++17 and runs it, once by hand with the flags of roomcrate.pc.
# With SERVER set, roomcrate-server is there too, beside the library, and
# runs from the prefix.
# Run as: cmake -DBUILD_DIR= -DEXAMPLE_DIR= -DWORK_DIR= -DCXX= [-DLAUNCHER=] [-DSERVER=ON]
#               -P InstallAndBuildExample.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE RC OUTPUT_VARIABLE OUT ERROR_VARIABLE OUT)
  if(NOT RC EQUAL 0)
    string(REPLACE ";" " " LINE "${ARGN}")
    message(FATAL_ERROR "failed (${RC}): ${LINE}\n${OUT}")
  endif()
  set(OUT "${OUT}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(PREFIX ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

file(GLOB_RECURSE INSTALLED RELATIVE ${PREFIX} ${PREFIX}/*)
list(SORT INSTALLED)
string(REGEX REPLACE "lib/[^;]*-linux-gnu/" "lib/" INSTALLED "${INSTALLED}")
set(EXPECTED include/roomcrate/IZV_FileShare.h include/roomcrate/QB_ByteStreamBase.h include/roomcrate/QB_UserID.h
    include/roomcrate/ZV_ResultText.h
    lib/cmake/roomcrate/roomcrateConfig.cmake lib/cmake/roomcrate/roomcrateConfigVersion.cmake
    lib/cmake/roomcrate/roomcrateTargets-relwithdebinfo.cmake lib/cmake/roomcrate/roomcrateTargets.cmake
    lib/libroomcrate.so lib/libroomcrate.so.1 lib/libroomcrate.so.1.0.0 lib/pkgconfig/roomcrate.pc)
string(REGEX REPLACE "roomcrateTargets-[a-z]+\\.cmake" "roomcrateTargets-relwithdebinfo.cmake" INSTALLED
       "${INSTALLED}")
if(SERVER)
  list(PREPEND EXPECTED bin/roomcrate-server)
  list(APPEND EXPECTED share/roomcrate/roomcrate-server.service share/roomcrate/roomcrate-server.toml)
endif()
if(NOT INSTALLED STREQUAL EXPECTED)
  message(FATAL_ERROR "installed:\n${INSTALLED}\nexpected:\n${EXPECTED}")
endif()

if(SERVER)
  run(${PREFIX}/bin/roomcrate-server --version)
endif()

set(LAUNCH)
if(LAUNCHER)
  set(LAUNCH -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
endif()
run(${CMAKE_COMMAND} -S ${EXAMPLE_DIR} -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${CXX}
    ${LAUNCH})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/minimal_host)
if(NOT OUT MATCHES "identical")
  message(FATAL_ERROR "the example built from the install did not move its file:\n${OUT}")
endif()

file(GLOB_RECURSE PC_FILE ${PREFIX}/*/roomcrate.pc)
get_filename_component(PC_DIR ${PC_FILE} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${PC_DIR})
run(pkg-config --cflags --libs roomcrate)
separate_arguments(PC_FLAGS UNIX_COMMAND "${OUT}")
run(${CXX} -std=c++17 ${EXAMPLE_DIR}/minimal_host.cpp ${PC_FLAGS} -o ${WORK_DIR}/minimal_host_pc)
file(REMOVE_RECURSE ${WORK_DIR})
