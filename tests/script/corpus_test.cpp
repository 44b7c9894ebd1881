// Replays what fuzzing has found worth keeping.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/entries.h"

namespace kvl {
namespace {

struct CTarget {
  const char* m_pszName;
  void (*m_entry)(std::span<const uint8_t> input);
};

class CorpusTest : public testing::TestWithParam<CTarget> {};

// A finding ends the program.
TEST_P(CorpusTest, HoldsNoFinding) {
  const auto folder = std::filesystem::path(KVL_CORPUS) / GetParam().m_pszName;
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    GetParam().m_entry({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
    ++files;
  }
  EXPECT_GT(files, 10);
}

INSTANTIATE_TEST_SUITE_P(Targets, CorpusTest,
                         testing::Values(CTarget{"layout", FuzzLayout},
                                         CTarget{"script", FuzzScript},
                                         CTarget{"batches", FuzzBatches}),
                         [](const auto& target) { return target.param.m_pszName; });

}  // namespace
}  // namespace kvl
