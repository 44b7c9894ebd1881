#include "control/DecodeCtrl.h"

#include <algorithm>

#include "control/socket_texts.h"
#include "platform/clock.h"
#include "platform/message_loop.h"
#include "platform/thread.h"
#include "script/decimal.h"

namespace kvl {
namespace {

constexpr int32_t kReadSize = 2048;
constexpr uint32_t kMsgPortLost = 0x465;  // posted by the worker to the control
constexpr int32_t kMaxPortNumber = 99;    // what COMM::szPort has room for
constexpr int32_t kMaxBusyPasses = 64;

int32_t ErrorOf(LPARAM lParam) {
  return static_cast<int32_t>(lParam >> 16 & 0xFFFF);
}

}  // namespace

// The socket of a session as the engine sees it. The control makes and closes sockets on its own
// thread while the worker writes: the worker writes to the one that is there, or to none.
class CDecodeCtrl::CSocketLine : public CLine {
 public:
  bool IsOpen() const override {
    const std::shared_ptr<CClientSock> socket = Get();
    return socket != nullptr && socket->IsOpen();
  }
  int32_t Write(const uint8_t* pBytes, int32_t nCount) override {
    const std::shared_ptr<CClientSock> socket = Get();
    return socket == nullptr ? 0 : socket->Write(pBytes, nCount);
  }
  void Interrupt() override {
    if (const std::shared_ptr<CClientSock> socket = Get()) socket->Interrupt();
  }

  std::shared_ptr<CClientSock> Get() const {
    const std::lock_guard lock(m_cs);
    return m_pClientSock;
  }
  std::shared_ptr<CClientSock> Replace(std::shared_ptr<CClientSock> socket) {
    const std::lock_guard lock(m_cs);
    m_pClientSock.swap(socket);
    return socket;
  }

 private:
  mutable std::mutex m_cs;
  std::shared_ptr<CClientSock> m_pClientSock;
};

CDecodeCtrl::CDecodeCtrl() : m_pSocketLine(std::make_unique<CSocketLine>()) {}

CDecodeCtrl::~CDecodeCtrl() {
  m_pObserver = nullptr;  // its owner may be half gone by now
  Stop();
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
      Tell(ESessionStatus::Lost, m_comm.szPort);
      return 0;
    default:
      return CStatic::WindowProc(nMessage, wParam, lParam);
  }
}

void CDecodeCtrl::Tell(ESessionStatus status, std::string_view text) {
  if (m_pObserver != nullptr) m_pObserver->OnStatus(status, text);
}

int32_t CDecodeCtrl::VerifyScript() {
  m_bVerified = false;
  m_pSyntax = std::make_unique<CKVLSyntax>(&m_session);
  m_pSyntax->_CompileMainScript1(m_pSyntax->LoadScript(m_strScriptName.c_str()));
  m_pSyntax->_VerifyMainScript();
  if (m_pSyntax->GetErrorCount() > 0) return -1;
  m_pSyntax->GetCom(&m_comm);
  m_pSyntax->GetTableName(m_strTableName);
  m_pSyntax.reset();
  m_bVerified = true;
  return 0;
}

int32_t CDecodeCtrl::StartSession() {
  if (!m_bVerified) return -1;
  Stop();
  m_session.m_pObserver = m_pObserver;
  m_session.m_hControl = GetSafeHwnd();
  m_session.m_nControlID = static_cast<uintptr_t>(GetDlgCtrlID());
  m_pKVL = std::make_unique<CKVL>(&m_session, m_strTableName.c_str());
  m_bLoaded = false;
  return 0;
}

int32_t CDecodeCtrl::Run() {
  if (StartSession() != 0) return -1;
  m_nInterface = static_cast<uint32_t>(m_comm.nMedia);
  if (m_comm.nMedia == kMediaSerial) return OpenPort(this);
  if (m_comm.nMedia == kMediaTcp) {
    m_strHost = m_comm.szIP;
    m_nPort = ParseInteger(m_comm.szPort);
    m_pKVL->SetInterface(kMediaTcp);
    m_pKVL->SetLine(kMediaTcp, m_pSocketLine.get());
    OpenSocket();
  }
  return 0;
}

