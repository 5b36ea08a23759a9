# SPDX-License-Identifier: MIT
cmake_minimum_required(VERSION 3.22)
# Writes PAGE, the manual page of PROGRAM, and COMPLETION, its options for bash, from what its --help says.
execute_process(COMMAND ${PROGRAM} --help OUTPUT_VARIABLE help RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${PROGRAM} --help: ${failed}")
endif()

# An option begins its line; in the text behind it others are spoken of, a host's own among them.
string(REGEX MATCHALL "\n  (-[a-z],)?--[a-z][a-z-]*" options "${help}")
list(TRANSFORM options REPLACE "^.*--" "--")
list(REMOVE_DUPLICATES options)
list(SORT options)
string(REPLACE ";" " " options "${options}")
file(WRITE ${COMPLETION} "complete -o default -W '${options}' ${NAME}\n")

# The first paragraph says what it is; its first sentence is the page's name line.
string(REGEX MATCH "^[^.:\n]*" summary "${help}")
string(REPLACE "\\" "\\e" text "${help}")
string(REPLACE "-" "\\-" text "${text}")
# A line that begins with a dot or a quotation mark would be a request.
string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
string(TOUPPER ${NAME} title)
string(TIMESTAMP date "%Y-%m-%d" UTC)
file(WRITE ${PAGE} ".\\\" SPDX-License-Identifier: MIT
.TH ${title} 1 ${date} \"hdmiplayer ${VERSION}\"
.SH NAME
${NAME} \\- ${summary}
.SH DESCRIPTION
.nf
${text}.fi
")
