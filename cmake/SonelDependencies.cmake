# Locates the installed numeric and audio libraries and wraps each in an imported target so the
# rest of the build names Sonel::Blas, Sonel::KissFft and Sonel::Resample only.

# BLAS: the library must start no threads, and sessions run on as many caller threads as the
# host has streams, so the BLAS must be both serial and reentrant. On Linux that is the serial
# BLIS build, linked by its own path (Debian installs it beside the threaded variants). The serial
# OpenBLAS build is not reentrant: eight threads calling sgemv on separate data got wrong results
# (docs/reliability.md). On macOS Accelerate is the BLAS.
if(APPLE)
  find_library(SONEL_BLAS_LIBRARY Accelerate REQUIRED)
  set(SONEL_CBLAS_INCLUDE "")
else()
  find_library(SONEL_BLAS_LIBRARY NAMES blis
    PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/blis-serial NO_DEFAULT_PATH)
  find_path(SONEL_CBLAS_INCLUDE cblas.h
    PATHS /usr/include/${CMAKE_LIBRARY_ARCHITECTURE}/blis-serial NO_DEFAULT_PATH)
  if(NOT SONEL_BLAS_LIBRARY OR NOT SONEL_CBLAS_INCLUDE)
    message(FATAL_ERROR "Serial BLIS not found: install libblis-serial-dev")
  endif()
endif()
add_library(Sonel::Blas INTERFACE IMPORTED)
target_link_libraries(Sonel::Blas INTERFACE ${SONEL_BLAS_LIBRARY})
if(SONEL_CBLAS_INCLUDE)
  target_include_directories(Sonel::Blas INTERFACE ${SONEL_CBLAS_INCLUDE})
endif()

find_path(SONEL_KISSFFT_INCLUDE kiss_fftr.h PATH_SUFFIXES kissfft REQUIRED)
find_library(SONEL_KISSFFT_LIBRARY NAMES kissfft-float kissfft REQUIRED)
add_library(Sonel::KissFft INTERFACE IMPORTED)
target_include_directories(Sonel::KissFft INTERFACE ${SONEL_KISSFFT_INCLUDE})
target_link_libraries(Sonel::KissFft INTERFACE ${SONEL_KISSFFT_LIBRARY})

find_path(SONEL_RESAMPLE_INCLUDE libresample.h REQUIRED)
find_library(SONEL_RESAMPLE_LIBRARY NAMES resample REQUIRED)
add_library(Sonel::Resample INTERFACE IMPORTED)
target_include_directories(Sonel::Resample INTERFACE ${SONEL_RESAMPLE_INCLUDE})
target_link_libraries(Sonel::Resample INTERFACE ${SONEL_RESAMPLE_LIBRARY})

find_package(PkgConfig REQUIRED)
pkg_check_modules(SNDFILE REQUIRED IMPORTED_TARGET sndfile)
