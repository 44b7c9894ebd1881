// Windows, loops and sockets when memory runs out.
#include <gtest/gtest.h>

#include "support/failing_new.h"
#include "support/loop_fixtures.h"

namespace kvl {
namespace {

// Runs `work` with ever more allocations until none of them fails; `work` tells whether it has
// done what it was to do.
template <typename Work>
void WithEverLessShortage(Work work) {
  t_bAllocationFailed = true;
  for (int left = 0; t_bAllocationFailed; ++left) {
    t_bAllocationFailed = false;
    t_nAllocationsLeft = left;
    const bool bDone = work();
    t_nAllocationsLeft = -1;
    EXPECT_EQ(bDone, !t_bAllocationFailed) << left;
  }
}

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

TEST(ShortageTest, SocketsAndTimersFailAndCanBeUsedAgain) {
  CTestSock listener;
  const uint32_t port = listener.ListenLocal();
  WithEverLessShortage([] { return CTimer().Start(1000, [] {}); });
  CTestSock client;
  client.connects.reserve(1);
  const std::string host = "127.0.0.1";
  WithEverLessShortage(
      [&] { return client.GetHandle() != kInvalidSocket || client.Create() != 0; });
  WithEverLessShortage([&] { return client.Connect(host, port) != 0; });
  EXPECT_TRUE(RunLoopUntil([&] { return !client.connects.empty(); }));
  EXPECT_EQ(client.connects, std::vector<int32_t>{0});
}

}  // namespace
}  // namespace kvl
