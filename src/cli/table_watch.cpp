#include "cli/table_watch.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "cli/output.h"
#include "cli/tags.h"
#include "platform/clock.h"
#include "platform/last_error.h"
#include "platform/message_loop.h"
#include "platform/named_event.h"
#include "platform/terminal.h"

namespace kvl::cli {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLastWords{1000};  // to be printed when the watch is to end

// Writes a second, the last seconds counting most.
class CRate {
 public:
  void Add(uint32_t count, int64_t now) {
    m_sum = Decayed(now) + count;
    m_nLast = now;
  }
  double PerSecond(int64_t now) const {
    // What the sum of a steady rate would be by now, as a part of what it tends to.
    const auto age = static_cast<double>(std::max(now - m_nStart, kLeastAgeMs));
    return Decayed(now) / (kMemoryMs / 1000 * (1 - std::exp(-age / kMemoryMs)));
  }

 private:
  static constexpr double kMemoryMs = 5000;
  static constexpr int64_t kLeastAgeMs = 1000;  // one write at the start is no high rate

  double Decayed(int64_t now) const {
    return m_sum * std::exp(-static_cast<double>(now - m_nLast) / kMemoryMs);
  }

  int64_t m_nStart = GetTickCount();
  int64_t m_nLast = m_nStart;
  double m_sum = 0;
};

struct CWatchedTag {
  CTagImage m_image;
  CTagImage m_old;           // what it held before the last new value
  int64_t m_nWritten = 0;    // when that came, by the wall clock; 0 for not yet
  int64_t m_nWrittenMs = 0;  // and by GetTickCount
  CRate m_rate;
};

// How the user sees it.
class CWatchView {
 public:
  virtual ~CWatchView() = default;
  // Other tags than before are followed from now on.
  virtual void Follow(const std::vector<CWatchedTag>& tags) = 0;
  virtual void NewValue(const CWatchedTag& tag) = 0;
  // Called when all new values have been told.
  virtual void Refresh(const std::vector<CWatchedTag>& /*tags*/) {}
  // How long it leaves new values alone behind Refresh, and after how long it wants another one
  // though there is no new value.
  virtual milliseconds Pause() const { return milliseconds(0); }
  virtual milliseconds Patience() const { return kForever; }
};

// A line, or a JSON object, for each new value.
class CLineView : public CWatchView {
 public:
  CLineView(const CWatchOptions& options, const CContext& context)
      : m_options(options), m_painter(context.m_color, EPrintStream::kOutput) {}

  void Follow(const std::vector<CWatchedTag>& tags) override {
    m_nWidth = 0;
    for (const CWatchedTag& tag : tags) {
      m_nWidth = std::max(m_nWidth, WidthOf(Printable(tag.m_image.m_strName)));
    }
    fmt::print(stderr, "watching {} tag{} of table {}\n", tags.size(), tags.size() == 1 ? "" : "s",
               m_options.m_table);
  }

  void NewValue(const CWatchedTag& tag) override {
    const double rate = tag.m_rate.PerSecond(tag.m_nWrittenMs);
    if (m_options.m_bJson) {
      CJson object = {{"time", static_cast<double>(tag.m_nWritten) / 1e6}};
      object.update(TagJson(tag.m_image));
      object["old"] = ValueJson(tag.m_old);
      object["rate"] = std::round(rate * 1000) / 1000;
      PrintJson(object);
      return;
    }
    const std::string name = Fit(Printable(tag.m_image.m_strName), m_nWidth);
    fmt::print("{}  {}  {} -> {}  {}\n", m_painter.Paint(EColor::Dim, TimeText(tag.m_nWritten)),
               m_painter.Paint(EColor::Bold, name), ShownValue(tag.m_old), ShownValue(tag.m_image),
               m_painter.Paint(EColor::Dim, fmt::format("{:.1f}/s", rate)));
  }

