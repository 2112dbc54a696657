// Operations that fail half way: an allocation refused at the N-th request
// (for every N the scenario makes), allocation switched off, and a call
// from a thread that is not the environment's allocator thread.
//
// Each step of the scenario (scenario.h) is one public operation. A step
// either completes or throws the failure it was given, and then everything
// observable (worldstate.h) must be as it was before the step: the same live
// objects with the same names, properties, members, expressions, use counts
// and registry records, and no notice heard. The step is then run again and
// the scenario goes on; at its end every object is ended and the custom
// allocators must have got back every byte they gave.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "reliability/scenario.h"
#include "reliability/worldstate.h"
#include "support/refusing.h"

using namespace reliability;
using qeltest::RefusingAllocator;
using qeltest::RequestCounter;

namespace {

// ---- states of both environments -----------------------------------------

std::vector<const qeltest::RecordingAlgorithmI*> Recorders(const qeltest::RecordingAlgorithmI* r) {
  if (r == nullptr) return {};
  return {r};
}

struct BothStates {
  WorldState main, copy;
  bool operator==(const BothStates& o) const { return main == o.main && copy == o.copy; }
};

BothStates CaptureBoth(const ScenarioObjects& s, QelInt mainBytes, QelInt copyBytes,
                       bool withAddresses = true) {
  BothStates b;
  b.main = Capture(s.main.getImpl(), withAddresses ? mainBytes : 0, Recorders(s.rec),
                   withAddresses ? ScenarioProbes(s) : std::vector<std::function<std::string()>>{},
                   withAddresses);
  b.copy = Capture(s.copy.getImpl(), withAddresses ? copyBytes : 0, Recorders(s.rec2), {},
                   withAddresses);
  return b;
}

std::string DifferenceOfBoth(const BothStates& a, const BothStates& b) {
  std::string d = Difference(a.main, b.main);
  std::string d2 = Difference(a.copy, b.copy);
  if (!d2.empty()) d += "in the copy: " + d2;
  return d;
}

// Ids depend on the order in which freed slots were taken again, which a
// refused and repeated step may change: the id printed after a class name,
// after "model" or "obj", or between parentheses after a class, becomes '#'.
std::string MaskIds(const std::string& text) {
  static const char* const kPrefixes[] = {
      "QelIntVar",      "QelNumVar", "QelBoolVar", "QelIntSetVar",
      "QelIntervalVar", "model",     "obj",        "I ("};
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    bool masked = false;
    for (const char* prefix : kPrefixes) {
      size_t len = std::strlen(prefix);
      if (text.compare(i, len, prefix) != 0) continue;
      size_t j = i + len;
      if (j >= text.size() || !std::isdigit(static_cast<unsigned char>(text[j]))) continue;
      while (j < text.size() && std::isdigit(static_cast<unsigned char>(text[j]))) ++j;
      out += prefix;
      out += '#';
      i = j;
      masked = true;
      break;
    }
    if (!masked) out += text[i++];
  }
  return out;
}

// The state of both environments without ids: every object's class, name,
// properties, number of sub-extractables and display (ids masked), sorted,
// and the classes of the notices heard.
std::string WithoutIds(const BothStates& b) {
  std::ostringstream os;
  for (const WorldState* w : {&b.main, &b.copy}) {
    std::vector<std::string> objects;
    for (const ObjectState& o : w->objects) {
      std::string facts = o.facts;
      size_t subs = facts.find(" subs=[");
      size_t end = facts.find(']', subs);
      long count = 0;
      for (size_t k = subs + 7; k < end; ++k) count += facts[k] == ' ';
      facts = facts.substr(0, subs) + " subs=" + std::to_string(count) + facts.substr(end + 1);
      objects.push_back(MaskIds(facts + " | " + o.display));
    }
    std::sort(objects.begin(), objects.end());
    os << w->live << " objects\n";
    for (const std::string& o : objects) os << o << "\n";
    for (const std::string& h : w->heard) os << h << "\n";
  }
  return os.str();
}

// The first line where two texts differ, with its neighbours.
std::string FirstDifferentLine(const std::string& a, const std::string& b) {
  std::istringstream ia(a), ib(b);
  std::string la, lb;
  for (int line = 1;; ++line) {
    bool ga = static_cast<bool>(std::getline(ia, la));
    bool gb = static_cast<bool>(std::getline(ib, lb));
    if (!ga && !gb) return "";
    if (!ga || !gb || la != lb)
      return "line " + std::to_string(line) + ":\n  " + (ga ? la : "<none>") + "\n->\n  " +
             (gb ? lb : "<none>") + "\n";
  }
}

