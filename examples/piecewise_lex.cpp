// A piecewise-linear cost and a lexicographic objective with the CBC engine.
//
// Three plants make 170 batches a day between them; each makes a whole
// number of batches, at most 100. What a plant's batches cost is
// piecewise linear in their number, and not convex, so no plain LP can
// model it:
//   plant A: a take-or-pay contract. The first 20 batches cost 10 each,
//            batches 20 to 50 are already paid for, then 5 each up to 80
//            and 9 each up to 100 (overtime);
//   plant B: 6 each up to 40, then 4 each (a second shift runs cheaper);
//   plant C: 5 each throughout.
// The cost of plant k is f_k(q_k) through the breakpoints (x, f(x)): with
// one weight lambda(k, b) per breakpoint, q_k = sum_b x_b lambda(k, b),
// cost_k = sum_b f(x_b) lambda(k, b), sum_b lambda(k, b) = 1, and at most
// two weights nonzero, next to each other: a special ordered set of type 2
// over the weights, ordered by x_b.
//
// Two criteria, in order: the total cost first, then, among the plans of
// least cost, the least emissions (tons per batch: A 3, B 5, C 1). Plant
// A between 50 and 80 batches and plant C cost the same per batch, so there
// are several plans of least cost and the second criterion chooses. The
// lexicographic objective QelMinimize(QelStaticLex(cost, emissions)) asks
// for exactly that; CBC solves it criterion by criterion.
//
// The program checks what it prints and exits with 1 when a check fails:
//   - the lexicographic optimum (both criteria) against a brute force over
//     every split of the 170 batches between the plants;
//   - the same two stages solved by hand on the same engine: minimize the
//     cost, keep the cost at its optimum with a row, then minimize the
//     emissions (the model changed and solved again);
//   - the weights read back (getValues) form a special ordered set of type
//     2, and give the quantities and the costs f_k(q_k);
//   - once everything is ended, the environment's memory is back where it
//     was.
//
//   cmake --build build/dev --target qel_piecewise_lex && build/dev/examples/qel_piecewise_lex
#include <cmath>
#include <iostream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <qel/engines/cbc.h>
#include <qel/qel.h>

