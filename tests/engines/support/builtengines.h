// The engines this build has, for the tests that run every one of them:
// each engine's name and a function that makes one in an environment (set
// up to stay fast under AddressSanitizer, see UnderSanitizer). A test
// target sees the engines it links: linking Qel::gecode or Qel::cbc
// defines QEL_HAVE_GECODE or QEL_HAVE_CBC.
#ifndef QEL_TESTS_ENGINES_SUPPORT_BUILTENGINES_H
#define QEL_TESTS_ENGINES_SUPPORT_BUILTENGINES_H

#include <vector>

#include "engines/support/enginetest.h"

#ifdef QEL_HAVE_GECODE
#include <qel/engines/gecode.h>
#endif
#ifdef QEL_HAVE_CBC
#include <qel/engines/cbc.h>
#endif

namespace enginetest {

/// An engine this build has.
struct BuiltEngine {
  const char* name;             ///< the engine's name ("Gecode", "CBC")
  QelEngineI* (*make)(QelEnv);  ///< a new engine in an environment; the caller deletes it
};

/// Every engine this build has, Gecode first.
inline std::vector<BuiltEngine> BuiltEngines() {
  std::vector<BuiltEngine> engines;
#ifdef QEL_HAVE_GECODE
  engines.push_back({"Gecode", &QelNewGecodeEngine});
#endif
#ifdef QEL_HAVE_CBC
  engines.push_back({"CBC", [](QelEnv env) { return UnderSanitizer(QelNewCbcEngine(env)); }});
#endif
  return engines;
}

}  // namespace enginetest

#endif
