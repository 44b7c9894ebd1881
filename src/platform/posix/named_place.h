// Where named objects lie on this platform: files in a memory file system, one folder an
// audience, whose names are the objects' names, escaped.
//   /dev/shm/kvl-<user id>/          mode 0700, kOwner
//   /dev/shm/kvl-group-<group id>/   mode 1770, kGroup
//   /dev/shm/kvl-everyone/           mode 1777, kEveryone
// The objects of kThisProcess are files without a name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/named_object.h"

namespace kvl {

enum class EObjectKind { kSection, kSemaphore, kEvent, kBell };

constexpr size_t kObjectPage = 4096;  // size of a semaphore, an event and a bell

// An open object; closed with this object.
class CObjectFile {
 public:
  CObjectFile() = default;
  explicit CObjectFile(int nFile) : m_nFile(nFile) {}
  ~CObjectFile();
  CObjectFile(CObjectFile&& other) noexcept : m_nFile(other.Detach()) {}
  CObjectFile& operator=(CObjectFile&&) = delete;

  explicit operator bool() const { return m_nFile >= 0; }
  int Get() const { return m_nFile; }
  int Detach();

 private:
  int m_nFile = -1;
};

// The file name of an object: letters, digits, '_' and '-' stand for themselves, every other byte
// is '%' and two hexadecimal digits; the kind is the part behind the dot. Empty, with a code in
// `dwError`, for a name that is empty or too long.
std::string ObjectFileName(std::string_view strName, EObjectKind kind, uint32_t& dwError);

// The names of the objects of that kind, in the order of their bytes.
std::vector<std::string> ObjectNames(EObjectKind kind, EAudience audience);

// Opens an object, which is made without contents if it may be. Refuses what another user has
// planted. Not open, with a code in `dwError`, on failure.
CObjectFile OpenObject(std::string_view strName, EObjectKind kind, EOpenMode mode,
                       EAudience audience, uint32_t& dwError);

// Tells objects apart that had the same name one after the other.
struct ObjectId {
  uint64_t m_nDevice = 0;
  uint64_t m_nNumber = 0;
  bool operator==(const ObjectId&) const = default;
};
ObjectId IdOf(int nFile);
inline ObjectId IdOf(const CObjectFile& file) {
  return IdOf(file.Get());
}

// Takes the name away if it is that object's. True if it was.
// Needs: whoever removes this object holds a lock that belongs to the object itself, so that
// nobody else can put another object in its place between the look and the removal.
bool RemoveObject(std::string_view strName, EObjectKind kind, EAudience audience,
                  const ObjectId& id);

// The lock of an object's file, which the system gives back when its holder dies. It does not
// part the threads of one process on an object of kThisProcess.
class CObjectLock {
 public:
  explicit CObjectLock(const CObjectFile& file);
  ~CObjectLock();
  CObjectLock(const CObjectLock&) = delete;
  CObjectLock& operator=(const CObjectLock&) = delete;
  int Errno() const { return m_nErrno; }  // 0 if it is held

 private:
  const CObjectFile& m_file;
  int m_nErrno = 0;
};

// Reserves the first `nSize` bytes, so that no later access can fail for want of memory, and maps
// them. Null, with a code in `dwError`, on failure.
void* MapObject(const CObjectFile& file, size_t nSize, uint32_t& dwError);

// -1 if the size can't be told.
int64_t ObjectSize(int nFile);

uint32_t ErrorFromErrno(int nErrno);

}  // namespace kvl
