# Runs benchmark executables one after another and fails on the first one
# that fails.
#
#   cmake -P RunBenchmarks.cmake -- <executable>...
#
# Extra command-line flags for every executable can be given in the
# environment variable QEL_BENCHMARK_ARGS, e.g.
#   QEL_BENCHMARK_ARGS="--benchmark_min_time=0.05"

set(executables)
set(after_separator FALSE)
math(EXPR last_arg "${CMAKE_ARGC} - 1")
foreach(i RANGE 0 ${last_arg})
  if(after_separator)
    list(APPEND executables "${CMAKE_ARGV${i}}")
  elseif(CMAKE_ARGV${i} STREQUAL "--")
    set(after_separator TRUE)
  endif()
endforeach()

if(NOT executables)
  message(FATAL_ERROR "RunBenchmarks.cmake: no benchmark executables given")
endif()

separate_arguments(extra_args UNIX_COMMAND "$ENV{QEL_BENCHMARK_ARGS}")

foreach(exe IN LISTS executables)
  string(JOIN " " command_line "${exe}" ${extra_args})
  message(STATUS "Running ${command_line}")
  execute_process(COMMAND "${exe}" ${extra_args} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${exe} failed: ${result}")
  endif()
endforeach()
