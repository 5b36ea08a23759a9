# SPDX-License-Identifier: MIT
cmake_minimum_required(VERSION 3.22)
# Writes OUTPUT with the banner of this build: the source revision and the build date.
execute_process(COMMAND git -C ${SOURCE_DIR} rev-parse --short HEAD
                OUTPUT_VARIABLE revision OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
if(failed)
  set(revision unknown)
endif()
# Honours SOURCE_DATE_EPOCH, for reproducible builds.
string(TIMESTAMP date "%Y%m%d" UTC)
file(CONFIGURE OUTPUT ${OUTPUT} CONTENT
"// Generated at build time.
#pragma once
#define HDMI_PLAYER_VERSION_BANNER \"hdmiplayer library version: git_commit.@revision@ build_time.@date@\"
" @ONLY)
