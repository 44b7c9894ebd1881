// Tells when files change.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/api.h"

namespace kvl {

// Watches files, also ones that come into being later, are replaced by another of their name or
// are reached through a symbolic link. Their folders must exist. A row of changes in quick
// succession, as an editor makes them, is told once.
// Threads: the thread that made the object, which must serve its message loop.
class KVL_API CFileWatch {
 public:
  // Gets the positions, in `paths`, of the files that changed.
  using Task = std::function<void(const std::set<size_t>& changed)>;

  CFileWatch(const std::vector<std::string>& paths, Task task);
  ~CFileWatch();
  CFileWatch(const CFileWatch&) = delete;
  CFileWatch& operator=(const CFileWatch&) = delete;

  // Whether every file is watched; if not, the system refused it or a folder does not exist.
  bool IsComplete() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> m_pImpl;
};

}  // namespace kvl
