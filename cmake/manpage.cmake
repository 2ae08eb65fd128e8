# Writes a program's manual page from its own --help and --version (help2man), so that the page and
# the program never disagree. For a program with subcommands, each subcommand's --help becomes a
# section of its own.
# The subcommands are those the program's --help lists under "Subcommands:".
#   cmake -DPROGRAM=<executable> -DNAME=<one-line description> -DOUTPUT=<page.1>
#         [-DINCLUDE=<extra help2man sections>] -P manpage.cmake
find_program(HELP2MAN help2man REQUIRED)
get_filename_component(output_dir "${OUTPUT}" DIRECTORY)
set(include_file "${OUTPUT}.include")
set(sections "")
if(INCLUDE AND EXISTS "${INCLUDE}")
  file(READ "${INCLUDE}" sections)
endif()
execute_process(COMMAND "${PROGRAM}" --help OUTPUT_VARIABLE top_help RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} --help failed (${status})")
endif()
set(SUBCOMMANDS "")
if(top_help MATCHES "\nSubcommands:\n(.*)$")
  string(REPLACE "\n" ";" lines "${CMAKE_MATCH_1}")
  foreach(line IN LISTS lines)
    if(line MATCHES "^  ([a-z][a-z-]*)( |$)")
      list(APPEND SUBCOMMANDS "${CMAKE_MATCH_1}")
    elseif(NOT line MATCHES "^ ")
      break()
    endif()
  endforeach()
endif()
if(SUBCOMMANDS)
  string(APPEND sections "[COMMANDS]\n")
  foreach(command IN LISTS SUBCOMMANDS)
    execute_process(COMMAND "${PROGRAM}" ${command} --help OUTPUT_VARIABLE help RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "${PROGRAM} ${command} --help failed (${status})")
    endif()
    # roff: a line starting with a dot or quote would be read as a request.
    string(REGEX REPLACE "\n([.'])" "\n\\\\&\\1" help "${help}")
    string(APPEND sections ".SS ${command}\n.nf\n${help}.fi\n")
  endforeach()
endif()
file(WRITE "${include_file}" "${sections}")
execute_process(
  COMMAND "${HELP2MAN}" --no-info --no-discard-stderr --section=1 "--name=${NAME}"
          "--include=${include_file}" --output=${OUTPUT} "${PROGRAM}"
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "help2man failed for ${PROGRAM} (${status})")
endif()
