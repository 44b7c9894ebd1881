// Tables that belong to one test.
#pragma once

#include <unistd.h>

#include <string>

#include "store/TableOwner.h"

// A name that no other test uses, even in a test program that runs beside this one.
inline std::string UniqueName(const std::string& strName) {
  return "test-" + std::to_string(getpid()) + "-" + strName;
}

// A table of this user's that is dropped with the object.
class CTestTable {
 public:
  explicit CTestTable(const std::string& strName) : m_strName(UniqueName(strName)) {}
  ~CTestTable() { kvl::CTableOwner::Remove(m_strName); }
  CTestTable(const CTestTable&) = delete;
  CTestTable& operator=(const CTestTable&) = delete;
  const std::string& Name() const { return m_strName; }

 private:
  const std::string m_strName;
};
