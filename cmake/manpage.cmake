# Writes the man page of afehal-tool from its own help (cmake -P):
#   -DTOOL=path/to/afehal-tool -DOUTPUT=afehal-tool.1.gz -DHELP2MAN=help2man
# The page holds the tool's --help, then a COMMANDS section with the help of
# each subcommand, so the page never drifts from the program.
set(commands frames fw-info limits inspect demo)

set(include_file "${OUTPUT}.h2m")
set(text "[NAME]\nafehal-tool \\- drive the touch panel's analog front end (libafehal)\n\n")
string(APPEND text "[COMMANDS]\n")
foreach(command ${commands})
  execute_process(COMMAND ${TOOL} ${command} --help
    OUTPUT_VARIABLE help RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${TOOL} ${command} --help failed (${rc})")
  endif()
  # roff: a leading dot or quote would be read as a request, a backslash as
  # an escape.
  string(REPLACE "\\" "\\e" help "${help}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" help "${help}")
  string(APPEND text ".SS ${command}\n.nf\n${help}.fi\n")
endforeach()
string(APPEND text "\n[SEE ALSO]\nThe library's README and tools/README.md in its source tree.\n")
file(WRITE ${include_file} "${text}")

set(page "${OUTPUT}.tmp")
execute_process(
  COMMAND ${HELP2MAN} --no-info --no-discard-stderr --section=1 --include=${include_file}
          --output=${page} ${TOOL}
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "help2man failed on ${TOOL} (${rc})")
endif()
# Debian installs man pages compressed; -n keeps the archive reproducible.
execute_process(COMMAND gzip -9 -n -f ${page} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "gzip failed on ${page}")
endif()
file(RENAME "${page}.gz" "${OUTPUT}")
