// `kvl run`: verifies a script, opens its line and decodes until the user ends it.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <random>

#include "cli/background_writer.h"
#include "cli/capture.h"
#include "cli/commands.h"
#include "cli/diagnostics.h"
#include "cli/output.h"
#include "cli/script_file.h"
#include "cli/table_advice.h"
#include "control/DecodeCtrl.h"
#include "control/sync_notify.h"
#include "platform/clock.h"
#include "platform/last_error.h"
#include "platform/message_loop.h"
#include "platform/serial.h"
#include "platform/text_encoding.h"

namespace kvl::cli {
namespace {

struct CRunOptions {
  std::string m_script;
  std::vector<std::string> m_ports;  // NAME=DEVICE
  std::string m_capture;
  bool m_bTrace = false;
  bool m_bReconnect = true;
  bool m_bJson = false;
};

// How long to wait before the next try to open a lost line: twice as long each time, up to 30 s,
// and a random part of it, so that a hundred gateways don't come back in the same moment.
class CBackoff {
 public:
  int32_t NextMs() {
    const int32_t base = m_nBaseMs;
    m_nBaseMs = std::min(m_nBaseMs * 2, kMaxMs);
    return std::uniform_int_distribution(base / 2, base)(m_random);
  }
  void Reset() { m_nBaseMs = kFirstMs; }

 private:
  static constexpr int32_t kFirstMs = 500;
  static constexpr int32_t kMaxMs = 30000;
  int32_t m_nBaseMs = kFirstMs;
  std::minstd_rand m_random{std::random_device{}()};
};

// The window that a session's control stands in. Answers SYNC.
class CFrame : public CWnd {
 public:
  explicit CFrame(std::function<void(int32_t)> onSync) : m_onSync(std::move(onSync)) {}

  LRESULT WindowProc(uint32_t nMessage, WPARAM wParam, LPARAM lParam) override {
    auto* const record = reinterpret_cast<CSyncNotify*>(lParam);
    if (nMessage != kWmNotify || record->m_header.code != kSyncCode) {
      return CWnd::WindowProc(nMessage, wParam, lParam);
    }
    m_onSync(record->m_nValue);
    record->m_bPending = 0;
    return 0;
  }

 private:
  const std::function<void(int32_t)> m_onSync;
};

// The host of one session. Whatever is to be written while it runs goes through writers of their
// own, so that a terminal, a pipe or a disk that takes nothing holds up neither the decoding nor
// its end.
class CRunHost : private CDecodeCtrl, private CSessionObserver {
 public:
  CRunHost(const CRunOptions& options, const CContext& context)
      : m_options(options),
        m_painter(context.m_color, EPrintStream::kOutput),
        m_errors(context.m_color, EPrintStream::kError),
        m_loop(CMessageLoop::Current()) {}

  // The members that the worker reports to are gone before the base class could stop it.
  ~CRunHost() override { Stop(); }

  // `script` is the text of the file that the options name.
  int Work(std::string_view script) {
    if (m_frame.Create(0, RECT{0, 0, 1, 1}, nullptr, 0) == 0 ||
        Create(&m_frame, RECT{0, 0, 1, 1}, 1) == 0) {
      throw CCommandError(kFailed, "the system gives no message loop");
    }
    SetObserver(this);
    SetScriptName(m_options.m_script.c_str());
    if (VerifyScript() != 0) return ReportFaults();
    if (GetCom().nMedia != kMediaSerial && GetCom().nMedia != kMediaTcp) {
      throw CCommandError(kFailed,
                          "the script names no line that can be opened: it needs OPEN "
                          "MEDIA RS232C or OPEN MEDIA TCP");
    }
    Warn(AdviseOnTable(GetTableName(), script));
    OpenCapture();
    const CInterruptWatch interrupts([this] { m_loop.Quit(); });
    m_nStart = GetTickCount();
    if (CDecodeCtrl::Run() != 0) LineFailed(WhyNotOpened());
    TellTable();
    m_loop.Run();
    Stop();
    Summarise();
    EndWriting();
    return m_exit;
  }

