# Finds the production platform's compiler and libraries, and refuses versions that the library is not written
# for before anything is compiled.
set(_supported "CUDA toolkits 10.1 to 13 and cuDNN 7 to 9 are supported")
find_package(CUDAToolkit QUIET)
if(NOT CUDAToolkit_FOUND)
  message(FATAL_ERROR "No CUDA toolkit found (hint: CUDAToolkit_ROOT). ${_supported}.")
elseif(CUDAToolkit_VERSION VERSION_LESS 10.1)
  message(FATAL_ERROR
    "CUDA toolkit ${CUDAToolkit_VERSION} found in ${CUDAToolkit_BIN_DIR}. ${_supported}.")
endif()
find_package(cuDNN QUIET)
if(NOT cuDNN_INCLUDE_DIR)
  message(FATAL_ERROR "No cuDNN found (hint: cuDNN_ROOT). ${_supported}.")
elseif(NOT cuDNN_VERSION)
  message(FATAL_ERROR
    "The cuDNN in ${cuDNN_INCLUDE_DIR} does not state its version. ${_supported}.")
elseif(cuDNN_VERSION VERSION_LESS 7 OR cuDNN_VERSION VERSION_GREATER_EQUAL 10)
  message(FATAL_ERROR "cuDNN ${cuDNN_VERSION} found in ${cuDNN_INCLUDE_DIR}. ${_supported}.")
elseif(NOT cuDNN_LIBRARY)
  message(FATAL_ERROR "No library of cuDNN ${cuDNN_VERSION} found, whose header is in "
    "${cuDNN_INCLUDE_DIR} (hint: cuDNN_ROOT). ${_supported}.")
endif()
message(STATUS "CUDA toolkit ${CUDAToolkit_VERSION}, cuDNN ${cuDNN_VERSION}")

# Device code is made for the oldest cards that the toolkit serves. These are compute capabilities 5.0 and 6.0 up
# to toolkit 12, the last that knows them; from toolkit 13 on its oldest, 7.5, and the data centre cards 8.0 and
# 9.0. There is machine code for each, and PTX for later cards.
if(NOT DEFINED CMAKE_CUDA_ARCHITECTURES)
  if(CUDAToolkit_VERSION VERSION_LESS 13)
    set(CMAKE_CUDA_ARCHITECTURES 50 60 CACHE STRING "")
  else()
    set(CMAKE_CUDA_ARCHITECTURES 75 80 90 CACHE STRING "")
  endif()
endif()
if(NOT DEFINED CMAKE_CUDA_COMPILER AND NOT DEFINED ENV{CUDACXX})
  set(CMAKE_CUDA_COMPILER ${CUDAToolkit_NVCC_EXECUTABLE})
endif()
set(CMAKE_CUDA_STANDARD 14)
set(CMAKE_CUDA_STANDARD_REQUIRED ON)
enable_language(CUDA)
