# velmora-build-options: how all targets of this project are compiled. Linked privately, so that it
# does not affect the library's users.
add_library(velmora-build-options INTERFACE)
target_compile_features(velmora-build-options INTERFACE cxx_std_20)
target_compile_options(velmora-build-options INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wnon-virtual-dtor -Wold-style-cast
  # Log lines and debug information name sources relative to the repository, wherever it was built.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
  -ffile-prefix-map=${PROJECT_BINARY_DIR}=build
  $<$<BOOL:${VELMORA_WERROR}>:-Werror>)
if(VELMORA_SANITIZE)
  # Without vptr, which opens a pipe to check memory and reports a finding if that fails: some tests
  # use up all descriptors.
  target_compile_options(velmora-build-options INTERFACE
    -fsanitize=${VELMORA_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  target_link_options(velmora-build-options INTERFACE -fsanitize=${VELMORA_SANITIZE})
endif()
include(cmake/Hardening.cmake)
