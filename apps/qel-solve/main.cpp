// qel-solve: reads a model file (MPS or LP), says what it read, solves it
// with one of Qel's engines and prints the outcome.
//
//   qel-solve FILE [--engine cbc|gecode] [--time-limit SECONDS]
//                  [--param NAME=VALUE]... [--write OUT.{lp,mps}] [--quiet]
//
// --param sets one of the engine's settings by name, as QelEngine::setParam
// does: a shared one (relativeGap, nodeLimit, threads, logLevel, ...) or
// one of the engine's own (for CBC, any option of its driver, e.g.
// --param preprocess=off); an unknown name is bad input.
//
// The last three lines are always
//   status: <Optimal|Feasible|Infeasible|Unbounded|Unknown>
//   objective: <value, %.10g, or "none" without a solution>
//   time: <seconds> s
// Exit code: 0 when a solution was found, 1 when the model has none (or none
// was found), 2 on bad input (the message goes to standard error). With
// --write and no --engine, the model read is written and nothing is solved.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <qel/qel.h>

#if defined(QEL_HAVE_CBC) || defined(QEL_HAVE_GECODE)
#include <qel/engines/engine.h>
#endif
#ifdef QEL_HAVE_CBC
#include <qel/engines/cbc.h>
#endif
#ifdef QEL_HAVE_GECODE
#include <qel/engines/gecode.h>
#endif

namespace {

constexpr int ExitSolved = 0;
constexpr int ExitNoSolution = 1;
constexpr int ExitBadInput = 2;

struct Options {
  std::string file;
  std::string engine = "cbc";
  bool engineAsked = false;
  double timeLimit = 0;
  std::vector<std::pair<std::string, std::string>> params;  // --param NAME=VALUE, in order
  std::string write;
  bool quiet = false;
};

const char* const Usage =
    "usage: qel-solve FILE [--engine cbc|gecode] [--time-limit SECONDS] "
    "[--param NAME=VALUE]... [--write OUT.{lp,mps}] [--quiet]";

int BadInput(const std::string& message) {
  std::fprintf(stderr, "qel-solve: %s\n", message.c_str());
  return ExitBadInput;
}

// Parses the command line; an empty string on success, else the error.
std::string ParseArgs(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (a == "--engine") {
      const char* v = value();
      if (v == nullptr) return "--engine needs a value (cbc or gecode)";
      o.engine = v;
      o.engineAsked = true;
      if (o.engine != "cbc" && o.engine != "gecode")
        return "unknown engine \"" + o.engine + "\" (cbc or gecode)";
    } else if (a == "--time-limit") {
      const char* v = value();
      char* end = nullptr;
      if (v != nullptr) o.timeLimit = std::strtod(v, &end);
      if (v == nullptr || end == v || *end != '\0' || !(o.timeLimit >= 0))
        return "--time-limit needs a number of seconds";
    } else if (a == "--param") {
      const char* v = value();
      const char* eq = v != nullptr ? std::strchr(v, '=') : nullptr;
      if (eq == nullptr || eq == v) return "--param needs NAME=VALUE";
      o.params.emplace_back(std::string(v, eq), std::string(eq + 1));
    } else if (a == "--write") {
      const char* v = value();
      if (v == nullptr) return "--write needs a file name (.lp or .mps)";
      o.write = v;
    } else if (a == "--quiet") {
      o.quiet = true;
    } else if (a == "--help" || a == "-h") {
      return Usage;
    } else if (!a.empty() && a[0] == '-') {
      return "unknown option \"" + a + "\"\n" + Usage;
    } else if (o.file.empty()) {
      o.file = a;
    } else {
      return "one model file only (\"" + o.file + "\" and \"" + a + "\")";
    }
  }
  if (o.file.empty()) return Usage;
  return "";
}

#if defined(QEL_HAVE_CBC) || defined(QEL_HAVE_GECODE)
// What a solve prints: its status, the objective (or none) and the time.
void Finish(const char* status, bool haveObjective, double objective, double seconds) {
  std::printf("status: %s\n", status);
  if (haveObjective)
    std::printf("objective: %.10g\n", objective);
  else
    std::printf("objective: none\n");
  std::printf("time: %.3f s\n", seconds);
}

// The engine called `name`, or an empty handle when it was not built.
QelEngine NewEngine(const std::string& name, QelEnv env) {
#ifdef QEL_HAVE_CBC
  if (name == "cbc") return QelCbc(env);
#endif
#ifdef QEL_HAVE_GECODE
  if (name == "gecode") return QelGecode(env);
#endif
  (void)name;
  (void)env;
  return QelEngine();
}
#endif

int Run(const Options& o) {
  auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  QelEnv env;
  QelModelFileCounts counts;
  QelModel model;
  try {
    model = QelReadModel(env, o.file, QelFileFormat::Auto, &counts);
  } catch (const QelException& e) {
    env.end();
    return BadInput(e.getMessage());
  }
  if (!o.quiet)
    std::printf("read %s: %ld rows, %ld columns, %ld integers, %ld nonzeros\n", o.file.c_str(),
                counts.rows, counts.columns, counts.integers, counts.nonzeros);
  if (!o.write.empty()) {
    try {
      QelWriteModel(model, o.write);
    } catch (const QelException& e) {
      env.end();
      return BadInput(e.getMessage());
    }
    if (!o.quiet) std::printf("wrote %s\n", o.write.c_str());
    if (!o.engineAsked) {
      env.end();
      return ExitSolved;
    }
  }
#if defined(QEL_HAVE_CBC) || defined(QEL_HAVE_GECODE)
  QelEngine engine(NewEngine(o.engine, env));
  if (engine.getImpl() == nullptr) {
    env.end();
    return BadInput("the " + o.engine + " engine was not built into this qel-solve");
  }
  int code = ExitBadInput;
  try {
    if (o.timeLimit > 0) engine.getImpl()->setTimeLimit(o.timeLimit);
    for (const auto& p : o.params) engine.getImpl()->setParam(p.first, p.second);
    engine.extract(model);
    QelEngineStatus status = engine.solve();
    bool found = status == QelEngineStatus::Optimal || status == QelEngineStatus::Feasible;
    Finish(QelEngineStatusName(status), found, found ? engine.getObjValue() : 0, elapsed());
    code = found ? ExitSolved : ExitNoSolution;
  } catch (const QelException& e) {
    code = BadInput(e.getMessage());
  }
  engine.end();
  env.end();
  return code;
#else
  env.end();
  (void)elapsed;
  return BadInput("the " + o.engine + " engine was not built into this qel-solve");
#endif
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  std::string error = ParseArgs(argc, argv, o);
  if (!error.empty()) return BadInput(error);
  return Run(o);
}