 private:
  const CWatchOptions& m_options;
  const CPainter m_painter;
  size_t m_nWidth = 0;
};

// A table that is drawn over itself. The cursor stays below it, so that nothing has to be put
// right when the watch ends, however it ends.
class CScreenView : public CWatchView {
 public:
  explicit CScreenView(const CContext& context)
      : m_painter(context.m_color, EPrintStream::kOutput) {}

  void Follow(const std::vector<CWatchedTag>& /*tags*/) override {}
  void NewValue(const CWatchedTag& /*tag*/) override {}

  void Refresh(const std::vector<CWatchedTag>& tags) override {
    const CTerminalSize size = OutputTerminalSize();
    const size_t room = std::max<size_t>(size.m_nLines, 4) - 3;
    const size_t shown = std::min(tags.size(), room);
    const int64_t now = GetTickCount();
    SetWidths(tags, size.m_nColumns);
    m_bMoving = false;
    std::string frame = m_nLines == 0 ? "" : fmt::format("\x1b[{}A\r", m_nLines);
    frame += m_painter.Paint(EColor::Dim, Row("TAG", "VALUE", "WAS", "WRITTEN", "RATE"));
    for (size_t i = 0; i < tags.size(); ++i) {
      const std::string row = TagRow(tags[i], now);
      if (i < shown) frame += "\x1b[K\n" + row;
    }
    if (shown < tags.size()) {
      frame += fmt::format("\x1b[K\n... and {} more: name the tags to follow", tags.size() - shown);
    }
    fmt::print("{}\x1b[K\n\x1b[J", frame);
    m_nLines = 1 + shown + (shown < tags.size() ? 1 : 0);
  }

  milliseconds Pause() const override { return milliseconds(50); }  // no eye sees more
  milliseconds Patience() const override { return m_bMoving ? milliseconds(1000) : kForever; }

 private:
  static constexpr size_t kGap = 2;
  static constexpr size_t kTime = 12;
  static constexpr size_t kRate = 9;
  static constexpr int64_t kFreshMs = 1000;

  void SetWidths(const std::vector<CWatchedTag>& tags, size_t columns) {
    m_nName = 3;
    for (const CWatchedTag& tag : tags) {
      m_nName = std::max(m_nName, WidthOf(Printable(tag.m_image.m_strName)));
    }
    m_nName = std::min(m_nName, columns / 3);
    const size_t others = m_nName + kTime + kRate + 4 * kGap;
    m_nValue = std::clamp<size_t>((columns - std::min(columns, others)) / 2, 5, 40);
  }

  std::string Row(std::string_view name, std::string_view value, std::string_view old,
                  std::string_view time, std::string_view rate) const {
    return fmt::format("{}  {}  {}  {}  {:>{}}", Fit(name, m_nName), Fit(value, m_nValue),
                       Fit(old, m_nValue), Fit(time, kTime), rate, kRate);
  }

  std::string TagRow(const CWatchedTag& tag, int64_t now) {
    const std::string name = Printable(tag.m_image.m_strName);
    const std::string value = ShownValue(tag.m_image);
    if (tag.m_nWritten == 0) return Row(name, value, "", "", "");
    const double rate = tag.m_rate.PerSecond(now);
    const bool fresh = now - tag.m_nWrittenMs < kFreshMs;
    m_bMoving |= fresh || rate >= 0.05;
    const std::string time = TimeText(tag.m_nWritten).substr(11);
    const std::string row =
        Row(name, value, ShownValue(tag.m_old), time, fmt::format("{:.1f}/s", rate));
    return fresh ? m_painter.Paint(EColor::Green, row) : row;
  }

