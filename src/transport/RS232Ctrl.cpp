#include "transport/RS232Ctrl.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <new>
#include <thread>

#include "platform/thread.h"

namespace kvl {

namespace {

constexpr int32_t kEventReadSize = 4096;
constexpr uint32_t kDriverQueueSize = 4096;
constexpr uint32_t kReturnAtOnce = ~uint32_t{0};

HANDLE NextHandle() {
  static std::atomic<HANDLE> s_nLast{0};
  return ++s_nLast;
}

template <typename Entry, size_t kCount>
bool IsIndex(const Entry (&)[kCount], int32_t index) {
  return index >= 0 && index < static_cast<int32_t>(kCount);
}

// The table's value; -1, which the setters leave alone, for an index outside it.
template <size_t kCount>
int32_t ValueAt(const int32_t (&table)[kCount], int32_t index) {
  return IsIndex(table, index) ? table[index] : -1;
}

}  // namespace

// What copies of one object share.
struct CRS232Ctrl::CPort {
  CSerialDevice device;
  const HANDLE hComm = NextHandle();
  CWakeup wakeThread;  // ends the wait of the event thread, of bsCheckForCommEvent
  CWakeup wakeCheck;
  std::atomic<bool> bRun{false};
  std::mutex threadLock;  // guards the end of the thread
  std::thread thread;
  std::atomic<uint32_t> nWriteMultiplier{0};
  std::atomic<uint32_t> nWriteConstant{0};
};

CRS232Ctrl::CRS232Ctrl(CWnd* pOwner) : m_hWnd(pOwner ? pOwner->GetSafeHwnd() : nullptr) {}

CRS232Ctrl::CRS232Ctrl(const CRS232Ctrl& other) : CLine(other), m_hWnd(nullptr) {
  *this = other;
}

CRS232Ctrl& CRS232Ctrl::operator=(const CRS232Ctrl& other) {
  if (this == &other) return *this;
  // What this object alone has open would be lost.
  const std::shared_ptr<CPort> pPort = other.Port();
  if (Port() != pPort) Close();
  SetPort(pPort);
  m_dwLastError = other.m_dwLastError.load();
  m_dwCommErrors = other.m_dwCommErrors.load();
  m_dwEventMask = other.m_dwEventMask.load();
  m_bWaitRuns = other.m_bWaitRuns.load();
  m_osWait = other.m_osWait;
  m_bConnected = other.m_bConnected;
  m_nWaitCount = other.m_nWaitCount;
  m_wStatusSignal = other.m_wStatusSignal;
  m_hWnd = other.m_hWnd;
  m_queue = other.m_queue;
  return *this;
}

CRS232Ctrl::~CRS232Ctrl() {
  CRS232Ctrl::Close();
}

std::shared_ptr<CRS232Ctrl::CPort> CRS232Ctrl::Port() const {
  const std::lock_guard guard(m_csPort);
  return m_pPort;
}

void CRS232Ctrl::SetPort(std::shared_ptr<CPort> pPort) {
  const std::lock_guard guard(m_csPort);
  m_pPort.swap(pPort);
}

bool CRS232Ctrl::IsOpen() const {
  const std::shared_ptr<CPort> pPort = Port();
  return pPort && pPort->device.IsOpen();
}

HANDLE CRS232Ctrl::GetCommHandle() const {
  const std::shared_ptr<CPort> pPort = Port();
  return pPort && pPort->device.IsOpen() ? pPort->hComm : kInvalidHandle;
}

int32_t CRS232Ctrl::IsValid() const {
  return IsOpen() && m_dwLastError == kErrorNone ? 1 : 0;
}

// The result of an operation: 1 for success; a failure's number is kept.
int32_t CRS232Ctrl::Record(uint32_t nError) {
  if (nError == kErrorNone) return 1;
  m_dwLastError = nError;
  return 0;
}

// The same of a transfer: the failure of one that Close has ended is none of the next port's.
int32_t CRS232Ctrl::Record(const CPort& port, uint32_t nError) {
  if (nError == kErrorNone) return 1;
  const std::lock_guard guard(m_csPort);
  if (m_pPort.get() == &port && port.device.IsOpen()) m_dwLastError = nError;
  return 0;
}

// Takes the line error bits from the device; gives the number of bytes waiting.
int32_t CRS232Ctrl::ClearCommError(CPort& port) {
  int32_t waiting = 0;
  uint32_t errors = 0;
  Record(port, port.device.GetStatus(&waiting, &errors));
  m_dwCommErrors = errors;
  return waiting;
}

int32_t CRS232Ctrl::OpenPort(const char* szPort, int32_t nBaudRate, int32_t nDataBits,
                             int32_t nParity, int32_t nStopBits) try {
  Close();
  const auto pPort = std::make_shared<CPort>();
  SetPort(pPort);
  if (!Record(pPort->device.Open(szPort ? szPort : ""))) return 0;
  m_dwEventMask = 0;
  m_bWaitRuns = false;
  pPort->device.Purge();
  // A setting that the device refuses does not keep the line from being used.
  if (nBaudRate >= 0) bsSetBaudRate(nBaudRate);
  bsSetParityDataStop(nParity, nDataBits, nStopBits);
  bsSetBufferSizes(kDriverQueueSize, kDriverQueueSize);
  bsSetReadTimeouts(kReturnAtOnce, 0, 0);
  bsSetWriteTimeouts(0, kWriteTimeoutMs);
  m_bConnected = 1;
  return 1;
} catch (const std::bad_alloc&) {
  return Record(kErrorNoMemory);
}

int32_t CRS232Ctrl::Open(const COMM* pComm) {
  // The port's text fills its field at most; a record made by hand may lack the terminator.
  char szPort[sizeof pComm->szPort + 1] = {};
  std::copy(std::begin(pComm->szPort), std::end(pComm->szPort), szPort);
  const int32_t rate =
      IsIndex(kBaudRates, pComm->nBaudRate) ? kBaudRates[pComm->nBaudRate].rate : -1;
  return OpenPort(szPort, rate, ValueAt(kDataBits, pComm->nDataBit),
                  ValueAt(kParities, pComm->nParityBit), ValueAt(kStopBits, pComm->nStopBit));
}

int32_t CRS232Ctrl::Open(const char* szPort, int32_t nBaudRate, int32_t nDataBits, int32_t nParity,
                         int32_t nStopBits) {
  if (!OpenPort(szPort, nBaudRate, nDataBits, nParity, nStopBits)) return 0;
  try {
    StartEventThread(Port());
    return 1;
  } catch (const std::exception&) {
    Close();
    return Record(kErrorNoMemory);
  }
}

int32_t CRS232Ctrl::Close() {
  const std::shared_ptr<CPort> pPort = Port();
  if (!pPort) return 1;
  m_bConnected = 0;
  pPort->bRun = false;
  pPort->wakeThread.Set();
  {
    const std::lock_guard guard(pPort->threadLock);
    if (pPort->thread.joinable()) pPort->thread.join();
  }
  pPort->device.Close();
  pPort->wakeCheck.Set();
  return 1;
}

int32_t CRS232Ctrl::bsSetBaudRate(int32_t nRate) {
  m_dwLastError = kErrorNone;
  const std::shared_ptr<CPort> pPort = Port();
  return Record(pPort ? pPort->device.SetBaudRate(nRate) : kErrorInvalidHandle);
}

int32_t CRS232Ctrl::bsSetParityDataStop(int32_t nParity, int32_t nDataBits, int32_t nStopBits) {
  m_dwLastError = kErrorNone;
  const std::shared_ptr<CPort> pPort = Port();
  return Record(pPort ? pPort->device.SetFormat(nParity, nDataBits, nStopBits)
                      : kErrorInvalidHandle);
}

int32_t CRS232Ctrl::bsSetBufferSizes(uint32_t, uint32_t) {
  m_dwLastError = kErrorNone;
  return Record(IsOpen() ? kErrorNone : kErrorInvalidHandle);
}

int32_t CRS232Ctrl::bsSetReadTimeouts(uint32_t, uint32_t, uint32_t) {
  m_dwLastError = kErrorNone;
  return Record(IsOpen() ? kErrorNone : kErrorInvalidHandle);
}

int32_t CRS232Ctrl::bsSetWriteTimeouts(uint32_t nMultiplier, uint32_t nConstant) {
  m_dwLastError = kErrorNone;
  const std::shared_ptr<CPort> pPort = Port();
  if (!pPort || !pPort->device.IsOpen()) return Record(kErrorInvalidHandle);
  pPort->nWriteMultiplier = nMultiplier;
  pPort->nWriteConstant = nConstant;
  return 1;
}

int32_t CRS232Ctrl::Read(uint8_t* pBuffer, int32_t nCount) {
  const std::shared_ptr<CPort> pPort = Port();
  if (!pPort || !pPort->device.IsOpen()) return 0;
  const int32_t count = std::min(nCount, ClearCommError(*pPort));
  int32_t read = 0;
  if (count > 0 && !Record(*pPort, pPort->device.Read(pBuffer, count, &read)))
    ClearCommError(*pPort);
  return read;
}

int32_t CRS232Ctrl::Write(const uint8_t* pBytes, int32_t nCount) {
  const std::shared_ptr<CPort> pPort = Port();
  if (!pPort || !pPort->device.IsOpen() || nCount <= 0) return 0;
  ClearCommError(*pPort);
  const uint64_t limit =
      uint64_t{pPort->nWriteMultiplier} * static_cast<uint32_t>(nCount) + pPort->nWriteConstant;
  const auto longest = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());
  const int32_t timeoutMs = limit == 0 ? -1 : static_cast<int32_t>(std::min(limit, longest));
  int32_t written = 0;
  if (!Record(*pPort, pPort->device.Write(pBytes, nCount, timeoutMs, &written)))
    ClearCommError(*pPort);
  return written;
}

