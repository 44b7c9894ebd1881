// `kvl fmt`: scripts in their one canonical layout.
#include <fmt/format.h>

#include <iostream>
#include <iterator>

#include "cli/commands.h"
#include "cli/files.h"
#include "cli/output.h"
#include "cli/script_file.h"
#include "script/layout.h"

namespace kvl::cli {
namespace {

struct CFmtOptions {
  std::vector<std::string> m_scripts;
  bool m_bWrite = false;
  bool m_bCheck = false;
  bool m_bJson = false;
};

struct CLaidOut {
  std::string m_path;
  CLayout m_layout;
  bool m_bChanged = false;
};

CLaidOut LayOut(const std::string& path) {
  const std::string text = path == "-" ? ReadScriptInput() : ReadScriptFile(path);
  CLaidOut script{path, LayOutScript(text)};
  script.m_bChanged = script.m_layout.m_text != text;
  return script;
}

void Warn(const CLaidOut& script, const CPainter& painter) {
  const std::string warning = painter.Paint(EColor::Bold, "warning:");
  for (const CKeptLine& line : script.m_layout.m_kept) {
    fmt::print(stderr, "{}:{}: {} left as it is: the line {}\n", script.m_path, line.m_nLine,
               warning, line.m_pszReason);
  }
}

CJson ToJson(const CLaidOut& script) {
  CJson kept = CJson::array();
  for (const CKeptLine& line : script.m_layout.m_kept) {
    kept.push_back({{"line", line.m_nLine}, {"reason", line.m_pszReason}});
  }
  return {{"script", script.m_path}, {"changed", script.m_bChanged}, {"kept", kept}};
}

int Fmt(const CFmtOptions& options, const CContext& context) {
  const bool names = options.m_bWrite || options.m_bCheck;
  if (!names && (options.m_scripts.size() > 1 || options.m_bJson)) {
    throw CCommandError(kUsage, "several scripts, or --json, need --write or --check");
  }
  // All are read before one is written, so that a wrong name changes nothing.
  std::vector<CLaidOut> scripts;
  for (const std::string& path : options.m_scripts) {
    if (path == "-" && options.m_bWrite) {
      throw CCommandError(kUsage, "--write needs files, not standard input");
    }
    scripts.push_back(LayOut(path));
  }
  const CPainter painter(context.m_color, EPrintStream::kError);
  bool changed = false;
  for (const CLaidOut& script : scripts) {
    changed = changed || script.m_bChanged;
    if (options.m_bWrite && script.m_bChanged) ReplaceFile(script.m_path, script.m_layout.m_text);
    if (options.m_bJson) {
      PrintJson(ToJson(script));
      continue;
    }
    Warn(script, painter);
    if (!names) fmt::print("{}", script.m_layout.m_text);
    if (names && script.m_bChanged) fmt::print("{}\n", script.m_path);
  }
  return options.m_bCheck && changed ? kFailed : kDone;
}

}  // namespace

void AddFmtCommand(CLI::App& app, CContext& context) {
  auto options = std::make_shared<CFmtOptions>();
  CLI::App* command = app.add_subcommand("fmt", "Lay out scripts in the one canonical layout");
  command->footer(
      "The layout never changes what a script does. Comments and quoted texts keep their bytes; a "
      "line that can't be laid out safely stays as it is, with a warning. --write and --check "
      "print the names of the scripts whose layout differs.");
  command->add_option("SCRIPT", options->m_scripts, "The scripts, - for standard input")
      ->required()
      ->type_name("");
  CLI::Option* write =
      command->add_flag("-w,--write", options->m_bWrite, "Write the scripts in place");
  command->add_flag("--check", options->m_bCheck, "Write nothing; exit with 1 if a layout differs")
      ->excludes(write);
  command->add_flag("--json", options->m_bJson, "Print one JSON object a script");
  command->callback([options, &context] {
    context.m_work = [options, &context] { return Fmt(*options, context); };
  });
}

}  // namespace kvl::cli