std::string TableProblemsOfBoth(const ScenarioObjects& s) {
  std::string p = TableProblems(s.main.getImpl());
  std::string p2 = TableProblems(s.copy.getImpl());
  if (!p2.empty()) p += "in the copy: " + p2;
  return p;
}

// What went wrong in runs, grouped by step, with the first report in full.
struct Findings {
  std::map<std::string, int> count;
  std::map<std::string, std::string> first;
  void add(const std::string& step, const std::string& what) {
    if (count[step]++ == 0) first[step] = what;
  }
  void report(const char* variant) const {
    for (const auto& entry : count)
      ADD_FAILURE() << variant << ": step \"" << entry.first << "\" went wrong " << entry.second
                    << " time(s); first time:\n"
                    << first.at(entry.first);
  }
};

const char* kFinalStateStep = "every object left";

// ---- one run of the scenario with one refused request ---------------------

struct RunResult {
  long requests = 0;
  std::vector<long> requestsAfterStep;  // running count at the end of each step
  bool fired = false;
  std::string failedStep;  // where the refusal struck
  std::string finalState;  // before the last ends, without ids
};

// `reference` is the run without refusal: until its refused request a run
// makes the same requests, so only the step that receives it (known from
// the reference's counts) needs its states taken.
RunResult RunWithRefusal(long failAt, Findings& findings, const RunResult* reference) {
  // Requests are counted over both environments; the one numbered failAt
  // (from 1; 0: none) is refused.
  RequestCounter countdown;
  countdown.refuse = failAt;
  RefusingAllocator mainAlloc(countdown), copyAlloc(countdown);
  ScenarioObjects s;
  s.main = QelEnv();
  s.copy = QelEnv();
  s.main.getImpl()->setCustomAllocator(&mainAlloc);
  s.copy.getImpl()->setCustomAllocator(&copyAlloc);
  RunResult result;
  std::vector<Step> steps = Scenario();
  bool aborted = false;
  for (size_t i = 0; i < steps.size(); ++i) {
    const Step& step = steps[i];
    if (step.name == kFinalStateStep) result.finalState = WithoutIds(CaptureBoth(s, 0, 0, false));
    // Bytes are left out: an array may keep room it made before a later
    // request was refused, which is no leak (the balance at the end of the
    // scenario finds leaks).
    BothStates before;
    if (reference != nullptr && !countdown.refused && reference->requestsAfterStep[i] >= failAt)
      before = CaptureBoth(s, 0, 0);
    try {
      step.run(s);
    } catch (const QelMemoryException&) {
      result.failedStep = step.name;
      BothStates after = CaptureBoth(s, 0, 0);
      std::string d = DifferenceOfBoth(before, after);
      if (!d.empty())
        findings.add(step.name, "request " + std::to_string(failAt) + " refused:\n" + d);
      try {
        step.run(s);
      } catch (const std::exception& e) {
        findings.add(step.name, "request " + std::to_string(failAt) +
                                    " refused; running the step again threw: " + e.what());
        aborted = true;
      }
    } catch (const std::exception& e) {
      findings.add(step.name, "request " + std::to_string(failAt) +
                                  " refused; the step threw something else: " + e.what());
      aborted = true;
    }
    std::string t = TableProblemsOfBoth(s);
    if (!t.empty()) findings.add(step.name, "after request " + std::to_string(failAt) + ": " + t);
    result.requestsAfterStep.push_back(countdown.count);
    if (aborted) break;
  }
  if (!aborted) {
    for (RefusingAllocator* a : {&mainAlloc, &copyAlloc}) {
      if (a->held() != 0)
        findings.add("(end of the scenario)", "refusing request " + std::to_string(failAt) +
                                                  " (in step \"" + result.failedStep + "\") left " +
                                                  std::to_string(a->held()) +
                                                  " bytes with the objects once everything ended");
      for (const std::string& e : a->errors())
        findings.add("(end of the scenario)", "request " + std::to_string(failAt) + ": " + e);
    }
  }
  result.requests = countdown.count;
  result.fired = countdown.refused;
  s.main.end();
  s.copy.end();
  return result;
}

// ---- one run with a switch around every step --------------------------------