int32_t CDecodeCtrl::Run(int32_t nPort, int32_t nDataBit, int32_t nBaudRate, int32_t nParityBit,
                         int32_t nStopBit) {
  if (nPort < 1 || nPort > kMaxPortNumber || StartSession() != 0) return -1;
  const std::string port = "COM" + std::to_string(nPort);
  m_comm.szPort[port.copy(m_comm.szPort, sizeof m_comm.szPort - 1)] = '\0';
  m_comm.nDataBit = nDataBit;
  m_comm.nBaudRate = nBaudRate;
  m_comm.nParityBit = nParityBit;
  m_comm.nStopBit = nStopBit;
  m_nInterface = kMediaSerial;  // an earlier session may have left it at TCP
  return OpenPort(nullptr);
}

int32_t CDecodeCtrl::OpenPort(CWnd* pOwner) {
  auto port = std::make_unique<CRS232Ctrl>(pOwner);
  if (port->Open(&m_comm) == 0) return -1;
  m_pRS232 = std::move(port);
  m_bPortLost = false;
  m_pKVL->SetInterface(kMediaSerial);
  m_pKVL->SetListenObject(m_pRS232.get());
  Tell(ESessionStatus::Opened, m_comm.szPort);
  StartWorker();
  return 0;
}

int32_t CDecodeCtrl::OnReopenPort() {
  if (m_pKVL == nullptr || m_nInterface != kMediaSerial) return -1;
  StopWorker();
  m_pKVL->SetListenObject(static_cast<CRS232Ctrl*>(nullptr));
  m_pRS232.reset();
  if (OpenPort(this) == 0) return 0;
  m_bPortLost = true;
  StartWorker();
  return -1;
}

std::string CDecodeCtrl::Peer() const {
  return m_strHost + ":" + std::to_string(m_nPort);
}

void CDecodeCtrl::OpenSocket() {
  auto socket = std::make_shared<CClientSock>();
  socket->SetWnd(GetSafeHwnd());
  Tell(ESessionStatus::Connecting, Peer());
  socket->Create(0, kSockStream, kFdAll, nullptr);
  m_pSocketLine->Replace(socket);
  socket->Connect(m_strHost, static_cast<uint32_t>(m_nPort));
}

void CDecodeCtrl::CloseSocket() {
  // A worker that is writing keeps the object until it returns, which closing makes it do at once.
  if (const std::shared_ptr<CClientSock> socket = m_pSocketLine->Replace(nullptr)) socket->Close();
  m_bConnected = false;
}

void CDecodeCtrl::OnRecreateSocket() {
  if (m_pKVL == nullptr || m_nInterface != kMediaTcp) return;
  CloseSocket();
  OpenSocket();
}

LRESULT CDecodeCtrl::OnConnect(WPARAM hSocket, LPARAM lParam) {
  if (CAsyncSocket::LookupHandle(hSocket) == nullptr) return 0;
  StartWorker();
  const int32_t error = ErrorOf(lParam);
  m_bConnected = error == 0;
  if (m_bConnected) {
    m_strStatus = "\r\nConnected to " + Peer() + " ...\r\n";
    Tell(ESessionStatus::Connected, Peer());
  } else {
    m_strStatus = ConnectErrorText(error);
    Tell(ESessionStatus::ConnectFailed, m_strStatus);
  }
  return 0;
}

LRESULT CDecodeCtrl::OnReceiveSocket(WPARAM hSocket, LPARAM /*lParam*/) {
  CAsyncSocket* const socket = CAsyncSocket::LookupHandle(hSocket);
  if (socket == nullptr) return 0;
  uint8_t bytes[kReadSize];
  int32_t count;
  while ((count = socket->Receive(bytes, kReadSize, 0)) > 0) {
    if (m_pObserver != nullptr) m_pObserver->OnReceived({bytes, static_cast<size_t>(count)});
    m_queue.PutBatch(bytes, count, CQueue::Zeros::kDrop);
    m_session.Wake();
  }
  return 0;
}

