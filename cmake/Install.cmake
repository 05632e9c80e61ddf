# Install rules (cmake --install build --prefix P) and the Debian package (cpack -G DEB in the build
# folder, or scripts/package.sh). Layout, relative to the prefix:
#   lib/libZYNNativeVBG.so -> .so.1 -> .so.1.0.0        the library (run path $ORIGIN/zynvbg)
#   lib/zynvbg/                                         ONNX Runtime, OpenVINO and its plugin list
#   libexec/zynvbg/EvalVBGProcessingType                the evaluator program
#   share/zynvbg/models/model.winml, general/model.winml
#   bin/zynvbg, include/zyn_native_vbg.h
#   lib/pkgconfig/zynnativevbg.pc, lib/cmake/ZYNNativeVBG/  pkg-config file and CMake package
include(CMakePackageConfigHelpers)

install(TARGETS ZYNNativeVBG EXPORT ZYNNativeVBGTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Runtime)
install(FILES ${CMAKE_SOURCE_DIR}/include/zyn_native_vbg.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS EvalVBGProcessingType RUNTIME DESTINATION ${ZYN_INSTALL_LIBEXEC_DIR})
install(TARGETS zynvbg RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${ZYN_DEPS_DIR}/models/model.winml DESTINATION ${ZYN_INSTALL_MODELS_DIR})
install(FILES ${ZYN_DEPS_DIR}/models/general/model.winml
    DESTINATION ${ZYN_INSTALL_MODELS_DIR}/general)

# Runtimes Debian does not package, private to the library. Each carries $ORIGIN as its own run
# path, so they find one another in that folder.
install(FILES ${ORT_ROOT}/lib/libonnxruntime.so.1 DESTINATION ${ZYN_INSTALL_PRIVATE_DIR})
if(ZYN_WITH_OPENVINO)
    # The core, its ONNX reader, the CPU and GPU plugins (the GPU one is used by the
    # OpenVinoGpuPPCPU type where OpenCL finds a device) and oneTBB with its NUMA helper.
    file(GLOB _ov_runtime
        ${ZYN_OPENVINO_LIBS_DIR}/libopenvino.so.*
        ${ZYN_OPENVINO_LIBS_DIR}/libopenvino_onnx_frontend.so.*
        ${ZYN_OPENVINO_LIBS_DIR}/libopenvino_intel_cpu_plugin.so
        ${ZYN_OPENVINO_LIBS_DIR}/libopenvino_intel_gpu_plugin.so
        ${ZYN_OPENVINO_LIBS_DIR}/libtbb.so.*
        ${ZYN_OPENVINO_LIBS_DIR}/libtbbmalloc.so.*
        ${ZYN_OPENVINO_LIBS_DIR}/libtbbbind_2_5.so.*
        ${ZYN_OPENVINO_LIBS_DIR}/libhwloc.so.*)
    install(FILES ${_ov_runtime} DESTINATION ${ZYN_INSTALL_PRIVATE_DIR})
    # The plugin list names its plugins by bare file name, which resolve in its own folder.
    install(FILES ${CMAKE_SOURCE_DIR}/src/ml/plugins_cpu.xml DESTINATION ${ZYN_INSTALL_PRIVATE_DIR})
endif()

# pkg-config file and CMake package, both found relative to their own place.
zyn_relative(ZYN_PREFIX_FROM_PKGCONFIG ${CMAKE_INSTALL_LIBDIR}/pkgconfig .)
configure_file(${CMAKE_SOURCE_DIR}/cmake/zynnativevbg.pc.in
    ${CMAKE_BINARY_DIR}/generated/zynnativevbg.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/generated/zynnativevbg.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(EXPORT ZYNNativeVBGTargets NAMESPACE ZYNNativeVBG:: DESTINATION ${ZYN_INSTALL_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/ZYNNativeVBGConfig.cmake.in
    ${CMAKE_BINARY_DIR}/generated/ZYNNativeVBGConfig.cmake
    INSTALL_DESTINATION ${ZYN_INSTALL_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/generated/ZYNNativeVBGConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/generated/ZYNNativeVBGConfig.cmake
    ${CMAKE_BINARY_DIR}/generated/ZYNNativeVBGConfigVersion.cmake
    DESTINATION ${ZYN_INSTALL_CMAKE_DIR})

# ---- Debian package: zynvbg_<version>_amd64.deb under /usr
set(CPACK_PACKAGE_NAME zynvbg)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.${PROJECT_VERSION_PATCH})
set(CPACK_PACKAGE_CONTACT "ZYNNativeVBG developers <zynvbg@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Video effects for conferencing: background blur and replacement, touch-up, presenter layouts")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Dependencies from the shared libraries the files need (FFmpeg, spdlog, fmt, libyuv, the C++
# runtime, OpenCL for the GPU plugin); the private folder satisfies the rest.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# (relative to the package's staging folder, where the dependency scan runs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS usr/${ZYN_INSTALL_PRIVATE_DIR})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE zstd)
include(CPack)
