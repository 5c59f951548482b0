# Debian packages, one per component: cpack --config build/release/CPackConfig.cmake
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "velmora-plugin-model developers <velmora-plugin-model@localhost>")
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL appliance runtime development program transcode)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Dependencies on other packages are determined from the files; those among these are listed below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/appliance)
if(brought_openvino)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${engines}/openvino/openvino/libs)
endif()
if(brought_tensorflow_lite)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${engines}/tensorflow-lite)
endif()

set(CPACK_DEBIAN_APPLIANCE_PACKAGE_NAME libvelmora-appliance)
set(CPACK_DEBIAN_APPLIANCE_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_APPLIANCE_DESCRIPTION
  "The appliance's libraries, for machines that are none.")
set(appliance "libvelmora-appliance (= ${PROJECT_VERSION})")

set(library libvelmora-plugin-model${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${appliance}")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "The library, with the engines that Debian does not have.")
# Not generated, because that would also offer the engines to other packages.
file(WRITE ${PROJECT_BINARY_DIR}/shlibs
  "libvelmora-plugin-model ${PROJECT_VERSION_MAJOR} ${library} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/shlibs)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvelmora-plugin-model-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${library} (= ${PROJECT_VERSION}), libopencv-dev, libjsoncpp-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "The library's headers, for CMake and pkg-config.")

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME velmora-model)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION}), ${appliance}")
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION
  "The program that runs, measures and compares the engines, with a sample model.")

set(CPACK_DEBIAN_TRANSCODE_PACKAGE_NAME velmora-transcode)
set(CPACK_DEBIAN_TRANSCODE_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TRANSCODE_PACKAGE_DEPENDS "${appliance}")
set(CPACK_COMPONENT_TRANSCODE_DESCRIPTION
  "The program for the record of what is transcoding.")

include(CPack)