void CRS232Ctrl::Interrupt() {
  if (const std::shared_ptr<CPort> pPort = Port()) pPort->device.Interrupt();
}

SerialWait CRS232Ctrl::WaitForBytes(CWakeup& wakeup, int32_t timeoutMs) {
  const std::shared_ptr<CPort> pPort = Port();
  return pPort ? pPort->device.WaitReadable(wakeup, timeoutMs) : SerialWait::kLost;
}

int32_t CRS232Ctrl::GetWaitOverlapped(OVERLAPPED& overlapped) const {
  overlapped = m_osWait;
  return 0;
}

// The events that have come within the time; 0 for none.
uint32_t CRS232Ctrl::PollEvents(CPort& port, int32_t timeoutMs) {
  switch (port.device.WaitReadable(port.wakeCheck, timeoutMs)) {
    case SerialWait::kBytes:
      return kEventReceived;
    case SerialWait::kLost:
      return port.device.IsOpen() ? kEventCarrier : 0;
    default:
      return 0;
  }
}

int32_t CRS232Ctrl::bsWaitCommEvent() {
  m_dwLastError = kErrorNone;
  m_dwEventMask = kEventReceived;
  m_bWaitRuns = false;
  const std::shared_ptr<CPort> pPort = Port();
  if (!pPort || !pPort->device.IsOpen()) return Record(kErrorInvalidHandle);
  if (const uint32_t events = PollEvents(*pPort, 0)) {
    m_dwEventMask = events;
  } else {
    m_bWaitRuns = true;
    m_dwLastError = kErrorIoPending;
  }
  return 1;
}

