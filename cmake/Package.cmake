# Debian packages: `cpack -G DEB` in a build configured for /usr (scripts/package.sh).
#
#   libzorv-core0      the library, and a runtime that the system does not provide
#   libzorv-core-dev   header, link, pkg-config file, CMake package
#   zorv               the command line
#   gstreamer1.0-zorv  the GStreamer plugin, where it was built
set(CPACK_PACKAGE_NAME zorv-core)
set(CPACK_PACKAGE_VENDOR "")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "zorv_core packaging <packaging@zorv.invalid>"
    CACHE STRING "Name <address> of whoever answers for the Debian packages")
set(CPACK_DEBIAN_PACKAGE_RELEASE "" CACHE STRING "Revision of the Debian packages, e.g. 1~deb13")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL library development)
if(TARGET zorv)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(TARGET gstzorv)
    list(APPEND CPACK_COMPONENTS_ALL gstreamer)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(version ${PROJECT_VERSION})
if(CPACK_DEBIAN_PACKAGE_RELEASE)
    string(APPEND version -${CPACK_DEBIAN_PACKAGE_RELEASE})
endif()
set(library libzorv-core${PROJECT_VERSION_MAJOR})
set(synopsis "speech to talking-face video of one prepared subject")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
"${synopsis}
A library with a C interface that turns speech into video of a talking face
on an ordinary processor, in real time: clips in one call, or frames as
speech arrives. Neural networks run through ONNX Runtime.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzorv-core-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library} (= ${version})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"${synopsis} - development files
Header, pkg-config file and CMake package of libzorv_core.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zorv)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library} (= ${version})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"${synopsis} - command line
Renders clips, speaks in real time with a report of its timing, inspects
subjects and measures whether a mouth follows the sound.")

set(CPACK_DEBIAN_GSTREAMER_PACKAGE_NAME gstreamer1.0-zorv)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SECTION video)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_DEPENDS "${library} (= ${version})")
set(CPACK_DEBIAN_GSTREAMER_DESCRIPTION
"${synopsis} - GStreamer plugin
The element zorvface turns a stream of speech into video of a talking face.")

# Libraries of our own are no package's yet: the dependency on the same version stands for them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY} ${ort_dir})

# What dpkg does after the library has come or gone, and what packages of other programs that are
# linked with it depend on. The copied runtime is not offered to anyone.
set(package_files ${PROJECT_BINARY_DIR}/package)
file(WRITE ${package_files}/triggers "activate-noawait ldconfig\n")
file(WRITE ${package_files}/shlibs
    "libzorv_core ${PROJECT_VERSION_MAJOR} ${library} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${package_files}/triggers ${package_files}/shlibs)

# Each package carries its change log and the licences of what it contains.
string(TIMESTAMP year "%Y" UTC)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${package_files}/changelog
"${CPACK_PACKAGE_NAME} (${version}) unstable; urgency=low

  * Version ${PROJECT_VERSION}.

 -- ${CPACK_DEBIAN_PACKAGE_MAINTAINER}  ${date}
")
execute_process(COMMAND gzip -9nc ${package_files}/changelog
    OUTPUT_FILE ${package_files}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)

# CPack writes scripts that call ldconfig beside the trigger that does.
file(WRITE ${package_files}/overrides "${library}: maintscript-calls-ldconfig\n")
install(FILES ${package_files}/overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
    RENAME ${library} COMPONENT library EXCLUDE_FROM_ALL)

function(zorv_package_documents COMPONENT PACKAGE)
    set(copyright ${package_files}/${PACKAGE}.copyright)
    file(WRITE ${copyright}
"Copyright ${year} the authors of zorv_core

zorv_core, its command line and its development files come without a licence: nobody has been
granted the right to use, change or pass them on by this file.

What else this package contains comes under the terms that follow.
")
    foreach(text IN LISTS ARGN)
        get_filename_component(name ${text} NAME_WE)
        if(name STREQUAL onnxruntime-third-party)
            file(APPEND ${copyright} "\n---- ${name} ----\n\nSee ${name}.txt beside this file.\n")
            install(FILES ${text} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PACKAGE}
                COMPONENT ${COMPONENT} EXCLUDE_FROM_ALL)
            continue()
        endif()
        file(READ ${text} terms)
        file(APPEND ${copyright} "\n---- ${name} ----\n\n${terms}")
    endforeach()
    install(FILES ${copyright} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PACKAGE}
        RENAME copyright COMPONENT ${COMPONENT} EXCLUDE_FROM_ALL)
    install(FILES ${package_files}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PACKAGE}
        RENAME ${ZORV_CHANGELOG} COMPONENT ${COMPONENT} EXCLUDE_FROM_ALL)
endfunction()
set(ZORV_CHANGELOG changelog.gz)
if(CPACK_DEBIAN_PACKAGE_RELEASE)
    set(ZORV_CHANGELOG changelog.Debian.gz)
endif()
zorv_package_documents(library ${library} ${ZORV_LICENCES_library})
zorv_package_documents(development libzorv-core-dev)
install(FILES ${ZORV_PAGES} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libzorv-core-dev
    COMPONENT development EXCLUDE_FROM_ALL)
if(TARGET zorv)
    zorv_package_documents(tools zorv ${ZORV_LICENCES_tools})
endif()
if(TARGET gstzorv)
    zorv_package_documents(gstreamer gstreamer1.0-zorv)
endif()

include(CPack)
