# Helpers that give every target of this project the same warnings and
# sanitizer flags.

# Prefer the system interpreter, where Debian installs python3-jinja2.
if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3)
endif()

function(rsvp_check_python_modules)
  foreach(module IN LISTS ARGN)
    execute_process(COMMAND ${Python3_EXECUTABLE} -c "import ${module}"
                    RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
    if(NOT result EQUAL 0)
      message(FATAL_ERROR "The generator needs the Python module '${module}' for "
                          "${Python3_EXECUTABLE} (Debian: python3-jinja2, python3-yaml; "
                          "scripts/setup.sh installs them)")
    endif()
  endforeach()
endfunction()

# Warnings, sanitizers and the pointer mode for one target of this project.
function(rsvp_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
                         -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
                         -Wnull-dereference)
  if(RSVP_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(RSVP_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined
                           -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  endif()
  if(RSVP_SANITIZE_THREAD)
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=thread)
  endif()
  if(RSVP_BUILD_FUZZ)
    # Coverage for libFuzzer in every target, the library included.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
endfunction()

# A test of this project: one GoogleTest executable registered with CTest.
function(rsvp_add_test name)
  add_executable(${name} ${ARGN})
  rsvp_target_defaults(${name})
  target_link_libraries(${name} PRIVATE Rsvp::rsvp GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60)
endfunction()

# Runs the generator over the schema under SCHEMA_ROOT into OUT_DIR, with
# the types of every IMPORT root available. Sets <prefix>_HEADERS and
# <prefix>_SOURCES in the caller and adds the target <prefix>_generate.
#
# CMake asks the generator for its inputs and outputs at configure time and
# reconfigures when one is added; the generator rewrites only files whose
# content changed, so the stamp alone moves and unchanged headers cause no
# rebuild.
function(rsvp_generate prefix)
  cmake_parse_arguments(arg "" "SCHEMA_ROOT;OUT_DIR" "IMPORT" ${ARGN})
  set(command ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/generator/rsvpgen.py
      --schema-root ${arg_SCHEMA_ROOT} --out ${arg_OUT_DIR})
  foreach(root IN LISTS arg_IMPORT)
    list(APPEND command --import-root ${root})
  endforeach()
  foreach(what inputs outputs)
    execute_process(COMMAND ${command} --list-${what}
                    OUTPUT_VARIABLE listed RESULT_VARIABLE result ERROR_VARIABLE error
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT result EQUAL 0)
      message(FATAL_ERROR "The generator failed to list its ${what}:\n${error}")
    endif()
    string(REPLACE "\n" ";" ${what} "${listed}")
  endforeach()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
               ${inputs} ${arg_SCHEMA_ROOT} ${arg_IMPORT})
  set(stamp ${arg_OUT_DIR}.stamp)
  add_custom_command(
    OUTPUT ${stamp}
    BYPRODUCTS ${outputs}
    COMMAND ${command}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${inputs}
    COMMENT "Generating C++ from the schema under ${arg_SCHEMA_ROOT}"
    VERBATIM)
  add_custom_target(${prefix}_generate DEPENDS ${stamp})
  set(headers ${outputs})
  list(FILTER headers INCLUDE REGEX "\\.h$")
  set(sources ${outputs})
  list(FILTER sources INCLUDE REGEX "\\.cpp$")
  set(${prefix}_HEADERS ${headers} PARENT_SCOPE)
  set(${prefix}_SOURCES ${sources} PARENT_SCOPE)
endfunction()
