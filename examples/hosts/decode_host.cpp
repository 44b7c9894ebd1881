// A host of one decode session: it answers the script's SYNC and prints what the session tells.
//
//     decode_host SCRIPT
//
// Ends with 0 at Ctrl-C; with 1 if there is no session, or when its line is gone.
#include <kvl/control/DecodeCtrl.h>
#include <kvl/control/sync_notify.h>
#include <kvl/platform/message_loop.h>
#include <kvl/platform/text_encoding.h>

#include <cstdio>
#include <string>

namespace {

// The window that holds the control, and so hears of its SYNC.
class CHostWindow : public kvl::CWnd {
 public:
  kvl::LRESULT WindowProc(uint32_t nMessage, kvl::WPARAM wParam, kvl::LPARAM lParam) override {
    if (nMessage != kvl::kWmNotify) return CWnd::WindowProc(nMessage, wParam, lParam);
    auto* const sync = reinterpret_cast<kvl::CSyncNotify*>(lParam);
    if (sync->m_header.code != kvl::kSyncCode) return 0;
    std::printf("sync %d\n", sync->m_nValue);  // the host's own work: at most 1000 ms
    sync->m_bPending = 0;                      // and the script goes on
    return 0;
  }
};

class CHost : public kvl::CSessionObserver {
 public:
  int Run(const char* szScript) {
    CHostWindow window;
    kvl::CDecodeCtrl control;  // goes before its window does
    const kvl::RECT place{0, 0, 1, 1};
    if (!window.Create(0, place, nullptr, 0) || !control.Create(&window, place, 1)) return 1;
    control.SetObserver(this);
    control.SetScriptName(szScript);
    if (control.VerifyScript() != 0) return PrintFaults(control.GetSyntax());
    if (control.Run() != 0) return 1;
    const kvl::CInterruptWatch interrupts([this] { m_loop.Quit(); });
    m_loop.Run();    // serves the line and the windows of this thread
    control.Stop();  // within milliseconds, whatever the script is doing
    return m_result;
  }

 private:
  static int PrintFaults(const kvl::CKVLSyntax* syntax) {
    for (size_t i = 0; syntax != nullptr && i < syntax->GetErrorCount(); ++i) {
      std::printf("%s\n", kvl::Utf8FromCp949(syntax->GetError(i).m_strText).c_str());
    }
    return 1;
  }

  // On this thread.
  void OnStatus(kvl::ESessionStatus status, std::string_view text) override {
    constexpr const char* kNames[] = {"opened", "connecting", "connected", "failed",
                                      "closed", "lost",       "stopped"};
    std::printf("%s %s\n", kNames[static_cast<int>(status)], std::string(text).c_str());
    const bool isGone = status == kvl::ESessionStatus::ConnectFailed ||
                        status == kvl::ESessionStatus::Closed ||
                        status == kvl::ESessionStatus::Lost;
    if (!isGone) return;
    m_result = 1;
    m_loop.Quit();
  }

  // On the worker, which must not be held up: this thread prints the message.
  void OnPrint(std::string_view message) override {
    m_loop.Post([text = kvl::Utf8FromCp949(message)] { std::printf("print %s\n", text.c_str()); });
  }

  kvl::CMessageLoop m_loop = kvl::CMessageLoop::Current();
  int m_result = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: decode_host SCRIPT\n");
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // whoever reads along sees each line at once
  CHost host;
  return host.Run(argv[1]);
}
