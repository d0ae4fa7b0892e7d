# Runs the built plenk to write its manual page and completion scripts into DIR
# (cmake -DPLENK=... -DDIR=... -P WritePlenkDocs.cmake). The tool writes them from its
# own help texts, so they always match the verbs and options it was built with.
function(write_output file)
  execute_process(COMMAND ${PLENK} ${ARGN} OUTPUT_FILE ${DIR}/${file} ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    file(REMOVE ${DIR}/${file})
    message(FATAL_ERROR "plenk ${ARGN} failed (${rc}): ${err}")
  endif()
endfunction()

# A sanitized build's tool runs here too; a leak report is not the business of this step.
set(ENV{ASAN_OPTIONS} "detect_leaks=0")
file(MAKE_DIRECTORY ${DIR})
write_output(plenk.1 manpage)
write_output(plenk.bash completion bash)
write_output(_plenk completion zsh)
write_output(plenk.fish completion fish)
