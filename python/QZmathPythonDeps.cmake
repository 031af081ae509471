# Finds what the Python module needs: Debian's interpreter with its NumPy and
# development files, and pybind11. Sets QZMATH_PYTHON_DEPS_FOUND.
#
# The interpreter is Debian's /usr/bin/python3 unless Python3_EXECUTABLE says
# otherwise: NumPy and pybind11 come from Debian's packages, which serve that
# interpreter only, and a python3 earlier on PATH (a pyenv shim, a venv) would
# build a module that cannot import them.
if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Python interpreter of the qzmath module")
endif()
find_package(Python3 3.8 QUIET COMPONENTS Interpreter Development.Module NumPy)
if(Python3_FOUND)
  # Seeing Python3 found, pybind11 builds against that same interpreter.
  find_package(pybind11 2.6 CONFIG QUIET)
endif()
if(Python3_FOUND AND pybind11_FOUND)
  set(QZMATH_PYTHON_DEPS_FOUND TRUE)
else()
  set(QZMATH_PYTHON_DEPS_FOUND FALSE)
endif()
