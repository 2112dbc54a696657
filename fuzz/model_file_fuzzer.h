// The model-file fuzzers: the input is a model file (MPS for mps_fuzzer,
// LP for lp_fuzzer). A read either fails with a QelException and leaves the
// environment's memory as it was, or gives a model that, written in each
// format that can hold it and read back, writes the same text again, and
// whose objects all go back to the environment when ended. Anything else
// (another exception, a crash, a leak, a changed text) is a finding.
#ifndef QEL_FUZZ_MODEL_FILE_FUZZER_H
#define QEL_FUZZ_MODEL_FILE_FUZZER_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include <qel/io/filemodel.h>
#include <qel/qel.h>

namespace qelfuzz {

inline void Check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "model file fuzzer: %s\n", what);
    std::abort();
  }
}

inline std::string Written(const QelModel& m, QelFileFormat format) {
  std::ostringstream os;
  QelWriteModel(m, os, format);
  return os.str();
}

inline QelModel ReadText(QelEnv env, const std::string& text, QelFileFormat format) {
  std::istringstream in(text);
  return QelReadModel(env, in, format, "input");
}

inline void FuzzModelFile(const std::uint8_t* data, std::size_t size, QelFileFormat format) {
  std::string text(reinterpret_cast<const char*>(data), size);
  QelEnv env;
  QelInt before = env.getImpl()->getBytesInUse();
  QelModel m;
  try {
    m = ReadText(env, text, format);
  } catch (const QelException&) {
    Check(env.getImpl()->getBytesInUse() == before, "a failed read kept memory");
    env.end();
    return;
  }
  // What was read is written, read back and written again: same text.
  for (QelFileFormat out : {QelFileFormat::Mps, QelFileFormat::Lp}) {
    std::string first;
    try {
      first = Written(m, out);
    } catch (const QelException&) {
      continue;  // something the format cannot hold, refused by name
    }
    QelModel back;
    try {
      back = ReadText(env, first, out);
    } catch (const QelException& e) {
      std::fprintf(stderr, "%s\n%s\n", e.getMessage(), first.c_str());
      Check(false, "a written file could not be read back");
    }
    Check(Written(back, out) == first, "a file written, read and written again changed");
    QelEndReadModel(back);
  }
  QelEndReadModel(m);
  Check(env.getImpl()->getBytesInUse() == before, "an ended model kept memory");
  env.end();
}

}  // namespace qelfuzz

#endif
