// A named block of memory that processes share.
// Threads: one object belongs to one thread; the memory belongs to whoever holds the lock that
// its users agreed on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/api.h"
#include "platform/named_object.h"

namespace kvl {

class KVL_API CNamedSection {
 public:
  // A new section has `nSize` bytes of value 0, with memory reserved for all of them; one that
  // is there already keeps its own size. Sizes are capped at 4 GiB - 1.
  // Needs: openers of one name agree on a lock and hold it while they open, since a section
  // that is being made is not distinguished from one whose maker died.
  CNamedSection(std::string_view strName, size_t nSize, EOpenMode mode, EAudience audience);
  ~CNamedSection();
  CNamedSection(const CNamedSection&) = delete;
  CNamedSection& operator=(const CNamedSection&) = delete;

  bool IsOpen() const { return m_pView != nullptr; }
  uint32_t Error() const { return m_dwError; }  // why it isn't open
  bool Existed() const { return m_bExisted; }

  // The mapped bytes, valid as long as this object, also after Remove.
  uint8_t* View() const { return m_pView; }
  size_t Size() const { return m_nSize; }

  // False once somebody has cut the section short behind our back; touching the missing part
  // would end the process. Costs a system call.
  bool IsWhole() const;

  // False once the name means another section, or none.
  // Needs: the same lock as for opening.
  bool HasName(std::string_view strName, EAudience audience) const;

  // Takes the name away from the section. The next opener makes a new one. True if it was there.
  // Needs: the same lock as for opening.
  static bool Remove(std::string_view strName, EAudience audience);

  // The names of the sections that are there, in the order of their bytes; none if they can't be
  // told.
  static std::vector<std::string> Names(EAudience audience);

 private:
  int m_nObject = -1;
  uint8_t* m_pView = nullptr;
  size_t m_nSize = 0;
  uint32_t m_dwError = 0;
  bool m_bExisted = false;
};

}  // namespace kvl
