#include "control/DecodeCtrl.h"

#include <algorithm>
#include <chrono>
#include <new>

#include "control/socket_texts.h"
#include "platform/clock.h"
#include "platform/last_error.h"
#include "platform/thread.h"
#include "script/decimal.h"

namespace kvl {
namespace {

constexpr int32_t kReadSize = 2048;
constexpr uint32_t kMsgPortLost = 0x465;  // posted by the worker to the control
constexpr int32_t kMaxPortNumber = 99;    // what COMM::szPort has room for
constexpr int32_t kMaxBusyPasses = 64;
constexpr int32_t kMaxReadsPerTurn = 128;  // so that a flood does not keep the script from running
constexpr int32_t kRetryMs = 50;           // before trying again what had no memory or no room

int32_t ErrorOf(LPARAM lParam) {
  return static_cast<int32_t>(lParam >> 16 & 0xFFFF);
}

// No exception leaves the control: what the system has no memory or no thread for has failed.
template <typename Work>
int32_t Guarded(Work work) noexcept {
  try {
    return work();
  } catch (...) {
    return -1;
  }
}

}  // namespace

CDecodeCtrl::CDecodeCtrl() = default;

CDecodeCtrl::~CDecodeCtrl() {
  StopWorker();
  m_pObserver = nullptr;
  CDecodeCtrl::Stop();
}

void CDecodeCtrl::SetScriptName(const char* szPath) {
  try {
    m_strScriptName = szPath == nullptr ? "" : szPath;
  } catch (const std::bad_alloc&) {
    m_strScriptName.clear();  // better no script than the one before
  }
}

int32_t CDecodeCtrl::Create(CWnd* pParent, const RECT& rect, uint32_t nID) {
  const int32_t result = CStatic::Create(kWsChild | kWsVisible, rect, pParent, nID);
  GetClientRect(&m_rcClient);
  return result;
}

void CDecodeCtrl::OnPaint() {
  CPaintDC dc(this);
  dc.FillSolidRect(m_rcClient, 0xC86464);
  dc.SetTextColor(0xFFFFFF);
}

LRESULT CDecodeCtrl::WindowProc(uint32_t nMessage, WPARAM wParam, LPARAM lParam) {
  switch (nMessage) {
    case kWmPaint:
      OnPaint();
      return 0;
    case kMsgSocketConnect:
      return OnConnect(wParam, lParam);
    case kMsgSocketReceive:
      return OnReceiveSocket(wParam, lParam);
    case kMsgSocketClose:
      return OnCloseSocket(wParam, lParam);
    case kMsgPortLost:
      // A message of an earlier session says nothing about the port of this one.
      if (m_pKVL != nullptr && wParam == m_nSession && m_port.Get() == nullptr)
        Tell(ESessionStatus::Lost, m_commPort.szPort);
      return 0;
    default:
      return CStatic::WindowProc(nMessage, wParam, lParam);
  }
}

void CDecodeCtrl::Tell(ESessionStatus status, std::string_view text) noexcept {
  if (m_pObserver == nullptr) return;
  Guarded([&] {
    m_pObserver->OnStatus(status, text);
    return 0;
  });
}

int32_t CDecodeCtrl::VerifyScript() {
  m_bVerified = false;
  return Guarded([this] {
    m_pSyntax = std::make_unique<CKVLSyntax>(&m_session);
    m_pSyntax->_CompileMainScript1(m_pSyntax->LoadScript(m_strScriptName.c_str()));
    m_pSyntax->_VerifyMainScript();
    if (m_pSyntax->GetErrorCount() > 0) return -1;
    m_pSyntax->GetCom(&m_comm);
    m_pSyntax->GetTableName(m_strTableName);
    m_pSyntax.reset();
    m_bVerified = true;
    return 0;
  });
}

int32_t CDecodeCtrl::StartSession() {
  if (!m_bVerified) return -1;
  Stop();
  if (m_pKVL != nullptr) return -1;  // who heard of the stop has started another session
  ++m_nSession;
  m_session.m_pObserver = m_pObserver;
  m_session.m_hControl = GetSafeHwnd();
  m_session.m_nControlID = static_cast<uint32_t>(GetDlgCtrlID());
  m_pKVL = std::make_unique<CKVL>(&m_session, m_strTableName.c_str());
  return 0;
}

int32_t CDecodeCtrl::Run() {
  return Guarded([this] {
    if (StartSession() != 0) return -1;
    m_nInterface = static_cast<uint32_t>(m_comm.nMedia);
    if (m_comm.nMedia == kMediaSerial) {
      m_commPort = m_comm;
      return OpenPort(this);
    }
    if (m_comm.nMedia != kMediaTcp) return 0;
    m_strHost = m_comm.szIP;
    m_nPort = ParseInteger(m_comm.szPort);
    m_strPeer = m_strHost + ":" + std::to_string(m_nPort);
    m_pKVL->SetInterface(kMediaTcp);
    m_pKVL->SetLine(kMediaTcp, &m_socket);
    OpenSocket();
    return 0;
  });
}

int32_t CDecodeCtrl::Run(int32_t nPort, int32_t nDataBit, int32_t nBaudRate, int32_t nParityBit,
                         int32_t nStopBit) {
  return Guarded([=, this] {
    if (nPort < 1 || nPort > kMaxPortNumber || StartSession() != 0) return -1;
    const std::string port = "COM" + std::to_string(nPort);
    m_comm.szPort[port.copy(m_comm.szPort, sizeof m_comm.szPort - 1)] = '\0';
    m_comm.nDataBit = nDataBit;
    m_comm.nBaudRate = nBaudRate;
    m_comm.nParityBit = nParityBit;
    m_comm.nStopBit = nStopBit;
    m_nInterface = kMediaSerial;  // an earlier session may have left it at TCP
    m_commPort = m_comm;
    return OpenPort(nullptr);
  });
}

int32_t CDecodeCtrl::OpenPort(CWnd* pOwner) {
  auto port = std::make_shared<CRS232Ctrl>(pOwner);
  m_dwPortError = port->Open(&m_commPort) == 0 ? port->GetLastError() : kErrorNone;
  if (m_dwPortError != kErrorNone) return -1;
  m_pKVL->SetInterface(kMediaSerial);
  m_pKVL->SetLine(kMediaSerial, &m_port);
  m_port.Replace(std::move(port));
  if (!StartWorker()) {
    m_port.Replace(nullptr);
    m_dwPortError = kErrorNoMemory;
    return -1;
  }
  m_session.Wake();  // a worker that has been without a port waits for nothing else
  Tell(ESessionStatus::Opened, m_commPort.szPort);
  return 0;
}

void CDecodeCtrl::OpenSocket() {
  if (Guarded([this] { return StartConnect(); }) != 0) FinishConnect(kSockErrNoBuffers);
}

int32_t CDecodeCtrl::StartConnect() {
  const auto socket = std::make_shared<CClientSock>();
  socket->SetWnd(GetSafeHwnd());
  socket->Create(0, kSockStream, kFdAll, nullptr);
  m_socket.Replace(socket);
  if (socket->Connect(m_strHost, static_cast<uint32_t>(m_nPort)) == 0) return -1;
  Tell(ESessionStatus::Connecting, m_strPeer);
  return 0;
}

void CDecodeCtrl::CloseSocket() {
  // A worker that is writing keeps the object until it returns, which closing makes it do at once.
  if (const std::shared_ptr<CClientSock> socket = m_socket.Replace(nullptr)) socket->Close();
  m_bConnected = false;
}

void CDecodeCtrl::OnRecreateSocket() {
  if (m_pKVL == nullptr || m_nInterface != kMediaTcp) return;
  CloseSocket();
  OpenSocket();
}

LRESULT CDecodeCtrl::OnConnect(WPARAM hSocket, LPARAM lParam) {
  if (CAsyncSocket::LookupHandle(hSocket) != nullptr) FinishConnect(ErrorOf(lParam));
  return 0;
}

void CDecodeCtrl::FinishConnect(int32_t error) {
  if (!StartWorker()) {
    error = kSockErrNoBuffers;
    CloseSocket();  // nobody would take its bytes
  }
  m_bConnected = error == 0;
  if (!m_bConnected) return TellConnectFailed(error);
  SetStatusText({"\r\nConnected to ", m_strPeer, " ...\r\n"});
  Tell(ESessionStatus::Connected, m_strPeer);
}

void CDecodeCtrl::TellConnectFailed(int32_t error) {
  const std::string_view text = ConnectErrorText(error);
  SetStatusText({text});
  if (!text.empty()) return Tell(ESessionStatus::ConnectFailed, text);
  std::string other;
  Guarded([&] {
    other = OtherErrorText(error);
    return 0;
  });
  Tell(ESessionStatus::ConnectFailed, other);
}

// Without memory for the text there is none: what happened is told all the same.
void CDecodeCtrl::SetStatusText(std::initializer_list<std::string_view> parts) noexcept {
  m_strStatus.clear();
  const auto append = [&] {
    for (const std::string_view part : parts) m_strStatus += part;
    return 0;
  };
  if (Guarded(append) != 0) m_strStatus.clear();
}

LRESULT CDecodeCtrl::OnReceiveSocket(WPARAM hSocket, LPARAM /*lParam*/) {
  CAsyncSocket* const socket = CAsyncSocket::LookupHandle(hSocket);
  if (socket == nullptr) return 0;
  uint8_t bytes[kReadSize];
  int32_t count;
  while ((count = socket->Receive(bytes, kReadSize, 0)) > 0) {
    Queue({bytes, static_cast<size_t>(count)});
    m_session.Wake();
  }
  return 0;
}

void CDecodeCtrl::Queue(std::span<const uint8_t> bytes) {
  const std::lock_guard lock(m_csQueue);
  m_session.OnReceived(bytes);
  m_queue.PutBatch(bytes.data(), static_cast<int32_t>(bytes.size()), CQueue::Zeros::kDrop);
}

LRESULT CDecodeCtrl::OnCloseSocket(WPARAM hSocket, LPARAM lParam) {
  const std::string_view reason = CloseErrorText(ErrorOf(lParam));
  CAsyncSocket* const socket = CAsyncSocket::LookupHandle(hSocket);
  if (socket == nullptr) return 0;
  socket->Close();
  CloseSocket();
  SetStatusText({"\r\nDisconnect from ", m_strHost, " ...\n\r\n"});
  Tell(ESessionStatus::Closed, reason);
  return 1;
}

int32_t CDecodeCtrl::OnReopenPort() {
  if (m_pKVL == nullptr || m_nInterface != kMediaSerial) return -1;
  if (m_port.Get() != nullptr) return 0;
  return Guarded([this] { return OpenPort(this); });
}

// Whether a worker runs now.
bool CDecodeCtrl::StartWorker() {
  if (m_thread.joinable()) return true;
  if (m_pKVL == nullptr) return false;
  m_loop = CMessageLoop::Current();
  m_bWorkerEnded = false;
  m_bLossUntold = false;
  m_bDecoding = false;
  m_session.Start();
  const auto start = [this] {
    m_thread = std::thread([this, script = m_strScriptName] { WorkerThread(script); });
    return 0;
  };
  return Guarded(start) == 0;
}

void CDecodeCtrl::StopWorker() {
  if (!m_thread.joinable()) return;
  m_session.Stop();
  m_port.Interrupt();
  m_socket.Interrupt();
  // The observer may be sending a message to a window of this thread.
  const uint32_t session = m_nSession;
  m_loop.WaitServingCalls([=, this] { return m_bWorkerEnded || m_nSession != session; });
  if (m_nSession == session && m_thread.joinable()) m_thread.join();
}

void CDecodeCtrl::Stop() {
  const bool hadSession = m_pKVL != nullptr;
  const uint32_t session = m_nSession;
  StopWorker();
  // A message that was handled meanwhile may have stopped the session, and started another.
  if (hadSession && (m_pKVL == nullptr || m_nSession != session)) return;
  if (const std::shared_ptr<CRS232Ctrl> port = m_port.Replace(nullptr)) port->Close();
  CloseSocket();
  m_pKVL.reset();
  m_pSyntax.reset();
  if (hadSession) Tell(ESessionStatus::Stopped, {});
}

void CDecodeCtrl::WorkerThread(const std::string& script) noexcept {
  SetThreadName("kvl worker");
  SetThreadPriority(kPriorityBelowNormal);
  RunScript(script);
  m_bWorkerEnded = true;
  m_loop.Wake();
}

void CDecodeCtrl::RunScript(const std::string& script) {
  m_pKVL->_CompileMainScript1(m_pKVL->LoadScript(script.c_str()));
  m_nBusyPasses = 0;
  m_nBusyPassesNext = 0;
  while (m_session.m_bRun != 0) {
    const auto turn = [this] {
      Turn();
      return 0;
    };
    // Memory may have run out. What can't be done now may be possible a little later.
    if (Guarded(turn) != 0) m_session.m_wakeup.Wait(kRetryMs);
  }
}

void CDecodeCtrl::Turn() {
  if (m_bLossUntold) TellLoss();
  DrainPort();
  if (m_queue.GetSize() > 0) {
    RunPass();
  } else {
    RunEmptyPass();
  }
}

void CDecodeCtrl::DrainPort() {
  const std::shared_ptr<CRS232Ctrl> port = m_port.Get();
  if (port == nullptr) return;
  uint8_t bytes[kReadSize];
  for (int32_t reads = 0; reads < kMaxReadsPerTurn && m_session.m_bRun != 0; ++reads) {
    const int32_t count = port->Read(bytes, kReadSize);
    if (count == 0) {
      if (port->GetLastError() == kErrorDeviceLost) LosePort(port);
      return;
    }
    Queue({bytes, static_cast<size_t>(count)});
    if (count < kReadSize) return;  // that was all; what comes now is the next turn's
  }
}

void CDecodeCtrl::RunPass() {
  uint8_t batch[CQueue::kSlots];  // one more than the queue holds, for the byte behind the batch
  m_bDecoding.store(true, std::memory_order_release);
  const int32_t size = m_queue.GetBatch(batch, m_queue.GetSize());
  batch[size] = 0;
  m_nBusyPasses = 0;
  m_nBusyPassesNext = 0;
  m_pKVL->Begin(batch, size);
}

// A pass over an empty batch that did nothing would do nothing again, so the worker waits for
// bytes. A script that does something on empty batches keeps its pace; it is asked ever more
// rarely, since asking costs a copy of its variables. In nearly every script the first pass behind
// a batch does something, if only to find no bytes. On a socket the time slice is kept for one
// more, or the peer's next bytes would be on their way through the control's thread by then.
void CDecodeCtrl::RunEmptyPass() {
  const bool isWatched = m_nBusyPasses == 0;
  bool isIdle = false;
  if (isWatched) {
    isIdle = m_pKVL->BeginIdle();
  } else {
    --m_nBusyPasses;
    m_pKVL->Begin(nullptr, 0);
  }
  m_bDecoding.store(false, std::memory_order_release);
  if (isIdle) return WaitForBytes();
  if (isWatched) {
    m_nBusyPasses = m_nBusyPassesNext;
    m_nBusyPassesNext = std::clamp(m_nBusyPassesNext * 2, 1, kMaxBusyPasses);
    if (m_nBusyPasses == 0 && m_nInterface == kMediaTcp) return;
  }
  Sleep(0);
}

void CDecodeCtrl::WaitForBytes() {
  if (const std::shared_ptr<CRS232Ctrl> port = m_port.Get()) {
    if (port->WaitForBytes(m_session.m_wakeup, -1) == SerialWait::kLost) LosePort(port);
    return;
  }
  if (m_queue.GetSize() > 0) return;
  const std::shared_ptr<CClientSock> socket = m_socket.Get();
  if (socket != nullptr && ReceiveHere(*socket)) return;
  m_session.m_wakeup.Wait(m_bLossUntold ? kRetryMs : -1);
}

// An idle worker takes the bytes off the line itself: to be woken by the control's thread would
// take longer than all the rest of the road.
bool CDecodeCtrl::ReceiveHere(CClientSock& socket) {
  uint8_t bytes[kReadSize];
  return socket.ReceiveHere(m_session.m_wakeup, bytes,
                            [this](std::span<const uint8_t> piece) { Queue(piece); });
}

// A port that is gone is let go of at once: the system may want to give its name to the device
// when it comes back.
void CDecodeCtrl::LosePort(const std::shared_ptr<CRS232Ctrl>& port) {
  if (!m_port.Remove(port)) return;
  port->Close();
  TellLoss();
}

void CDecodeCtrl::TellLoss() {
  const HWND control = m_session.m_hControl;
  m_bLossUntold = PostMessageA(control, kMsgPortLost, m_nSession, 0) == 0 && IsWindow(control);
}

}  // namespace kvl
