// A named semaphore of count 1, with two promises that a plain one lacks: a holder that dies does
// not stop the others, who go on at once, and a user notices when the semaphore was removed and
// made anew under its name.
// Threads: one object belongs to one thread at a time; Release runs on the thread that took it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/api.h"
#include "platform/named_object.h"

namespace kvl {

enum class ETaken {
  kNo,    // see Error()
  kYes,   // held
  kAnew,  // held, and it is another semaphore than before: what it guards was replaced as well
};

class KVL_API CNamedSemaphore {
 public:
  CNamedSemaphore(std::string_view strName, EOpenMode mode, EAudience audience);
  // Why no semaphore could have that name; 0 if one could.
  static uint32_t NameError(std::string_view strName);

  ~CNamedSemaphore();  // releases it if held
  CNamedSemaphore(const CNamedSemaphore&) = delete;
  CNamedSemaphore& operator=(const CNamedSemaphore&) = delete;

  bool IsOpen() const { return m_pShared != nullptr; }
  uint32_t Error() const { return m_dwError; }  // why it isn't open or couldn't be taken

  // Has a Take that waits go on for as long as `keepWaiting` holds, which it asks every 20 ms;
  // without one it waits without limit. (A holder that is stopped, by a debugger for one, neither
  // releases nor dies.)
  void SetKeepWaiting(std::function<bool()> keepWaiting) { m_keepWaiting = std::move(keepWaiting); }

  // Waits, and holds it. kNo with kErrorTimeout if the wait was ended. A semaphore that was removed
  // is opened again if another one has been made in the meantime; otherwise kNo with
  // kErrorNotFound. kNo with kErrorDeadlock if the calling thread holds the same semaphore already,
  // through this or another object.
  ETaken Take();
  void Release();

  // A counter that lives with the semaphore and starts at 0: whoever changes the shape of what
  // the semaphore guards counts the change, so that others know when what they remember has
  // ceased to hold. A holder's death counts as a change.
  // Needs: the semaphore is held.
  uint64_t ChangeCount() const { return *m_pnChangeCount; }
  void CountChange();

  // Ends the semaphore: its release takes the name away from it, and whoever takes it from now on
  // looks for another one. What it guards is removed between the two, so that nobody finds that
  // under another semaphore, and whoever dies meanwhile leaves it to be found by everybody.
  // Needs: the semaphore is held.
  void Remove();

 private:
  struct Shared;

  bool Open();
  void Close();
  int Wait();
  void DropName();

  std::string m_strName;
  EOpenMode m_mode;  // kOpenExisting once it was held: nobody makes anew what was removed
  EAudience m_audience;
  std::function<bool()> m_keepWaiting;
  Shared* m_pShared = nullptr;
  const uint64_t* m_pnChangeCount = nullptr;  // in m_pShared
  uint64_t m_nDevice = 0;  // with m_nNumber: which of the objects that have had the name
  uint64_t m_nNumber = 0;
  uint32_t m_dwError = 0;
  bool m_bHeld = false;
  bool m_bReplaced = false;  // removed since the last successful Take
};

// Holds a semaphore for a scope; test it before relying on it.
class CSemaphoreHold {
 public:
  explicit CSemaphoreHold(CNamedSemaphore& semaphore)
      : m_semaphore(semaphore), m_taken(semaphore.Take()) {}
  ~CSemaphoreHold() {
    if (m_taken != ETaken::kNo) m_semaphore.Release();
  }
  CSemaphoreHold(const CSemaphoreHold&) = delete;
  CSemaphoreHold& operator=(const CSemaphoreHold&) = delete;
  explicit operator bool() const { return m_taken != ETaken::kNo; }

 private:
  CNamedSemaphore& m_semaphore;
  const ETaken m_taken;
};

}  // namespace kvl
