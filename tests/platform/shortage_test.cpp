// Windows, loops and sockets when memory runs out.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <utility>

#include "support/failing_new.h"
#include "support/loop_fixtures.h"

namespace kvl {
namespace {

TEST(ShortageTest, MessageThatCannotBeQueuedTakesNoPlace) {
  CTestWnd window;
  const HWND hWnd = window.GetSafeHwnd();
  int posted = 0;
  WithEverLessShortage([&] {
    const bool bPosted = PostMessageA(hWnd, kWmUser, 0, 0) != 0;
    if (bPosted) ++posted;
    return bPosted;
  });
  while (PostMessageA(hWnd, kWmUser, 0, 0) != 0) ++posted;
  EXPECT_EQ(posted, CMessageLoop::kMaxPosted);
  CMessageLoop::Current().RunUntilIdle();
  EXPECT_EQ(window.Count(kWmUser), posted);
}

TEST(ShortageTest, MessageThatCannotBeSentFails) {
  CTestWnd window;
  window.handler = [](const SeenMessage&) { return LRESULT{5}; };
  std::atomic<bool> ended{false};
  std::thread([&, hWnd = window.GetSafeHwnd()] {
    WithEverLessShortage([&] { return SendMessageA(hWnd, kWmUser, 0, 0) == 5; });
    ended = true;
  }).detach();
  EXPECT_TRUE(RunLoopUntil([&] { return ended.load(); }));
}

// What the task holds posts itself as it ends.
TEST(ShortageTest, TaskThatCannotBePostedEndsInPeace) {
  struct CLastWord {
    CMessageLoop loop = CMessageLoop::Current();
    ~CLastWord() { loop.Quit(); }
  };
  WithEverLessShortage([] {
    const int left = std::exchange(t_nAllocationsLeft, -1);
    auto pLast = std::make_shared<CLastWord>();
    CMessageLoop loop = pLast->loop;
    CMessageLoop::Task task = [pLast = std::move(pLast)] {};
    t_nAllocationsLeft = left;
    return loop.Post(std::move(task));
  });
  CMessageLoop::Current().RunUntilIdle();
}

TEST(ShortageTest, WhatCannotBeMadeFailsAndCanBeTriedAgain) {
  WithEverLessShortage([] { return CTimer().Start(1000, [] {}); });
  CWnd window;
  WithEverLessShortage([&] { return window.Create(0, {}, nullptr, 1) != 0; });
  t_nAllocationsLeft = 0;
  const CInterruptWatch interrupts([] {});
  t_nAllocationsLeft = -1;
}

// The system's part goes on meanwhile; the outcome comes whatever fails of ours.
TEST(ShortageTest, ConnectHasAnOutcome) {
  CTestSock listener, client;
  const uint32_t port = listener.ListenLocal();
  const std::string host = "127.0.0.1";
  const std::function<bool()> isTold = [&] { return !client.connects.empty(); };
  client.connects.reserve(1);
  WithEverLessShortage(
      [&] { return client.GetHandle() != kInvalidSocket || client.Create() != 0; });
  WithEverLessShortage([&] {
    if (client.Connect(host, port) == 0) return false;
    CMessageLoop::Current().RunUntil(isTold, kTestPatienceMs);
    t_nAllocationsLeft = -1;
    if (client.connects != std::vector<int32_t>{0}) {
      EXPECT_EQ(client.connects, std::vector<int32_t>{kSockErrNoBuffers});
      client.connects.clear();
      return false;
    }
    return true;
  });
  EXPECT_EQ(client.connects, std::vector<int32_t>{0});
}

void ConnectFromAnotherThread(uint32_t port) {
  std::thread([port] {
    CTestSock client;
    EXPECT_NE(client.Create(), 0);
    EXPECT_NE(client.Connect("127.0.0.1", port), 0);
    EXPECT_TRUE(RunLoopUntil([&] { return !client.connects.empty(); }));
  }).join();
}

// The connection in hand may be lost; the next one is not, unless the listener has said its end.
TEST(ShortageTest, ListenerGoesOnAcceptingOrTellsItsEnd) {
  CTestSock listener, accepted;
  uint32_t port = listener.ListenLocal();
  listener.pAccepted = &accepted;
  listener.closes.reserve(1);
  const std::function<bool()> isAccepted = [&] { return accepted.GetHandle() != kInvalidSocket; };
  const std::function<bool()> isOver = [&] { return t_bAllocationFailed || isAccepted(); };
  WithEverLessShortage([&] {
    const int left = std::exchange(t_nAllocationsLeft, -1);
    accepted.Close();
    ConnectFromAnotherThread(port);
    t_nAllocationsLeft = left;
    CMessageLoop::Current().RunUntil(isOver, kTestPatienceMs);
    t_nAllocationsLeft = -1;
    if (!t_bAllocationFailed) return isAccepted();
    if (!listener.closes.empty()) {
      EXPECT_EQ(listener.closes, std::vector<int32_t>{kSockErrNoBuffers});
      listener.closes.clear();
      listener.Close();
      port = listener.ListenLocal();
    }
    ConnectFromAnotherThread(port);
    EXPECT_TRUE(RunLoopUntil(isAccepted)) << left;
    return false;
  });
}

}  // namespace
}  // namespace kvl
