# Third-party dependencies, all installed by scripts/setup.sh: Debian packages, ONNX Runtime from the
# npm registry (unpacked into .deps/onnxruntime) and OpenVINO from its PyPI wheel (in .venv).
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(spdlog REQUIRED)
find_package(fmt REQUIRED)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavformat libavcodec libswscale libavutil)

find_path(RAPIDJSON_INCLUDE_DIR rapidjson/document.h REQUIRED)
find_path(LIBYUV_INCLUDE_DIR libyuv.h REQUIRED)
find_library(LIBYUV_LIBRARY yuv REQUIRED)

set(ORT_ROOT "${ZYN_DEPS_DIR}/onnxruntime")
if(NOT EXISTS "${ORT_ROOT}/lib/libonnxruntime.so.1")
    message(FATAL_ERROR "ONNX Runtime not found in ${ORT_ROOT}: run scripts/setup.sh")
endif()
add_library(zyn::onnxruntime SHARED IMPORTED GLOBAL)
set_target_properties(zyn::onnxruntime PROPERTIES
    IMPORTED_LOCATION "${ORT_ROOT}/lib/libonnxruntime.so.1"
    IMPORTED_SONAME "libonnxruntime.so.1"
    INTERFACE_INCLUDE_DIRECTORIES "${ORT_ROOT}/include")

set(ZYN_RUNTIME_RPATH "${ORT_ROOT}/lib")

add_library(zyn_deps INTERFACE)
add_library(zyn::deps ALIAS zyn_deps)
target_include_directories(zyn_deps SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIR} ${LIBYUV_INCLUDE_DIR})
target_link_libraries(zyn_deps INTERFACE
    spdlog::spdlog fmt::fmt PkgConfig::FFMPEG ${LIBYUV_LIBRARY} zyn::onnxruntime Threads::Threads
    ${CMAKE_DL_LIBS})

if(ZYN_WITH_OPENVINO)
    set(_ov_python "${ZYN_VENV_DIR}/bin/python")
    if(NOT EXISTS "${_ov_python}")
        message(FATAL_ERROR "${_ov_python} not found: run scripts/setup.sh")
    endif()
    execute_process(
        COMMAND "${_ov_python}" -c "import openvino.utils as u; print(u.get_cmake_path())"
        OUTPUT_VARIABLE _ov_cmake OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE _ov_rc)
    if(NOT _ov_rc EQUAL 0)
        message(FATAL_ERROR "OpenVINO is not installed in ${ZYN_VENV_DIR}: run scripts/setup.sh")
    endif()
    find_package(OpenVINO REQUIRED COMPONENTS Runtime PATHS "${_ov_cmake}" NO_DEFAULT_PATH)
    target_link_libraries(zyn_deps INTERFACE openvino::runtime)
    target_compile_definitions(zyn_deps INTERFACE ZYN_WITH_OPENVINO=1)
    get_filename_component(_ov_libs "${_ov_cmake}/../libs" ABSOLUTE)
    set(ZYN_OPENVINO_LIBS_DIR "${_ov_libs}")
    list(APPEND ZYN_RUNTIME_RPATH "${_ov_libs}")
endif()
set(CMAKE_BUILD_RPATH "${ZYN_RUNTIME_RPATH}")
