// Scheduling a week of maintenance with the Gecode engine.
//
// Ten maintenance tasks are spread over the four working days of a week.
// Each task takes a number of crew hours, and the crew has 12 hours a day
// (8 on Thursday): a pack of the tasks (items, weighed in hours) into the
// days (bins). Three tasks need the one crane, so no two of them fall on the
// same day: an all-different over their days. Some pairs of tasks need the
// same specialist and must be on different days, and one task cannot be done
// on Monday: differences, day[a] != day[b] and day[t] != 0. Some tasks must
// be done on an earlier day than others: day[a] + 1 <= day[b]. Urgent tasks
// should be done early: the objective is the sum of priority[t] * day[t],
// minimized.
//
// The program checks what it prints and exits with 1 when a check fails:
//   - the Gecode engine enumerates every schedule of the rules (the model
//     without objective); each must satisfy the rules, all must differ, and
//     their number must be the number of schedules a brute force over all
//     4^10 assignments of days finds;
//   - the optimum must be the brute force's, and the schedule read back
//     (getValues) must satisfy every rule and cost the objective;
//   - a conflict added after the solve is followed by the same engine,
//     whose new optimum must again be the brute force's;
//   - once everything is ended, the environment's memory is back where it
//     was.
//
//   cmake --build build/dev --target qel_scheduling && build/dev/examples/qel_scheduling
#include <cstdint>
#include <iostream>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <qel/engines/gecode.h>
#include <qel/qel.h>

namespace {

int failures = 0;

void Check(bool ok, const std::string& what) {
  if (ok) return;
  ++failures;
  std::cout << "CHECK FAILED: " << what << "\n";
}

const char* const DayName[] = {"Mon", "Tue", "Wed", "Thu"};

// The data of the week.
struct Week {
  int days = 4;
  std::vector<QelInt> crewHours = {12, 12, 12, 8};
  std::vector<QelInt> hours = {4, 3, 5, 2, 6, 3, 4, 2, 5, 3};     // per task
  std::vector<QelInt> priority = {3, 1, 4, 1, 5, 9, 2, 6, 5, 3};  // per task
  std::vector<int> crane = {0, 4, 8};                             // one a day at most
  std::vector<std::pair<int, int>> apart = {{1, 2}, {3, 5}, {6, 7}};
  std::vector<std::pair<int, int>> before = {{0, 5}, {2, 9}, {4, 7}};
  int notMonday = 6;
  int tasks() const { return static_cast<int>(hours.size()); }
};

// ---- the independent check ------------------------------------------------

// Whether the days `day` (one per task) satisfy every rule of `w`.
bool Satisfies(const Week& w, const std::vector<int>& day) {
  std::vector<QelInt> load(w.days, 0);
  for (int t = 0; t < w.tasks(); ++t) {
    if (day[t] < 0 || day[t] >= w.days) return false;
    load[day[t]] += w.hours[t];
  }
  for (int d = 0; d < w.days; ++d)
    if (load[d] > w.crewHours[d]) return false;
  for (std::size_t a = 0; a < w.crane.size(); ++a)
    for (std::size_t b = a + 1; b < w.crane.size(); ++b)
      if (day[w.crane[a]] == day[w.crane[b]]) return false;
  for (auto [a, b] : w.apart)
    if (day[a] == day[b]) return false;
  for (auto [a, b] : w.before)
    if (day[a] >= day[b]) return false;
  return day[w.notMonday] != 0;
}

QelInt Cost(const Week& w, const std::vector<int>& day) {
  QelInt cost = 0;
  for (int t = 0; t < w.tasks(); ++t) cost += w.priority[t] * day[t];
  return cost;
}

// Every assignment of days to tasks: the number that satisfy the rules and
// the least cost among them.
std::pair<long, QelInt> BruteForce(const Week& w) {
  long count = 0;
  QelInt best = std::numeric_limits<QelInt>::max();
  std::vector<int> day(w.tasks(), 0);
  for (;;) {
    if (Satisfies(w, day)) {
      ++count;
      best = std::min(best, Cost(w, day));
    }
    int t = 0;  // the next assignment, counting in base `days`
    while (t < w.tasks() && ++day[t] == w.days) day[t++] = 0;
    if (t == w.tasks()) break;
  }
  return {count, best};
}

// ---- the model --------------------------------------------------------------

struct Schedule {
  QelModel rules;        // the constraints
  QelModel plan;         // the rules and the objective
  QelIntVarArray day;    // day[t]: the day of task t
  QelIntVarArray load;   // load[d]: crew hours used on day d
  QelAllDiff crane;      // the days of the crane's tasks
  QelObjective urgency;  // sum priority[t] * day[t]
};

Schedule Build(QelEnv env, const Week& w) {
  Schedule s{QelModel(env, "rules"),
             QelModel(env, "plan"),
             QelIntVarArray(env, w.tasks(), 0, 3),
             QelIntVarArray(env, w.days, 0, 12),
             QelAllDiff(),
             QelObjective()};
  s.day.setNames("day");
  s.load.setNames("load");
  s.load[3].setUB(w.crewHours[3]);  // a short Thursday

  QelIntArray hours(env, w.tasks());
  for (int t = 0; t < w.tasks(); ++t) hours.set(t, w.hours[t]);
  s.rules.add(QelPack(env, s.load, s.day, hours, "crew"));  // the arrays are copied
  hours.end();

  QelIntVarArray crane(env, 0);
  for (int t : w.crane) crane.add(s.day[t]);
  s.crane = QelAllDiff(env, crane, "crane");  // the array is copied
  s.rules.add(s.crane);
  crane.end();

  for (auto [a, b] : w.apart) s.rules.add(QelDiff(env, s.day[a], s.day[b]));
  s.rules.add(QelDiff(env, s.day[w.notMonday], 0.0, "notMonday"));
  for (auto [a, b] : w.before) s.rules.add(s.day[a] + 1 <= s.day[b]);

  QelIntExpr urgency(env, 0);
  for (int t = 0; t < w.tasks(); ++t) urgency += w.priority[t] * s.day[t];
  s.urgency = QelObjective(env, urgency, QelObjective::Minimize, "urgency");
  s.plan.add(s.rules);
  s.plan.add(s.urgency);
  return s;
}

// The days of the solution an engine holds (read in one call).
std::vector<int> Days(const QelAlgorithm& engine, const QelIntVarArray& day) {
  QelNumArray values = engine.getValues(day);
  std::vector<int> days;
  for (long t = 0; t < values.getSize(); ++t) days.push_back(static_cast<int>(values[t]));
  values.end();
  return days;
}

void Print(const Week& w, const std::vector<int>& day) {
  for (int d = 0; d < w.days; ++d) {
    std::cout << "  " << DayName[d] << ":";
    for (int t = 0; t < w.tasks(); ++t)
      if (day[t] == d) std::cout << " task" << t << "(" << w.hours[t] << "h)";
    std::cout << "\n";
  }
}

}  // namespace

