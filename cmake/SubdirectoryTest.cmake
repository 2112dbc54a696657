# Configures and builds the project in USER_DIR, which takes the Qel tree
# QEL_SOURCE_DIR in with add_subdirectory, once with the engines off (built
# and run) and once on (configured, expecting the engine targets listed in
# ENGINES, those this build found). Run with cmake -P.
foreach(var QEL_SOURCE_DIR USER_DIR WORK_DIR CXX)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "SubdirectoryTest.cmake needs -D${var}=...")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "ok: ${ARGN}")
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
foreach(engines OFF ON)
  set(dir ${WORK_DIR}/engines-${engines})
  if(engines)
    # Commas: a semicolon would split the command-line argument.
    string(REPLACE ";" "," expect "${ENGINES}")
  else()
    set(expect "")
  endif()
  run(${CMAKE_COMMAND} -S ${USER_DIR} -B ${dir} -DCMAKE_CXX_COMPILER=${CXX}
      -DCMAKE_BUILD_TYPE=Debug -DQEL_SOURCE_DIR=${QEL_SOURCE_DIR}
      -DQEL_BUILD_ENGINES=${engines} "-DQEL_EXPECT=${expect}")
  # The targets asked for are checked when the project is configured; the
  # library is built and linked once (with the engines off), since building
  # the engines again would double the time of the test for no new check.
  if(NOT engines)
    run(${CMAKE_COMMAND} --build ${dir} -j2)
    run(${dir}/user)
  endif()
endforeach()
