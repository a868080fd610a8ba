# Device code for the oldest cards the toolkit can serve: compute capabilities 5.0 and 6.0 up to
# toolkit 12, which is the last that has them; from 13 on its own oldest, 7.5, and the data centre
# cards 8.0 and 9.0. Machine code for each, and PTX for what comes later.
find_package(CUDAToolkit REQUIRED)
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
