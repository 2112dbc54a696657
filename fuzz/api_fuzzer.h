// The API fuzzer's one entry point, shared by the libFuzzer target
// (api_fuzzer.cpp) and the test that replays the corpus and every finding
// (tests/fuzz/corpus_test.cpp).
#ifndef QEL_FUZZ_API_FUZZER_H
#define QEL_FUZZ_API_FUZZER_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace qelfuzz {

/// What a failed check throws: the message says what differed, and the
/// operations of the input that led there.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& what) : std::runtime_error(what) {}
};

/// Decodes `data` into operations over the library, runs them and checks
/// the library against the fuzzer's own account after each one. Throws
/// Failure when a check fails; everything made is released in any case.
void RunOne(const std::uint8_t* data, std::size_t size);

/// The operations `data` decodes to, one per line (for reports).
std::string Describe(const std::uint8_t* data, std::size_t size);

}  // namespace qelfuzz

#endif
