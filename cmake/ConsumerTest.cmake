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

# 3. Each engine installed with the package (ENGINES: those this build
# made), through its CMake component and its pkg-config file: the small
# program of tests/package/engines/<engine>.cpp and the examples listed in
# EXAMPLES_<engine> (sources), each built and run.
set(engines_dir ${CONSUMER_DIR}/../engines)
foreach(engine IN LISTS ENGINES)
  set(programs ${engines_dir}/${engine}.cpp ${EXAMPLES_${engine}})
  set(build ${WORK_DIR}/${engine}-cmake-build)
  # run() passes its arguments on as a list, which would split a list
  # value: the programs go separated by "|".
  string(REPLACE ";" "|" program_list "${programs}")
  run(${CMAKE_COMMAND} -S ${engines_dir} -B ${build}
      -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX}
      -DENGINE=${engine} "-DPROGRAMS=${program_list}")
  run(${CMAKE_COMMAND} --build ${build})
  foreach(source IN LISTS programs)
    get_filename_component(stem ${source} NAME_WE)
    run(${build}/${stem})
  endforeach()

  run(${PKG_CONFIG} --cflags --libs --static qel-${engine})
  string(STRIP "${last_output}" flags)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  foreach(source IN LISTS programs)
    get_filename_component(stem ${source} NAME_WE)
    run(${CXX} -std=c++17 ${source} ${flags} -Wl,-rpath,${prefix}/lib
        -o ${WORK_DIR}/${engine}-pc-${stem})
    run(${WORK_DIR}/${engine}-pc-${stem})
  endforeach()
endforeach()

# 4. A component that is not there fails find_package, saying why: an
# unknown name, and an engine the package was installed without (a copy of
# the installed files with that engine's targets file taken out).
function(expect_missing component package_dir expected)
  set(build ${WORK_DIR}/missing-${component})
  execute_process(COMMAND ${CMAKE_COMMAND} -S ${engines_dir} -B ${build}
      -DQel_DIR=${package_dir} -DCMAKE_CXX_COMPILER=${CXX} -DENGINE=${component}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(rc EQUAL 0)
    message(FATAL_ERROR "find_package(Qel COMPONENTS ${component}) succeeded; expected a failure")
  endif()
  string(REGEX REPLACE "[ \n]+" " " text "${out} ${err}")
  string(FIND "${text}" "${expected}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "find_package(Qel COMPONENTS ${component}) failed without saying "
      "\"${expected}\":\n${out}\n${err}")
  endif()
  message(STATUS "ok: find_package(Qel COMPONENTS ${component}) fails with \"${expected}\"")
endfunction()

set(package_dir ${prefix}/lib/cmake/Qel)
expect_missing(glpk ${package_dir} "Qel has no component \"glpk\" (its components: cbc gecode)")
# (The whole prefix is copied: the package's targets files find the
# libraries relative to themselves.)
set(stripped ${WORK_DIR}/stripped-prefix)
file(COPY ${prefix}/ DESTINATION ${stripped})
set(stripped ${stripped}/lib/cmake/Qel)
file(REMOVE ${stripped}/QelCbcTargets.cmake ${stripped}/QelGecodeTargets.cmake)
expect_missing(cbc ${stripped} "this Qel was installed without its CBC engine (Qel::cbc): build Qel with coinor-libcbc-dev installed to have it")
expect_missing(gecode ${stripped} "this Qel was installed without its Gecode engine (Qel::gecode): build Qel with libgecode-dev installed to have it")
