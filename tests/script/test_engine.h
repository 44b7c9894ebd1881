// An engine with a script in memory, and an owner that writes down what the script does.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <vector>

#include "script/KVL.h"

namespace kvl {

inline std::string Hex(std::span<const uint8_t> bytes) {
  std::string text;
  for (const uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

class CTestOwner : public CEngineOwner {
 public:
  void Pause(int32_t milliseconds, EPause reason) override {
    m_events.push_back(
        fmt::format("{} {}", reason == EPause::Sleep ? "sleep" : "pace", milliseconds));
  }
  void Sync(int32_t value) override {
    m_events.push_back(fmt::format("sync {}", value));
    if (value == kStopValue) m_bRun = 0;
  }
  void OnOut(std::span<const uint8_t> bytes, int32_t interval) override {
    m_events.push_back(fmt::format("out {} {}", Hex(bytes), interval));
  }
  void OnPrint(std::string_view message) override {
    m_events.push_back(fmt::format("print {}", message));
  }
  void OnPut(std::string_view tag, std::span<const uint8_t> payload) override {
    m_events.push_back(fmt::format("put {} {}", tag, Hex(payload)));
  }
  bool ListensToPuts() const override { return true; }

  static constexpr int32_t kStopValue = 99;  // SYNC with it lets the run flag fall
  std::vector<std::string> m_events;
};

class CTestEngine {
 public:
  // `table` is among those of this process.
  CTestEngine(std::string_view declarations, std::string_view main, const char* table = "")
      : m_engine(&m_owner, table, EAudience::kThisProcess) {
    const std::string text = fmt::format("{}\nBEGIN:\n{}\nEND:\n", declarations, main);
    m_engine._CompileMainScript1(m_engine.LoadText(text));
  }

  void Run(std::string_view batch = "") {
    m_engine.Begin(reinterpret_cast<const uint8_t*>(batch.data()),
                   static_cast<int32_t>(batch.size()));
  }

  // NAME as a number; 'NAME as the text in its bytes; xNAME as the hexadecimal of all its bytes.
  std::string Show(const std::string& what) {
    if (what == "flags") return fmt::format("{:#04x}", m_engine.GetCompare());
    const bool asText = what[0] == '\'';
    const bool asHex = what[0] == 'x';
    if (!asText && !asHex) return fmt::format("{}", m_engine.GetBufferValue(what.c_str()));
    const CVariableTable* variable = m_engine.FindVariableTable(what.c_str() + 1);
    if (variable == nullptr) return "undeclared";
    const auto bytes = BytesOf(*variable);
    const std::string all(bytes.begin(), bytes.end());
    return asHex ? Hex(bytes) : all.substr(0, all.find('\0'));
  }

  CTestOwner m_owner;
  CKVL m_engine;
};

// A script, the batch of its one pass, and what its variables hold afterwards: "N=4; 'BUF=abc".
struct CEngineRow {
  const char* declarations;
  const char* main;
  const char* batch;
  const char* expected;
};

// Runs the row and returns what is there, in the form of row.expected.
inline std::string Outcome(const CEngineRow& row) {
  CTestEngine test(row.declarations, row.main);
  test.Run(row.batch);
  std::string outcome;
  std::string_view rest = row.expected;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find("; "), rest.size());
    const std::string what(rest.substr(0, rest.find('=')));
    outcome += (outcome.empty() ? "" : "; ") + what + "=" + test.Show(what);
    rest.remove_prefix(std::min(rest.size(), end + 2));
  }
  return outcome;
}

}  // namespace kvl
