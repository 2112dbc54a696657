// One measured piece of work in a freshly started copy of the benchmark
// program, as a program that does that work once meets it: every page it
// touches is new to it, and nothing is shared with the benchmark's own heap
// (whose state after earlier benchmarks would favor one side or the other).
//
// The benchmark calls freshrun::Iterate(state, {"name", "arg", ...}); each
// iteration starts the program again (fork, then exec of /proc/self/exe)
// with the arguments --once name arg ..., and takes the seconds the child
// prints as the iteration's time (register the benchmark with
// UseManualTime()). The program's main hands such a run to its own code
// first:
//
//   int main(int argc, char** argv) {
//     if (freshrun::IsChild(argc, argv)) return RunOnce(argv[2], argv[3]);
//     ... the usual benchmark main ...
//   }
//
// where RunOnce prepares its data, then returns freshrun::Report(work): the
// CPU time (user and system, page faults included) of work() alone.
#ifndef QEL_BENCH_ENGINES_FRESH_H
#define QEL_BENCH_ENGINES_FRESH_H

#include <benchmark/benchmark.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

namespace freshrun {

/// The first argument of a child run.
constexpr const char* Flag = "--once";

/// Whether this process is a child run (argv: program --once name ...).
inline bool IsChild(int argc, char** argv) { return argc >= 3 && std::string(argv[1]) == Flag; }

/// The process's CPU time in seconds.
inline double CpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

/// In a child run: does work(), which returns false when its result is
/// wrong, and prints the CPU seconds it took; the exit status for main.
template <class Work>
int Report(Work work) {
  double start = CpuSeconds();
  bool ok = work();
  double seconds = CpuSeconds() - start;
  if (!ok) return 1;
  std::printf("%.9f\n", seconds);
  return 0;
}

/// Each iteration of `state` runs the program again with --once `args`.
inline void Iterate(benchmark::State& state, const std::vector<std::string>& args) {
  std::vector<char*> argv;
  static char program[] = "qel_bench";
  static char flag[] = "--once";
  argv.push_back(program);
  argv.push_back(flag);
  std::vector<std::string> copies = args;
  for (std::string& a : copies) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  for (auto _ : state) {
    int fd[2];
    if (pipe(fd) != 0) {
      state.SkipWithError("pipe");
      return;
    }
    pid_t child = fork();
    if (child == 0) {
      dup2(fd[1], 1);
      close(fd[0]);
      close(fd[1]);
      execv("/proc/self/exe", argv.data());
      _exit(127);
    }
    close(fd[1]);
    std::string out;
    char buffer[64];
    ssize_t got;
    while ((got = read(fd[0], buffer, sizeof buffer)) > 0)
      out.append(buffer, static_cast<size_t>(got));
    close(fd[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || out.empty()) {
      state.SkipWithError("the child run failed");
      return;
    }
    state.SetIterationTime(std::stod(out));
  }
}

}  // namespace freshrun

#endif
