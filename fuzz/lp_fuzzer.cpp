// libFuzzer target: the LP reader (see model_file_fuzzer.h).
#include "model_file_fuzzer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qelfuzz::FuzzModelFile(data, size, QelFileFormat::Lp);
  return 0;
}