 private:
  void OpenCapture() {
    if (m_options.m_capture.empty()) return;
    std::error_code none;
    if (std::filesystem::equivalent(m_options.m_capture, m_options.m_script, none)) {
      throw CCommandError(kUsage,
                          fmt::format("'{}' is the script: the capture needs a file of its own",
                                      m_options.m_capture));
    }
    if (m_options.m_capture == "-") {
      throw CCommandError(kUsage, "--capture needs a file; '-' is none");
    }
    m_capture.emplace(m_options.m_capture, [this] {
      Warn(fmt::format("'{}' can't be written: the capture ends here", m_options.m_capture));
    });
  }

  int ReportFaults() const {
    if (GetSyntax() == nullptr) throw CCommandError(kFailed, "there is no memory for the script");
    PrintFaults(m_options.m_script, *GetSyntax(), LanguageOf(""), m_errors);
    return kFailed;
  }

  void Warn(const std::string& text) {
    if (!text.empty()) TellOnErrors(EColor::Cyan, "warning:", text);
  }

  void TellOnErrors(EColor color, const char* kind, std::string_view text) {
    m_errorWriter.Write(fmt::format("kvl: {} {}\n", m_errors.Paint(color, kind), text),
                        CBackgroundWriter::EText::kLast);
  }

  void TellTable() {
    const std::string name = Utf8FromCp949(GetTableName());
    if (name.empty() || GetEngine() == nullptr) return;
    if (GetEngine()->HasTable()) {
      Say("table", {{"name", name}}, PrintableUtf8(name), EColor::Bold);
    } else {
      Warn(fmt::format("table '{}' can't be opened, so that PUT and GET have no effect", name));
    }
  }

  // UTF-8, as all texts from here on.
  std::string DeviceText() const {
    const std::string port = GetCom().szPort;
    const std::string device = FindSerialPort(port);
    const std::string name = Utf8FromCp949(port);
    return device.empty() || device == port ? name : fmt::format("{} ({})", name, device);
  }

  std::string WhyNotOpened() const {
    std::string_view reason = ErrorText(GetPortError());
    if (GetPortError() == kErrorNotFound) {
      reason = "there is no such port; see kvl ports, or map it with --port";
    } else if (GetPortError() == kErrorAccessDenied) {
      reason = "another program uses it, or you are not in the group that may (often dialout)";
    }
    return fmt::format("{} can't be opened: {}", DeviceText(), reason);
  }

  void OnStatus(ESessionStatus status, std::string_view told) override {
    const std::string text = Utf8FromCp949(told);  // a host's name comes from the script
    switch (status) {
      case ESessionStatus::Opened:
        LineIsUp("opened", DeviceText());
        break;
      case ESessionStatus::Connecting:
        if (!m_bReconnecting) State("connecting", text);
        break;
      case ESessionStatus::Connected:
        LineIsUp("connected", text);
        break;
      case ESessionStatus::ConnectFailed:
        LineFailed(text);
        break;
      case ESessionStatus::Closed:
        State("closed by peer", text);
        LineFailed({});
        break;
      case ESessionStatus::Lost:
        State("lost", DeviceText());
        LineFailed({});
        break;
      case ESessionStatus::Stopped:
        State("stopped", {});
        break;
    }
  }

  void LineIsUp(const char* state, std::string_view text) {
    m_bReconnecting = false;
    m_nUpSince = GetTickCount();
    m_nReceivedBefore = m_nReceived;
    State(state, text);
  }

  // One line for a change of state, and none for each further try.
  void LineFailed(std::string_view reason) {
    if (!m_options.m_bReconnect) {
      if (!reason.empty()) State("failed", reason);
      m_exit = kFailed;
      m_nLost = GetTickCount();
      m_retry.Start(kLastPassMs, [this] { QuitWhenDecoded(); });
      return;
    }
    // A line that takes every call and hangs up at once must not be called twice a second for ever.
    const bool hasServed = m_nReceived != m_nReceivedBefore ||
                           (m_nUpSince != 0 && GetTickCount() - m_nUpSince >= kSteadyMs);
    if (!m_bReconnecting && hasServed) m_backoff.Reset();
    if (!m_bReconnecting) State("reconnecting", reason);
    m_bReconnecting = true;
    m_retry.Start(m_backoff.NextMs(), [this] { Retry(); });
  }

