# Makes the Debian packages, each from what one component installs.
set(CPACK_GENERATOR DEB)
set(FACEZOO_PACKAGE_CONTACT "facezoo developers <developers@facezoo.invalid>" CACHE STRING
  "Who answers for the packages")
set(CPACK_PACKAGE_CONTACT ${FACEZOO_PACKAGE_CONTACT})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Folders get these permissions whatever the umask of whoever makes the packages.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
if(FACEZOO_TOOL)
  list(APPEND CPACK_COMPONENTS_ALL tool)
  set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
endif()
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON) # on exactly the same version
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

set(_soversion ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libfacezoo${_soversion})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libfacezoo-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS libmsgpack-cxx-dev)
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME facezoo)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION science)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS pv) # through which it shows its progress

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(_about "facezoo runs eight trained convolutional networks on images of faces:
expression and attribute heads, 68 landmarks, descriptors. Their weights are
no part of it. This build is for the ${FACEZOO_PLATFORM} platform.
.")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "networks for face analysis - shared libraries
${_about}
This package holds what programs need to run.")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "networks for face analysis - development files
${_about}
This package holds what it takes to compile a program: headers, files for
CMake and pkg-config, examples, documentation.")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "networks for face analysis - command-line tool
${_about}
This package holds the program facezoo, which runs the networks on pictures,
measures them, and makes, checks and converts files of weights.")

# The packages that the libraries and the tool depend on are read from their files, which find each other in these
# folders. Packages that link against the libraries will depend on theirs, and installing updates the linker's
# cache.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/platform/host)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(_debian ${PROJECT_BINARY_DIR}/debian)
file(CONFIGURE OUTPUT ${_debian}/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${_debian}/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# A changelog in Debian's own form, which only the packages hold.
string(TIMESTAMP _date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${_debian}/changelog "facezoo (${PROJECT_VERSION}) unstable; urgency=medium

  * What changed is in CHANGELOG.md, part of libfacezoo-dev.

 -- ${CPACK_PACKAGE_CONTACT}  ${_date}
")
add_custom_command(OUTPUT debian/changelog.gz DEPENDS ${_debian}/changelog
  COMMAND gzip -9nc ${_debian}/changelog > debian/changelog.gz VERBATIM)
add_custom_target(facezoo_changes ALL DEPENDS debian/changelog.gz)
foreach(_component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${_component} _upper)
  install(FILES ${_debian}/changelog.gz COMPONENT ${_component} EXCLUDE_FROM_ALL
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${_upper}_PACKAGE_NAME})
endforeach()

# CPack also adds scripts that call ldconfig; Debian's checker is told to accept them.
file(CONFIGURE OUTPUT ${_debian}/overrides CONTENT "maintscript-calls-ldconfig\n")
install(FILES ${_debian}/overrides COMPONENT runtime EXCLUDE_FROM_ALL
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
  RENAME ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME})

# In a package the libraries lie where the linker looks, so that their folder need not be named in the files.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/RemoveRunpath.cmake)
include(CPack)
