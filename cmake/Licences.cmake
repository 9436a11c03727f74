# The licence texts of what the binaries contain: each dependency that is compiled in or copied
# beside the library, from where it keeps them. The others stay libraries of the system.
#
# Sets ZORV_LICENCES_library and ZORV_LICENCES_tools to lists of files, and ZORV_LICENCES_MISSING to
# the names of those without any.

# Adds the first of the files that exists.
function(zorv_find_licence NAME PARTS)
    foreach(file IN LISTS ARGN)
        if(EXISTS ${file})
            configure_file(${file} ${PROJECT_BINARY_DIR}/licences/${NAME}.txt COPYONLY)
            foreach(part IN LISTS PARTS)
                list(APPEND ZORV_LICENCES_${part} ${PROJECT_BINARY_DIR}/licences/${NAME}.txt)
                set(ZORV_LICENCES_${part} ${ZORV_LICENCES_${part}} PARENT_SCOPE)
            endforeach()
            return()
        endif()
    endforeach()
    set(ZORV_LICENCES_MISSING ${ZORV_LICENCES_MISSING} ${NAME} PARENT_SCOPE)
endfunction()

set(ZORV_LICENCES_library)
set(ZORV_LICENCES_tools)
set(ZORV_LICENCES_wheel)
set(ZORV_LICENCES_MISSING)

get_filename_component(ort_root ${OnnxRuntime_LIBRARY} DIRECTORY)
get_filename_component(ort_root ${ort_root} DIRECTORY)
# The runtime's C++ interface is compiled in, whoever provides the runtime itself.
zorv_find_licence(onnxruntime "library;tools"
    ${ort_root}/LICENSE ${ort_root}/copyright /usr/share/doc/libonnxruntime-dev/copyright
    /usr/share/licenses/onnxruntime/LICENSE)
if(ZORV_COPIES_RUNTIME)
    zorv_find_licence(onnxruntime-third-party library ${ort_root}/ThirdPartyNotices.txt)
endif()
zorv_find_licence(stb "library;tools"
    /usr/share/doc/libstb-dev/copyright /usr/share/licenses/stb/LICENSE ${STB_INCLUDE_DIR}/LICENSE)
# Python's wheel contains a copy of its own; everywhere else it is the system's.
zorv_find_licence(speexdsp wheel
    /usr/share/doc/libspeexdsp-dev/copyright /usr/share/licenses/speexdsp/COPYING)
if(TARGET zorv)
    zorv_find_licence(cli11 tools
        /usr/share/doc/libcli11-dev/copyright /usr/share/licenses/cli11/LICENSE)
    zorv_find_licence(nlohmann-json tools
        /usr/share/doc/nlohmann-json3-dev/copyright /usr/share/licenses/nlohmann-json/LICENSE.MIT)
    zorv_find_licence(fmt tools
        /usr/share/doc/libfmt-dev/copyright /usr/share/licenses/fmt/LICENSE)
endif()
