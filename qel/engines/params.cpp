// QelEngineI's settings, log lines, progress reports and solve report, and
// QelEngineLog, the one place where the log lines are formatted.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>

#include <qel/engines/engine.h>

double QelRelativeGap(double incumbent, double bound) {
  double scale = std::max({1e-10, std::fabs(incumbent), std::fabs(bound)});
  return std::fabs(incumbent - bound) / scale;
}

double QelEngineProgress::gap() const {
  if (!hasIncumbent || !hasBound) return -1;
  return QelRelativeGap(incumbent, bound);
}

// ===========================================================================
// Log lines
// ===========================================================================

std::string QelEngineLog::Number(double v) {
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.10g", v);
  return buf;
}

namespace {

std::string Percent(double gap) {
  if (gap < 0) return "-";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3g%%", 100 * gap);
  return buf;
}

std::string Seconds(double s) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.2f s", s);
  return buf;
}

std::string Prefix(const char* engine) { return std::string("[") + engine + "] "; }

}  // namespace

std::string QelEngineLog::StartLine(const char* engine, const QelFormSize& size,
                                    const std::vector<std::pair<std::string, long>>& classes) {
  std::ostringstream os;
  os << Prefix(engine) << "start: " << size.rows << " rows, " << size.columns << " columns ("
     << size.integers << " integer);";
  if (classes.empty()) os << " no constraints";
  for (size_t i = 0; i < classes.size(); ++i)
    os << (i == 0 ? " " : ", ") << classes[i].first << ' ' << classes[i].second;
  return os.str();
}

std::string QelEngineLog::ProgressLine(const char* engine, const QelEngineProgress& p) {
  std::ostringstream os;
  os << Prefix(engine) << Seconds(p.time) << "  nodes " << p.nodes << "  incumbent "
     << (p.hasIncumbent ? Number(p.incumbent) : "-") << "  bound "
     << (p.hasBound ? Number(p.bound) : "-") << "  gap " << Percent(p.gap());
  return os.str();
}

std::string QelEngineLog::EndLine(const char* engine, const QelSolveReport& r) {
  std::ostringstream os;
  bool solution = r.status == QelEngineStatus::Optimal || r.status == QelEngineStatus::Feasible;
  os << Prefix(engine) << "end: " << QelEngineStatusName(r.status) << "  objective ";
  if (r.objectiveRemoved)
    os << "none (the objective was removed)";
  else if (!r.hasObjective)
    os << "none";
  else
    os << (solution ? Number(r.objective) : "-");
  os << "  bound " << (r.hasObjective ? Number(r.bestBound) : "-") << "  gap "
     << Percent(r.hasObjective && solution ? r.gap : -1) << "  nodes " << r.nodes << "  iterations "
     << r.iterations << "  solutions " << r.solutions << "  time " << Seconds(r.time);
  return os.str();
}

// ===========================================================================
// Settings
// ===========================================================================

QelEngineError QelEngineI::badParam(const std::string& name, const std::string& why) const {
  return QelEngineError(std::string(_engineName) + " engine: parameter \"" + name + "\": " + why);
}

double QelEngineI::paramNumber(const std::string& name, const std::string& value) const {
  const char* begin = value.c_str();
  char* end = nullptr;
  double v = std::strtod(begin, &end);
  if (end == begin || *end != '\0' || std::isnan(v))
    throw badParam(name, "\"" + value + "\" is not a number");
  return v;
}

double QelEngineI::nonNegative(const char* name, double value) const {
  if (!(value >= 0)) throw badParam(name, "must be >= 0");
  return value;
}

void QelEngineI::setTimeLimit(double seconds) {
  _params.timeLimit = nonNegative("timeLimit", seconds);
}

void QelEngineI::setNodeLimit(long nodes) {
  nonNegative("nodeLimit", static_cast<double>(nodes));
  _params.nodeLimit = nodes;
}

void QelEngineI::setSolutionLimit(long solutions) {
  nonNegative("solutionLimit", static_cast<double>(solutions));
  _params.solutionLimit = solutions;
}

void QelEngineI::setThreads(int threads) {
  nonNegative("threads", threads);
  _params.threads = threads;
}

void QelEngineI::setLogLevel(int level) {
  nonNegative("logLevel", level);
  _params.logLevel = level;
}

void QelEngineI::setFeasibilityTolerance(double tol) {
  _feasTol = nonNegative("feasibilityTolerance", tol);
}

void QelEngineI::setParams(const QelEngineParams& params) {
  QelEngineParams old = _params;
  try {
    setTimeLimit(params.timeLimit);
    setNodeLimit(params.nodeLimit);
    setSolutionLimit(params.solutionLimit);
    setThreads(params.threads);
    setLogLevel(params.logLevel);
  } catch (...) {
    _params = old;
    throw;
  }
  _params = params;
}

namespace {

long Whole(double v) { return static_cast<long>(std::llround(v)); }

}  // namespace

