// CBC driven directly, without the engine, for the CBC engine's tests and
// benchmark: an MPS file read into CLP's interface with its special ordered
// sets, and CBC's driver run on an LP with the arguments the engine passes
// it by default.
#ifndef QEL_TESTS_ENGINES_SUPPORT_CBCDIRECT_H
#define QEL_TESTS_ENGINES_SUPPORT_CBCDIRECT_H

#include <string>
#include <vector>

#include <CbcModel.hpp>
#include <CbcSolver.hpp>
#include <CoinMpsIO.hpp>
#include <OsiClpSolverInterface.hpp>

namespace cbcdirect {

/// An LP read from an MPS file.
struct FileLp {
  OsiClpSolverInterface lp;           ///< columns, rows, integers and sets of the file
  bool sets = false;                  ///< whether the file holds special ordered sets
  double offset = 0;                  ///< CoinMpsIO's offset: the objective's constant, negated
  int numberSets = 0;                 ///< the file's special ordered sets
  std::vector<int> setTypes;          ///< the type (1 or 2) of each set
  std::vector<int> setSizes;          ///< the number of variables of each set
  std::vector<std::string> colNames;  ///< the columns' names
  std::vector<std::string> rowNames;  ///< the rows' names
};

/// Reads the MPS file `path` into `out`; false when it cannot be read.
inline bool ReadMps(const std::string& path, FileLp& out) {
  CoinMpsIO file;
  file.messageHandler()->setLogLevel(0);
  int numberSets = 0;
  CoinSet** info = nullptr;
  if (file.readMps(path.c_str(), "", numberSets, info) != 0) return false;
  out.lp.messageHandler()->setLogLevel(0);
  out.lp.loadProblem(*file.getMatrixByCol(), file.getColLower(), file.getColUpper(),
                     file.getObjCoefficients(), file.getRowLower(), file.getRowUpper());
  for (int j = 0; j < file.getNumCols(); ++j)
    if (file.isInteger(j)) out.lp.setInteger(j);
  for (int j = 0; j < file.getNumCols(); ++j) out.colNames.emplace_back(file.columnName(j));
  for (int i = 0; i < file.getNumRows(); ++i) out.rowNames.emplace_back(file.rowName(i));
  out.offset = file.objectiveOffset();
  std::vector<char> type;
  std::vector<int> start(1, 0), index;
  std::vector<double> weight;
  for (int s = 0; s < numberSets; ++s) {
    type.push_back(static_cast<char>(info[s]->setType()));
    out.setTypes.push_back(info[s]->setType());
    out.setSizes.push_back(info[s]->numberEntries());
    index.insert(index.end(), info[s]->which(), info[s]->which() + info[s]->numberEntries());
    weight.insert(weight.end(), info[s]->weights(), info[s]->weights() + info[s]->numberEntries());
    start.push_back(static_cast<int>(index.size()));
    delete info[s];
  }
  delete[] info;
  out.numberSets = numberSets;
  out.sets = numberSets > 0;
  if (out.sets)
    out.lp.setSOSData(numberSets, type.data(), start.data(), index.data(), weight.data());
  return true;
}

/// What one run of the driver found.
struct Solved {
  bool found = false;    ///< whether it found a solution
  double objective = 0;  ///< the LP's objective at the best solution (no constant)
  long nodes = 0;        ///< search nodes
};

/// CBC's driver on `lp` with the arguments the engine gives it by default
/// ("-log 0 -timeMode elapsed", "-preprocess off" when `sets`: the engine
/// runs models with special ordered sets without preprocessing, then
/// "-solve -quit"). Kept out of line, so that an instruction count can be
/// taken of it alone: valgrind --tool=callgrind --toggle-collect='*DriverSolve*'.
__attribute__((noinline)) inline Solved DriverSolve(const OsiClpSolverInterface& lp,
                                                    bool sets = false) {
  CbcModel model(lp);
  CbcSolverUsefulData data;
  data.noPrinting_ = true;
  data.useSignalHandler_ = false;
  CbcMain0(model, data);
  model.messageHandler()->setLogLevel(0);
  model.solver()->messageHandler()->setLogLevel(0);
  std::vector<const char*> argv{"direct", "-log", "0", "-timeMode", "elapsed"};
  if (sets) argv.insert(argv.end(), {"-preprocess", "off"});
  argv.insert(argv.end(), {"-solve", "-quit"});
  CbcMain1(static_cast<int>(argv.size()), argv.data(), model, nullptr, data);
  return {model.bestSolution() != nullptr, model.getObjValue(),
          static_cast<long>(model.getNodeCount())};
}

}  // namespace cbcdirect

#endif
