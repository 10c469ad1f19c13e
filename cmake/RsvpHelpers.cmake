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
