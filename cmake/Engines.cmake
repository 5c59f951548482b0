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
