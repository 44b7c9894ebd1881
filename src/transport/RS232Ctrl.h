// One RS-232C port, polled by its user or drained by a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/api.h"
#include "platform/serial.h"
#include "platform/window.h"
#include "transport/Queue.h"
#include "transport/comm.h"
#include "transport/line.h"

namespace kvl {

// Names an open port. It is an identity, never given to a second port; nothing can be read from it.
using HANDLE = uintptr_t;
inline constexpr HANDLE kInvalidHandle = ~HANDLE{0};

// Posted to the owner window, both parameters 0, each time the event thread has drained the port.
inline constexpr uint32_t kMsgSerialReceived = 0x464;

// Events of a port: bytes have arrived; the line is lost. A carrier that comes or goes without the
// port being lost, and the end of a transmission, are not told.
inline constexpr uint32_t kEventReceived = 0x01;
inline constexpr uint32_t kEventCarrier = 0x20;

// The record of an overlapped transfer. No transfer of this class is left pending when a call
// returns, so that all five words are always 0: there is no event to wait on. Wait with
// bsCheckForCommEvent.
struct OVERLAPPED {
  uint32_t Internal = 0;
  uint32_t InternalHigh = 0;
  uint32_t Offset = 0;
  uint32_t OffsetHigh = 0;
  uint32_t hEvent = 0;
};

// Threads: polled, one thread for Read and Write; with the event thread, that thread calls Read
//          and a host thread may call Write. Open and Close may meet a Write, an Interrupt or a
//          waiting bsCheckForCommEvent of another thread: they end it, and it touches nothing of a
//          port opened since. Otherwise Open, Close, copying and destruction need the others at
//          rest.
// Copies:  share the port and its thread; closing or destroying one closes it for all, and the
//          others are then closed objects. Copies are made while the event thread rests.
// Errors:  results; the number of the last failure (platform/last_error.h) stays for
//          GetLastError until a setter, bsWaitCommEvent or Open succeeds.
class KVL_API CRS232Ctrl : public CLine {
 public:
  explicit CRS232Ctrl(CWnd* pOwner = nullptr);
  CRS232Ctrl(const CRS232Ctrl& other);
  CRS232Ctrl& operator=(const CRS232Ctrl& other);
  ~CRS232Ctrl() override;

  // Reads what has arrived, at most `nCount` bytes, without ever waiting: their number, 0 if
  // nothing has, the port is closed, or the read fails.
  virtual int32_t Read(uint8_t* pBuffer, int32_t nCount);

  // Sends the bytes, at most for as long as the write time-outs say: how many went out.
  int32_t Write(const uint8_t* pBytes, int32_t nCount) override;

  // Begins to wait for an event: 1 if the wait runs (GetLastError is then kErrorIoPending) or an
  // event was there, 0 on failure.
  virtual int32_t bsWaitCommEvent();

  // The events that have ended the wait, 0 if none has come; with `bWait` it waits for one, or for
  // Close.
  virtual uint32_t bsCheckForCommEvent(int32_t bWait);

  // Opens the port with the settings of a script: 1, or 0 if the port can't be opened. An index
  // outside its table leaves that setting as the device has it, and a setting that the device
  // refuses does not fail the call. An open port is closed first. No thread is started.
  int32_t Open(const COMM* pComm);

  // The same with settings in the port's own terms (9600, 8, 0, 0), and with the event thread:
  // it moves what arrives into the queue and posts kMsgSerialReceived to the owner window.
  int32_t Open(const char* szPort, int32_t nBaudRate, int32_t nDataBits, int32_t nParity,
               int32_t nStopBits);

  // Drops what waits in both directions, ends the event thread, closes. Always 1.
  // Needs: not on the event thread.
  int32_t Close();

  // Setters: non-zero on success. In bsSetParityDataStop a negative number leaves that setting.
  int32_t bsSetBaudRate(int32_t nRate);
  int32_t bsSetParityDataStop(int32_t nParity, int32_t nDataBits, int32_t nStopBits);

  // The system chooses its own buffer sizes: these are taken as a wish and change nothing.
  int32_t bsSetBufferSizes(uint32_t nInput, uint32_t nOutput);

  // Milliseconds. Read asks only for what has arrived, so that its time-outs never run. Write
  // gives up after nMultiplier for each byte plus nConstant; both 0: never.
  int32_t bsSetReadTimeouts(uint32_t nInterval, uint32_t nMultiplier, uint32_t nConstant);
  int32_t bsSetWriteTimeouts(uint32_t nMultiplier, uint32_t nConstant);

  // Words for the host; nothing here reads them but these. bsGetWaitCount counts down first.
  void bsSetConnectFlag(int32_t bConnected) { m_bConnected = bConnected; }
  int32_t bsGetConnectFlag() const { return m_bConnected; }
  void bsSetWaitCount(int32_t nCount) { m_nWaitCount = nCount; }
  int32_t bsGetWaitCount() { return --m_nWaitCount; }
  void bsSetStatusSignal(uint16_t wSignal) { m_wStatusSignal = wSignal; }
  uint16_t bsGetStatusSignal() const { return m_wStatusSignal; }

  // 1 if a port is open and GetLastError is 0.
  int32_t IsValid() const;

  uint32_t GetLastError() const { return m_dwLastError; }
  uint32_t GetCommErrors() const { return m_dwCommErrors; }  // line error bits of platform/serial.h
  HANDLE GetCommHandle() const;
  int32_t GetWaitOverlapped(OVERLAPPED& overlapped) const;

  // What the event thread has received; the host is the consumer.
  CQueue& GetQueue() { return m_queue; }

  bool IsOpen() const override;
  void Interrupt() override;

  // Sleeps until bytes have arrived, the wakeup is set, or the port is lost; see CSerialDevice.
  SerialWait WaitForBytes(CWakeup& wakeup, int32_t timeoutMs);

 private:
  struct CPort;

  std::shared_ptr<CPort> Port() const;
  void SetPort(std::shared_ptr<CPort> pPort);
  int32_t OpenPort(const char* szPort, int32_t nBaudRate, int32_t nDataBits, int32_t nParity,
                   int32_t nStopBits);
  int32_t ClearCommError(CPort& port);
  int32_t Record(uint32_t nError);
  int32_t Record(const CPort& port, uint32_t nError);
  static uint32_t PollEvents(CPort& port, int32_t timeoutMs);
  void StartEventThread(const std::shared_ptr<CPort>& pPort);
  void RunEventThread(CPort& port);
  void DrainIntoQueue();

  mutable std::mutex m_csPort;  // guards the pointer: who uses the port keeps it alive
  std::shared_ptr<CPort> m_pPort;
  std::atomic<uint32_t> m_dwLastError{0};
  std::atomic<uint32_t> m_dwCommErrors{0};
  std::atomic<uint32_t> m_dwEventMask{0};
  std::atomic<bool> m_bWaitRuns{false};
  OVERLAPPED m_osWait;
  int32_t m_bConnected = 0;
  int32_t m_nWaitCount = 0;
  uint16_t m_wStatusSignal = 0;
  HWND m_hWnd;
  CQueue m_queue;
};

}  // namespace kvl
