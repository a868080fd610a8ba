# Finds cuDNN 7 to 9 and sets cuDNN_FOUND, cuDNN_VERSION and the target cuDNN::cuDNN. Looks in the folder that
# cuDNN_ROOT names, and in those of the CUDA toolkit.

set(_hints ${cuDNN_ROOT} $ENV{CUDNN_ROOT} ${CUDAToolkit_INCLUDE_DIRS} ${CUDAToolkit_LIBRARY_ROOT}
  ${CUDAToolkit_LIBRARY_DIR})
find_path(cuDNN_INCLUDE_DIR cudnn.h HINTS ${_hints} PATH_SUFFIXES include)

# Version 7 states its version in cudnn.h, later versions in cudnn_version.h.
unset(cuDNN_VERSION)
foreach(_header cudnn_version.h cudnn.h)
  if(NOT cuDNN_VERSION AND EXISTS ${cuDNN_INCLUDE_DIR}/${_header})
    file(READ ${cuDNN_INCLUDE_DIR}/${_header} _text)
    set(_parts)
    foreach(_part MAJOR MINOR PATCHLEVEL)
      if(_text MATCHES "#define[ \t]+CUDNN_${_part}[ \t]+([0-9]+)")
        list(APPEND _parts ${CMAKE_MATCH_1})
      endif()
    endforeach()
    list(LENGTH _parts _count)
    if(_count EQUAL 3)
      list(JOIN _parts . cuDNN_VERSION)
    endif()
  endif()
endforeach()

# Looks for the file name with the header's major version: libcudnn.so may be of another version, and Python's
# packages of cuDNN do not have it.
if(cuDNN_VERSION MATCHES "^([0-9]+)")
  find_library(cuDNN_LIBRARY libcudnn.so.${CMAKE_MATCH_1} HINTS ${_hints}
    PATH_SUFFIXES lib64 lib)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(cuDNN
  REQUIRED_VARS cuDNN_LIBRARY cuDNN_INCLUDE_DIR cuDNN_VERSION VERSION_VAR cuDNN_VERSION)

if(cuDNN_FOUND AND NOT TARGET cuDNN::cuDNN)
  add_library(cuDNN::cuDNN UNKNOWN IMPORTED)
  set_target_properties(cuDNN::cuDNN PROPERTIES
    IMPORTED_LOCATION ${cuDNN_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${cuDNN_INCLUDE_DIR})
endif()
mark_as_advanced(cuDNN_INCLUDE_DIR cuDNN_LIBRARY)
