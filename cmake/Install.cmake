# What is installed besides the targets, which have their own calls. The components are appliance (its
# libraries), runtime (the library and its engines), development, program (with the sample model) and
# transcode (the program for the record).

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/velmora-plugin-model)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(engines_dir ${CMAKE_INSTALL_LIBDIR}/velmora-plugin-model)

include(CMakePackageConfigHelpers)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velmora-plugin-model-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(EXPORT velmora-plugin-model NAMESPACE velmora:: DESTINATION ${package_dir}
  FILE velmora-plugin-model-targets.cmake COMPONENT development)
install(FILES
  cmake/velmora-plugin-model-config.cmake
  ${PROJECT_BINARY_DIR}/velmora-plugin-model-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

file(RELATIVE_PATH prefix_from_pkgconfig /${pkgconfig_dir} /)
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig ${prefix_from_pkgconfig})
set(opencv_package opencv)
if(OpenCV_VERSION VERSION_GREATER_EQUAL 4)
  set(opencv_package opencv4)
endif()
configure_file(cmake/velmora-plugin-model.pc.in velmora-plugin-model.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velmora-plugin-model.pc
  DESTINATION ${pkgconfig_dir} COMPONENT development)

install(FILES docs/man/velmora-model.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
install(FILES docs/man/velmora-transcode.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
  COMPONENT transcode)
set(sample ${PROJECT_SOURCE_DIR}/models/digits)
install(FILES
  ${sample}/README.md ${sample}/model.json ${sample}/reference.json
  ${sample}/digits.prototxt ${sample}/digits.caffemodel
  ${sample}/digits-cpu.xml ${sample}/digits-cpu.bin ${sample}/digits-gpu.xml ${sample}/digits-gpu.bin
  ${sample}/digits.tflite
  DESTINATION ${CMAKE_INSTALL_DATADIR}/velmora-plugin-model/models/digits COMPONENT program)
install(DIRECTORY ${sample}/images
  DESTINATION ${CMAKE_INSTALL_DATADIR}/velmora-plugin-model/models/digits COMPONENT program)

# Engines that scripts/setup installed are included; the machine's own are used where they are.
set(engines ${PROJECT_SOURCE_DIR}/.deps)
set(runtime_doc_dir ${CMAKE_INSTALL_DATADIR}/doc/libvelmora-plugin-model${PROJECT_VERSION_MAJOR})
set(brought_openvino FALSE)
if(VELMORA_OPENVINO_API STREQUAL "bridge")
  cmake_path(IS_PREFIX engines "${OpenVINO_DIR}" brought_openvino)
endif()
if(brought_openvino)
  # OpenVINO looks for everything beside its own library. Running an IR on the CPU and the GPU needs
  # the IR reader, the two plug-ins with the GPU's table of kernels, and the threading library with
  # what that loads itself. Other readers and devices are omitted.
  install(DIRECTORY ${engines}/openvino/openvino/libs/ DESTINATION ${engines_dir} COMPONENT runtime
    FILES_MATCHING
    PATTERN libopenvino.so.*
    PATTERN libopenvino_ir_frontend.so.*
    PATTERN libopenvino_*_cpu_plugin.so
    PATTERN libopenvino_intel_gpu_plugin.so
    PATTERN cache.json
    PATTERN libtbb*.so.*
    PATTERN libhwloc.so.*
    PATTERN libtbbmalloc_proxy.so.* EXCLUDE)
  install(DIRECTORY ${engines}/openvino/openvino-${OpenVINO_VERSION}.dist-info/licenses/
    DESTINATION ${runtime_doc_dir}/openvino COMPONENT runtime)
endif()
cmake_path(IS_PREFIX engines "${TensorFlowLite_C_LIBRARY}" brought_tensorflow_lite)
if(VELMORA_TENSORFLOW_LITE_API STREQUAL "bridge" AND brought_tensorflow_lite)
  install(FILES ${TensorFlowLite_C_LIBRARY} DESTINATION ${engines_dir} COMPONENT runtime)
  # It contains a search path of the machine that it was built on.
  cmake_path(GET TensorFlowLite_C_LIBRARY FILENAME library)
  install(CODE "file(RPATH_REMOVE
    FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${engines_dir}/${library}\")" COMPONENT runtime)
endif()

foreach(package IN ITEMS
    runtime:libvelmora-plugin-model${PROJECT_VERSION_MAJOR}
    development:libvelmora-plugin-model-dev
    program:velmora-model
    appliance:libvelmora-appliance
    transcode:velmora-transcode)
  string(REPLACE ":" ";" package ${package})
  list(GET package 0 component)
  list(GET package 1 name)
  install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name}
    COMPONENT ${component})
endforeach()

# Last, because CMake applies the umask to the folders that it creates.
install(CODE [[
  set(folders)
  get_filename_component(prefix "${CMAKE_INSTALL_PREFIX}/" ABSOLUTE)
  foreach(file IN LISTS CMAKE_INSTALL_MANIFEST_FILES)
    get_filename_component(file "${file}" ABSOLUTE)
    file(RELATIVE_PATH folder "${prefix}" "${file}")
    cmake_path(GET folder PARENT_PATH folder)
    while(NOT folder STREQUAL "")
      list(APPEND folders "$ENV{DESTDIR}${prefix}/${folder}")
      cmake_path(GET folder PARENT_PATH folder)
    endwhile()
  endforeach()
  list(REMOVE_DUPLICATES folders)
  execute_process(COMMAND chmod a+rX ${folders})
]] ALL_COMPONENTS)
