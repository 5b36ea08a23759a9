# SPDX-License-Identifier: MIT
cmake_minimum_required(VERSION 3.22)
# Writes OUTPUT with the source revision, and the banner of this build: revision and build date.
set(revision unknown)
# An unpacked archive may stand inside another project's repository.
if(EXISTS ${SOURCE_DIR}/.git)
  execute_process(COMMAND git -C ${SOURCE_DIR} rev-parse --short HEAD
                  OUTPUT_VARIABLE head OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
  if(NOT failed)
    set(revision ${head})
  endif()
endif()
# Honours SOURCE_DATE_EPOCH, for reproducible builds.
string(TIMESTAMP date "%Y%m%d" UTC)
file(CONFIGURE OUTPUT ${OUTPUT} CONTENT
"// Generated at build time.
#pragma once
#define HDMI_PLAYER_REVISION \"@revision@\"
#define HDMI_PLAYER_VERSION_BANNER \"hdmiplayer library version: git_commit.@revision@ build_time.@date@\"
" @ONLY)
