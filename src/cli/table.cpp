// `kvl table`: lays a table of tags, looks into it, changes it, follows it, drops it.
#include <fmt/format.h>

#include <algorithm>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/table_watch.h"
#include "cli/tags.h"
#include "platform/last_error.h"
#include "platform/text_encoding.h"

namespace kvl::cli {
namespace {

struct CTableOptions {
  std::string m_table;
  std::string m_tag;
  std::string m_value;
  std::string m_file;
  bool m_bReplace = false;
  std::vector<std::string> m_names;
  bool m_bJson = false;
};

CTableOwner Open(const CTableOptions& options) {
  CTableOwner owner(NameFromUser(options.m_table));
  if (!owner.IsOpen()) RefuseTable(options.m_table, owner.LastError());
  return owner;
}

int Create(const CTableOptions& options, const CContext& context) {
  const std::string name = NameFromUser(options.m_table);
  const CTagSet tags = ReadTagFile(options.m_file, context);
  CTableOwner owner(name);
  if (!owner.Create(tags, options.m_bReplace)) {
    if (owner.LastError() == kErrorAlreadyExists) {
      throw CCommandError(kFailed,
                          fmt::format("table '{}' holds records already; kvl table show {} lists "
                                      "its tags, --replace drops them and lays these instead",
                                      options.m_table, ShellWord(options.m_table)));
    }
    // A section that is too small stays so until it is made anew.
    const bool anew = owner.LastError() == kErrorDamaged ||
                      (owner.IsOpen() && owner.LastError() == kErrorDiskFull);
    throw CCommandError(
        kFailed,
        fmt::format("table '{}' can't be laid: {}{}", options.m_table, ErrorText(owner.LastError()),
                    anew ? AdviceToRemove(options.m_table) : std::string()));
  }
  const size_t count = tags.Tags().size();
  if (options.m_bJson) {
    PrintJson({{"table", options.m_table}, {"tags", count}});
  } else {
    fmt::print("table {} laid with {} tag{}\n", options.m_table, count, count == 1 ? "" : "s");
  }
  return kDone;
}

void PrintTags(const std::vector<CTagImage>& tags, const CPainter& painter) {
  size_t width = WidthOf("TAG");
  for (const CTagImage& tag : tags) width = std::max(width, WidthOf(Printable(tag.m_strName)));
  const std::string head = fmt::format("{}  {:<6} {:>5}  VALUE", Fit("TAG", width), "TYPE", "SIZE");
  fmt::print("{}\n", painter.Paint(EColor::Dim, head));
  for (const CTagImage& tag : tags) {
    const std::string name = Fit(Printable(tag.m_strName), width);
    fmt::print("{}  {:<6} {:>5}  {}\n", painter.Paint(EColor::Bold, name), TypeText(tag),
               tag.m_payload.size(), ShownValue(tag));
  }
}

int Show(const CTableOptions& options, const CContext& context) {
  CTableOwner owner = Open(options);
  std::vector<CTagImage> tags;
  const bool whole = owner.List(tags);
  if (options.m_bJson) {
    for (const CTagImage& tag : tags) PrintJson(TagJson(tag));
  } else if (!tags.empty()) {
    PrintTags(tags, CPainter(context.m_color, EPrintStream::kOutput));
  } else if (whole) {
    fmt::print(stderr, "table {} holds no tags; kvl table create {} --tags FILE lays some\n",
               options.m_table, ShellWord(options.m_table));
  }
  if (whole) return kDone;
  if (owner.LastError() != kErrorDamaged) RefuseTable(options.m_table, owner.LastError());
  throw CCommandError(kFailed,
                      fmt::format("table '{}' is damaged behind its first {} tags; kvl "
                                  "table create {} --replace --tags FILE lays it anew",
                                  options.m_table, tags.size(), ShellWord(options.m_table)));
}

int List(const CTableOptions& options) {
  const std::vector<std::string> tables = CTableOwner::Tables();
  for (const std::string& table : tables) {
    if (options.m_bJson) {
      PrintJson({{"table", Utf8FromCp949(table)}});
    } else {
      fmt::print("{}\n", Printable(table));
    }
  }
  if (tables.empty()) {
    fmt::print(stderr, "there are no tables; kvl table create NAME --tags FILE lays one\n");
  }
  return kDone;
}

int Get(const CTableOptions& options) {
  CTableOwner owner = Open(options);
  CTagImage tag;
  if (!owner.Get(NameFromUser(options.m_tag), tag)) {
    RefuseTag(options.m_table, options.m_tag, owner.LastError());
  }
  if (options.m_bJson) {
    PrintJson(TagJson(tag));
  } else {
    fmt::print("{}\n", ValueText(tag));
  }
  return kDone;
}

int Set(const CTableOptions& options) {
  CTableOwner owner = Open(options);
  const std::string name = NameFromUser(options.m_tag);
  std::string fault;
  if (!owner.Set(name, options.m_value, fault)) {
    if (owner.LastError() != kErrorBadParameter) {
      RefuseTag(options.m_table, options.m_tag, owner.LastError());
    }
    throw CCommandError(kFailed, fmt::format("tag '{}' is not set: {}", options.m_tag, fault));
  }
  CTagImage tag;
  if (options.m_bJson && owner.Get(name, tag)) PrintJson(TagJson(tag));
  return kDone;
}

int Remove(const CTableOptions& options) {
  const uint32_t dwCode = CTableOwner::Remove(NameFromUser(options.m_table));
  if (dwCode == kErrorNotFound) {
    throw CCommandError(kFailed, fmt::format("there is no table '{}'", options.m_table));
  }
  if (dwCode != kErrorNone) {
    throw CCommandError(kFailed, fmt::format("table '{}' can't be removed: {}", options.m_table,
                                             ErrorText(dwCode)));
  }
  if (options.m_bJson) PrintJson({{"table", options.m_table}, {"removed", true}});
  return kDone;
}

using COptions = std::shared_ptr<CTableOptions>;

// Adds `kvl table NAME`, which runs `work`.
CLI::App* AddTableCommand(CLI::App* table, const COptions& options, CContext& context,
                          const char* name, const char* help, std::function<int()> work) {
  CLI::App* command = table->add_subcommand(name, help);
  command->add_flag("--json", options->m_bJson, "Print JSON, one object a line");
  command->callback([work = std::move(work), &context] { context.m_work = work; });
  return command;
}

}  // namespace

void AddTableCommands(CLI::App& app, CContext& context) {
  auto options = std::make_shared<CTableOptions>();
  CLI::App* table = app.add_subcommand("table", "Lay, show, change, follow and drop live values");
  table->require_subcommand(1);
  const auto add = [&](const char* name, const char* help, std::function<int()> work) {
    CLI::App* command = AddTableCommand(table, options, context, name, help, std::move(work));
    command->add_option("TABLE", options->m_table, "The table's name")->required();
    return command;
  };
  AddTableCommand(table, options, context, "list", "Name the tables that are there",
                  [options] { return List(*options); });
  CLI::App* create = add("create", "Lay a table of the tags of a file",
                         [options, &context] { return Create(*options, context); });
  create->add_option("--tags", options->m_file, "The tag file: lines of NAME TYPE [SIZE]")
      ->type_name("FILE")
      ->required();
  create->add_flag("--replace", options->m_bReplace, "Drop the records that the table holds");
  create->footer(
      "TYPE is one of byte, int16, int32, float and text; text alone has a SIZE, in bytes. "
      "A # starts a comment.");
  add("show", "Show every tag with its type, size and value",
      [options, &context] { return Show(*options, context); });
  CLI::App* get = add("get", "Print the value of one tag", [options] { return Get(*options); });
  get->add_option("TAG", options->m_tag, "The tag's name")->required();
  CLI::App* set = add("set", "Change the value of one tag", [options] { return Set(*options); });
  set->add_option("TAG", options->m_tag, "The tag's name")->required();
  set->add_option("VALUE", options->m_value, "The new value; behind -- if it starts with a -")
      ->required();
  CLI::App* watch = add("watch", "Print each new value until Ctrl-C", [options, &context] {
    return WatchTable({options->m_table, options->m_names, options->m_bJson}, context);
  });
  watch->add_option("TAG", options->m_names, "The tags to follow; all if none is named");
  add("remove", "Drop a table with its named objects", [options] { return Remove(*options); });
}

}  // namespace kvl::cli