  const CPainter m_painter;
  size_t m_nName = 0;
  size_t m_nValue = 0;
  size_t m_nLines = 0;     // drawn last time
  bool m_bMoving = false;  // what was drawn grows old
};

std::unique_ptr<CWatchView> MakeView(const CWatchOptions& options, const CContext& context) {
  const char* terminal = std::getenv("TERM");
  const bool dumb = terminal == nullptr || std::string_view(terminal) == "dumb";
  if (options.m_bJson || dumb || !IsTerminal(EPrintStream::kOutput)) {
    return std::make_unique<CLineView>(options, context);
  }
  return std::make_unique<CScreenView>(context);
}

// Follows the tags by their events. A table that is laid anew under its name is followed on.
// Threads: Run on one, Stop on any.
class CTableWatch {
 public:
  CTableWatch(const CWatchOptions& options, CWatchView& view)
      : m_options(options), m_view(view), m_table(NameFromUser(options.m_table)) {
    for (const std::string& name : options.m_names) m_names.push_back(NameFromUser(name));
    if (!m_table.IsOpen()) RefuseTable(options.m_table, m_table.LastError());
    if (!m_group.IsOpen()) throw CCommandError(kFailed, "the system gives no events to wait for");
    Follow();
    RefuseMissing();
  }

  void Run() {
    m_view.Follow(m_tags);
    while (!WaitForStop(m_view.Pause())) {
      const bool whole = TellNewValues();
      m_view.Refresh(m_tags);
      FlushOutput();
      const EWaited waited =
          whole ? m_group.WaitForAny(m_events, m_seen, m_view.Patience()) : EWaited::kRemoved;
      if (waited == EWaited::kRemoved && !m_bStop) FollowOn();
    }
  }

  void Stop() {
    {
      const std::lock_guard lock(m_csStop);
      m_bStop = true;
    }
    m_stopped.notify_all();
    m_group.Interrupt();
  }

 private:
  bool WaitForStop(milliseconds timeout) {
    std::unique_lock lock(m_csStop);
    return m_stopped.wait_for(lock, timeout, [this] { return m_bStop.load(); });
  }

  // The followed tags that the table has now.
  std::vector<CTagImage> List() {
    std::vector<CTagImage> tags;
    if (!m_table.List(tags) && m_table.LastError() != kErrorDamaged) {
      if (m_bFollowing && m_table.LastError() == kErrorNotFound) {
        throw CCommandError(kFailed, fmt::format("table '{}' was removed", m_options.m_table));
      }
      RefuseTable(m_options.m_table, m_table.LastError());
    }
    std::erase_if(tags, [this](const CTagImage& tag) {
      return !m_names.empty() && std::ranges::find(m_names, tag.m_strName) == m_names.end();
    });
    return tags;
  }

  // The events are opened before the values are read, so that no write falls between them; if the
  // table was laid anew meanwhile, once more.
  void Follow() {
    std::vector<CTagImage> tags = List();
    for (bool same = false; !same;) {
      OpenEvents(tags);
      std::vector<CTagImage> now = List();
      same = std::ranges::equal(tags, now, {}, &CTagImage::m_strName, &CTagImage::m_strName);
      tags = std::move(now);
    }
    m_tags = std::vector<CWatchedTag>(tags.size());
    for (size_t i = 0; i < tags.size(); ++i) m_tags[i].m_image = std::move(tags[i]);
    if (m_tags.empty()) {
      throw CCommandError(kFailed, fmt::format("table '{}' holds no tag to follow; kvl table show "
                                               "{} lists its tags",
                                               m_options.m_table, ShellWord(m_options.m_table)));
    }
    m_bFollowing = true;
  }

  // An event was removed: with its table, or with another one that has a tag of its name. What was
  // written meanwhile set no event that was looked at, and shows only in the values.
  void FollowOn() {
    std::vector<CWatchedTag> before = std::move(m_tags);
    Follow();
    m_view.Follow(m_tags);
    std::unordered_map<std::string, CWatchedTag> known;
    for (CWatchedTag& tag : before) known.emplace(tag.m_image.m_strName, std::move(tag));
    for (CWatchedTag& tag : m_tags) {
      const auto found = known.find(tag.m_image.m_strName);
      if (found == known.end()) continue;
      CTagImage image = std::exchange(tag, std::move(found->second)).m_image;
      const bool same =
          image.m_type == tag.m_image.m_type && image.m_payload == tag.m_image.m_payload;
      if (!same) Tell(tag, std::move(image), 1);
    }
  }

