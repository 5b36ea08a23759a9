# SPDX-License-Identifier: MIT
# What can be chosen. A default follows from what was chosen before it; what was asked for and cannot be is an error.

set(HDMIPLAYER_PLATFORM_ROOT "" CACHE PATH
    "A vendor's platform: include/ with aio_device.h, adecoder.h and hdmi_cec.h, lib/ with the libraries behind them")
set(own_platform ON)
if(HDMIPLAYER_PLATFORM_ROOT)
  set(own_platform OFF)
endif()

option(HDMIPLAYER_SIM "Build the simulated platform" ${own_platform})
option(HDMIPLAYER_LINUX "Build the Linux platform: ALSA, libavcodec, the kernel's CEC (needs alsa-lib, libavcodec)"
       ${own_platform})
option(HDMIPLAYER_TOOLS "Build the tools (need the simulated platform)" ${HDMIPLAYER_SIM})
option(HDMIPLAYER_TESTS "Build the tests (need the simulated platform; with a vendor's: its contract)"
       ${HDMIPLAYER_SIM})
option(HDMIPLAYER_BENCH "Build the benchmarks (need the tests)" OFF)
option(HDMIPLAYER_FUZZ "Build the fuzz targets for libFuzzer (need clang and the tests)" OFF)
option(HDMIPLAYER_HARDENING "Stack protector, read-only relocations and the like, where the compiler has them" ON)
option(HDMIPLAYER_WERROR "Warnings are errors" ${HDMIPLAYER_TESTS})
set(HDMIPLAYER_SANITIZE "" CACHE STRING "Sanitizers for everything built here: address,undefined or thread")

# need(OPTION WHAT CONDITION...): what the option is nothing without.
function(need option what)
  if(${option} AND NOT (${ARGN}))
    message(FATAL_ERROR "${option}=ON needs ${what}; -D${option}=OFF builds the rest.")
  endif()
endfunction()

need(HDMIPLAYER_TOOLS "the simulated platform (HDMIPLAYER_SIM=ON)" HDMIPLAYER_SIM)
need(HDMIPLAYER_TESTS "the simulated platform (HDMIPLAYER_SIM=ON) or a vendor's (HDMIPLAYER_PLATFORM_ROOT)"
     HDMIPLAYER_SIM OR HDMIPLAYER_PLATFORM_ROOT)
foreach(option HDMIPLAYER_BENCH HDMIPLAYER_FUZZ)
  need(${option} "the tests (HDMIPLAYER_TESTS=ON), without HDMIPLAYER_PLATFORM_ROOT" HDMIPLAYER_TESTS AND own_platform)
endforeach()
need(HDMIPLAYER_FUZZ "clang (CMAKE_CXX_COMPILER=clang++): libFuzzer is a part of it"
     CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
foreach(file include/aio_device.h include/adecoder.h include/hdmi_cec.h lib)
  if(HDMIPLAYER_PLATFORM_ROOT AND NOT EXISTS ${HDMIPLAYER_PLATFORM_ROOT}/${file})
    message(FATAL_ERROR "HDMIPLAYER_PLATFORM_ROOT: there is no ${HDMIPLAYER_PLATFORM_ROOT}/${file}.")
  endif()
endforeach()
