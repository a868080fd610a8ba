# Says what is installed where, and how others find it. No installed file names the folder that it was installed
# to, so that the whole can be moved. There are three components: what a program needs to run (runtime), what it
# needs to be compiled (development), and the tool.
include(CMakePackageConfigHelpers)
set(_headers ${CMAKE_INSTALL_INCLUDEDIR}/facezoo)
set(_package ${CMAKE_INSTALL_LIBDIR}/cmake/facezoo)
set(_documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/facezoo)

set(_targets facezoo facezoo_interface facezoo_platform)
if(FACEZOO_PLATFORM STREQUAL host)
  list(APPEND _targets facezoo_host)
  install(DIRECTORY platform/host/include/ DESTINATION ${_headers}/host COMPONENT development)
endif()
install(TARGETS ${_targets} EXPORT facezoo LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY include/ DESTINATION ${_headers} COMPONENT development)
# The pages keep their places relative to each other, so that the links between them hold.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION ${_documents} COMPONENT development)
foreach(_folder docs platform/host bench)
  file(GLOB _pages ${PROJECT_SOURCE_DIR}/${_folder}/*.md)
  install(FILES ${_pages} DESTINATION ${_documents}/${_folder} COMPONENT development)
endforeach()
install(FILES docs/facezoo.1 DESTINATION ${_documents}/docs COMPONENT development)
install(DIRECTORY examples DESTINATION ${_documents} COMPONENT development)

install(EXPORT facezoo COMPONENT development NAMESPACE facezoo:: FILE facezooTargets.cmake DESTINATION ${_package})
configure_package_config_file(cmake/facezooConfig.cmake.in facezooConfig.cmake
  INSTALL_DESTINATION ${_package} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(facezooConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES cmake/FindcuDNN.cmake ${PROJECT_BINARY_DIR}/facezooConfig.cmake
  ${PROJECT_BINARY_DIR}/facezooConfigVersion.cmake DESTINATION ${_package} COMPONENT development)

# Folders that the compiler searches anyway are left out. Other folders, and the libraries of a card, are named as
# this machine has them.
set(_pc_cflags)
set(_pc_libs)
set(_include_dirs ${FACEZOO_MSGPACK_INCLUDE_DIR})
if(FACEZOO_PLATFORM STREQUAL host)
  set(_pc_cflags "-I\${includedir}/facezoo/host")
  set(_pc_libs -lfacezoo_host)
else()
  foreach(_library CUDA::cudart CUDA::cublas cuDNN::cuDNN)
    get_target_property(_location ${_library} IMPORTED_LOCATION)
    get_target_property(_dirs ${_library} INTERFACE_INCLUDE_DIRECTORIES)
    list(APPEND _pc_libs ${_location})
    list(APPEND _include_dirs ${_dirs})
  endforeach()
endif()
list(REMOVE_DUPLICATES _include_dirs)
list(REMOVE_ITEM _include_dirs ${CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES})
list(TRANSFORM _include_dirs PREPEND "-isystem ")
list(JOIN _include_dirs " " _include_dirs)
list(JOIN _pc_libs " " _pc_libs)
set(_pkgconfig ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH _to_prefix ${_pkgconfig} ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH _to_includes ${_pkgconfig} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(cmake/facezoo.pc.in facezoo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/facezoo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

if(FACEZOO_TOOL)
  install(TARGETS facezoo_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  install(FILES tools/facezoo/completion.bash
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions RENAME facezoo
    COMPONENT tool)
  add_custom_command(OUTPUT facezoo.1.gz DEPENDS docs/facezoo.1
    COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/docs/facezoo.1 > facezoo.1.gz VERBATIM)
  add_custom_target(facezoo_manual ALL DEPENDS facezoo.1.gz)
  install(FILES ${PROJECT_BINARY_DIR}/facezoo.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT tool)
endif()
