#include "platform/file_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>

#include "platform/loop_core.h"

namespace kvl {
namespace {

// Folders are watched, not files: an editor that saves a file puts another one in its place.
constexpr uint32_t kChanges = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR;
constexpr std::chrono::milliseconds kSettle{50};

}  // namespace

struct CFileWatch::Impl final : CLoopResource, std::enable_shared_from_this<CFileWatch::Impl> {
  std::shared_ptr<CLoopCore> pLoop = CLoopCore::Current();
  std::optional<asio::posix::stream_descriptor> events;
  std::optional<asio::steady_timer> settle;
  std::multimap<std::pair<int, std::string>, size_t> files;  // folder and name to position
  std::set<size_t> changed;
  size_t nFiles = 0;
  bool bComplete = false;
  Task task;

  void OnLoopEnd() override {
    events.reset();
    settle.reset();
  }

  bool Open() {
    const int queue = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (queue < 0) return false;
    events.emplace(pLoop->Io(), queue);
    settle.emplace(pLoop->Io());
    return true;
  }

  bool Add(const std::filesystem::path& path, size_t position) {
    const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : ".";
    const int watch = inotify_add_watch(events->native_handle(), folder.c_str(), kChanges);
    if (watch >= 0) files.insert({{watch, path.filename().string()}, position});
    return watch >= 0;
  }

  void Wait() {
    events->async_wait(asio::posix::stream_descriptor::wait_read,
                       [pSelf = shared_from_this()](const asio::error_code& ec) {
                         if (ec || !pSelf->events) return;
                         pSelf->Read();
                         pSelf->Wait();
                       });
  }

  void Read() {
    alignas(inotify_event) char buffer[4096];
    ssize_t size;
    while ((size = read(events->native_handle(), buffer, sizeof buffer)) > 0) {
      for (ssize_t at = 0; at < size;) {
        inotify_event event;
        std::memcpy(&event, buffer + at, sizeof event);
        Note(event, event.len > 0 ? buffer + at + sizeof event : "");
        at += static_cast<ssize_t>(sizeof event + event.len);
      }
    }
  }

  void Note(const inotify_event& event, const char* name) {
    const bool wasQuiet = changed.empty();
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      for (size_t i = 0; i < nFiles; ++i) changed.insert(i);
    }
    const auto [first, last] = files.equal_range({event.wd, name});
    for (auto file = first; file != last; ++file) changed.insert(file->second);
    if (!wasQuiet || changed.empty()) return;
    settle->expires_after(kSettle);
    settle->async_wait([pSelf = shared_from_this()](const asio::error_code& ec) {
      if (ec || !pSelf->events) return;
      const std::set<size_t> told = std::exchange(pSelf->changed, {});
      const Task handler = pSelf->task;  // it may destroy the watch
      RunGuarded([&] { handler(told); });
    });
  }
};

CFileWatch::CFileWatch(const std::vector<std::string>& paths, Task task)
    : m_pImpl(std::make_shared<Impl>()) {
  Impl& impl = *m_pImpl;
  impl.task = std::move(task);
  impl.nFiles = paths.size();
  if (!impl.pLoop || !impl.Open()) return;
  impl.bComplete = true;
  for (size_t i = 0; i < paths.size(); ++i) {
    impl.bComplete = impl.Add(paths[i], i) && impl.bComplete;
    std::error_code ignored;  // what does not exist yet is no link
    const auto target = std::filesystem::canonical(paths[i], ignored);
    if (!ignored && target.filename() != std::filesystem::path(paths[i]).filename()) {
      impl.bComplete = impl.Add(target, i) && impl.bComplete;
    }
  }
  impl.pLoop->Attach(&impl);
  impl.Wait();
}

CFileWatch::~CFileWatch() {
  if (m_pImpl->events) m_pImpl->pLoop->Detach(m_pImpl.get());
  m_pImpl->OnLoopEnd();
}

bool CFileWatch::IsComplete() const {
  return m_pImpl->bComplete;
}

}  // namespace kvl
