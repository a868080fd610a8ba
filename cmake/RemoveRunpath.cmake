# CPack runs this on the files that it is about to pack, to remove the folders of libraries named in them.
file(GLOB_RECURSE _files ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*)
foreach(_file ${_files})
  if(_file MATCHES "/bin/facezoo$|/lib[^/]*\\.so\\.[0-9.]+$" AND NOT IS_SYMLINK ${_file})
    file(RPATH_REMOVE FILE ${_file})
  endif()
endforeach()