namespace {

int failures = 0;

void Check(bool ok, const std::string& what) {
  if (ok) return;
  ++failures;
  std::cout << "CHECK FAILED: " << what << "\n";
}

bool Near(double a, double b) { return std::fabs(a - b) <= 1e-6 * std::max(1.0, std::fabs(b)); }

const int Demand = 170;
const int MaxBatches = 100;

struct Plant {
  const char* name;
  std::vector<double> x, f;  // the breakpoints (x, f(x)), x increasing
  double emissions;          // per batch
};

const std::vector<Plant> Plants = {
    {"A", {0, 20, 50, 80, 100}, {0, 200, 200, 350, 530}, 3},
    {"B", {0, 40, 100}, {0, 240, 480}, 5},
    {"C", {0, 100}, {0, 500}, 1},
};

// f(q) by linear interpolation between the breakpoints.
double CostOf(const Plant& p, double q) {
  for (std::size_t b = 1; b < p.x.size(); ++b)
    if (q <= p.x[b])
      return p.f[b - 1] + (p.f[b] - p.f[b - 1]) * (q - p.x[b - 1]) / (p.x[b] - p.x[b - 1]);
  return std::numeric_limits<double>::infinity();
}

// ---- the independent check ------------------------------------------------

struct Plan {
  double cost = std::numeric_limits<double>::infinity();
  double emissions = std::numeric_limits<double>::infinity();
  std::vector<int> batches;
};

// Every split of the demand into whole batches, the best by cost, then by
// emissions; `ties` counts the plans of least cost.
Plan BruteForce(int* ties) {
  Plan best;
  *ties = 0;
  for (int a = 0; a <= MaxBatches; ++a) {
    for (int b = 0; b <= MaxBatches && a + b <= Demand; ++b) {
      int c = Demand - a - b;
      if (c > MaxBatches) continue;
      std::vector<int> q = {a, b, c};
      double cost = 0, emissions = 0;
      for (std::size_t k = 0; k < Plants.size(); ++k) {
        cost += CostOf(Plants[k], q[k]);
        emissions += Plants[k].emissions * q[k];
      }
      if (cost < best.cost) *ties = 0;
      if (cost <= best.cost) ++*ties;
      if (cost < best.cost || (cost == best.cost && emissions < best.emissions))
        best = {cost, emissions, q};
    }
  }
  return best;
}

// ---- the model --------------------------------------------------------------

struct Production {
  QelModel model;
  QelIntVarArray batches;       // q_k
  QelNumVarArray lambda;        // the weights of every plant, one after the other
  std::vector<long> first;      // where plant k's weights start in lambda
  QelNumExpr cost;              // sum_k cost_k
  QelNumExpr emissions;         // sum_k emissions_k q_k
  std::vector<QelSOS2> pieces;  // one set per plant
};

Production Build(QelEnv env) {
  const long plants = static_cast<long>(Plants.size());
  Production p{QelModel(env, "production"),
               QelIntVarArray(env, plants, 0, MaxBatches),
               QelNumVarArray(env, 0),
               {},
               QelNumExpr(env, 0),
               QelNumExpr(env, 0),
               {}};
  p.batches.setNames("batches");
  p.model.add(QelSum(p.batches) == Demand);
  for (long k = 0; k < plants; ++k) {
    const Plant& plant = Plants[k];
    const std::string name = plant.name;
    QelNumVarArray w(env, static_cast<long>(plant.x.size()), 0, 1);
    w.setNames(("lambda" + name).c_str());
    QelSOS2 set(env, ("pieces" + name).c_str());
    QelNumExpr q(env, 0), cost(env, 0), convex(env, 0);
    for (long b = 0; b < w.getSize(); ++b) {
      set->addVar(w[b]);
      set->addVal(plant.x[b]);  // the set's order
      q += plant.x[b] * w[b];
      cost += plant.f[b] * w[b];
      convex += w[b];
      p.lambda.add(w[b]);
    }
    p.first.push_back(p.lambda.getSize() - w.getSize());
    w.end();
    p.model.add(convex == 1);
    p.model.add(p.batches[k] == q);
    p.model.add(set);
    p.pieces.push_back(set);
    p.cost += cost;
    p.emissions += plant.emissions * p.batches[k];
  }
  return p;
}

// Checks the solution the engine holds: the weights of each plant form a
// special ordered set of type 2 and give its batches and its cost; returns
// the plan.
Plan Read(const QelCbc& mip, const Production& p, const std::string& what) {
  QelAlgorithm solution = mip;
  QelNumArray q = solution.getValues(p.batches);
  QelNumArray w = solution.getValues(p.lambda);
  Plan plan{0, 0, {}};
  const double tol = 1e-6;
  for (std::size_t k = 0; k < Plants.size(); ++k) {
    const Plant& plant = Plants[k];
    const std::string where = what + ", plant " + plant.name;
    const long first = p.first[k], n = static_cast<long>(plant.x.size());
    double sum = 0, at = 0, cost = 0;
    long firstNonzero = -1, lastNonzero = -1;
    for (long b = 0; b < n; ++b) {
      double v = w[first + b];
      Check(v >= -tol && v <= 1 + tol, where + ": a weight in [0, 1]");
      sum += v;
      at += plant.x[b] * v;
      cost += plant.f[b] * v;
      if (v > tol) {
        if (firstNonzero < 0) firstNonzero = b;
        lastNonzero = b;
      }
    }
    Check(std::fabs(sum - 1) <= tol, where + ": the weights sum to 1");
    Check(lastNonzero - firstNonzero <= 1, where + ": at most two weights, next to each other");
    int batches = static_cast<int>(std::lround(q[static_cast<long>(k)]));
    Check(std::fabs(q[static_cast<long>(k)] - batches) <= tol && std::fabs(at - batches) <= tol,
          where + ": whole batches, as the weights say");
    Check(std::fabs(cost - CostOf(plant, batches)) <= tol * std::max(1.0, cost),
          where + ": the cost of its batches on the curve");
    plan.batches.push_back(batches);
    plan.cost += CostOf(plant, batches);
    plan.emissions += plant.emissions * batches;
  }
  int total = 0;
  for (int b : plan.batches) total += b;
  Check(total == Demand, what + ": the demand is met");
  q.end();
  w.end();
  return plan;
}

void Print(const char* what, const Plan& plan) {
  std::cout << what << ": cost " << plan.cost << ", emissions " << plan.emissions << " (A "
            << plan.batches[0] << ", B " << plan.batches[1] << ", C " << plan.batches[2] << ")\n";
}

// Ends what Build made: the variables, which ends the rows, the sums and
// the objectives over them; the sets only drop ended variables, so they are
// ended on their own; the arrays and the model are ours to end.
void End(Production& p) {
  for (QelSOS2& set : p.pieces) set.end();
  p.lambda.endElements();
  p.lambda.end();
  p.batches.endElements();
  p.batches.end();
  p.model.end();
}

}  // namespace