LRESULT CDecodeCtrl::OnCloseSocket(WPARAM hSocket, LPARAM lParam) {
  const std::string_view reason = CloseErrorText(ErrorOf(lParam));
  if (CAsyncSocket::LookupHandle(hSocket) == nullptr) return 0;
  CloseSocket();
  m_strStatus = "\r\nDisconnect from " + m_strHost + " ...\n\r\n";
  Tell(ESessionStatus::Closed, reason);
  return 1;
}

void CDecodeCtrl::StartWorker() {
  if (m_thread.joinable()) return;
  m_session.Start();
  m_thread = std::thread([this] { WorkerThread(); });
}

void CDecodeCtrl::StopWorker() {
  if (!m_thread.joinable()) return;
  m_session.Stop();
  if (m_pRS232 != nullptr) m_pRS232->Interrupt();
  m_pSocketLine->Interrupt();
  m_thread.join();
}

void CDecodeCtrl::Stop() {
  const bool hadSession = m_pKVL != nullptr;
  StopWorker();
  if (m_pRS232 != nullptr) m_pRS232->Close();
  m_pRS232.reset();
  CloseSocket();
  m_pKVL.reset();
  m_pSyntax.reset();
  if (hadSession) Tell(ESessionStatus::Stopped, {});
}

void CDecodeCtrl::WorkerThread() {
  SetThreadName("kvl worker");
  SetThreadPriority(kPriorityBelowNormal);
  if (!m_bLoaded) m_pKVL->_CompileMainScript1(m_pKVL->LoadScript(m_strScriptName.c_str()));
  m_bLoaded = true;
  m_nBusyPasses = 0;
  m_nBusyPassesNext = 1;
  while (m_session.m_bRun != 0) {
    DrainPort();
    if (m_queue.GetSize() > 0) {
      RunPass();
    } else {
      RunEmptyPass();
    }
  }
}

void CDecodeCtrl::DrainPort() {
  if (m_pRS232 == nullptr || m_bPortLost) return;
  uint8_t bytes[kReadSize];
  int32_t count;
  while (m_session.m_bRun != 0 && (count = m_pRS232->Read(bytes, kReadSize)) != 0) {
    if (m_pObserver != nullptr) m_pObserver->OnReceived({bytes, static_cast<size_t>(count)});
    m_queue.PutBatch(bytes, count, CQueue::Zeros::kDrop);
  }
}

void CDecodeCtrl::RunPass() {
  uint8_t batch[CQueue::kSlots];  // one more than the queue holds, for the byte behind the batch
  const int32_t size = m_queue.GetBatch(batch, m_queue.GetSize());
  batch[size] = 0;
  m_pKVL->Begin(batch, size);
  m_nBusyPasses = 0;
  m_nBusyPassesNext = 1;
}

// A pass over an empty batch that did nothing would do nothing again, so the worker waits for
// bytes. A script that does something on empty batches keeps its pace; it is asked ever more
// rarely, since asking costs a copy of its variables.
void CDecodeCtrl::RunEmptyPass() {
  if (m_nBusyPasses > 0) {
    --m_nBusyPasses;
    m_pKVL->Begin(nullptr, 0);
  } else if (m_pKVL->BeginIdle()) {
    WaitForBytes();
    return;
  } else {
    m_nBusyPasses = m_nBusyPassesNext;
    m_nBusyPassesNext = std::min(m_nBusyPassesNext * 2, kMaxBusyPasses);
    WaitForPort(0);  // a script that never waits must hear of a lost port too
  }
  Sleep(0);
}

void CDecodeCtrl::WaitForBytes() {
  if (m_pRS232 != nullptr && !m_bPortLost) {
    WaitForPort(-1);
  } else if (m_queue.GetSize() == 0) {
    m_session.m_wakeup.Wait(-1);
  }
}

void CDecodeCtrl::WaitForPort(int32_t timeoutMs) {
  if (m_pRS232 == nullptr || m_bPortLost) return;
  if (m_pRS232->WaitForBytes(m_session.m_wakeup, timeoutMs) != SerialWait::kLost) return;
  m_bPortLost = true;
  PostMessageA(GetSafeHwnd(), kMsgPortLost, 0, 0);
}

}  // namespace kvl
