// The fuzz corpus and every input that once made the API fuzzer fail
// (fuzz/corpus, fuzz/regressions), run through the fuzzer's driver without
// libFuzzer: each must pass every check of fuzz/api_fuzzer.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "api_fuzzer.h"

namespace {

std::vector<std::filesystem::path> Inputs(const char* folder) {
  std::vector<std::filesystem::path> files;
  std::filesystem::path dir = std::filesystem::path(QEL_FUZZ_DIR) / folder;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    if (entry.is_regular_file()) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<std::uint8_t> Read(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in),
                                   std::istreambuf_iterator<char>());
}

void RunAll(const char* folder, size_t atLeast) {
  std::vector<std::filesystem::path> files = Inputs(folder);
  EXPECT_GE(files.size(), atLeast) << folder;
  for (const auto& file : files) {
    std::vector<std::uint8_t> data = Read(file);
    try {
      qelfuzz::RunOne(data.data(), data.size());
    } catch (const qelfuzz::Failure& f) {
      ADD_FAILURE() << file.filename() << ": " << f.what();
    }
  }
}

}  // namespace

TEST(FuzzCorpus, EverySeedPassesEveryCheck) { RunAll("corpus", 20); }

TEST(FuzzCorpus, EveryPastFindingPassesEveryCheck) { RunAll("regressions", 1); }
