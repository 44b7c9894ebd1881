// CDecodeCtrl, the control that owns one decode session: it verifies a script, opens the line that
// the script names, and has a worker thread run the script over whatever arrives.
//
// Order of use: Create, SetScriptName, VerifyScript, Run, Stop; Run may follow Stop again.
// Threads: every operation on the thread that called Create, whose message loop must run for a
//          socket line; the worker never waits for that thread.
// Errors:  0 success, -1 failure.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "control/line_slot.h"
#include "control/session.h"
#include "control/session_observer.h"
#include "platform/api.h"
#include "platform/message_loop.h"
#include "platform/window.h"
#include "script/KVL.h"
#include "transport/Queue.h"
#include "transport/RS232Ctrl.h"
#include "transport/Sockets.h"
#include "transport/comm.h"
#include "verifier/KVLSyntax.h"

namespace kvl {

class KVL_API CDecodeCtrl : public CStatic {
 public:
  CDecodeCtrl();
  ~CDecodeCtrl() override;  // performs Stop

  // Makes the control's window: a child of `pParent`, visible, without text. Non-zero on success.
  int32_t Create(CWnd* pParent, const RECT& rect, uint32_t nID);

  // The worker reads the file when it starts. Null stands for no name.
  void SetScriptName(const char* szPath);
  const char* GetScriptName() const { return m_strScriptName.c_str(); }

  // Kept for the host; nothing here uses it.
  void SetSyncObject(std::mutex* pSyncObject) { m_pSyncObject = pSyncObject; }

  // The line in use: 1 serial, 2 TCP. Run sets it.
  void SetInterface(uint32_t nInterface) { m_nInterface = nInterface; }
  uint32_t GetInterface() const { return m_nInterface; }

  // Who hears of the session; null for nobody. Set it while the session is stopped. The destructor
  // tells nothing; an observer that is part of the same object needs a Stop in its own destructor.
  void SetObserver(CSessionObserver* pObserver) { m_pObserver = pObserver; }

  // Verifies the script. 0 it passed, and its settings and table name are taken over; -1 it did
  // not, or there was no memory for it, and its faults stay readable in GetSyntax until Stop or the
  // next VerifyScript. A session that runs goes on as it is.
  int32_t VerifyScript();

  // Starts a session on the script's line. 0 started, or nothing to start (MEDIA UDP or none); -1
  // the last verification was not clean, or the serial port can't be opened. The outcome of a
  // connect comes later, as a status. A session that runs is stopped first, unless the
  // verification was not clean.
  int32_t Run();

  // The same on the serial port "COM<nPort>", 1 to 99, with indexes as a COMM record holds them.
  // They replace the script's own until the next VerifyScript.
  int32_t Run(int32_t nPort, int32_t nDataBit, int32_t nBaudRate, int32_t nParityBit,
              int32_t nStopBit);

  // Ends the session, within milliseconds whatever the script is doing. Bytes that no pass has
  // seen begin the first batch of the next session. What other threads send to this thread's
  // windows meanwhile is handled, or a worker whose observer does so could not end.
  void Stop();

  // Paints a plain blue rectangle.
  void OnPaint();

  // The verifier with the faults of the last verification, or null.
  const CKVLSyntax* GetSyntax() const { return m_pSyntax.get(); }
  // The engine of the session, or null. Of it only Prints() and HasTable() may be used while a
  // worker runs.
  CKVL* GetEngine() { return m_pKVL.get(); }
  const COMM& GetCom() const { return m_comm; }
  const std::string& GetTableName() const { return m_strTableName; }
  bool IsConnected() const { return m_bConnected; }
  // Why the serial port could not be opened the last time, a code of ErrorText; 0 if it could.
  uint32_t GetPortError() const { return m_dwPortError; }
  // What waits for a pass. The worker may take it meanwhile.
  int32_t GetWaitingBytes() const { return m_queue.GetSize(); }
  // Whether all that the line brought has been through a pass, and an empty one has followed.
  bool HasDecodedAll() const { return GetWaitingBytes() == 0 && !m_bDecoding; }
  // What the line brought while the queue was full, and was dropped.
  uint64_t GetDroppedBytes() const { return m_queue.GetDroppedBytes(); }
  // The last status text of a connect or close event, with its line ends.
  const std::string& GetStatusText() const { return m_strStatus; }

  LRESULT WindowProc(uint32_t nMessage, WPARAM wParam, LPARAM lParam) override;

 protected:
  // Socket events: the socket's handle, and the error code in the high 16 bits. OnCloseSocket
  // gives 1 if the socket was closed, the others 0; an unknown handle changes nothing and gives 0.
  LRESULT OnConnect(WPARAM hSocket, LPARAM lParam);
  LRESULT OnReceiveSocket(WPARAM hSocket, LPARAM lParam);
  LRESULT OnCloseSocket(WPARAM hSocket, LPARAM lParam);

  // Opens the line of the running session again, with the engine and its variables as they are.
  // Nothing here does so by itself: when and how often is the host's decision.
  // A connection that was closed; its outcome comes as a new connect event.
  void OnRecreateSocket();
  // A serial port that was lost, or could not be opened by Run. 0 it is open, -1 it is not.
  int32_t OnReopenPort();

 private:
  int32_t StartSession();
  int32_t OpenPort(CWnd* pOwner);
  void OpenSocket();
  int32_t StartConnect();
  void FinishConnect(int32_t error);
  void TellConnectFailed(int32_t error);
  void CloseSocket();
  void Queue(std::span<const uint8_t> bytes);
  bool StartWorker();
  void StopWorker();
  void SetStatusText(std::initializer_list<std::string_view> parts) noexcept;
  void Tell(ESessionStatus status, std::string_view text) noexcept;

  // The worker's part.
  void WorkerThread(const std::string& script) noexcept;
  void RunScript(const std::string& script);
  void Turn();
  void DrainPort();
  void RunPass();
  void RunEmptyPass();
  void WaitForBytes();
  bool ReceiveHere(CClientSock& socket);
  void LosePort(const std::shared_ptr<CRS232Ctrl>& port);
  void TellLoss();

  std::thread m_thread;
  CSession m_session;
  uint32_t m_nSession = 0;  // counts the sessions
  CQueue m_queue;
  CMessageLoop m_loop;  // of the thread that started the worker
  std::atomic<bool> m_bWorkerEnded{false};
  std::atomic<bool> m_bDecoding{false};  // raised ahead of taking bytes from the queue
  std::mutex m_csQueue;  // for who puts; contended only if a host sends receive events of its own
  std::string m_strScriptName;
  COMM m_comm;
  bool m_bVerified = false;
  CLineSlot<CRS232Ctrl> m_port;
  COMM m_commPort;  // of the session's port
  uint32_t m_dwPortError = 0;
  CLineSlot<CClientSock> m_socket;
  std::atomic<uint32_t> m_nInterface{1};
  std::string m_strHost;
  std::string m_strPeer;  // host and port
  int32_t m_nPort = 0;
  bool m_bConnected = false;
  std::string m_strStatus;
  std::mutex* m_pSyncObject = nullptr;
  CSessionObserver* m_pObserver = nullptr;
  std::unique_ptr<CKVL> m_pKVL;
  std::unique_ptr<CKVLSyntax> m_pSyntax;
  std::string m_strTableName;
  RECT m_rcClient;

  // The worker's own.
  bool m_bLossUntold = false;
  int32_t m_nBusyPasses = 0;  // empty passes to run before it is worth asking for idleness again
  int32_t m_nBusyPassesNext = 0;
};

}  // namespace kvl
