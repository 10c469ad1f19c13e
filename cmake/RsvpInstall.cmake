# Installs headers, the library and a CMake package so that another project
# can say find_package(Rsvp CONFIG REQUIRED) and link Rsvp::rsvp.
include(CMakePackageConfigHelpers)

install(TARGETS rsvp EXPORT RsvpTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
list(TRANSFORM RSVP_RUNTIME_DIRS PREPEND ${PROJECT_SOURCE_DIR}/runtime/
               OUTPUT_VARIABLE rsvp_runtime_include_dirs)
install(DIRECTORY ${rsvp_runtime_include_dirs}
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(FILES ${RSVP_GEN_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Rsvp)
if(EXISTS ${PROJECT_SOURCE_DIR}/src-includes/Rsvp)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/src-includes/Rsvp
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
endif()

set(RSVP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Rsvp)
install(EXPORT RsvpTargets NAMESPACE Rsvp:: DESTINATION ${RSVP_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/RsvpConfig.cmake.in
  ${PROJECT_BINARY_DIR}/RsvpConfig.cmake INSTALL_DESTINATION ${RSVP_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/RsvpConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/RsvpConfig.cmake ${PROJECT_BINARY_DIR}/RsvpConfigVersion.cmake
        DESTINATION ${RSVP_CMAKE_DIR})
