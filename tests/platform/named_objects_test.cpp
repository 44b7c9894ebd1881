#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "platform/last_error.h"
#include "platform/named_event.h"
#include "platform/named_section.h"
#include "platform/named_semaphore.h"
#include "platform/posix/named_place.h"
#include "store/child.h"

using namespace kvl;
using namespace std::chrono_literals;

namespace {

constexpr auto kOwner = EAudience::kOwner;
constexpr auto kPrivate = EAudience::kThisProcess;
constexpr auto kCreate = EOpenMode::kOpenOrCreate;
constexpr auto kExisting = EOpenMode::kOpenExisting;

std::string Folder(const std::string& strAudience) {
  return "/dev/shm/kvl-" + strAudience + "/";
}

mode_t ModeOf(const std::string& strPath) {
  struct stat status;
  return stat(strPath.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

struct CNameCase {
  std::string m_strName;
  std::string m_strFile;
  uint32_t m_dwError;
};

TEST(NamedObjects, NamesNeverReachOutsideTheirPlace) {
  using namespace std::string_literals;
  const CNameCase cases[] = {
      {"GAUGES_Sync-2", "GAUGES_Sync-2.section", 0},
      {"../a/b", "%2E%2E%2Fa%2Fb.section", 0},
      {".", "%2E.section", 0},
      {"a.section", "a%2Esection.section", 0},
      {"100%25", "100%2525.section", 0},
      {"a\0b"s, "a%00b.section", 0},
      {"\xC7\xD1", "%C7%D1.section", 0},
      {"", "", kErrorInvalidName},
      {std::string(247, 'x'), std::string(247, 'x') + ".section", 0},
      {std::string(248, 'x'), "", kErrorNameTooLong},
      {std::string(83, '/'), "", kErrorNameTooLong},
  };
  for (const CNameCase& row : cases) {
    uint32_t dwError = 99;
    EXPECT_EQ(row.m_strFile, ObjectFileName(row.m_strName, EObjectKind::kSection, dwError));
    EXPECT_EQ(row.m_dwError, dwError) << row.m_strName;
    EXPECT_EQ(row.m_dwError == 0, CNamedSection(row.m_strName, 16, kCreate, kPrivate).IsOpen());
  }
}

TEST(NamedObjects, RightsAreTheOwnersUnlessWidened) {
  const mode_t mask = umask(077);
  const std::string strName = UniqueName("rights");
  const struct {
    EAudience m_audience;
    std::string m_strFolder;
    mode_t m_folder, m_object;
  } cases[] = {{kOwner, Folder(std::to_string(geteuid())), 0700, 0600},
               {EAudience::kGroup, Folder("group-" + std::to_string(getegid())), 01770, 0660},
               {EAudience::kEveryone, Folder("everyone"), 01777, 0666}};
  for (const auto& row : cases) {
    const CNamedSection section(strName, 16, kCreate, row.m_audience);
    EXPECT_TRUE(section.IsOpen()) << section.Error();
    EXPECT_EQ(row.m_folder, ModeOf(row.m_strFolder)) << row.m_strFolder;
    EXPECT_EQ(row.m_object, ModeOf(row.m_strFolder + strName + ".section"));
    EXPECT_TRUE(CNamedSection::Remove(strName, row.m_audience));
    EXPECT_FALSE(CNamedSection::Remove(strName, row.m_audience));
  }
  umask(mask);
}

TEST(NamedObjects, WhatAStrangerPlantedIsRefused) {
  const std::string strName = UniqueName("planted");
  { const CNamedSection makesTheFolder(strName, 16, kCreate, kOwner); }
  CNamedSection::Remove(strName, kOwner);
  const std::string strPath = Folder(std::to_string(geteuid())) + strName + ".section";
  const auto Opens = [&] { return CNamedSection(strName, 16, kCreate, kOwner).Error(); };

  ASSERT_EQ(0, symlink("/etc/passwd", strPath.c_str()));
  EXPECT_EQ(kErrorAccessDenied, Opens());
  unlink(strPath.c_str());
  ASSERT_EQ(0, mkfifo(strPath.c_str(), 0600));
  EXPECT_EQ(kErrorAccessDenied, Opens());
  unlink(strPath.c_str());
  if (geteuid() != 0) GTEST_SKIP() << "only root can make another user's file";
  close(open(strPath.c_str(), O_CREAT | O_WRONLY, 0666));
  ASSERT_EQ(0, chown(strPath.c_str(), 1, 1));
  EXPECT_EQ(kErrorAccessDenied, Opens());
  unlink(strPath.c_str());
}

TEST(NamedSection, OutlivesItsOpenersAndKeepsItsSize) {
  const std::string strName = UniqueName("section");
  EXPECT_EQ(kErrorNotFound, CNamedSection(strName, 16, kExisting, kPrivate).Error());
  { CNamedSection(strName, 100, kCreate, kPrivate).View()[99] = 7; }
  const CNamedSection again(strName, 5000, kCreate, kPrivate);
  EXPECT_TRUE(again.Existed());
  ASSERT_EQ(100u, again.Size());
  EXPECT_EQ(7, again.View()[99]);
  EXPECT_TRUE(CNamedSection::Remove(strName, kPrivate));
  EXPECT_EQ(7, again.View()[99]) << "whoever has it open keeps it";
  EXPECT_FALSE(CNamedSection(strName, 100, kCreate, kPrivate).Existed());
}

TEST(NamedSection, IsNamedAmongThoseThatAreThere) {
  const auto count = [](const std::string& strName) {
    const std::vector<std::string> names = CNamedSection::Names(kOwner);
    return std::count(names.begin(), names.end(), strName);
  };
  const std::string strName = UniqueName("../a%b \xC7\xD1.section");
  const std::string strStray = Folder(std::to_string(geteuid())) + UniqueName("a%zz.section");
  {
    const CNamedSection section(strName, 16, kCreate, kOwner);
    const CNamedSemaphore other(strName + "2", kCreate, kOwner);
    std::ofstream(strStray).put('x');
    EXPECT_EQ(1, count(strName));
    EXPECT_EQ(0, count(strName + "2"));
    EXPECT_EQ(0, count(""));
    CNamedSemaphore(strName + "2", kCreate, kOwner).Remove();
  }
  unlink(strStray.c_str());
  CNamedSection::Remove(strName, kOwner);
  EXPECT_EQ(0, count(strName));
}

TEST(NamedSection, IsNotMadeWithoutRoomForIt) {
  CChild crowded([] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit little{4096, 4096};
    setrlimit(RLIMIT_FSIZE, &little);
    return CNamedSection(UniqueName("full"), 8192, kCreate, kPrivate).Error() == kErrorDiskFull ? 0
                                                                                                : 1;
  });
  EXPECT_EQ(0, crowded.Join());
}

TEST(NamedSection, TellsThatItWasCutShort) {
  const std::string strName = UniqueName("cut");
  const CNamedSection section(strName, 8192, kCreate, kOwner);
  EXPECT_TRUE(section.IsWhole());
  const std::string strPath = Folder(std::to_string(geteuid())) + strName + ".section";
  ASSERT_EQ(0, truncate(strPath.c_str(), 8191));
  EXPECT_FALSE(section.IsWhole());
  CNamedSection::Remove(strName, kOwner);
}

TEST(NamedSemaphore, RefusesTheThreadThatHoldsIt) {
  const std::string strName = UniqueName("twice");
  CNamedSemaphore first(strName, kCreate, kPrivate);
  CNamedSemaphore second(strName, kCreate, kPrivate);
  ASSERT_EQ(ETaken::kYes, first.Take());
  EXPECT_EQ(ETaken::kNo, second.Take());
  EXPECT_EQ(kErrorDeadlock, second.Error());
  std::thread other([&] {
    EXPECT_EQ(ETaken::kYes, second.Take());
    second.Release();
  });
  first.Release();
  other.join();
}

TEST(NamedSemaphore, IsTakenOverFromTheDead) {
  CNamedSemaphore semaphore(UniqueName("dead"), kCreate, kPrivate);
  const CSignalPipe held;
  CChild holder([&] {
    CSemaphoreHold hold(semaphore);
    held.Send();
    pause();
    return 0;
  });
  held.Await();
  const int64_t nStart = NowMicroseconds();
  holder.Kill();
  ASSERT_EQ(ETaken::kYes, semaphore.Take());
  EXPECT_LT(NowMicroseconds() - nStart, 100000);
  EXPECT_EQ(1u, semaphore.ChangeCount()) << "nobody knows what the dead one changed";
  semaphore.Release();
  EXPECT_EQ(ETaken::kYes, semaphore.Take());
  EXPECT_EQ(1u, semaphore.ChangeCount());
}

TEST(NamedSemaphore, ItsUsersNoticeThatItWasReplaced) {
  const std::string strName = UniqueName("replaced");
  CNamedSemaphore user(strName, kCreate, kPrivate);
  ASSERT_EQ(ETaken::kYes, user.Take());
  user.Release();
  CNamedSemaphore remover(strName, kExisting, kPrivate);
  {
    const CSemaphoreHold hold(remover);
    remover.Remove();
  }
  EXPECT_EQ(ETaken::kNo, user.Take());
  EXPECT_EQ(kErrorNotFound, user.Error()) << "nobody but its maker makes it anew";
  const CNamedSemaphore anew(strName, kCreate, kPrivate);
  EXPECT_EQ(ETaken::kAnew, user.Take());
  user.Release();
  EXPECT_EQ(ETaken::kYes, user.Take());
}

TEST(NamedEvent, StaysSetUntilItIsReset) {
  const std::string strName = UniqueName("event");
  CNamedEvent event(strName, kPrivate);
  CNamedEvent other(strName, kPrivate);
  EXPECT_FALSE(event.IsSet());
  for (const auto timeout : {1ms, 0ms, -1ms, std::chrono::milliseconds::min()}) {
    EXPECT_EQ(EWaited::kTimeout, event.Wait(timeout));
  }
  other.Set();
  EXPECT_EQ(EWaited::kSet, event.Wait(kForever));
  EXPECT_EQ(EWaited::kSet, event.Wait(0ms));
  event.Reset();
  EXPECT_FALSE(other.IsSet());
  EXPECT_EQ(1u, event.SetCount());
}

TEST(NamedEvent, WakesAnotherProcessAndMissesNoSet) {
  const std::string strName = UniqueName("wake");
  CNamedEvent event(strName, kPrivate);
  CNamedEvent answer(strName + "-answer", kPrivate);
  CChild consumer([&] {
    uint32_t nSeen = 0;
    for (uint32_t i = 1; i <= 100; ++i) {
      if (event.WaitForNext(nSeen, 10s) != EWaited::kSet || nSeen != i) return 1;
      event.Reset();  // takes nothing from those who count
      answer.Set();
    }
    return 0;
  });
  uint32_t nAnswers = 0;
  for (int i = 0; i < 100; ++i) {
    event.Set();
    ASSERT_EQ(EWaited::kSet, answer.WaitForNext(nAnswers, 10s));
  }
  EXPECT_EQ(0, consumer.Join());
}

// Sleepers on the event itself and on many at once, whom a setter leaves asleep that dies between
// setting and waking.
TEST(NamedEvent, ADeadSettersSleepersAreWokenByTheNext) {
  const std::string strName = UniqueName("dead-setter");
  const CNamedEvent event(strName, kPrivate);
  const CNamedEvent* const all[] = {&event};
  CEventGroup group(kPrivate);
  const int64_t nStart = NowMicroseconds();
  std::thread one([&] {
    uint32_t nSeen = 0;
    EXPECT_EQ(EWaited::kSet, event.WaitForNext(nSeen, 10s));
  });
  std::thread many([&] {
    const uint32_t seen[] = {0};
    EXPECT_EQ(EWaited::kSet, group.WaitForAny(all, seen, 10s));
  });
  std::this_thread::sleep_for(20ms);  // they fall asleep
  CEventTrigger(strName, kPrivate).Set();
  CEventTrigger next(strName, kPrivate);
  next.Set(), next.Wake();
  one.join();
  many.join();
  EXPECT_LT(NowMicroseconds() - nStart, 5000000) << "the time-out has woken them";
}

TEST(NamedEvent, RemovalEndsItsWaits) {
  const std::string strName = UniqueName("removed");
  CNamedEvent event(strName, kPrivate);
  EXPECT_FALSE(CNamedEvent::Remove(strName + "x", kPrivate));
  std::thread waiter([&] { EXPECT_EQ(EWaited::kRemoved, event.Wait(kForever)); });
  EXPECT_TRUE(CNamedEvent::Remove(strName, kPrivate));
  waiter.join();
  EXPECT_FALSE(CNamedEvent(strName, kPrivate).IsRemoved());
}

TEST(EventTrigger, FindsAnEventAsSoonAsSomebodyOpensIt) {
  const std::string strName = UniqueName("trigger");
  CEventTrigger trigger(strName, kPrivate);
  const auto Set = [&] { trigger.Set(), trigger.Wake(); };
  Set();
  EXPECT_FALSE(CNamedEvent::Remove(strName, kPrivate)) << "a trigger makes no event";
  for (uint32_t nRound = 0; nRound < 2; ++nRound) {
    CNamedEvent event(strName, kPrivate);
    EXPECT_FALSE(event.IsSet());
    Set();
    EXPECT_TRUE(event.IsSet());
    Set();
    EXPECT_EQ(2u, event.SetCount());
    EXPECT_TRUE(CNamedEvent::Remove(strName, kPrivate));
    Set();
  }
}

TEST(EventGroup, WakesForAnyOfItsEventsAndWhenInterrupted) {
  std::vector<CNamedEvent> events;
  std::vector<const CNamedEvent*> pointers;
  for (int i = 0; i < 50; ++i) {
    events.emplace_back(UniqueName("group" + std::to_string(i)), kPrivate);
  }
  for (const CNamedEvent& event : events) pointers.push_back(&event);
  std::vector<uint32_t> seen(events.size(), 0);
  CEventGroup group(kPrivate);
  ASSERT_TRUE(group.IsOpen());
  EXPECT_EQ(EWaited::kTimeout, group.WaitForAny(pointers, seen, 1ms));
  CEventTrigger trigger(UniqueName("group33"), kPrivate);
  std::thread setter([&] { trigger.Set(), trigger.Wake(); });
  EXPECT_EQ(EWaited::kSet, group.WaitForAny(pointers, seen, kForever));
  setter.join();
  seen[33] = events[33].SetCount();
  std::thread interrupter([&] { group.Interrupt(); });
  EXPECT_EQ(EWaited::kTimeout, group.WaitForAny(pointers, seen, kForever));
  interrupter.join();
  CNamedEvent::Remove(UniqueName("group7"), kPrivate);
  EXPECT_EQ(EWaited::kRemoved, group.WaitForAny(pointers, seen, kForever));
}

}  // namespace
