# Finds the engines once and decides which bridge in compat/ each of them needs.

# No version is given in the call, because OpenCV 4's package does not accept 3.
find_package(OpenCV REQUIRED COMPONENTS core dnn)
if(OpenCV_VERSION VERSION_LESS 3.2)
  message(FATAL_ERROR "OpenCV 3.2 or later is needed, found ${OpenCV_VERSION}")
elseif(OpenCV_VERSION VERSION_LESS 3.3)
  set(VELMORA_OPENCV_API native)
elseif(OpenCV_VERSION VERSION_GREATER_EQUAL 5)
  message(FATAL_ERROR "OpenCV 5 reads no Caffe models; 3.2 to 4.x is needed, found ${OpenCV_VERSION}")
else()
  set(VELMORA_OPENCV_API bridge)
endif()
message(STATUS "OpenCV ${OpenCV_VERSION}: dnn API ${VELMORA_OPENCV_API}")

# The Inference Engine. One that the user names on the command line, or else in the environment, is
# used or is an error. Otherwise, the first of these is used: one of 2021 that the machine has, an
# OpenVINO that it has, and the OpenVINO that scripts/setup installs.
option(VELMORA_INFERENCE_ENGINE "Build the Inference Engine (OpenVINO) backend" ON)
set(InferenceEngine_INCLUDE_DIR "" CACHE PATH
  "The folder of inference_engine.hpp, of an Inference Engine without a CMake package")
set(InferenceEngine_LIBRARY_DIR "" CACHE PATH "The folder of its libraries")
set(VELMORA_OPENVINO_API missing)
if(VELMORA_INFERENCE_ENGINE)
  include(${CMAKE_CURRENT_LIST_DIR}/InferenceEngine.cmake)
  message(STATUS "OpenVINO ${OpenVINO_VERSION}: Inference Engine API ${VELMORA_OPENVINO_API}")
endif()

# TensorFlow Lite: its C++ headers and library if they are found (their CMake package is broken in
# Debian), otherwise the C library that scripts/setup installs.
option(VELMORA_TENSORFLOW_LITE "Build the TensorFlow Lite backend" ON)
set(VELMORA_TENSORFLOW_LITE_API missing)
if(VELMORA_TENSORFLOW_LITE)
  add_library(velmora-tensorflow-lite SHARED IMPORTED)
  # Named by the user or searched for again: results of an earlier configuration are not kept.
  foreach(named IN ITEMS TensorFlowLite_INCLUDE_DIR TensorFlowLite_LIBRARY TensorFlowLite_C_LIBRARY)
    if(${named} AND NOT EXISTS "${${named}}")
      message(FATAL_ERROR "${named} names ${${named}}, which does not exist")
    endif()
  endforeach()
  if(NOT TensorFlowLite_C_LIBRARY)
    find_path(TensorFlowLite_INCLUDE_DIR tensorflow/lite/interpreter.h NO_CACHE)
    find_library(TensorFlowLite_LIBRARY tensorflow-lite NO_CACHE)
  endif()
  find_library(TensorFlowLite_C_LIBRARY jnitensorflowlite
    PATHS ${PROJECT_SOURCE_DIR}/.deps/tensorflow-lite NO_CACHE)
  if(TensorFlowLite_INCLUDE_DIR AND TensorFlowLite_LIBRARY)
    set(VELMORA_TENSORFLOW_LITE_API native)
    set_target_properties(velmora-tensorflow-lite PROPERTIES
      IMPORTED_LOCATION ${TensorFlowLite_LIBRARY}
      INTERFACE_INCLUDE_DIRECTORIES ${TensorFlowLite_INCLUDE_DIR})
  elseif(TensorFlowLite_C_LIBRARY)
    set(VELMORA_TENSORFLOW_LITE_API bridge)
    set_target_properties(velmora-tensorflow-lite PROPERTIES
      IMPORTED_LOCATION ${TensorFlowLite_C_LIBRARY} IMPORTED_NO_SONAME ON)
  else()
    message(FATAL_ERROR "TensorFlow Lite was not found: run scripts/setup, or install its headers "
      "and library, or build without it (-DVELMORA_TENSORFLOW_LITE=OFF)")
  endif()
  # Only the library itself knows its version. It must also have what the bridge uses, because it may
  # be another one than that of scripts/setup, which has XNNPACK.
  set(used "")
  if(VELMORA_TENSORFLOW_LITE_API STREQUAL "bridge")
    set(used "#include \"${PROJECT_SOURCE_DIR}/compat/tensorflow_lite/c_api.h\"
      auto* add = TfLiteInterpreterOptionsAddDelegate;
      auto* create = TfLiteXNNPackDelegateCreate;
      auto* destroy = TfLiteXNNPackDelegateDelete;
      auto* mute = tflite::LoggerOptions::SetMinimumLogSeverity;\n")
  endif()
  file(WRITE ${CMAKE_BINARY_DIR}/version/tensorflow_lite.cpp
    "#include <cstdio>\n${used}extern \"C\" const char* TfLiteVersion();\n"
    "int main() { std::fputs(TfLiteVersion(), stdout); }\n")
  unset(ran CACHE)
  unset(compiled CACHE)
  try_run(ran compiled ${CMAKE_BINARY_DIR}/version ${CMAKE_BINARY_DIR}/version/tensorflow_lite.cpp
    LINK_LIBRARIES velmora-tensorflow-lite COMPILE_OUTPUT_VARIABLE errors
    RUN_OUTPUT_VARIABLE TensorFlowLite_VERSION)
  if(NOT compiled)
    message(FATAL_ERROR "${TensorFlowLite_LIBRARY} ${TensorFlowLite_C_LIBRARY} lacks what is used of "
      "TensorFlow Lite:\n${errors}")
  endif()
  message(STATUS "TensorFlow Lite ${TensorFlowLite_VERSION}: C++ API ${VELMORA_TENSORFLOW_LITE_API}")
endif()
