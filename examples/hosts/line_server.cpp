// A TCP server on CServerSock alone: it sends each client a line, and the next one for each line
// that comes back.
//
//     line_server [PORT]
//
// Prints its port, a free one unless PORT is given, and what happens. Ends at Ctrl-C.
#include <kvl/platform/message_loop.h>
#include <kvl/transport/Sockets.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// The window that the sockets tell of their events.
class CLineServer : public kvl::CWnd {
 public:
  bool Open(uint32_t nPort) {
    if (!Create(0, kvl::RECT{0, 0, 1, 1}, nullptr, 0)) return false;
    m_server.SetWnd(GetSafeHwnd());
    std::string address;
    if (!m_server.Create(nPort, kvl::kSockStream, kvl::kFdAll, "127.0.0.1") || !m_server.Listen() ||
        !m_server.GetSockName(address, nPort)) {
      return false;
    }
    std::printf("port %u\n", nPort);
    return true;
  }

  kvl::LRESULT WindowProc(uint32_t nMessage, kvl::WPARAM wParam, kvl::LPARAM lParam) override {
    const auto slot = static_cast<int32_t>(lParam & 0xFFFF);
    kvl::CClientSock* const client = m_server.GetClient(slot);
    switch (nMessage) {
      case kvl::kMsgSocketAccept:
        std::printf("accept %d\n", slot);
        SendLine(*client);
        return 0;
      case kvl::kMsgSocketReceive:
        Receive(*client, slot);
        return 0;
      case kvl::kMsgSocketClose:
        std::printf("close %d\n", slot);
        client->Close();  // its place is free again
        return 0;
      default:
        return CWnd::WindowProc(nMessage, wParam, lParam);
    }
  }

 private:
  // What one call leaves is told anew.
  void Receive(kvl::CClientSock& client, int32_t slot) {
    char bytes[1024];
    const int32_t count = client.Receive(bytes, sizeof bytes);
    if (count <= 0) return;  // a close has a message of its own
    std::printf("receive %d: %d bytes\n", slot, count);
    for (auto lines = std::count(bytes, bytes + count, '\n'); lines > 0; --lines) SendLine(client);
  }

  // A client that reads nothing loses lines; it holds up nobody.
  void SendLine(kvl::CClientSock& client) {
    m_nLevel += 0.5;
    char line[32];
    const int length = std::snprintf(line, sizeof line, "LEVEL %.2f\r\n", m_nLevel);
    client.Send(line, length);
  }

  kvl::CServerSock m_server;
  double m_nLevel = 12;
};

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // whoever reads along sees each line at once
  kvl::CMessageLoop loop = kvl::CMessageLoop::Current();
  CLineServer server;
  if (!server.Open(argc > 1 ? static_cast<uint32_t>(std::atoi(argv[1])) : 0)) {
    std::fprintf(stderr, "line_server: error %d\n", kvl::CAsyncSocket::GetLastError());
    return 1;
  }
  const kvl::CInterruptWatch interrupts([&loop] { loop.Quit(); });
  loop.Run();
  return 0;
}
