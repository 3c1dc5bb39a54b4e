# Runs at install time (install(CODE) in bindings/python), when the prefix is final: it may
# differ from the configured one (`cmake --install --prefix`). Installs the package
# korvane_logging where the prefix's Python finds it, and records in it the path of the
# library installed beside it, so that the package loads that library without LD_LIBRARY_PATH.
#
# Given: KORVANE_PYTHON_SOURCE (the package folder), KORVANE_PYTHON_STAGING (a folder of the
# build tree), KORVANE_LIBRARY (the library's file relative to the prefix, or absolute),
# KORVANE_PYTHON_INTERPRETERS (interpreters to ask, in order) and KORVANE_PYTHON_INSTALL_DIR
# (empty, or the folder to use, relative to the prefix or absolute).

set(prefix "${CMAKE_INSTALL_PREFIX}")
set(site "${KORVANE_PYTHON_INSTALL_DIR}")
if(site STREQUAL "")
  # The prefix's own interpreter if it has one (a virtual environment, say), else the others.
  set(python "")
  foreach(candidate IN ITEMS "${prefix}/bin/python3" ${KORVANE_PYTHON_INTERPRETERS})
    if(EXISTS "${candidate}")
      set(python "${candidate}")
      break()
    endif()
  endforeach()
  if(python STREQUAL "")
    message(FATAL_ERROR "No Python interpreter to place the package korvane_logging for; set "
      "KORVANE_PYTHON_INSTALL_DIR or KORVANE_INSTALL_PYTHON=OFF")
  endif()
  # A folder of the interpreter's own path under the prefix (/usr/lib/python3/dist-packages,
  # /usr/local/lib/python3.11/dist-packages, <venv>/lib/python3.11/site-packages), else the
  # prefix's site-packages in Python's standard layout, which then goes on PYTHONPATH.
  set(query [=[
import os, sys, sysconfig
prefix = os.path.realpath(sys.argv[1])
# The nearest such folder: under /usr, /usr/lib/python3/dist-packages and not /usr/local/...
found = sorted((len(os.path.relpath(os.path.realpath(folder), prefix).split(os.sep)), rank,
                folder) for rank, folder in enumerate(sys.path)
               if folder.endswith(("site-packages", "dist-packages"))
               and os.path.realpath(folder).startswith(prefix + os.sep))
if found:
    print("found", found[0][2], end="")
else:
    print("standard", sysconfig.get_path("purelib", "posix_prefix",
                                         vars={"base": prefix, "platbase": prefix}), end="")
]=])
  execute_process(COMMAND "${python}" -I -c "${query}" "${prefix}"
    OUTPUT_VARIABLE answer RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "${python} could not tell where packages go under ${prefix}")
  endif()
  string(REGEX REPLACE "^([a-z]+) (.*)$" "\\1" kind "${answer}")
  string(REGEX REPLACE "^([a-z]+) (.*)$" "\\2" site "${answer}")
  if(kind STREQUAL "standard")
    message(STATUS "The Python package goes to ${site}, which ${python} does not read: "
      "add it to PYTHONPATH")
  endif()
endif()
cmake_path(ABSOLUTE_PATH site BASE_DIRECTORY "${prefix}")
set(library "${KORVANE_LIBRARY}")
cmake_path(ABSOLUTE_PATH library BASE_DIRECTORY "${prefix}")

file(INSTALL "${KORVANE_PYTHON_SOURCE}" DESTINATION "${site}"
  FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
file(WRITE "${KORVANE_PYTHON_STAGING}/_installed.py"
  "\"\"\"Written by the installation: the library installed with this package.\"\"\"\n\n"
  "LIBRARY = \"${library}\"\n")
file(INSTALL "${KORVANE_PYTHON_STAGING}/_installed.py" DESTINATION "${site}/korvane_logging")
