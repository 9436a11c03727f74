# Installed tree: header, library with soname, CMake package, pkg-config file, command line with its
# manual page, pages, licence texts. The components are the packages of cmake/Package.cmake.
#
# The library finds ONNX Runtime without environment variables: a runtime that the system does not
# provide is copied into a folder of the library's own, so that it never stands in the way of
# another one, and the library looks there first.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZORV_RUNTIME_DIR ${CMAKE_INSTALL_LIBDIR}/zorv_core)
set(ZORV_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zorv_core)

file(REAL_PATH ${OnnxRuntime_LIBRARY} ort_file)
get_filename_component(ort_dir ${ort_file} DIRECTORY)
set(ZORV_COPIES_RUNTIME OFF)
if(NOT ort_dir IN_LIST CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES AND NOT ort_dir MATCHES "^/usr/lib")
    set(ZORV_COPIES_RUNTIME ON)
    # Under its soname, which is what the library asks for.
    execute_process(COMMAND ${CMAKE_OBJDUMP} -p ${ort_file}
        OUTPUT_VARIABLE ort_header COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCH "SONAME +([^ \n]+)" _ "${ort_header}")
    install(FILES ${ort_file} DESTINATION ${ZORV_RUNTIME_DIR} RENAME ${CMAKE_MATCH_1}
        COMPONENT library)
endif()

# Where programs look for libraries anyway, only the runtime's folder needs naming.
set(library_paths)
set(tool_paths)
if(ZORV_COPIES_RUNTIME)
    list(APPEND library_paths "$ORIGIN/zorv_core")
    list(APPEND tool_paths "$ORIGIN/../${ZORV_RUNTIME_DIR}")
endif()
if(NOT CMAKE_INSTALL_FULL_LIBDIR MATCHES "^/usr/lib")
    list(PREPEND tool_paths "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()

set_target_properties(zorv_core PROPERTIES INSTALL_RPATH "${library_paths}")
install(TARGETS zorv_core EXPORT zorv_coreTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/zorv_core.h ${PROJECT_SOURCE_DIR}/include/zorv_core.hpp
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT zorv_coreTargets NAMESPACE zorv:: DESTINATION ${ZORV_PACKAGE_DIR}
    COMPONENT development)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/package/zorv_coreConfig.cmake.in
    ${PROJECT_BINARY_DIR}/zorv_coreConfig.cmake INSTALL_DESTINATION ${ZORV_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zorv_coreConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zorv_coreConfig.cmake
    ${PROJECT_BINARY_DIR}/zorv_coreConfigVersion.cmake DESTINATION ${ZORV_PACKAGE_DIR}
    COMPONENT development)

# Relative to the file itself, so that the tree can be moved.
file(RELATIVE_PATH ZORV_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${CMAKE_CURRENT_LIST_DIR}/package/zorv_core.pc.in
    ${PROJECT_BINARY_DIR}/zorv_core.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zorv_core.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)

if(TARGET zorv)
    set_target_properties(zorv PROPERTIES INSTALL_RPATH "${tool_paths}")
    install(TARGETS zorv RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    install(FILES ${PROJECT_BINARY_DIR}/tools/zorv.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT tools)
endif()

if(TARGET gstzorv)
    set_target_properties(gstzorv PROPERTIES INSTALL_RPATH "")
    if(NOT CMAKE_INSTALL_FULL_LIBDIR MATCHES "^/usr/lib")
        set_target_properties(gstzorv PROPERTIES INSTALL_RPATH "$ORIGIN/..")
    endif()
    install(TARGETS gstzorv LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/gstreamer-1.0
        COMPONENT gstreamer)
endif()

include(Licences)
if(ZORV_LICENCES_MISSING)
    list(JOIN ZORV_LICENCES_MISSING ", " missing)
    if(ZORV_REQUIRE_LICENCES)
        message(FATAL_ERROR "No licence text found: ${missing}")
    endif()
    message(STATUS "No licence text found, so none is installed: ${missing}")
endif()
set(texts ${ZORV_LICENCES_library} ${ZORV_LICENCES_tools})
list(REMOVE_DUPLICATES texts)
install(FILES ${texts} DESTINATION ${CMAKE_INSTALL_DATADIR}/licenses/zorv_core COMPONENT texts)
file(GLOB ZORV_PAGES ${PROJECT_SOURCE_DIR}/docs/*.md ${PROJECT_SOURCE_DIR}/docs/*.svg)
install(FILES ${ZORV_PAGES} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT texts)
