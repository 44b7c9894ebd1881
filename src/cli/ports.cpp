// `kvl ports`: the serial ports of this machine.
#include <fmt/format.h>

#include "cli/commands.h"
#include "cli/output.h"
#include "platform/serial.h"

namespace kvl::cli {
namespace {

int ListPorts(bool json, const CContext& context) {
  const CPainter painter(context.m_color, EPrintStream::kOutput);
  const std::vector<SerialPortInfo> ports = ListSerialPorts();
  for (const SerialPortInfo& port : ports) {
    if (json) {
      PrintJson({{"name", port.strName},
                 {"device", port.strDevice},
                 {"alias", port.strAlias},
                 {"description", port.strDescription}});
      continue;
    }
    fmt::print("{}  {}{}\n", painter.Paint(EColor::Bold, fmt::format("{:<6}", port.strName)),
               port.strDevice, port.strDescription.empty() ? "" : "  " + port.strDescription);
    if (!port.strAlias.empty()) fmt::print("        {}\n", port.strAlias);
  }
  if (ports.empty() && !json) fmt::print(stderr, "this machine has no serial ports\n");
  return kDone;
}

}  // namespace

void AddPortsCommand(CLI::App& app, CContext& context) {
  auto json = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand("ports", "List the serial ports of this machine");
  command->add_flag("--json", *json, "Print JSON, one object a line");
  command->callback([json, &context] {
    context.m_work = [json, &context] { return ListPorts(*json, context); };
  });
}

}  // namespace kvl::cli
