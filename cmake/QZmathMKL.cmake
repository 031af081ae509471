# Intel MKL, LP64 interface (32-bit MKL_INT), threaded through GNU OpenMP.
# GNU OpenMP ships with g++, so no other OpenMP runtime is needed. Used both by
# the build and by the installed package configuration.
if(NOT TARGET QZmath::MKL)
  find_path(QZMATH_MKL_INCLUDE_DIR mkl.h PATHS /usr/include/mkl /opt/intel/mkl/include)
  find_library(QZMATH_MKL_INTEL_LP64 mkl_intel_lp64)
  find_library(QZMATH_MKL_GNU_THREAD mkl_gnu_thread)
  find_library(QZMATH_MKL_CORE mkl_core)
  find_library(QZMATH_GOMP gomp PATHS /usr/lib/x86_64-linux-gnu /usr/lib/gcc/x86_64-linux-gnu/12)
  foreach(v QZMATH_MKL_INCLUDE_DIR QZMATH_MKL_INTEL_LP64 QZMATH_MKL_GNU_THREAD QZMATH_MKL_CORE QZMATH_GOMP)
    if(NOT ${v})
      message(FATAL_ERROR "Intel MKL not found (${v}); run scripts/setup.sh")
    endif()
  endforeach()
  add_library(QZmath::MKL INTERFACE IMPORTED)
  set_target_properties(QZmath::MKL PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${QZMATH_MKL_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES
      "-Wl,--no-as-needed;${QZMATH_MKL_INTEL_LP64};${QZMATH_MKL_GNU_THREAD};${QZMATH_MKL_CORE};${QZMATH_GOMP};-Wl,--as-needed;Threads::Threads;m;dl")
endif()
