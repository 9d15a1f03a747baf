# The helpers that every subsystem folder uses.
#
# orvex_library(NAME DEPS <targets...>)
#   A static, position independent archive of the folder's *.cpp and linux/*.cpp, leaving out
#   tests (*Test.cpp), fuzz targets (*Fuzz.cpp) and benchmarks. It goes whole into liborvexScript.so.
#
# orvex_test(NAME DEPS <targets...>)
#   One GoogleTest program of the folder's *Test.cpp (and linux/*Test.cpp), registered with CTest.

function(orvex_library name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/linux/*.cpp)
  list(FILTER sources EXCLUDE REGEX "(Test|Fuzz|Bench)\\.cpp$")
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_compile_definitions(${name} PRIVATE ORVEX_BUILDING_LIBRARY=1)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
endfunction()

function(orvex_test name)
  if(NOT ORVEX_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB tests CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/*Test.cpp ${CMAKE_CURRENT_SOURCE_DIR}/linux/*Test.cpp)
  if(NOT tests)
    return()
  endif()
  add_executable(${name} ${tests})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} orvex_testsupport GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 120)
endfunction()

# orvex_fuzz(NAME SOURCE DEPS <targets...>)
#   A libFuzzer program of one *Fuzz.cpp, only with ORVEX_FUZZ on (clang, with ORVEX_SANITIZE holding
#   address). The DEPS archives are built with coverage instrumentation, so the fuzzer sees inside them.
function(orvex_fuzz name source)
  if(NOT ORVEX_FUZZ)
    return()
  endif()
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "ORVEX_FUZZ needs clang (CC=clang CXX=clang++)")
  endif()
  if(NOT ORVEX_SANITIZE MATCHES "address")
    message(FATAL_ERROR "ORVEX_FUZZ needs -DORVEX_SANITIZE=address,undefined")
  endif()
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  set(deps ${ARG_DEPS} ${ARG_UNPARSED_ARGUMENTS})
  foreach(dep ${deps})
    if(TARGET ${dep})
      get_target_property(type ${dep} TYPE)
      if(NOT type STREQUAL "INTERFACE_LIBRARY" AND NOT type STREQUAL "UNKNOWN_LIBRARY")
        target_compile_options(${dep} PRIVATE -fsanitize=fuzzer-no-link)
      endif()
    endif()
  endforeach()
  add_executable(${name} ${source})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE ${deps})
endfunction()