  // What the line brought before it went is decoded to its end, unless a pass has none.
  void QuitWhenDecoded() {
    if (HasDecodedAll() || GetTickCount() - m_nLost >= kLongestDecodingMs) return m_loop.Quit();
    m_retry.Start(kLastPassMs, [this] { QuitWhenDecoded(); });
  }

  void Retry() {
    if (GetCom().nMedia == kMediaTcp) {
      OnRecreateSocket();
    } else if (OnReopenPort() != 0) {
      LineFailed({});
    }
  }

  void OnReceived(std::span<const uint8_t> bytes) override {
    m_nReceived += bytes.size();
    if (m_capture) m_capture->Write((GetTickCount() - m_nStart) * 1000, bytes);
    if (m_options.m_bTrace) Trace("received", bytes);
  }

  void OnSent(std::span<const uint8_t> bytes, int32_t /*interval*/) override {
    m_nOut += bytes.size();
    if (m_options.m_bTrace) Trace("sent", bytes);
  }

  void OnUnsent(std::span<const uint8_t> bytes) override {
    m_nUnsent += bytes.size();
    if (m_options.m_bTrace) Trace("unsent", bytes);
  }

  void OnPrint(std::string_view message) override {
    Say("print", {{"hex", ToHex(message)}}, Printable(message), EColor::Plain);
  }

  void Trace(const char* event, std::span<const uint8_t> bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    Say(event, {{"hex", ToHex(bytes)}}, fmt::format("{}  \"{}\"", ToHex(bytes), Printable(text)),
        EColor::Dim);
  }

  void State(const char* state, std::string_view text) {
    Say("state", {{"state", state}, {"text", text}},
        text.empty() ? std::string(state) : fmt::format("{}: {}", state, PrintableUtf8(text)),
        EColor::Bold);
  }

  // Any thread.
  void Say(const char* event, const CJson& fields, const std::string& text, EColor color) {
    const std::lock_guard lock(m_csSay);  // the lines stand in the order of their times
    const int64_t now = GetWallClock();
    if (m_options.m_bJson) {
      CJson object = {{"event", event}, {"time", static_cast<double>(now) / 1e6}};
      object.update(fields);
      m_writer.Write(JsonLine(object) + '\n');
    } else {
      m_writer.Write(fmt::format("{}  {:<8}  {}\n", m_painter.Paint(EColor::Dim, TimeText(now)),
                                 event, m_painter.Paint(color, text)));
    }
  }

  void PrintLast(const std::string& line) {
    m_writer.Write(line + '\n', CBackgroundWriter::EText::kLast);
  }

  void Summarise() {
    const uint64_t unsaid = m_writer.LeftOut();
    const uint64_t sent = m_nOut - m_nUnsent;
    if (m_options.m_bJson) {
      PrintLast(JsonLine({{"event", "summary"},
                          {"received", m_nReceived.load()},
                          {"sent", sent},
                          {"unsent", m_nUnsent.load()},
                          {"dropped", GetDroppedBytes()},
                          {"undecoded", GetWaitingBytes()},
                          {"unsaid", unsaid}}));
      return;
    }
    PrintLast(fmt::format("{} bytes received, {} sent, {} dropped because the script was too slow",
                          m_nReceived.load(), sent, GetDroppedBytes()));
    const auto tell = [this](uint64_t count, std::string_view what) {
      if (count > 0) PrintLast(fmt::format("{} {}", count, what));
    };
    tell(m_nUnsent, "bytes were not sent: the line was gone or took no more");
    tell(static_cast<uint64_t>(GetWaitingBytes()), "bytes had not been decoded when it ended");
    tell(unsaid, "lines were not printed: too many at once");
  }

