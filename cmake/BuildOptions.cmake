# velmora-build-options: how every target of this project is compiled. Linked privately, so that
# nothing of it reaches a user of the library.
add_library(velmora-build-options INTERFACE)
target_compile_features(velmora-build-options INTERFACE cxx_std_20)
target_compile_options(velmora-build-options INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wnon-virtual-dtor -Wold-style-cast
  # Log lines and debug information name the source from the repository's root, wherever the build ran.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
  -ffile-prefix-map=${PROJECT_BINARY_DIR}=build
  $<$<BOOL:${VELMORA_WERROR}>:-Werror>)
if(VELMORA_SANITIZE)
  # Without vptr, which opens a pipe for a look at memory and takes a failure for a finding: there are
  # tests that leave no descriptors.
  target_compile_options(velmora-build-options INTERFACE
    -fsanitize=${VELMORA_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  target_link_options(velmora-build-options INTERFACE -fsanitize=${VELMORA_SANITIZE})
endif()
include(cmake/Hardening.cmake)
