# Which tests are built, and the dependencies only the tests need.
#
#   KC_TESTS          AUTO (default), ON or OFF: the unit tests (GoogleTest),
#                     the corpus replays, the simulated-device, server,
#                     package, build and end-to-end suites (Python with
#                     pytest and websockets)
#   KC_INTEROP_TESTS  AUTO (default), ON or OFF: the interoperability suite
#                     (libwebsockets, Node.js with ws); host builds only
#
# ON requires the dependencies: a missing one stops the configure.  AUTO
# builds the tests whose dependencies are found and leaves the others out.
# Either way one message names everything that is missing.  OFF looks
# nothing up.  CTest's BUILD_TESTING, when given, decides for AUTO, so a
# plain `cmake -S . -B build` builds the agent on a host without any test
# dependency, -DBUILD_TESTING=OFF builds the agent alone and
# -DBUILD_TESTING=ON (or -DKC_TESTS=ON) requires every test dependency.
#
# Afterwards KC_TESTS and KC_INTEROP_TESTS are ON or OFF (normal variables
# over the cache entries) for the rest of the configure.

set(KC_TESTS AUTO CACHE STRING "Build the tests: AUTO (when their dependencies are found), ON or OFF")
set_property(CACHE KC_TESTS PROPERTY STRINGS AUTO ON OFF)
set(KC_INTEROP_TESTS AUTO CACHE STRING "Build the interoperability suite: AUTO, ON or OFF")
set_property(CACHE KC_INTEROP_TESTS PROPERTY STRINGS AUTO ON OFF)
set(KC_PYTHON /usr/bin/python3 CACHE FILEPATH "Python with python3-pytest and python3-websockets")
set(KC_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources for cross builds")

# kc_test_mode(<out> <value>): AUTO, ON or OFF from a cache value.
function(kc_test_mode out value)
  string(TOUPPER "${value}" upper)
  if(upper STREQUAL "AUTO")
    set(mode AUTO)
    if(DEFINED BUILD_TESTING)
      if(BUILD_TESTING)
        set(mode ON)
      else()
        set(mode OFF)
      endif()
    endif()
  elseif(value)
    set(mode ON)
  else()
    set(mode OFF)
  endif()
  set(${out} ${mode} PARENT_SCOPE)
endfunction()

kc_test_mode(kc_tests_mode "${KC_TESTS}")
kc_test_mode(kc_interop_mode "${KC_INTEROP_TESTS}")
if(kc_tests_mode STREQUAL "OFF" OR CMAKE_CROSSCOMPILING)
  # no interoperability suite without the tests, nor in a cross build
  set(kc_interop_mode OFF)
elseif(kc_tests_mode STREQUAL "ON" AND kc_interop_mode STREQUAL "AUTO")
  set(kc_interop_mode ON)
endif()

set(kc_missing_tests "")
set(kc_missing_interop "")
if(NOT kc_tests_mode STREQUAL "OFF")
  if(CMAKE_CROSSCOMPILING)
    if(NOT EXISTS "${KC_GTEST_SOURCE}/CMakeLists.txt")
      list(APPEND kc_missing_tests "GoogleTest sources in ${KC_GTEST_SOURCE} (libgtest-dev)")
    endif()
  else()
    find_package(GTest QUIET)
    if(NOT GTest_FOUND AND NOT GTEST_FOUND)
      list(APPEND kc_missing_tests "GoogleTest (libgtest-dev)")
    endif()
  endif()
  execute_process(COMMAND "${KC_PYTHON}" -c "import pytest, websockets"
                  RESULT_VARIABLE kc_rc OUTPUT_QUIET ERROR_QUIET)
  if(NOT kc_rc STREQUAL "0")
    list(APPEND kc_missing_tests
         "${KC_PYTHON} with pytest and websockets (python3-pytest, python3-websockets)")
  endif()
endif()
if(NOT kc_interop_mode STREQUAL "OFF")
  pkg_check_modules(LWS QUIET libwebsockets)
  if(NOT LWS_FOUND)
    list(APPEND kc_missing_interop "libwebsockets (libwebsockets-dev)")
  endif()
  find_program(KC_NODE NAMES nodejs node DOC "Node.js with Debian's node-ws")
  set(kc_rc 1)
  if(KC_NODE)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env NODE_PATH=/usr/share/nodejs
                            "${KC_NODE}" -e "require('ws')"
                    RESULT_VARIABLE kc_rc OUTPUT_QUIET ERROR_QUIET)
  endif()
  if(NOT kc_rc STREQUAL "0")
    list(APPEND kc_missing_interop "Node.js with ws (nodejs, node-ws)")
  endif()
endif()

# One message for everything that is missing.
set(kc_required "")
set(kc_left_out "")
if(kc_missing_tests)
  string(REPLACE ";" ", " what "${kc_missing_tests}")
  if(kc_tests_mode STREQUAL "ON")
    list(APPEND kc_required "the tests need ${what}")
  else()
    list(APPEND kc_left_out "the tests need ${what}")
    set(kc_tests_mode OFF)
  endif()
endif()
if(kc_missing_interop)
  string(REPLACE ";" ", " what "${kc_missing_interop}")
  if(kc_interop_mode STREQUAL "ON")
    list(APPEND kc_required "the interoperability suite needs ${what}")
  else()
    list(APPEND kc_left_out "the interoperability suite needs ${what}")
    set(kc_interop_mode OFF)
  endif()
endif()
if(kc_tests_mode STREQUAL "OFF")
  set(kc_interop_mode OFF)
endif()
if(kc_required)
  string(REPLACE ";" "; " what "${kc_required}")
  message(FATAL_ERROR
    "Missing test dependencies: ${what}.  Install them (on Debian: "
    "scripts/install-deps.sh), or leave the tests out with -DKC_TESTS=OFF "
    "(-DKC_INTEROP_TESTS=OFF for the interoperability suite alone).")
endif()
if(kc_left_out)
  string(REPLACE ";" "; " what "${kc_left_out}")
  message(WARNING
    "Tests left out, the agent is built: ${what}.  Install them (on Debian: "
    "scripts/install-deps.sh) and configure again, or set -DKC_TESTS=OFF to "
    "build without tests and without this message.")
endif()

if(kc_tests_mode STREQUAL "OFF")
  set(KC_TESTS OFF)
else()
  set(KC_TESTS ON)
endif()
if(kc_interop_mode STREQUAL "OFF")
  set(KC_INTEROP_TESTS OFF)
else()
  set(KC_INTEROP_TESTS ON)
endif()
message(STATUS "Tests: ${KC_TESTS}, interoperability suite: ${KC_INTEROP_TESTS}")
