# velmora-plugin-model: defines the target velmora::plugin-model.
include(CMakeFindDependencyMacro)
find_dependency(OpenCV COMPONENTS core)
find_dependency(jsoncpp)
include(${CMAKE_CURRENT_LIST_DIR}/velmora-plugin-model-targets.cmake)
