// `kvl check`: verifies scripts and prints every fault.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "cli/commands.h"
#include "cli/diagnostics.h"
#include "cli/output.h"
#include "cli/script_file.h"
#include "platform/file_watch.h"
#include "platform/message_loop.h"
#include "platform/text_encoding.h"
#include "verifier/KVLSyntax.h"

namespace kvl::cli {
namespace {

struct CCheckOptions {
  std::vector<std::string> m_scripts;
  std::string m_language;
  bool m_bJson = false;
  bool m_bWatch = false;
};

CJson CommToJson(const COMM& comm) {
  return {{"media", comm.nMedia},
          {"ip", Utf8FromCp949(comm.szIP)},
          {"port", Utf8FromCp949(comm.szPort)},
          {"baud_rate", comm.nBaudRate},
          {"data_bit", comm.nDataBit},
          {"parity_bit", comm.nParityBit},
          {"stop_bit", comm.nStopBit}};
}

CJson ToJson(const std::string& script, const CKVLSyntax& syntax) {
  CJson messages = CJson::array();
  for (const CFault& fault : syntax.Errors()) {
    messages.push_back({{"line", fault.m_nLine == kNoLine ? CJson() : CJson(fault.m_nLine)},
                        {"text", Utf8FromCp949(fault.m_strText)},
                        {"hex", ToHex(fault.m_strText)}});
  }
  COMM comm;
  syntax.GetCom(&comm);
  std::string tableName;
  syntax.GetTableName(tableName);
  return {{"script", script},
          {"ok", syntax.GetErrorCount() == 0},
          {"messages", messages},
          {"comm", CommToJson(comm)},
          {"table_name", Utf8FromCp949(tableName)}};
}

// The work of one call: scripts are checked one by one, and counted.
class CChecker {
 public:
  CChecker(const CCheckOptions& options, const CContext& context)
      : m_options(options),
        m_language(LanguageOf(options.m_language)),
        m_painter(context.m_color, EPrintStream::kError) {}

  void Check(const std::string& script) {
    CKVLSyntax syntax;
    const int32_t lines =
        script == "-" ? syntax.LoadText(ReadScriptInput()) : syntax.LoadScript(script.c_str());
    syntax._CompileMainScript1(lines);
    syntax._VerifyMainScript();
    ++m_nScripts;
    const bool unreadable =
        syntax.GetErrorCount() > 0 && syntax.GetError(0).m_message == EMessage::FileUnreadable;
    m_nUnreadable += unreadable ? 1 : 0;
    m_nFaulty += syntax.GetErrorCount() > 0 ? 1 : 0;
    m_nFaults += unreadable ? 1 : syntax.GetErrorCount();
    if (m_options.m_bJson) {
      PrintJson(ToJson(script, syntax));
    } else {
      PrintFaults(script, syntax, m_language, m_painter);
    }
  }

  // One line about all scripts since the last one.
  void Summarise() {
    if (!m_options.m_bJson) {
      const std::string scripts = Count(m_nScripts, "script");
      if (m_nFaults == 0) {
        const std::string clean = fmt::format("{} checked, no faults", scripts);
        fmt::print(stderr, "{}\n", m_painter.Paint(EColor::Green, clean));
      } else {
        fmt::print(stderr, "{} in {} of {}\n", Count(m_nFaults, "fault"), m_nFaulty, scripts);
      }
    }
    m_nScripts = m_nUnreadable = m_nFaulty = m_nFaults = 0;
  }

  EExit Exit() const {
    if (m_nUnreadable > 0) return kUsage;
    return m_nFaulty > 0 ? kFailed : kDone;
  }

 private:
  static std::string Count(size_t count, const char* word) {
    return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
  }

  const CCheckOptions& m_options;
  const ELanguage m_language;
  const CPainter m_painter;
  size_t m_nScripts = 0;
  size_t m_nUnreadable = 0;
  size_t m_nFaulty = 0;
  size_t m_nFaults = 0;
};

// Checks scripts again as they change, until the user ends it.
void Watch(const CCheckOptions& options, CChecker& checker) {
  CMessageLoop loop = CMessageLoop::Current();
  const CInterruptWatch interrupts([&] { loop.Quit(); });
  const CFileWatch watch(options.m_scripts, [&](const std::set<size_t>& changed) {
    for (const size_t i : changed) checker.Check(options.m_scripts[i]);
    checker.Summarise();
    if (std::fflush(stdout) != 0) loop.Quit();  // nobody reads any more; main says so
  });
  if (!watch.IsComplete()) {
    throw CCommandError(kFailed, "not every script can be watched: its folder must exist");
  }
  // What changed while the watch was being set up would be missed otherwise.
  for (const std::string& script : options.m_scripts) checker.Check(script);
  checker.Summarise();
  FlushOutput();
  loop.Run();
}

int Check(const CCheckOptions& options, const CContext& context) {
  CChecker checker(options, context);
  if (options.m_bWatch) {
    if (std::find(options.m_scripts.begin(), options.m_scripts.end(), "-") !=
        options.m_scripts.end()) {
      throw CCommandError(kUsage, "--watch needs files, not standard input");
    }
    Watch(options, checker);
    return kDone;
  }
  for (const std::string& script : options.m_scripts) checker.Check(script);
  const EExit exit = checker.Exit();
  checker.Summarise();
  return exit;
}

}  // namespace

void AddCheckCommand(CLI::App& app, CContext& context) {
  auto options = std::make_shared<CCheckOptions>();
  CLI::App* command = app.add_subcommand("check", "Verify scripts and print every fault");
  command->footer(
      "Faults go to standard error, as file, line and message. The exit code is 0 if all scripts "
      "are right, 1 if one has faults, 2 if one can't be read.");
  command->add_option("SCRIPT", options->m_scripts, "The scripts, - for standard input")
      ->required()
      ->type_name("");
  command->add_option("--lang", options->m_language, "Language of the messages: ko or en")
      ->check(CLI::IsMember({"ko", "en"}))
      ->type_name("LANG");
  command->add_flag("--watch", options->m_bWatch, "Check again whenever a script changes");
  command->add_flag("--json", options->m_bJson, "Print one JSON object a script");
  command->callback([options, &context] {
    context.m_work = [options, &context] { return Check(*options, context); };
  });
}

}  // namespace kvl::cli
