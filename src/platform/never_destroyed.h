// Objects of static storage that last to the very end of the process.
#pragma once

#include <cstddef>
#include <new>

namespace kvl {

// For what threads, and other objects of static storage, may use as long as there are any. Takes
// no memory but its own, so that the first use can't fail for want of it.
template <typename Object>
class CNeverDestroyed {
 public:
  CNeverDestroyed() { new (m_place) Object; }
  CNeverDestroyed(const CNeverDestroyed&) = delete;
  CNeverDestroyed& operator=(const CNeverDestroyed&) = delete;

  Object& Get() { return *std::launder(reinterpret_cast<Object*>(m_place)); }

 private:
  alignas(Object) std::byte m_place[sizeof(Object)];
};

}  // namespace kvl