// Runs the scenario; around each step, `start` and `stop` switch a failure
// on and off, and `runStep` runs the step under it. A step that throws the
// expected exception E must have changed nothing; it is then run normally.
template <class E>
void RunWithSwitch(const char* variant, const std::function<void(ScenarioObjects&)>& start,
                   const std::function<void(ScenarioObjects&)>& stop,
                   const std::function<void(const Step&, ScenarioObjects&)>& runStep, long& refused,
                   long& completed) {
  Findings findings;
  ScenarioObjects s;
  s.main = QelEnv();
  s.copy = QelEnv();
  auto bytes = [](QelEnv e) { return e.getImpl()->getBytesInUse(); };
  for (const Step& step : Scenario()) {
    BothStates before = CaptureBoth(s, bytes(s.main), bytes(s.copy));
    bool threw = false;
    start(s);
    try {
      runStep(step, s);
      ++completed;
    } catch (const E&) {
      threw = true;
      ++refused;
    } catch (const std::exception& e) {
      findings.add(step.name, std::string("threw something else: ") + e.what());
    }
    stop(s);
    if (threw) {
      BothStates after = CaptureBoth(s, bytes(s.main), bytes(s.copy));
      std::string d = DifferenceOfBoth(before, after);
      if (!d.empty()) findings.add(step.name, "refused, and changed:\n" + d);
      step.run(s);
    }
    std::string t = TableProblemsOfBoth(s);
    if (!t.empty()) findings.add(step.name, t);
  }
  EXPECT_EQ(bytes(s.main), 0) << variant << ": memory left with the objects";
  EXPECT_EQ(bytes(s.copy), 0) << variant << ": memory left with the objects of the copy";
  findings.report(variant);
  s.main.end();
  s.copy.end();
}

}  // namespace

TEST(FaultInjection, EveryRefusedAllocationLeavesEverythingAsItWasAndNothingLeaks) {
  Findings findings;
  RunResult reference = RunWithRefusal(0, findings, nullptr);
  findings.report("without refusal");
  ASSERT_TRUE(findings.count.empty()) << "the scenario itself must run cleanly";
  ASSERT_GT(reference.requests, 200) << "the scenario should allocate a fair amount";

  std::map<std::string, int> refusalsPerStep;
  long runs = 0;
  for (long n = 1; n <= reference.requests; ++n) {
    RunResult r = RunWithRefusal(n, findings, &reference);
    ++runs;
    EXPECT_TRUE(r.fired) << "request " << n << " of " << reference.requests << " was never made";
    if (!r.fired) break;
    ++refusalsPerStep[r.failedStep];
    std::string d = FirstDifferentLine(reference.finalState, r.finalState);
    if (!d.empty())
      findings.add("(final state)", "after refusing request " + std::to_string(n) + " in \"" +
                                        r.failedStep + "\", the scenario ended differently:\n" + d);
  }
  findings.report("refused allocation");
  // Every step that allocates has seen its requests refused one by one.
  EXPECT_GT(refusalsPerStep.size(), 60U);
  std::cout << "[ fault injection ] " << reference.requests << " requests, " << runs
            << " runs, refusals struck " << refusalsPerStep.size() << " distinct steps\n";
}

TEST(FaultInjection, WithAllocationSwitchedOffEveryStepCompletesOrChangesNothing) {
  long refused = 0, completed = 0;
  RunWithSwitch<QelEnvAllocationDisabled>(
      "allocation switched off",
      [](ScenarioObjects& s) {
        if (s.main.getImpl() != nullptr) s.main.getImpl()->setAllocationDisabled(true);
        if (s.copy.getImpl() != nullptr) s.copy.getImpl()->setAllocationDisabled(true);
      },
      [](ScenarioObjects& s) {
        s.main.getImpl()->setAllocationDisabled(false);
        s.copy.getImpl()->setAllocationDisabled(false);
      },
      [](const Step& step, ScenarioObjects& s) { step.run(s); }, refused, completed);
  // Most steps allocate or free; a few (a sense, a value, a setName(null)) do not.
  EXPECT_GT(refused, 60);
  EXPECT_GT(completed, 0);
  std::cout << "[ allocation off ] " << refused << " steps refused, " << completed
            << " completed\n";
}

TEST(FaultInjection, FromAForeignThreadEveryStepCompletesOrChangesNothing) {
  long refused = 0, completed = 0;
  RunWithSwitch<QelEnvAllocatorThreadMismatch>(
      "foreign thread", [](ScenarioObjects&) {}, [](ScenarioObjects&) {},
      [](const Step& step, ScenarioObjects& s) {
        std::exception_ptr failure;
        std::thread t([&] {
          try {
            step.run(s);
          } catch (...) {
            failure = std::current_exception();
          }
        });
        t.join();
        if (failure) std::rethrow_exception(failure);
      },
      refused, completed);
  EXPECT_GT(refused, 60);
  EXPECT_GT(completed, 0);
  std::cout << "[ foreign thread ] " << refused << " steps refused, " << completed
            << " completed\n";
}