  void OpenEvents(const std::vector<CTagImage>& tags) {
    m_opened.clear();
    m_events.clear();
    m_seen.clear();
    m_opened.reserve(tags.size());
    for (const CTagImage& tag : tags) {
      const CNamedEvent& event =
          m_opened.emplace_back(tag.m_strName + kEventSuffix, EAudience::kOwner);
      if (!event.IsOpen()) {
        throw CCommandError(kFailed,
                            fmt::format("tag '{}' can't be followed: {}", Printable(tag.m_strName),
                                        ErrorText(event.Error())));
      }
      m_events.push_back(&event);
      m_seen.push_back(event.SetCount());
    }
  }

  void RefuseMissing() const {
    for (size_t i = 0; i < m_names.size(); ++i) {
      const auto named = [&](const CWatchedTag& tag) {
        return tag.m_image.m_strName == m_names[i];
      };
      if (std::ranges::none_of(m_tags, named)) {
        RefuseTag(m_options.m_table, m_options.m_names[i], kErrorNotFound);
      }
    }
  }

  // False if a tag or its event is no longer there.
  bool TellNewValues() {
    constexpr uint32_t kCountMask = (1u << 30) - 1;
    for (size_t i = 0; i < m_tags.size(); ++i) {
      CWatchedTag& tag = m_tags[i];
      if (m_opened[i].IsRemoved()) return false;
      const uint32_t count = m_opened[i].SetCount();
      const uint32_t writes = (count - m_seen[i]) & kCountMask;
      if (writes == 0) continue;
      m_seen[i] = count;
      CTagImage image;
      if (!m_table.Get(tag.m_image.m_strName, image)) return false;
      Tell(tag, std::move(image), writes);
    }
    return true;
  }

  void Tell(CWatchedTag& tag, CTagImage image, uint32_t writes) {
    tag.m_old = std::exchange(tag.m_image, std::move(image));
    tag.m_nWritten = GetWallClock();
    tag.m_nWrittenMs = GetTickCount();
    tag.m_rate.Add(writes, tag.m_nWrittenMs);
    m_view.NewValue(tag);
  }

  const CWatchOptions& m_options;
  CWatchView& m_view;
  CTableOwner m_table;
  std::vector<std::string> m_names;  // empty for all
  std::vector<CWatchedTag> m_tags;
  std::vector<CNamedEvent> m_opened;         // the events of m_tags
  std::vector<const CNamedEvent*> m_events;  // the same
  std::vector<uint32_t> m_seen;              // how often each had been set
  CEventGroup m_group{EAudience::kOwner};
  bool m_bFollowing = false;
  std::atomic<bool> m_bStop = false;
  std::mutex m_csStop;
  std::condition_variable m_stopped;
};

}  // namespace

int WatchTable(const CWatchOptions& options, const CContext& context) {
  const std::unique_ptr<CWatchView> view = MakeView(options, context);
  CTableWatch watch(options, *view);
  CMessageLoop loop = CMessageLoop::Current();
  const CInterruptWatch interrupts([&loop] { loop.Quit(); });
  std::packaged_task<void()> work([&watch] { watch.Run(); });
  std::future<void> ended = work.get_future();
  std::thread worker([&] {
    work();
    loop.Quit();
  });
  loop.Run();
  watch.Stop();
  if (ended.wait_for(kLastWords) == std::future_status::timeout) {
    std::_Exit(kFailed);  // it hangs in a terminal or a pipe that takes nothing
  }
  worker.join();
  ended.get();
  return kDone;
}

}  // namespace kvl::cli
