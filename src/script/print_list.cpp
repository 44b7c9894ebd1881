#include "script/print_list.h"

#include <iterator>
#include <new>

namespace kvl {

void CPrintList::Append(std::string_view text) {
  const std::lock_guard lock(m_csPrint);
  try {
    m_listMessage.push_back({std::string(text)});
  } catch (const std::bad_alloc&) {
    return;
  }
  if (m_listMessage.size() <= kMaxMessages) return;
  m_listMessage.pop_front();
  ++m_nDropped;
}

std::vector<CPrintMessage> CPrintList::Messages() const {
  const std::lock_guard lock(m_csPrint);
  return {m_listMessage.begin(), m_listMessage.end()};
}

std::vector<CPrintMessage> CPrintList::Take() {
  const std::lock_guard lock(m_csPrint);
  std::vector<CPrintMessage> taken(std::make_move_iterator(m_listMessage.begin()),
                                   std::make_move_iterator(m_listMessage.end()));
  m_listMessage.clear();
  return taken;
}

uint64_t CPrintList::Dropped() const {
  const std::lock_guard lock(m_csPrint);
  return m_nDropped;
}

void CPrintList::Clear() {
  const std::lock_guard lock(m_csPrint);
  m_listMessage.clear();
}

}  // namespace kvl
