# Installs the Qel build in QEL_BUILD_DIR to a temporary prefix, then builds
# and runs the consumer project in CONSUMER_DIR twice: through the CMake
# package and through pkg-config. Run with cmake -P.
foreach(var QEL_BUILD_DIR CONSUMER_DIR WORK_DIR CXX)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "ConsumerTest.cmake needs -D${var}=...")
  endif()
endforeach()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "ok: ${ARGN}")
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${QEL_BUILD_DIR} --prefix ${prefix})

# 1. find_package(Qel CONFIG)
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)

# 2. pkg-config
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run(${PKG_CONFIG} --cflags --libs --static qel)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} -std=c++17 ${CONSUMER_DIR}/main.cpp ${flags} -Wl,-rpath,${prefix}/lib
    -o ${WORK_DIR}/consumer-pc)
run(${WORK_DIR}/consumer-pc)