int main() {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  const QelInt before = e->getBytesInUse();
  int ties = 0;
  Plan exact = BruteForce(&ties);
  Print("brute force", exact);
  std::cout << ties << " plans have the least cost\n";
  Check(ties > 1, "the second criterion has a choice to make");
  {
    Production p = Build(env);

    // Both criteria at once.
    QelMultiCriterionExpr lex = QelStaticLex(env, p.cost, p.emissions);
    QelObjective both = QelMinimize(env, lex, "cost, then emissions");
    lex.end();  // the objective keeps its own copy
    p.model.add(both);
    QelCbc mip(env);
    mip.setTimeLimit(10);
    mip.setRelativeGap(0);
    mip.extract(p.model);
    Check(mip.solve() == QelEngineStatus::Optimal, "the lexicographic objective is solved");
    Check(mip.getImpl()->getNumCriteria() == 2, "two criteria");
    Plan lexPlan = Read(mip, p, "lexicographic");
    Print("lexicographic", lexPlan);
    Check(Near(mip.getObjValue(0), exact.cost) && Near(mip.getObjValue(1), exact.emissions),
          "both criteria at the brute force's optimum");
    Check(lexPlan.cost == exact.cost && lexPlan.emissions == exact.emissions,
          "the plan read back is optimal for both criteria");

    // The same stages by hand, on the same engine: the cost alone ...
    p.model.remove(both);
    QelObjective cheapest(env, p.cost, QelObjective::Minimize, "cost");
    p.model.add(cheapest);
    Check(mip.solve() == QelEngineStatus::Optimal, "stage 1 is solved");
    double leastCost = mip.getObjValue();
    Plan stage1 = Read(mip, p, "stage 1");
    Check(Near(leastCost, exact.cost) && stage1.cost == exact.cost, "stage 1 at the least cost");

    // ... then the emissions, the cost kept at its optimum.
    p.model.remove(cheapest);
    p.model.add(p.cost <= leastCost + 1e-6 * std::max(1.0, std::fabs(leastCost)));
    p.model.add(QelObjective(env, p.emissions, QelObjective::Minimize, "emissions"));
    Check(mip.solve() == QelEngineStatus::Optimal, "stage 2 is solved");
    Plan stage2 = Read(mip, p, "stage 2");
    Print("by hand", stage2);
    Check(Near(mip.getObjValue(), exact.emissions) && stage2.cost == exact.cost &&
              stage2.emissions == exact.emissions,
          "the stages by hand agree with the lexicographic objective");
    const QelEngineStats& stats = mip.getStats();
    std::cout << "engine: " << stats.solves << " solves, " << stats.memberExtractions
              << " members extracted, " << stats.rebuilds << " rebuilds\n";
    Check(stats.solves == 3 && stats.rebuilds == 0, "the changes were followed without a rebuild");
    mip.end();

    both.end();
    cheapest.end();
    End(p);
  }
  Check(e->getBytesInUse() == before, "every byte back to the environment");
  std::cout << (failures == 0 ? "every check held\n" : "SOME CHECKS FAILED\n");
  env.end();
  return failures == 0 ? 0 : 1;
}
