#include "platform/posix/named_place.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <map>
#include <memory>
#include <mutex>

#include "platform/last_error.h"
#include "platform/never_destroyed.h"

namespace kvl {
namespace {

constexpr size_t kMaxFileName = 255;
// Neither a link nor a pipe that somebody has left under an object's name leads us astray.
constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr const char* kSuffix[] = {".section", ".semaphore", ".event", ".bell"};

// What an audience's folder and the objects in it must look like.
struct Place {
  std::string m_strPath;
  mode_t m_folderMode;
  mode_t m_objectMode;
};

Place PlaceOf(EAudience audience) {
  const std::string root = "/dev/shm/kvl-";
  switch (audience) {
    case EAudience::kGroup:
      return {root + "group-" + std::to_string(getegid()), 01770, 0660};
    case EAudience::kEveryone:
      return {root + "everyone", 01777, 0666};
    default:
      return {root + std::to_string(geteuid()), 0700, 0600};
  }
}

// Whether a folder or an object belongs to the audience, and is none that a stranger has put
// there to be found.
bool BelongsTo(const struct stat& status, EAudience audience) {
  switch (audience) {
    case EAudience::kGroup:
      return status.st_gid == getegid();
    case EAudience::kEveryone:
      return true;
    default:
      return status.st_uid == geteuid();
  }
}

CObjectFile OpenFolder(const Place& place, EOpenMode mode, EAudience audience, uint32_t& dwError) {
  if (mode == EOpenMode::kOpenOrCreate) mkdir(place.m_strPath.c_str(), place.m_folderMode);
  CObjectFile folder(
      open(place.m_strPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!folder || fstat(folder.Get(), &status) != 0) {
    dwError = ErrorFromErrno(errno);
    return {};
  }
  // The creation mask may have taken rights away from a folder of ours.
  const bool bRights =
      (status.st_mode & 07777) == place.m_folderMode ||
      (status.st_uid == geteuid() && fchmod(folder.Get(), place.m_folderMode) == 0);
  if (bRights && BelongsTo(status, audience)) return folder;
  dwError = kErrorAccessDenied;
  return {};
}

CObjectFile OpenOrCreateIn(const CObjectFile& folder, const char* szFile, mode_t objectMode,
                           EOpenMode mode) {
  // Others may make and remove the same object meanwhile; that ends after a turn or two.
  for (int nTry = 0; nTry < 16; ++nTry) {
    CObjectFile file(openat(folder.Get(), szFile, kOpenFlags));
    if (file || errno != ENOENT || mode == EOpenMode::kOpenExisting) return file;
    CObjectFile fresh(openat(folder.Get(), szFile, kOpenFlags | O_CREAT | O_EXCL, objectMode));
    if (fresh) fchmod(fresh.Get(), objectMode);
    if (fresh || errno != EEXIST) return fresh;
  }
  errno = EAGAIN;
  return {};
}

// The objects of kThisProcess by file name. Never destroyed, since threads may outlive `main`.
struct CPrivateObjects {
  std::mutex m_mutex;
  std::map<std::string, int> m_files;
};

CPrivateObjects& PrivateObjects() {
  static CNeverDestroyed<CPrivateObjects> s_objects;
  return s_objects.Get();
}

CObjectFile OpenPrivate(const std::string& strFile, EOpenMode mode) {
  CPrivateObjects& objects = PrivateObjects();
  const std::lock_guard lock(objects.m_mutex);
  auto found = objects.m_files.find(strFile);
  if (found == objects.m_files.end()) {
    if (mode == EOpenMode::kOpenExisting) {
      errno = ENOENT;
      return {};
    }
    const int nFile = memfd_create("kvl", MFD_CLOEXEC);
    if (nFile < 0) return {};
    found = objects.m_files.emplace(strFile, nFile).first;
  }
  return CObjectFile(fcntl(found->second, F_DUPFD_CLOEXEC, 0));
}

bool RemovePrivate(const std::string& strFile, const ObjectId& id) {
  CPrivateObjects& objects = PrivateObjects();
  const std::lock_guard lock(objects.m_mutex);
  const auto found = objects.m_files.find(strFile);
  if (found == objects.m_files.end() || IdOf(found->second) != id) return false;
  close(found->second);
  objects.m_files.erase(found);
  return true;
}

}  // namespace

ObjectId IdOf(int nFile) {
  struct stat status;
  if (fstat(nFile, &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

CObjectFile::~CObjectFile() {
  if (m_nFile >= 0) close(m_nFile);
}

int CObjectFile::Detach() {
  const int nFile = m_nFile;
  m_nFile = -1;
  return nFile;
}

std::string ObjectFileName(std::string_view strName, EObjectKind kind, uint32_t& dwError) {
  constexpr char kHex[] = "0123456789ABCDEF";
  std::string strFile;
  for (const char c : strName) {
    const auto byte = static_cast<unsigned char>(c);
    const bool bPlain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                        (c >= '0' && c <= '9') || c == '_' || c == '-';
    if (bPlain) {
      strFile += c;
    } else {
      strFile += {'%', kHex[byte >> 4], kHex[byte & 15]};
    }
  }
  strFile += kSuffix[static_cast<size_t>(kind)];
  dwError = strName.empty() && kind != EObjectKind::kBell ? kErrorInvalidName
            : strFile.size() > kMaxFileName               ? kErrorNameTooLong
                                                          : 0;
  return dwError == 0 ? strFile : std::string();
}

// The name behind an object's file name; empty if no object of that kind has such a file.
std::string NameOfFile(std::string_view strFile, EObjectKind kind) {
  std::string strName;
  for (size_t i = 0; i < strFile.size() && strFile[i] != '.'; ++i) {
    char c = strFile[i];
    if (c == '%') {
      unsigned value = 0;
      const std::string_view digits = strFile.substr(i + 1, 2);
      std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
      c = static_cast<char>(value);
      i += 2;
    }
    strName += c;
  }
  uint32_t dwError = 0;
  return ObjectFileName(strName, kind, dwError) == strFile ? strName : std::string();
}

std::vector<std::string> ObjectNames(EObjectKind kind, EAudience audience) {
  std::vector<std::string> names;
  const auto Add = [&](std::string_view strFile) {
    std::string strName = NameOfFile(strFile, kind);
    if (!strName.empty()) names.push_back(std::move(strName));
  };
  if (audience == EAudience::kThisProcess) {
    CPrivateObjects& objects = PrivateObjects();
    const std::lock_guard lock(objects.m_mutex);
    for (const auto& [strFile, nFile] : objects.m_files) Add(strFile);
    std::ranges::sort(names);
    return names;
  }
  uint32_t dwError = 0;
  CObjectFile folder = OpenFolder(PlaceOf(audience), EOpenMode::kOpenExisting, audience, dwError);
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(folder ? fdopendir(folder.Get()) : nullptr,
                                                    closedir);
  if (!entries) return names;
  folder.Detach();
  while (const dirent* entry = readdir(entries.get())) Add(entry->d_name);
  std::ranges::sort(names);
  return names;
}

CObjectFile OpenObject(std::string_view strName, EObjectKind kind, EOpenMode mode,
                       EAudience audience, uint32_t& dwError) {
  const std::string strFile = ObjectFileName(strName, kind, dwError);
  if (strFile.empty()) return {};
  if (audience == EAudience::kThisProcess) {
    CObjectFile file = OpenPrivate(strFile, mode);
    if (!file) dwError = ErrorFromErrno(errno);
    return file;
  }
  const Place place = PlaceOf(audience);
  const CObjectFile folder = OpenFolder(place, mode, audience, dwError);
  if (!folder) return {};
  CObjectFile file = OpenOrCreateIn(folder, strFile.c_str(), place.m_objectMode, mode);
  struct stat status;
  if (!file || fstat(file.Get(), &status) != 0) {
    dwError = ErrorFromErrno(errno);
    return {};
  }
  if (S_ISREG(status.st_mode) && BelongsTo(status, audience)) return file;
  dwError = kErrorAccessDenied;
  return {};
}

bool RemoveObject(std::string_view strName, EObjectKind kind, EAudience audience,
                  const ObjectId& id) {
  uint32_t dwError = 0;
  const std::string strFile = ObjectFileName(strName, kind, dwError);
  if (strFile.empty()) return false;
  if (audience == EAudience::kThisProcess) return RemovePrivate(strFile, id);
  const CObjectFile folder =
      OpenFolder(PlaceOf(audience), EOpenMode::kOpenExisting, audience, dwError);
  if (!folder) return false;
  const CObjectFile named(openat(folder.Get(), strFile.c_str(), kOpenFlags));
  return named && IdOf(named) == id && unlinkat(folder.Get(), strFile.c_str(), 0) == 0;
}

CObjectLock::CObjectLock(const CObjectFile& file) : m_file(file) {
  while (flock(file.Get(), LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    m_nErrno = errno;
    return;
  }
}

CObjectLock::~CObjectLock() {
  flock(m_file.Get(), LOCK_UN);
}

void* MapObject(const CObjectFile& file, size_t nSize, uint32_t& dwError) {
  int nError = EINTR;
  while (nError == EINTR) nError = posix_fallocate(file.Get(), 0, static_cast<off_t>(nSize));
  if (nError == 0) {
    void* pMapped = mmap(nullptr, nSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
    if (pMapped != MAP_FAILED) return pMapped;
    nError = errno;
  }
  dwError = ErrorFromErrno(nError);
  return nullptr;
}

int64_t ObjectSize(int nFile) {
  struct stat status;
  return fstat(nFile, &status) == 0 ? int64_t{status.st_size} : -1;
}

uint32_t ErrorFromErrno(int nErrno) {
  switch (nErrno) {
    case ENOENT:
      return kErrorNotFound;
    case EMFILE:
    case ENFILE:
      return kErrorTooManyOpen;
    case EACCES:
    case EPERM:
    case ELOOP:
    case ENOTDIR:
      return kErrorAccessDenied;
    case ENOMEM:
      return kErrorNoMemory;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return kErrorDiskFull;
    case EDEADLK:
      return kErrorDeadlock;
    case EINVAL:
      return kErrorBadParameter;
    default:
      return kErrorGeneral;
  }
}

}  // namespace kvl
