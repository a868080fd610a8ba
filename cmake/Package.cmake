# The Debian package, made of what is installed.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "facezoo developers <facezoo@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Whatever the umask of who makes it.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"A shared library and a command-line tool that run trained convolutional
networks on images of faces: expression and attribute heads, 68 landmarks,
descriptors. This build is for the ${FACEZOO_PLATFORM} platform. Weights are no part of it.")
# What the libraries need is read from them; the tool shows its progress through pv, and only who
# compiles against the headers needs MessagePack's.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS pv)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS libmsgpack-cxx-dev)

# A package that links against the libraries depends on this one; the linker's cache learns of them.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
