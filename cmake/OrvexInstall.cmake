# Installing the library for hosts: the shared library (versioned), the front end, the public headers
# in their source layout (includes are root-relative, e.g. "values/model/ScriptVal.h"), a CMake package
# (find_package(orvexScript) gives orvexScript::orvexScript) and a pkg-config file (orvexScript.pc).
include(CMakePackageConfigHelpers)

set(ORVEX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/orvexScript)

install(TARGETS orvexScript_lib EXPORT orvexScriptTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS orvexScript_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Every header of the subsystem folders, found when installing, so moved or new headers come along;
# tests, their helpers, fuzz corpora and test data stay behind.
foreach(dir values objects remote languages)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${dir} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvexScript
    FILES_MATCHING PATTERN "*.h"
    PATTERN "*Test.h" EXCLUDE PATTERN "Test*.h" EXCLUDE PATTERN "*LoadCheck.h" EXCLUDE
    PATTERN "DispatchCheck.h" EXCLUDE PATTERN "fuzz" EXCLUDE PATTERN "testdata" EXCLUDE
    PATTERN "testhost" EXCLUDE)
endforeach()

install(EXPORT orvexScriptTargets NAMESPACE orvexScript:: DESTINATION ${ORVEX_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/orvexScriptConfig.cmake.in
  ${PROJECT_BINARY_DIR}/orvexScriptConfig.cmake INSTALL_DESTINATION ${ORVEX_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/orvexScriptConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/orvexScriptConfig.cmake
  ${PROJECT_BINARY_DIR}/orvexScriptConfigVersion.cmake DESTINATION ${ORVEX_CMAKE_DIR})

# The .pc file finds its prefix from its own place, so it holds for any --prefix given at install.
file(RELATIVE_PATH ORVEX_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ORVEX_PC_TO_PREFIX "${ORVEX_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/orvexScript.pc.in ${PROJECT_BINARY_DIR}/orvexScript.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orvexScript.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(ORVEX_BUILD_TESTS)
  # The library exports exactly the names in cmake/exports.txt (how to update it: cmake/check-exports.sh).
  # Checked on builds without sanitizers only: UBSan's function checks add type information of
  # function types (and clang instantiates std::launder out of line), which a host never sees.
  if(NOT ORVEX_SANITIZE)
    add_test(NAME Packaging.ExportsOnlyTheAPI
      COMMAND bash ${PROJECT_SOURCE_DIR}/cmake/check-exports.sh $<TARGET_FILE:orvexScript_lib>
              ${PROJECT_SOURCE_DIR}/cmake/exports.txt)
  endif()
  # Installs into a temporary prefix and builds, links and runs a small host against it, once through
  # the CMake package and once through pkg-config.
  add_test(NAME Packaging.HostBuildsAgainstTheInstalledLibrary
    COMMAND ${CMAKE_COMMAND} -DBUILD_DIR=${PROJECT_BINARY_DIR} -DHOST_DIR=${PROJECT_SOURCE_DIR}/cmake/host
            -DWORK_DIR=${PROJECT_BINARY_DIR}/install-check -DCXX=${CMAKE_CXX_COMPILER}
            -DSANITIZE=${ORVEX_SANITIZE} -DGENERATOR=${CMAKE_GENERATOR}
            -P ${PROJECT_SOURCE_DIR}/cmake/CheckInstall.cmake)
  set_tests_properties(Packaging.HostBuildsAgainstTheInstalledLibrary PROPERTIES TIMEOUT 300 RUN_SERIAL ON)
endif()
