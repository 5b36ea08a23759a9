# SPDX-License-Identifier: MIT
# What limits the harm of a memory fault, in all that is built here: libraries, archives, tools and tests. Each option is
# taken where the compiler has it. They are this build's own: the package hands none of them on to who links it.
include(CheckCCompilerFlag)
include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)
include(CheckPIESupported)

# Where the compiler has them, by language.
function(harden_code flag)
  string(MAKE_C_IDENTIFIER "HDMIPLAYER_HAS${flag}" has)
  check_c_compiler_flag(${flag} ${has}_C)
  check_cxx_compiler_flag(${flag} ${has}_CXX)
  foreach(language C CXX)
    if(${has}_${language})
      add_compile_options($<$<COMPILE_LANGUAGE:${language}>:${flag}>)
    endif()
  endforeach()
endfunction()

function(harden_link option)
  string(MAKE_C_IDENTIFIER "HDMIPLAYER_HAS_LINK_${option}" has)
  check_linker_flag(CXX LINKER:${option} ${has})
  if(${has})
    add_link_options(LINKER:${option})
  endif()
endfunction()

# The option that marks where indirect jumps may end, if there is one: its name is the machine's.
set(branch_protection "")
if(NOT HDMIPLAYER_HARDENING)
  return()
endif()
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i[3-6]86)$")
  set(branch_protection -fcf-protection)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(branch_protection -mbranch-protection=standard)
endif()

foreach(flag -fstack-protector-strong -fstack-clash-protection ${branch_protection})
  harden_code(${flag})
endforeach()
string(MAKE_C_IDENTIFIER "HDMIPLAYER_HAS${branch_protection}" has)
if(NOT ${has}_CXX)
  set(branch_protection "")
endif()
# With -z now all functions are looked up at the start, so calls need no detour for it: this pays back up to a third of
# what the rest costs. On ARM such calls take more instructions, not fewer.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  harden_code(-fno-plt)
endif()
# It needs an optimiser that knows the sizes of objects. Sanitizers check the same calls, and more of them.
if(NOT HDMIPLAYER_SANITIZE)
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()
foreach(option -z,relro -z,now -z,noexecstack)
  harden_link(${option})
endforeach()
# Programs are linked as what CMAKE_POSITION_INDEPENDENT_CODE has them compiled for.
check_pie_supported()
