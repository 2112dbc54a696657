# Installs the build in QEL_BUILD_DIR to a temporary prefix and runs the
# installed qel-solve on MODEL: it must find the optimum. Run with cmake -P.
foreach(var QEL_BUILD_DIR WORK_DIR MODEL)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "InstalledTest.cmake needs -D${var}=...")
  endif()
endforeach()
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${QEL_BUILD_DIR} --prefix ${prefix}
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed (${rc})")
endif()
execute_process(COMMAND ${prefix}/bin/qel-solve ${MODEL}
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
message(STATUS "${out}${err}")
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the installed qel-solve exited with ${rc}")
endif()
if(NOT out MATCHES "status: Optimal\nobjective: 18\ntime: [0-9.]+ s\n$")
  message(FATAL_ERROR "unexpected output of the installed qel-solve")
endif()