  // Fails if something is missing of what was to be kept or shown. Nothing is waited for that
  // nobody takes.
  void EndWriting() {
    const int64_t start = GetTickCount();
    if (!m_writer.End(start)) {
      Fail("the last lines were not printed: nobody took them in time");
    } else if (m_writer.Failed() > 0) {
      Fail(fmt::format("{} lines were not printed: {}", m_writer.Failed(), kOutputFails));
    }
    if (m_capture && !m_capture->End(start)) {
      Fail(fmt::format("'{}' could not be written in full", m_options.m_capture));
    }
    m_errorWriter.End(start);
  }

  void Fail(std::string_view message) {
    m_exit = kFailed;
    TellOnErrors(EColor::Red, "error:", message);
  }

  static constexpr int32_t kLastPassMs = 200;
  static constexpr int32_t kLongestDecodingMs = 30000;
  static constexpr int32_t kSteadyMs = 10000;

  const CRunOptions& m_options;
  const CPainter m_painter;
  const CPainter m_errors;
  CMessageLoop m_loop;
  CFrame m_frame{[this](int32_t value) {
    Say("sync", {{"value", value}}, std::to_string(value), EColor::Plain);
  }};
  CTimer m_retry;
  CBackoff m_backoff;
  bool m_bReconnecting = false;
  int64_t m_nUpSince = 0;
  uint64_t m_nReceivedBefore = 0;  // when the line came up last
  int m_exit = kDone;
  int64_t m_nStart = 0;
  int64_t m_nLost = 0;
  std::atomic<uint64_t> m_nReceived{0};
  std::atomic<uint64_t> m_nOut{0};  // what the script's OUTs were to send
  std::atomic<uint64_t> m_nUnsent{0};
  std::mutex m_csSay;
  // Each tells of its failure through the ones ahead of it.
  CBackgroundWriter m_errorWriter{COutputFile(EPrintStream::kError),
                                  CBackgroundWriter::EGaps::kAllowed, nullptr};
  CBackgroundWriter m_writer{COutputFile(EPrintStream::kOutput), CBackgroundWriter::EGaps::kAllowed,
                             [this] { Warn(fmt::format("{}; the work goes on", kOutputFails)); }};
  std::optional<CCaptureFile> m_capture;
};

void MapPorts(const std::vector<std::string>& ports) {
  for (const std::string& port : ports) {
    const size_t equals = port.find('=');
    if (equals == port.npos || equals == 0 || equals + 1 == port.size()) {
      throw CCommandError(kUsage, fmt::format("--port '{}' is no mapping: write NAME=DEVICE, like "
                                              "COM3=/dev/ttyUSB0",
                                              port));
    }
    MapSerialPort(port.substr(0, equals), port.substr(equals + 1));
  }
}

int RunSession(const CRunOptions& options, const CContext& context) {
  // A file that can't be read is the command line's fault.
  const std::string script = ReadScriptFile(options.m_script);
  SurviveFailingWrites();
  MapPorts(options.m_ports);
  CRunHost host(options, context);
  return host.Work(script);
}

}  // namespace

void AddRunCommand(CLI::App& app, CContext& context) {
  auto options = std::make_shared<CRunOptions>();
  CLI::App* command =
      app.add_subcommand("run", "Verify a script, open its line, decode until Ctrl-C");
  command->add_option("SCRIPT", options->m_script, "The script")->required();
  command
      ->add_option("--port", options->m_ports,
                   "The device that a port name of the script stands for; may be repeated")
      ->type_name("NAME=DEVICE")
      ->expected(1)
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  command->add_flag("--trace", options->m_bTrace, "Print every byte received and sent");
  command->add_option("--capture", options->m_capture, "Record what is received, with its times")
      ->type_name("FILE")
      ->check(NotEmpty());
  command->add_flag("--reconnect,!--no-reconnect", options->m_bReconnect,
                    "Open a lost line again (the default)");
  command->add_flag("--json", options->m_bJson, "Print JSON, one object a line");
  command->callback([options, &context] {
    context.m_work = [options, &context] { return RunSession(*options, context); };
  });
}

}  // namespace kvl::cli
