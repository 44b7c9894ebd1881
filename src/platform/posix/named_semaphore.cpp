#include "platform/named_semaphore.h"

#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <mutex>

#include "platform/last_error.h"
#include "platform/posix/named_place.h"

namespace kvl {

// What the file of a semaphore holds. The mutex is robust, error-checking and shared between
// processes.
struct CNamedSemaphore::Shared {
  pthread_mutex_t m_mutex;
  alignas(64) uint32_t m_nMark;  // kReady once the mutex is made
  uint32_t m_nRemoved;           // 1 once the semaphore has lost its name
  uint64_t m_nChangeCount;
};

namespace {

constexpr uint32_t kReady = 0x314D4553;  // "SEM1"

constexpr long kSecondNs = 1'000'000'000;
constexpr long kAskAfterNs = 20'000'000;

int MakeMutex(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  int nError = pthread_mutexattr_init(&attributes);
  if (nError != 0) return nError;
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  nError = pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return nError;
}

}  // namespace

CNamedSemaphore::CNamedSemaphore(std::string_view strName, EOpenMode mode, EAudience audience)
    : m_strName(strName), m_mode(mode), m_audience(audience) {
  static_assert(sizeof(Shared) <= kObjectPage && offsetof(Shared, m_nMark) == 64);
  Open();
}

CNamedSemaphore::~CNamedSemaphore() {
  Release();
  Close();
}

uint32_t CNamedSemaphore::NameError(std::string_view strName) {
  uint32_t dwError = 0;
  ObjectFileName(strName, EObjectKind::kSemaphore, dwError);
  return dwError;
}

bool CNamedSemaphore::Open() {
  m_dwError = 0;
  const CObjectFile file =
      OpenObject(m_strName, EObjectKind::kSemaphore, m_mode, m_audience, m_dwError);
  if (!file) return false;
  auto* pShared = static_cast<Shared*>(MapObject(file, kObjectPage, m_dwError));
  if (pShared == nullptr) return false;

  // The first opener makes the mutex. The file's lock keeps other processes out meanwhile and is
  // given back by the system if this one dies; the threads of one process can share the file, so
  // they need a lock of their own.
  static std::mutex s_making;
  const std::lock_guard making(s_making);
  const CObjectLock lock(file);
  int nError = lock.Errno();
  std::atomic_ref mark(pShared->m_nMark);
  if (nError == 0 && mark.load() == 0) {
    nError = MakeMutex(pShared->m_mutex);
    if (nError == 0) mark.store(kReady);
  }
  if (nError != 0) m_dwError = ErrorFromErrno(nError);
  if (nError == 0 && mark.load() != kReady) m_dwError = kErrorInvalidData;
  if (m_dwError == 0) {
    m_pShared = pShared;
    m_pnChangeCount = &pShared->m_nChangeCount;
    m_nDevice = IdOf(file).m_nDevice;
    m_nNumber = IdOf(file).m_nNumber;
    return true;
  }
  munmap(pShared, kObjectPage);
  return false;
}

void CNamedSemaphore::Close() {
  if (m_pShared != nullptr) munmap(m_pShared, kObjectPage);
  m_pShared = nullptr;
}

// The system's number for why the mutex was not taken; 0 and EOWNERDEAD if it was.
int CNamedSemaphore::Wait() {
  if (!m_keepWaiting) return pthread_mutex_lock(&m_pShared->m_mutex);
  int nError = pthread_mutex_trylock(&m_pShared->m_mutex);
  while (nError == EBUSY || nError == ETIMEDOUT) {
    if (nError == ETIMEDOUT && !m_keepWaiting()) break;
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_nsec += kAskAfterNs;
    until.tv_sec += until.tv_nsec / kSecondNs;
    until.tv_nsec %= kSecondNs;
    nError = pthread_mutex_clocklock(&m_pShared->m_mutex, CLOCK_MONOTONIC, &until);
  }
  return nError;
}

ETaken CNamedSemaphore::Take() {
  for (;;) {
    if (m_pShared == nullptr && !Open()) return ETaken::kNo;
    const int nError = Wait();
    if (nError == EOWNERDEAD) {
      pthread_mutex_consistent(&m_pShared->m_mutex);
      ++m_pShared->m_nChangeCount;
    } else if (nError != 0) {
      m_dwError = ErrorFromErrno(nError);
      return ETaken::kNo;
    }
    if (m_pShared->m_nRemoved == 0) {
      m_bHeld = true;
      m_mode = EOpenMode::kOpenExisting;
      const bool bReplaced = m_bReplaced;
      m_bReplaced = false;
      return bReplaced ? ETaken::kAnew : ETaken::kYes;
    }
    DropName();  // whoever marked it may have died before it could
    pthread_mutex_unlock(&m_pShared->m_mutex);
    Close();
    m_bReplaced = true;
  }
}

void CNamedSemaphore::Release() {
  if (!m_bHeld) return;
  m_bHeld = false;
  if (m_pShared->m_nRemoved != 0) DropName();
  pthread_mutex_unlock(&m_pShared->m_mutex);
}

void CNamedSemaphore::CountChange() {
  ++m_pShared->m_nChangeCount;
}

void CNamedSemaphore::Remove() {
  m_pShared->m_nRemoved = 1;
}

void CNamedSemaphore::DropName() {
  RemoveObject(m_strName, EObjectKind::kSemaphore, m_audience, {m_nDevice, m_nNumber});
}

}  // namespace kvl
