# Installs the build into WORK_DIR/prefix, then builds and runs the host of
# SOURCE_DIR once through find_package and once through pkg-config.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(f include/ZOTtracker/Math.h ${LIBDIR}/libZOT_tracker_shared.so
    ${LIBDIR}/libZOT_tracker_shared.so.1 ${LIBDIR}/cmake/ZOTtracker/ZOTtrackerConfig.cmake
    ${LIBDIR}/pkgconfig/ZOTtracker.pc)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

# CMake package.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/host-cmake -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/host-cmake)
run(${WORK_DIR}/host-cmake/zot_host)
message(STATUS "find_package host: ${last_output}")

# pkg-config.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run(pkg-config --cflags --libs ZOTtracker)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} -std=c++17 ${SOURCE_DIR}/host.cpp ${flags} -Wl,-rpath,${prefix}/${LIBDIR}
    -o ${WORK_DIR}/zot_host_pc)
run(${WORK_DIR}/zot_host_pc)
message(STATUS "pkg-config host: ${last_output}")
