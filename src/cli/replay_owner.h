// The owner of an engine that replays: it waits for nothing and reports everything.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli/output.h"
#include "script/KVL.h"
#include "script/engine_owner.h"
#include "store/TableOwner.h"

namespace kvl::cli {

// The events of a replay, in the order in which they happen; passes count from 1.
class CReplayReport {
 public:
  virtual ~CReplayReport() = default;
  virtual void Out(int64_t pass, std::span<const uint8_t> bytes, int32_t interval) = 0;
  virtual void Print(int64_t pass, std::string_view message) = 0;
  virtual void Put(int64_t pass, const CTagImage& tag) = 0;
  virtual void Sync(int64_t pass, int32_t value) = 0;
  virtual void Sleep(int64_t pass, int32_t milliseconds) = 0;
  virtual void Limit(int64_t pass) = 0;
  virtual void End(int64_t passes, int32_t result, const CKVL& engine,
                   const std::vector<CTagImage>& tags) = 0;
};

// JSON, each event handed to `sink`.
using CJsonSink = std::function<void(const CJson& event)>;
std::unique_ptr<CReplayReport> MakeJsonReport(CJsonSink sink);

// On standard output: JSON, one object a line; or lines for a person.
std::unique_ptr<CReplayReport> MakeReport(bool json, const std::string& color);

// `table` is the one that the engine writes to; it outlives the owner.
class CReplayOwner : public CEngineOwner {
 public:
  CReplayOwner(CReplayReport& report, CTableOwner& table) : m_report(report), m_table(table) {}

  void NextPass() { ++m_nPass; }
  int64_t Pass() const { return m_nPass; }

  void Pause(int32_t milliseconds, EPause reason) override {
    if (reason == EPause::Sleep) m_report.Sleep(m_nPass, milliseconds);
  }
  void Sync(int32_t value) override { m_report.Sync(m_nPass, value); }
  void OnOut(std::span<const uint8_t> bytes, int32_t interval) override {
    m_report.Out(m_nPass, bytes, interval);
  }
  void OnPrint(std::string_view message) override { m_report.Print(m_nPass, message); }
  void OnPut(std::string_view tag, std::span<const uint8_t> /*payload*/) override {
    CTagImage image;
    if (m_table.Get(tag, image)) m_report.Put(m_nPass, image);
  }
  bool ListensToPuts() const override { return true; }

 private:
  CReplayReport& m_report;
  CTableOwner& m_table;
  int64_t m_nPass = 0;
};

}  // namespace kvl::cli
