// What the verifier passes, the engine runs: the fuzzer's promise, kept on some hundred scripts.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "verified_scripts.h"

namespace kvl {
namespace {

TEST(PromiseTest, WhatPassesRuns) {
  std::mt19937 random(20260);
  int passed = 0;
  constexpr int kScripts = 400;
  for (int i = 0; i < kScripts; ++i) {
    std::vector<uint8_t> input(random() % 1500);
    for (uint8_t& byte : input) byte = static_cast<uint8_t>(random());
    passed += FuzzVerifiedScripts(input) ? 1 : 0;
  }
  EXPECT_GT(passed, kScripts / 2);  // otherwise the scripts say little
}

}  // namespace
}  // namespace kvl
