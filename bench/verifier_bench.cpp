// What verifying costs: whether a line of a large script costs much more than one of a small
// script, and the time that a typical script takes.
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include "verifier/KVLSyntax.h"

namespace kvl::bench {
namespace {

// A script of `lines` lines: a sixth declares, each variable another one; the rest counts,
// compares, jumps to a label further down, takes a byte out of a buffer and prints.
std::string MakeScript(int lines) {
  std::string declarations = "OPEN MEDIA TCP\nTABLE_NAME \"BENCH\"\nDIM BUF$ 256\nEQU E \"text\"\n";
  std::string main = "BEGIN:\n";
  const int groups = std::max(1, (lines - 6) / 6);
  for (int i = 0; i < groups; ++i) {
    declarations += fmt::format("VAR COUNT{}% {} ; a variable\n", i, i);
    main += fmt::format(
        "  INC   COUNT{0}\n  CMP COUNT{0} , 0FFH // full?\n  JPE SKIP{0}\n"
        "  MOVE COUNT{0}, BUF[COUNT{1}+2]\nSKIP{0}:\n",
        i, groups - 1 - i);
  }
  return declarations + main + "END:\n";
}

double VerifySeconds(const std::string& script) {
  const std::clock_t start = std::clock();
  CKVLSyntax syntax;
  syntax._CompileMainScript1(syntax.LoadText(script));
  syntax._VerifyMainScript();
  if (syntax.GetErrorCount() > 0) throw std::runtime_error(syntax.GetError(0).m_strText);
  return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

// The median of several runs, each of as many scripts as make up 100,000 lines.
double SecondsPerScript(int lines) {
  constexpr int kRuns = 5;
  const std::string script = MakeScript(lines);
  const int scripts = std::max(1, 100000 / lines);
  std::vector<double> seconds;
  for (int run = 0; run < kRuns; ++run) {
    double sum = 0;
    for (int i = 0; i < scripts; ++i) sum += VerifySeconds(script);
    seconds.push_back(sum / scripts);
  }
  std::sort(seconds.begin(), seconds.end());
  return seconds[kRuns / 2];
}

const char* Bar(bool holds) {
  return holds ? "held" : "MISSED";
}

void Report() {
  const double typical = SecondsPerScript(200);
  const double small = SecondsPerScript(1000) / 1000;
  const double large = SecondsPerScript(100000) / 100000;
  fmt::print("Verifying a script\n");
  fmt::print("      200 lines {:8.3f} ms   bar 2: {}\n", typical * 1e3, Bar(typical < 2e-3));
  fmt::print("    1,000 lines {:8.0f} ns a line\n", small * 1e9);
  fmt::print("  100,000 lines {:8.0f} ns a line, {:.2f} times as much   bar 4: {}\n", large * 1e9,
             large / small, Bar(large / small < 4));
}

}  // namespace
}  // namespace kvl::bench

int main() try {
  kvl::bench::Report();
  return 0;
} catch (const std::exception& fault) {
  fmt::print(stderr, "kvl_verifier_bench: {}\n", fault.what());
  return 1;
}
