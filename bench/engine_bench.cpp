// Compares the engine with hand-written C++, Lua 5.4 and LuaJIT: in one process, in interleaved
// rounds, by the median of the ratios within a round, so that a machine that slows down for a
// while slows all of them. All must have found the same before any time counts.
#include <dlfcn.h>
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "bench/peer.h"
#include "script/KVL.h"

namespace kvl::bench {
namespace {

struct CWorkload {
  const char* m_pszName;
  const char* m_pszTitle;
  std::vector<const char*> m_variables;  // what the script found, in the order of CFound
  const char* m_pszText;                 // the variable with the text, or null: what was sent
  double m_bar;                          // times the C++, at most
};

const CWorkload kWorkloads[] = {
    {"checksum", "(a) 64-byte frame, sum and exclusive or", {"GOOD"}, nullptr, 11},
    {"nmea", "(b) NMEA sentence", {"GOOD", "LAT", "LON", "A", "B"}, nullptr, 3.6},
    {"scale", "(c) scale frame, answered", {"WEIGHT"}, nullptr, 3},
    {"lines", "(d1) 1,400 bytes of lines, by search", {"AT"}, "LINE", 2.5},
    {"bytewise", "(d2) 1,400 bytes of lines, byte by byte", {"START"}, "LINE", 6.5},
};

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("can't read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

class COwner : public CEngineOwner {
 public:
  void Pause(int32_t /*milliseconds*/, EPause /*reason*/) override {}
  void Sync(int32_t /*value*/) override {}
  void OnOut(std::span<const uint8_t> bytes, int32_t /*interval*/) override {
    m_strSent.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
  std::string m_strSent;
};

class CEnginePeer : public CPeer {
 public:
  CEnginePeer(const CWorkload& workload, const std::string& path)
      : m_workload(workload), m_engine(&m_owner, "") {
    m_engine._CompileMainScript1(m_engine.LoadText(ReadFile(path)));
  }
  void Run(std::span<const uint8_t> batch) override {
    m_engine.Begin(batch.data(), static_cast<int32_t>(batch.size()));
  }
  CFound Found() override {
    CFound found;
    for (const char* name : m_workload.m_variables) {
      found.m_numbers.push_back(m_engine.GetBufferValue(name));
    }
    found.m_strText =
        m_workload.m_pszText == nullptr
            ? m_owner.m_strSent
            : reinterpret_cast<const char*>(m_engine.GetBufferPointer(m_workload.m_pszText));
    return found;
  }

 private:
  const CWorkload& m_workload;
  COwner m_owner;
  CKVL m_engine;
};

struct CContestant {
  std::string m_strName;
  std::unique_ptr<CPeer> m_pPeer;
  std::vector<double> m_seconds;  // of each round
};

// A module that isn't there, because its Lua isn't, leaves a note and no contestant.
FOpenPeer OpenModule(const std::string& path) {
  void* const module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) return nullptr;
  return reinterpret_cast<FOpenPeer>(dlsym(module, "OpenPeer"));
}

std::vector<CContestant> Enter(const CWorkload& workload, const std::string& programs) {
  const std::string script = std::string(KVL_BENCH_SCRIPTS "/") + workload.m_pszName;
  std::vector<CContestant> contestants;
  contestants.push_back({"C++ -O2", MakeReference(workload.m_pszName), {}});
  contestants.push_back({"kvl", std::make_unique<CEnginePeer>(workload, script + ".kvl"), {}});
  const std::pair<const char*, const char*> modules[] = {{"Lua 5.4", "/libkvl_bench_lua54.so"},
                                                         {"LuaJIT", "/libkvl_bench_luajit.so"}};
  for (const auto& [name, file] : modules) {
    if (const FOpenPeer open = OpenModule(programs + file)) {
      contestants.push_back({name, std::unique_ptr<CPeer>(open((script + ".lua").c_str())), {}});
    }
  }
  return contestants;
}

void CheckResults(std::vector<CContestant>& contestants, const std::vector<CBatch>& batches) {
  for (size_t i = 0; i < batches.size(); ++i) {
    CFound expected;
    for (CContestant& contestant : contestants) {
      contestant.m_pPeer->Run(batches[i]);
      const CFound found = contestant.m_pPeer->Found();
      if (&contestant == &contestants.front()) expected = found;
      if (found == expected) continue;
      throw std::runtime_error(fmt::format("{} finds something else in batch {} than {}",
                                           contestant.m_strName, i, contestants[0].m_strName));
    }
  }
}

// The time that this process has had so far; what others take of the machine doesn't count.
double Now() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

double SecondsOf(CPeer& peer, const std::vector<CBatch>& batches, int turns) {
  const double start = Now();
  for (int turn = 0; turn < turns; ++turn) {
    for (const CBatch& batch : batches) peer.Run(batch);
  }
  return Now() - start;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double MedianRatio(const CContestant& upper, const CContestant& lower) {
  std::vector<double> ratios;
  for (size_t i = 0; i < upper.m_seconds.size(); ++i) {
    ratios.push_back(upper.m_seconds[i] / lower.m_seconds[i]);
  }
  return Median(ratios);
}

constexpr int kRounds = 101;
constexpr double kRoundSeconds = 0.002;  // of the fastest contestant

void Race(std::vector<CContestant>& contestants, const std::vector<CBatch>& batches) {
  const double once = std::max(SecondsOf(*contestants[0].m_pPeer, batches, 20) / 20, 1e-7);
  const int turns = std::max(1, static_cast<int>(kRoundSeconds / once));
  for (int round = 0; round < kRounds; ++round) {
    for (CContestant& contestant : contestants) {
      const double seconds = SecondsOf(*contestant.m_pPeer, batches, turns);
      contestant.m_seconds.push_back(seconds / (turns * static_cast<double>(batches.size())));
    }
  }
}

void Report(const CWorkload& workload, const std::vector<CContestant>& contestants,
            const std::vector<CBatch>& batches) {
  double bytes = 0;
  for (const CBatch& batch : batches) bytes += static_cast<double>(batch.size());
  bytes /= static_cast<double>(batches.size());
  const CContestant& reference = contestants[0];
  const CContestant& engine = contestants[1];
  fmt::print("{}, {:.0f} bytes a batch\n", workload.m_pszTitle, bytes);
  fmt::print("  {:10}{:>12}{:>10}{:>10}{:>10}\n", "", "ns/batch", "MB/s", "to C++", "to kvl");
  for (const CContestant& contestant : contestants) {
    const double seconds = Median(contestant.m_seconds);
    fmt::print("  {:10}{:>12.1f}{:>10.1f}{:>10.2f}{:>10.2f}", contestant.m_strName, seconds * 1e9,
               bytes / seconds / 1e6, MedianRatio(contestant, reference),
               MedianRatio(contestant, engine));
    if (&contestant == &engine) {
      const bool holds = MedianRatio(engine, reference) <= workload.m_bar;
      fmt::print("   bar {}: {}", workload.m_bar, holds ? "held" : "MISSED");
    }
    fmt::print("\n");
  }
}

// Four lines a group: a variable and a label, both used.
std::string GenerateScript(int lines) {
  std::string declarations;
  std::string main = "BEGIN:\n";
  for (int i = 0; i < lines / 4; ++i) {
    declarations += fmt::format("VAR Value{}% {}\n", i, i);
    main += fmt::format("Label{}:\nADD Value{}, 1\nJP Label{}\n", i, i, (i + 1) % (lines / 4));
  }
  return declarations + main;
}

double LoadSecondsPerLine(int lines) {
  const std::string script = GenerateScript(lines);
  constexpr int kLinesInAll = 300000;
  const int turns = kLinesInAll / lines;
  std::vector<double> seconds;
  for (int turn = 0; turn < turns; ++turn) {
    COwner owner;
    const double start = Now();
    CKVL engine(&owner, "");
    engine.SetMaxSteps(1);  // the first pass binds the script; what it runs is no part of this
    engine._CompileMainScript1(engine.LoadText(script));
    engine.Begin(nullptr, 0);
    seconds.push_back((Now() - start) / lines);
  }
  return Median(seconds);
}

void ReportLoading() {
  const double small = LoadSecondsPerLine(1000);
  const double large = LoadSecondsPerLine(100000);
  fmt::print("Loading a script, first pass included\n");
  fmt::print("    1,000 lines {:8.0f} ns a line\n", small * 1e9);
  fmt::print("  100,000 lines {:8.0f} ns a line, {:.2f} times as much   bar 4: {}\n", large * 1e9,
             large / small, large / small < 4 ? "held" : "MISSED");
}

// `wanted` are the workloads to run, all if there are none.
int Main(const std::string& program, std::span<char*> wanted) {
  const std::string programs = program.substr(0, program.rfind('/'));
  for (const CWorkload& workload : kWorkloads) {
    const auto isThis = [&](const char* name) { return std::string(name) == workload.m_pszName; };
    if (!wanted.empty() && std::none_of(wanted.begin(), wanted.end(), isThis)) continue;
    std::vector<CContestant> contestants = Enter(workload, programs);
    const std::vector<CBatch> batches = MakeBatches(workload.m_pszName);
    CheckResults(contestants, batches);
    Race(contestants, batches);
    Report(workload, contestants, batches);
  }
  if (wanted.empty()) ReportLoading();
  for (const char* name : {"lua54", "luajit"}) {
    if (OpenModule(fmt::format("{}/libkvl_bench_{}.so", programs, name)) == nullptr) {
      fmt::print("Without {}: not installed when this was built\n", name);
    }
  }
  return 0;
}

}  // namespace
}  // namespace kvl::bench

int main(int argc, char** argv) try {
  const std::span<char*> arguments(argv, static_cast<size_t>(argc));
  return kvl::bench::Main(argv[0], arguments.subspan(1));
} catch (const std::exception& fault) {
  fmt::print(stderr, "kvl_engine_bench: {}\n", fault.what());
  return 1;
}