uint32_t CRS232Ctrl::bsCheckForCommEvent(int32_t bWait) {
  const std::shared_ptr<CPort> pPort = Port();
  if (!pPort || !pPort->device.IsOpen()) {
    bsWaitCommEvent();
    return 0;
  }
  if (!m_bWaitRuns) return m_dwEventMask;
  uint32_t events = PollEvents(*pPort, 0);
  while (events == 0 && bWait && pPort->device.IsOpen()) events = PollEvents(*pPort, -1);
  if (events == 0) return 0;
  m_bWaitRuns = false;
  m_dwEventMask = events;
  return events;
}

void CRS232Ctrl::StartEventThread(const std::shared_ptr<CPort>& pPort) {
  pPort->bRun = true;
  pPort->thread = std::thread([this, pPort] { RunEventThread(*pPort); });
}

void CRS232Ctrl::RunEventThread(CPort& port) {
  SetThreadName("kvl-serial");
  while (port.bRun) {
    switch (port.device.WaitReadable(port.wakeThread, -1)) {
      case SerialWait::kBytes:
        DrainIntoQueue();
        PostMessageA(m_hWnd, kMsgSerialReceived, 0, 0);
        break;
      case SerialWait::kLost:
        // Nothing more will come: all that is left is to wait for Close.
        Record(port, kErrorDeviceLost);
        while (port.bRun) port.wakeThread.Wait(-1);
        break;
      default:
        break;
    }
  }
}

void CRS232Ctrl::DrainIntoQueue() {
  uint8_t chunk[kEventReadSize];
  for (int32_t count = Read(chunk, kEventReadSize); count > 0;
       count = Read(chunk, kEventReadSize)) {
    m_queue.PutBatch(chunk, count, CQueue::Zeros::kKeep);
  }
}

}  // namespace kvl
