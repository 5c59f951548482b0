# Debian's own hardening options, for everything that is installed. Not with sanitizers, which check
# more. A Debian package build sets _FORTIFY_SOURCE itself.
include(CheckCXXCompilerFlag)
if(NOT VELMORA_SANITIZE)
  set(hardening -fstack-protector-strong)
  if(NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE")  # needs optimisation
    list(APPEND hardening
      $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
      $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
  endif()
  foreach(flag IN ITEMS -fcf-protection -mbranch-protection=standard)  # x86; arm64
    string(MAKE_C_IDENTIFIER VELMORA_HAS${flag} known)
    check_cxx_compiler_flag(${flag} ${known})
    if(${known})
      list(APPEND hardening ${flag})
    endif()
  endforeach()
  target_compile_options(velmora-build-options INTERFACE ${hardening})
  target_link_options(velmora-build-options INTERFACE LINKER:-z,relro,-z,now)
endif()
