# What makes a mistake in the code harder to use: the protections that distributions build their packages
# with, for all that is installed. What the compiler does not have is left out.
include(CheckCompilerFlag)
include(CheckPIESupported)

option(TSMAIL_HARDENING "Build with the compiler's and the linker's protections" ON)

set(tsmail_protections)
if(TSMAIL_HARDENING)
  check_pie_supported(LANGUAGES C CXX)
  foreach(flag IN ITEMS -fstack-protector-strong -fstack-clash-protection -fcf-protection
                        -mbranch-protection=standard)
    string(MAKE_C_IDENTIFIER "TSMAIL_HAS${flag}" known)
    check_compiler_flag(CXX ${flag} ${known})
    if(${known})
      list(APPEND tsmail_protections ${flag})
    endif()
  endforeach()
  # Works only where the compiler optimises; sanitizers check the same calls themselves.
  if(NOT TSMAIL_SANITIZE)
    list(APPEND tsmail_protections
         "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  endif()
endif()

# tsmail_harden(<target>...)
function(tsmail_harden)
  foreach(target IN LISTS ARGN)
    get_target_property(type ${target} TYPE)
    if(NOT TSMAIL_HARDENING OR type MATCHES "INTERFACE|UTILITY")
      continue()
    endif()
    target_compile_options(${target} PRIVATE ${tsmail_protections})
    target_link_options(${target} PRIVATE LINKER:-z,relro LINKER:-z,now)
  endforeach()
endfunction()

# tsmail_harden_below(<directory>): every target that is made there.
function(tsmail_harden_below directory)
  get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
  get_property(directories DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
  tsmail_harden(${targets})
  foreach(below IN LISTS directories)
    tsmail_harden_below(${below})
  endforeach()
endfunction()
