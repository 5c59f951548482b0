# Finds the engines, once, and decides which bridge of compat/ each of them needs.

# Without a version in the call: OpenCV 4's package says that it is none of 3.
find_package(OpenCV REQUIRED COMPONENTS core dnn)
if(OpenCV_VERSION VERSION_LESS 3.2)
  message(FATAL_ERROR "OpenCV 3.2 or later is needed, found ${OpenCV_VERSION}")
elseif(OpenCV_VERSION VERSION_LESS 3.3)
  set(VELMORA_OPENCV_BRIDGE native)
else()
  set(VELMORA_OPENCV_BRIDGE bridge)
endif()
message(STATUS "OpenCV ${OpenCV_VERSION}: dnn API ${VELMORA_OPENCV_BRIDGE}")

# The Inference Engine: an OpenVINO that the user names (OpenVINO_DIR) or has, else the one that
# scripts/setup brings.
option(VELMORA_INFERENCE_ENGINE "Build the Inference Engine (OpenVINO) backend" ON)
set(VELMORA_OPENVINO_BRIDGE missing)
if(VELMORA_INFERENCE_ENGINE)
  find_package(OpenVINO QUIET COMPONENTS Runtime
    PATHS ${PROJECT_SOURCE_DIR}/.deps/openvino/openvino/cmake)
  if(NOT OpenVINO_FOUND)
    message(FATAL_ERROR "OpenVINO was not found: run scripts/setup, or set OpenVINO_DIR, or build "
      "without it (-DVELMORA_INFERENCE_ENGINE=OFF)")
  endif()
  include(CheckIncludeFileCXX)
  set(CMAKE_REQUIRED_LIBRARIES openvino::runtime)
  check_include_file_cxx(inference_engine.hpp VELMORA_HAS_NATIVE_INFERENCE_ENGINE)
  unset(CMAKE_REQUIRED_LIBRARIES)
  if(VELMORA_HAS_NATIVE_INFERENCE_ENGINE)
    set(VELMORA_OPENVINO_BRIDGE native)
  else()
    set(VELMORA_OPENVINO_BRIDGE bridge)
  endif()
  message(STATUS "OpenVINO ${OpenVINO_VERSION}: Inference Engine API ${VELMORA_OPENVINO_BRIDGE}")
endif()