int main() {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  const QelInt before = e->getBytesInUse();
  Week w;
  auto [count, best] = BruteForce(w);
  std::cout << "brute force over 4^" << w.tasks() << " assignments: " << count
            << " schedules, least urgency cost " << best << "\n";
  {
    Schedule s = Build(env, w);

    // Every schedule of the rules, enumerated.
    QelGecode all(env);
    all.extract(s.rules);
    std::set<std::vector<int>> seen;
    long visited = all.enumerate([&](QelGecodeI& engine) {
      std::vector<int> day = Days(&engine, s.day);
      Check(Satisfies(w, day), "an enumerated schedule satisfies the rules");
      seen.insert(day);
      return true;
    });
    std::cout << "Gecode enumerates " << visited << " schedules (" << seen.size() << " distinct)\n";
    Check(all.getStatus() == QelEngineStatus::Optimal, "the enumeration went through");
    Check(visited == count && static_cast<long>(seen.size()) == count,
          "as many schedules as the brute force finds, all different");
    all.end();

    // The best schedule.
    QelGecode cp(env);
    cp.setTimeLimit(10);
    cp.setParam("varSelect", "firstfail");
    cp.extract(s.plan);
    QelEngineStatus status = cp.solve();
    Check(status == QelEngineStatus::Optimal && cp.hasSolution(), "the week is scheduled");
    std::vector<int> day = Days(cp, s.day);
    std::cout << "least urgency cost " << cp.getObjValue() << " (" << cp.getReport().nodes
              << " nodes):\n";
    Print(w, day);
    Check(Satisfies(w, day), "the schedule satisfies the rules");
    Check(cp.getObjValue() == static_cast<double>(best) && Cost(w, day) == best,
          "the optimum is the brute force's");

    // A new conflict: tasks 5 and 9 need the same specialist.
    w.apart.emplace_back(5, 9);
    auto [countAfter, bestAfter] = BruteForce(w);
    s.rules.add(QelDiff(env, s.day[5], s.day[9], "specialist"));  // posted at once
    status = cp.solve();
    Check(status == QelEngineStatus::Optimal, "the week is scheduled again");
    day = Days(cp, s.day);
    std::cout << "with tasks 5 and 9 apart: least urgency cost " << cp.getObjValue()
              << " (brute force " << bestAfter << ", " << countAfter << " schedules)\n";
    Print(w, day);
    Check(Satisfies(w, day), "the new schedule satisfies the rules");
    Check(cp.getObjValue() == static_cast<double>(bestAfter) && Cost(w, day) == bestAfter,
          "the new optimum is the brute force's");
    const QelEngineStats& stats = cp.getStats();
    std::cout << "engine: " << stats.solves << " solves, " << stats.notices << " notices, "
              << stats.memberExtractions << " members extracted, " << stats.rebuilds
              << " rebuilds\n";
    Check(stats.solves == 2 && stats.rebuilds == 0, "the addition was followed without a rebuild");
    cp.end();

    // Ending the variables ends what is built on them: the ranges, the
    // differences, the pack, the sums and the objective. An all-different
    // only drops an ended variable, so it is ended on its own; the models
    // and the arrays are ours to end.
    s.crane.end();
    s.day.endElements();
    s.load.endElements();
    s.day.end();
    s.load.end();
    s.plan.end();
    s.rules.end();
  }
  Check(e->getBytesInUse() == before, "every byte back to the environment");
  std::cout << (failures == 0 ? "every check held\n" : "SOME CHECKS FAILED\n");
  env.end();
  return failures == 0 ? 0 : 1;
}
