// `kvl new`: a script to start from.
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "cli/commands.h"
#include "cli/files.h"

namespace kvl::cli {
namespace {

struct CNewOptions {
  std::string m_path;
  bool m_bTcp = false;
  bool m_bForce = false;
};

constexpr char kSerial[] = R"(; The line. `kvl ports` lists the serial ports of this machine.
OPEN MEDIA      RS232C
OPEN PORT       COM1
OPEN BAUD_RATE  9600
OPEN DATA_BIT   8     ; 7 or 8
OPEN PARITY_BIT NONE  ; NONE, ODD or EVEN
OPEN STOP_BIT   1     ; 1, 1.5 or 2
)";

constexpr char kTcp[] = R"(; The line: the device listens here.
OPEN MEDIA TCP
OPEN IP    127.0.0.1
OPEN PORT  5000
)";

// {0} the file, {1} the table, {2} the lines that open the line.
constexpr char kScript[] = R"(; {0} turns the lines of a device, a number each, into the tag VALUE.
;
;   kvl check {0}                                   finds the faults in it
;   kvl replay {0} --batch '31322e350d0a372e350d0a' runs it over bytes, without a device
;   kvl run {0}                                     decodes the line until Ctrl-C

{2}
; The table in which other programs find the tags. Lay it once, from a file with the one line
; VALUE float:   kvl table create {1} --tags FILE
TABLE_NAME "{1}"
EQU TAG_VALUE "VALUE"

; $ is a byte, % an integer, # a number with a fraction; the suffix is not part of the name.
VAR VALUE# 0

VAR RXLEN% 0
VAR LEN%   0     ; bytes in ACC
VAR EOL%   0     ; where the line in ACC ends
DIM RX$    8192  ; what has just arrived; the longest batch has 8191 bytes
DIM ACC$   8448  ; what has arrived and is not decoded yet
DIM LINE$  256

; From here on the script runs once for each batch of bytes, and often without any.
BEGIN:
    IN RX, RXLEN
    CMP RXLEN, 0
    JPE END
    ; A batch is no message: it may hold a part of one, or several. So it is added to the rest of
    ; those before, and whole lines are taken off the front.
    CAT ACC, RX, LEN

NEXT_LINE:
    FIND ACC, "<0A>", EOL
    CMP EOL, 0
    JPL PART  ; no line end in it
    COPY LINE, ACC, EOL

    ; Decode the line here.
    CONV VALUE, LINE, 16
    PUT TAG_VALUE, VALUE
    PRINT LINE  ; shows in kvl replay
    ; OUT "OK<0D><0A>" would answer on the line

    INC EOL
    SUB LEN, EOL
    COPY ACC, ACC[EOL], LEN
    JP NEXT_LINE

PART:
    CMP LEN, 255
    JPLE END
    CLEAR ACC  ; a line is never that long: noise
END:
)";

// A name for the table: the script's in capitals, if letters and digits make it up.
std::string TableNameOf(const std::filesystem::path& script) {
  std::string name;
  for (const char c : script.stem().string()) {
    if (c >= 'a' && c <= 'z') {
      name += static_cast<char>(c - 'a' + 'A');
    } else if ((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
      name += c;
    } else {
      name += '_';
    }
  }
  constexpr size_t kMaxName = 31;
  const bool plain = std::ranges::any_of(name, [](char c) { return c != '_'; });
  return plain && name.size() <= kMaxName ? name : "DEVICE";
}

// The file's name as a comment may hold it.
std::string FileNameOf(const std::filesystem::path& script) {
  const std::string name = script.filename().string();
  const auto isPlain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("._-").find(c) != std::string_view::npos;
  };
  return name.size() <= 80 && std::ranges::all_of(name, isPlain) ? name : "SCRIPT";
}

int New(const CNewOptions& options) {
  const std::string text =
      fmt::format(kScript, FileNameOf(options.m_path), TableNameOf(options.m_path),
                  options.m_bTcp ? kTcp : kSerial);
  if (options.m_bForce) {
    ReplaceFile(options.m_path, text);
  } else if (std::filesystem::exists(options.m_path)) {
    throw CCommandError(
        kFailed, fmt::format("'{}' is there already; --force overwrites it", options.m_path));
  } else {
    CreateFile(options.m_path, text);
  }
  return kDone;
}

}  // namespace

void AddNewCommand(CLI::App& app, CContext& context) {
  auto options = std::make_shared<CNewOptions>();
  CLI::App* command = app.add_subcommand("new", "Write a commented script to start from");
  command->add_option("FILE", options->m_path, "The script to write")->required()->type_name("");
  CLI::Option* tcp =
      command->add_flag("--tcp", options->m_bTcp, "A script for a device with a TCP address");
  command->add_flag("--serial")
      ->description("A script for a device on a serial port; the default")
      ->excludes(tcp);
  command->add_flag("--force", options->m_bForce, "Overwrite FILE");
  command->callback([options, &context] { context.m_work = [options] { return New(*options); }; });
}

}  // namespace kvl::cli
