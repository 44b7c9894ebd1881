// An owner for which no time passes and nobody listens; it keeps what went to the line.
#pragma once

#include <string>

#include "script/engine_owner.h"

namespace kvl {

class CQuietOwner : public CEngineOwner {
 public:
  void Pause(int32_t /*milliseconds*/, EPause /*reason*/) override {}
  void Sync(int32_t /*value*/) override {}
  void OnOut(std::span<const uint8_t> bytes, int32_t /*interval*/) override {
    m_strSent.assign(bytes.begin(), bytes.end());
  }
  std::string m_strSent;
};

}  // namespace kvl
