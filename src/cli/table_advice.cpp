#include "cli/table_advice.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "cli/output.h"
#include "platform/last_error.h"
#include "script/KVL.h"
#include "store/TableOwner.h"

namespace kvl::cli {
namespace {

// For an engine that only reads a script.
class CNobody : public CEngineOwner {
 public:
  void Pause(int32_t /*milliseconds*/, EPause /*reason*/) override {}
  void Sync(int32_t /*value*/) override {}
};

struct CTagUse {
  bool m_bAny = false;               // whether there is a PUT or a GET
  std::vector<std::string> m_names;  // those that EQU and ASSIGN name, each once
};

CTagUse TagsOf(std::string_view script) {
  CNobody nobody;
  CKVL engine(&nobody, "");
  engine._CompileMainScript1(engine.LoadText(script));
  CTagUse use;
  for (const CCommandTable& command : engine.Commands()) {
    if (command.m_nCommand != kPUT && command.m_nCommand != kGET) continue;
    use.m_bAny = true;
    const char* operand = command.m_szOperand[command.m_nCommand == kPUT ? 0 : 1];
    const CVariableTable* variable = engine.FindVariableTable(operand);
    if (variable == nullptr || (variable->m_nKind != kEqu && variable->m_nKind != kAssign))
      continue;
    const auto bytes = BytesOf(*variable);
    std::string name(bytes.begin(), std::ranges::find(bytes, uint8_t{0}));
    if (std::ranges::find(use.m_names, name) == use.m_names.end()) {
      use.m_names.push_back(std::move(name));
    }
  }
  return use;
}

std::string AdviseOnTags(const std::string& shown, CTableOwner& owner, const CTagUse& use) {
  std::string missing;
  for (const std::string& name : use.m_names) {
    CTagImage tag;
    if (!owner.Get(name, tag)) missing += (missing.empty() ? "" : ", ") + Printable(name);
  }
  if (missing.empty()) return {};
  std::vector<CTagImage> tags;
  owner.List(tags);
  return fmt::format(
      "table '{}' has no tag {}, so that PUT and GET of it have no effect; kvl "
      "table create {}{} --tags FILE lays it",
      shown, missing, ShellWord(shown), tags.empty() ? "" : " --replace");
}

}  // namespace

std::string AdviseOnTable(const std::string& table, std::string_view script) {
  const CTagUse use = TagsOf(script);
  if (!use.m_bAny) return {};
  if (table.empty()) {
    return "the script names no table, so that its PUT and GET have no effect; it needs a line "
           "TABLE_NAME \"NAME\" ahead of BEGIN:";
  }
  const std::string shown = Printable(table);
  CTableOwner owner(table);
  if (owner.IsOpen()) return AdviseOnTags(shown, owner, use);
  if (owner.LastError() == kErrorNotFound) {
    return fmt::format(
        "there is no table '{}' yet, so that PUT and GET have no effect; kvl table "
        "create {} --tags FILE lays it, also while the script runs",
        shown, ShellWord(shown));
  }
  return fmt::format("table '{}' can't be used, so that PUT and GET have no effect: {}", shown,
                     ErrorText(owner.LastError()));
}

}  // namespace kvl::cli