void QelEngineI::setParam(const std::string& name, const std::string& value) {
  auto number = [&] { return paramNumber(name, value); };
  auto whole = [&] {
    double v = number();
    if (v != std::floor(v) || std::fabs(v) > 2e9)
      throw badParam(name, "\"" + value + "\" is not a whole number");
    return Whole(v);
  };
  if (name == "timeLimit") {
    setTimeLimit(number());
  } else if (name == "relativeGap") {
    setRelativeGap(number());
  } else if (name == "absoluteGap") {
    setAbsoluteGap(number());
  } else if (name == "nodeLimit") {
    setNodeLimit(whole());
  } else if (name == "solutionLimit") {
    setSolutionLimit(whole());
  } else if (name == "threads") {
    setThreads(static_cast<int>(whole()));
  } else if (name == "randomSeed") {
    setRandomSeed(static_cast<int>(whole()));
  } else if (name == "logLevel") {
    setLogLevel(static_cast<int>(whole()));
  } else if (name == "feasibilityTolerance") {
    setFeasibilityTolerance(number());
  } else if (!setEngineParam(name, value)) {
    std::string known =
        "timeLimit, relativeGap, absoluteGap, nodeLimit, solutionLimit, threads, randomSeed, "
        "logLevel, feasibilityTolerance";
    for (const std::string& n : getEngineParamNames()) known += ", " + n;
    throw badParam(name, "unknown name; the names known are " + known);
  }
}

void QelEngineI::setParam(const std::string& name, double value) {
  setParam(name, QelEngineLog::Number(value));
}

bool QelEngineI::setEngineParam(const std::string&, const std::string&) { return false; }

// ===========================================================================
// Progress, log, report
// ===========================================================================

double QelEngineI::elapsed() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - _solveStart).count();
}

double QelEngineI::remainingTime() const {
  if (_params.timeLimit <= 0) return 1e20;
  return std::max(0.0, _params.timeLimit - elapsed());
}

void QelEngineI::logLine(int level, const std::string& line) const {
  if (_params.logLevel >= level && level > 0) *_log << line << std::endl;
}

bool QelEngineI::reportProgress(const QelEngineProgress& progress, bool force) {
  if (_params.logLevel >= 1 && (force || _lastLogLine < 0 || progress.time - _lastLogLine >= 1.0)) {
    _lastLogLine = progress.time;
    logLine(1, QelEngineLog::ProgressLine(_engineName, progress));
  }
  if (_callback && !_report.stoppedByCallback && _callback(progress) == QelProgressReply::Stop)
    _report.stoppedByCallback = true;
  return _report.stoppedByCallback;
}

void QelEngineI::logStart() {
  if (_params.logLevel < 1) return;
  std::map<std::string, long> byClass;
  for (const QelExtractableI* m : getMembers()) {
    if (QelDynamicCast<const QelNumVarI>(m) != nullptr ||
        QelDynamicCast<const QelObjectiveI>(m) != nullptr ||
        QelDynamicCast<const QelIntSetVarI>(m) != nullptr ||
        QelDynamicCast<const QelIntervalVarI>(m) != nullptr)
      continue;
    ++byClass[m->getRttiTypeName()];
  }
  std::vector<std::pair<std::string, long>> classes(byClass.begin(), byClass.end());
  logLine(1, QelEngineLog::StartLine(_engineName, getFormSize(), classes));
}

void QelEngineI::finishReport() {
  QelSolveReport& r = _report;
  r.status = _status;
  r.time = elapsed();
  r.hasObjective = _objective != nullptr;
  r.objectiveRemoved = _objective == nullptr && _hadObjective;
  if (hasSolution() && r.hasObjective && !_objValues.empty()) r.objective = _objValues[0];
  if (hasSolution() && r.hasObjective)
    r.gap = QelRelativeGap(r.objective, r.bestBound);
  else
    r.gap = -1;
  if (hasSolution() && r.solutions == 0) r.solutions = 1;
  if (r.objectiveRemoved)
    logLine(1, std::string("[") + _engineName +
                   "] the model's objective was removed: solved without objective");
  logLine(1, QelEngineLog::EndLine(_engineName, r));
}

std::vector<const QelExtractableI*> QelEngineI::checkSolution() const {
  std::vector<const QelExtractableI*> violated;
  if (!hasSolution()) return violated;
  auto slack = [this](double bound) { return _feasTol * std::max(1.0, std::fabs(bound)); };
  for (const QelExtractableI* m : getMembers()) {
    if (const auto* r = QelDynamicCast<const QelRangeI>(m)) {
      if (r->getExpr() == nullptr) continue;
      double v = getValue(r->getExpr());
      if (v < r->getLB() - slack(r->getLB()) || v > r->getUB() + slack(r->getUB()))
        violated.push_back(m);
    } else if (const auto* c = QelDynamicCast<const QelConstraintI>(m)) {
      try {
        if (c->eval(QelAlgorithm(const_cast<QelEngineI*>(this))) != 1.0) violated.push_back(m);
      } catch (const QelNotImplemented&) {
        // no evaluation for this class: nothing to check here
      }
    }
  }
  return violated;
}
