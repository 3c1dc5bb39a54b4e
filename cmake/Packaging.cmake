# Debian packages of the build, made by CPack (`make deb`, from the Release build tree):
#
#   korvane-logging          the shared library with its soname link, korvane-log and its
#                            manual page (install components runtime)
#   korvane-logging-dev      headers, the CMake package, the pkg-config file and the .so link
#                            (components headers and devel)
#   python3-korvane-logging  the Python package, for Debian's python3 (component python3)
#
# Versions come from project(): VERSION-KORVANE_DEB_RELEASE. The packages install under /usr.
include_guard(GLOBAL)

set(KORVANE_DEB_MAINTAINER "korvane-logging maintainers <maintainers@korvane-logging.invalid>"
  CACHE STRING "The Maintainer field of the Debian packages: NAME <ADDRESS>")
set(KORVANE_DEB_RELEASE 1 CACHE STRING "The Debian revision of the packages")
set(KORVANE_DEB_VERSION ${PROJECT_VERSION}-${KORVANE_DEB_RELEASE})
set(KORVANE_DEB_SOURCE korvane-logging)

# Every package carries the copyright and a changelog in /usr/share/doc/NAME. They go into
# the packages only: EXCLUDE_FROM_ALL keeps them out of a plain `cmake --install`.
string(TIMESTAMP KORVANE_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)  # SOURCE_DATE_EPOCH wins
set(debian_folder ${PROJECT_SOURCE_DIR}/packaging/debian)
set(staging ${PROJECT_BINARY_DIR}/packaging)
configure_file(${debian_folder}/changelog.in ${staging}/changelog.Debian @ONLY)
# gzip -n leaves out name and time: the same build gives the same bytes.
execute_process(COMMAND gzip -9nc ${staging}/changelog.Debian
  OUTPUT_FILE ${staging}/changelog.Debian.gz RESULT_VARIABLE gzip_failed)
if(gzip_failed)
  message(FATAL_ERROR "gzip could not compress ${staging}/changelog.Debian")
endif()
foreach(package_component IN ITEMS korvane-logging:runtime korvane-logging-dev:devel
                                   python3-korvane-logging:python3)
  string(REPLACE ":" ";" pair ${package_component})
  list(GET pair 0 package)
  list(GET pair 1 component)
  install(FILES ${debian_folder}/copyright ${staging}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvane-logging)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "korvane-logging developers")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
# Installed with DESTDIR and the real prefix, so that the Python package finds Debian's
# dist-packages under /usr and records /usr/lib/... as the library it loads.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime headers devel python3)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENT_RUNTIME_GROUP runtime)
set(CPACK_COMPONENT_HEADERS_GROUP development)
set(CPACK_COMPONENT_DEVEL_GROUP development)
set(CPACK_COMPONENT_PYTHON3_GROUP python3)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KORVANE_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${KORVANE_DEB_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SOURCE ${KORVANE_DEB_SOURCE})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME korvane-logging)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# dpkg-shlibdeps turns what the library and the tool link (SQLite, zstd, the C++ runtime) into
# Depends; the shlibs file lets packages built against this one depend on it in turn.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${debian_folder}/runtime/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "records timestamped data entries into SQLite log files
korvane-logging records what the data sources of an application deliver,
timestamped opaque byte entries, into one SQLite 3 log file compressed with
zstd, and gives it back: reads by id, range and filter, metadata, resources,
bookmarks, real-time playback, slicing and cloning, and a flat C interface for
other languages.
.
This package holds the shared library and korvane-log, the command-line tool
that inspects, plays back, annotates, cuts, checks and recovers log files.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME korvane-logging-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "korvane-logging (= ${KORVANE_DEB_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "development files of korvane-logging
The C++ headers and the C headers (KV_Log.h, KV_LogExtensions.h) of
korvane-logging, its CMake package (find_package(KorvaneLogging), target
Korvane::Logging) and its pkg-config file (korvane-logging).")

set(CPACK_DEBIAN_PYTHON3_PACKAGE_NAME python3-korvane-logging)
set(CPACK_DEBIAN_PYTHON3_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON3_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON3_PACKAGE_DEPENDS
  "python3:any, korvane-logging (= ${KORVANE_DEB_VERSION})")
set(CPACK_DEBIAN_PYTHON3_PACKAGE_SUGGESTS
  "python3-numpy, python3-pandas, python3-dask, python3-distributed")
set(CPACK_DEBIAN_PYTHON3_PACKAGE_CONTROL_EXTRA
  ${debian_folder}/python3/postinst ${debian_folder}/python3/prerm)
set(CPACK_DEBIAN_PYTHON3_DESCRIPTION "Python 3 package of korvane-logging
korvane_logging records and reads korvane-logging log files from Python through
the flat C interface of the library (ctypes). korvane_logging.fleet asks
questions of many log files at once with Dask.")

include(CPack)
