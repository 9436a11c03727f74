# Finds ONNX Runtime and defines OnnxRuntime::OnnxRuntime.
#
# Looked at in this order: ONNXRUNTIME_ROOT (CMake or environment variable; an official archive
# or an installed prefix), the system, and the folder that scripts/setup.sh fills.

if(DEFINED ENV{ZORV_CACHE})
    set(_ort_cache "$ENV{ZORV_CACHE}")
elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(_ort_cache "$ENV{XDG_CACHE_HOME}/zorv")
else()
    set(_ort_cache "$ENV{HOME}/.cache/zorv")
endif()
set(_ort_fetched "${_ort_cache}/onnxruntime-1.21.0")

set(_ort_explicit ${ONNXRUNTIME_ROOT} $ENV{ONNXRUNTIME_ROOT})
find_path(OnnxRuntime_INCLUDE_DIR onnxruntime_cxx_api.h
    HINTS ${_ort_explicit} PATHS ${_ort_fetched}
    PATH_SUFFIXES include include/onnxruntime include/onnxruntime/core/session onnxruntime)
find_library(OnnxRuntime_LIBRARY NAMES onnxruntime libonnxruntime.so.1
    HINTS ${_ort_explicit} PATHS ${_ort_fetched} PATH_SUFFIXES lib lib64)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OnnxRuntime
    REQUIRED_VARS OnnxRuntime_LIBRARY OnnxRuntime_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "run scripts/setup.sh, or unpack an official ONNX Runtime 1.21 archive \
and set ONNXRUNTIME_ROOT to its folder")

if(OnnxRuntime_FOUND AND NOT TARGET OnnxRuntime::OnnxRuntime)
    add_library(OnnxRuntime::OnnxRuntime SHARED IMPORTED)
    set_target_properties(OnnxRuntime::OnnxRuntime PROPERTIES
        IMPORTED_LOCATION "${OnnxRuntime_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${OnnxRuntime_INCLUDE_DIR}")
endif()
mark_as_advanced(OnnxRuntime_INCLUDE_DIR OnnxRuntime_LIBRARY)
