# Run by CTest: installs the build into WORK_DIR/prefix, then builds and runs cmake/host against it,
# first through find_package(orvexScript), then with the flags pkg-config gives for orvexScript.
# Inputs: BUILD_DIR, HOST_DIR, WORK_DIR, CXX, GENERATOR, SANITIZE (the build's sanitizers, if any:
# the host must link their runtime too).
set(expected "host 42 2")
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

function(expect_output what)
  string(STRIP "${out}" got)
  if(NOT got STREQUAL expected)
    message(FATAL_ERROR "${what}: the host printed '${got}', expected '${expected}'")
  endif()
  message(STATUS "${what}: ${got}")
endfunction()

set(san_flags "")
if(SANITIZE)
  set(san_flags "-fsanitize=${SANITIZE}")
endif()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(f lib/liborvexScript.so lib/liborvexScript.so.0 lib/pkgconfig/orvexScript.pc
          lib/cmake/orvexScript/orvexScriptConfig.cmake include/orvexScript/values bin/orvexScript)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
file(GLOB_RECURSE tests RELATIVE ${prefix}/include ${prefix}/include/*Test.cpp ${prefix}/include/*Test.h)
if(tests)
  message(FATAL_ERROR "tests installed as headers: ${tests}")
endif()

# Through the CMake package.
run(${CMAKE_COMMAND} -S ${HOST_DIR} -B ${WORK_DIR}/cmake-host -G ${GENERATOR}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_CXX_FLAGS=${san_flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-host)
run(${WORK_DIR}/cmake-host/host)
expect_output("find_package")

# Through pkg-config.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run(pkg-config --cflags --libs orvexScript)
separate_arguments(pc_flags UNIX_COMMAND "${out}")
run(${CXX} -std=c++20 ${san_flags} ${HOST_DIR}/host.cpp -o ${WORK_DIR}/pc-host ${pc_flags}
    -Wl,-rpath,${prefix}/lib)
run(${WORK_DIR}/pc-host)
expect_output("pkg-config")
