#include "platform/window.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "platform/clock.h"
#include "support/loop_fixtures.h"

namespace kvl {
namespace {

constexpr uint32_t kAsk = kWmUser + 1;

TEST(CWndTest, ChildKnowsItsParentOwnerAndNumber) {
  CTestWnd parent, owner;
  CStatic child;
  EXPECT_EQ(child.Create(kWsChild, {1, 2, 31, 22}, nullptr, 7), 0) << "a child needs a parent";
  ASSERT_NE(child.Create(kWsChild, {1, 2, 31, 22}, &parent, 7), 0);
  EXPECT_EQ(child.Create(kWsChild, {}, &parent, 7), 0) << "one window an object";
  const HWND hChild = child.GetSafeHwnd();
  EXPECT_EQ(CWnd::FromHandle(hChild), &child);
  EXPECT_EQ(GetParent(hChild), parent.GetSafeHwnd());
  EXPECT_EQ(GetOwner(hChild), nullptr);
  child.SetOwner(owner.GetSafeHwnd());
  EXPECT_EQ(GetOwner(hChild), owner.GetSafeHwnd());
  EXPECT_EQ(child.GetDlgCtrlID(), 7);
  EXPECT_EQ(GetDlgCtrlID(hChild), 7);
  RECT client;
  child.GetClientRect(&client);
  EXPECT_EQ(client.left, 0);
  EXPECT_EQ(client.right, 30);
  EXPECT_EQ(client.bottom, 20);
}

TEST(CWndTest, ParentTakesItsChildrenAlong) {
  auto pParent = std::make_unique<CTestWnd>();
  CTestWnd child(pParent.get());
  const HWND hChild = child.GetSafeHwnd();
  pParent.reset();
  EXPECT_EQ(child.Count(kWmDestroy), 1);
  EXPECT_FALSE(IsWindow(hChild));
  EXPECT_EQ(child.GetSafeHwnd(), nullptr);
  EXPECT_EQ(CWnd::FromHandle(hChild), nullptr);
  CTestWnd later;
  EXPECT_NE(later.GetSafeHwnd(), hChild);
}

TEST(CWndTest, PostedMessageWaitsForTheLoopAndDiesWithItsWindow) {
  CTestWnd kept;
  auto pGone = std::make_unique<CTestWnd>();
  EXPECT_NE(PostMessageA(kept.GetSafeHwnd(), kAsk, 1, 2), 0);
  EXPECT_NE(PostMessageA(pGone->GetSafeHwnd(), kAsk, 3, 4), 0);
  EXPECT_TRUE(kept.seen.empty());
  const HWND hGone = pGone->GetSafeHwnd();
  pGone.reset();
  CMessageLoop::Current().RunUntilIdle();
  EXPECT_EQ(kept.seen, (std::vector<SeenMessage>{{kAsk, 1, 2}}));
  EXPECT_EQ(PostMessageA(hGone, kAsk, 0, 0), 0);
  EXPECT_EQ(SendMessageA(hGone, kAsk, 0, 0), 0);
}

TEST(CWndTest, QueueOfPostedMessagesIsBounded) {
  CTestWnd window;
  for (int i = 0; i < CMessageLoop::kMaxPosted; ++i) {
    ASSERT_NE(PostMessageA(window.GetSafeHwnd(), kAsk, 0, 0), 0);
  }
  EXPECT_EQ(PostMessageA(window.GetSafeHwnd(), kAsk, 0, 0), 0);
  CMessageLoop::Current().RunUntilIdle();
  EXPECT_EQ(window.Count(kAsk), CMessageLoop::kMaxPosted);
  EXPECT_NE(PostMessageA(window.GetSafeHwnd(), kAsk, 0, 0), 0);
}

TEST(CWndTest, HandlerMayDestroyItsObjectOrThrow) {
  auto* pWindow = new CTestWnd;
  pWindow->handler = [pWindow](const SeenMessage& message) -> LRESULT {
    if (message.nMessage == kAsk) delete pWindow;
    return 5;
  };
  EXPECT_EQ(SendMessageA(pWindow->GetSafeHwnd(), kAsk, 0, 0), 5);
  CTestWnd thrower;
  thrower.handler = [](const SeenMessage&) -> LRESULT { throw std::runtime_error("host"); };
  EXPECT_EQ(SendMessageA(thrower.GetSafeHwnd(), kAsk, 0, 0), 0);
}

TEST(CWndTest, SentMessageRunsOnTheWindowsThread) {
  CTestWnd window;
  const auto own = std::this_thread::get_id();
  window.handler = [own](const SeenMessage& message) -> LRESULT {
    return std::this_thread::get_id() == own ? message.lParam + 1 : -1;
  };
  std::atomic<LRESULT> result{0};
  std::thread sender(
      [&, hWnd = window.GetSafeHwnd()] { result = SendMessageA(hWnd, kAsk, 0, 41); });
  EXPECT_TRUE(RunLoopUntil([&] { return result != 0; }));
  EXPECT_EQ(result, 42);
  sender.join();
}

TEST(CWndTest, TwoThreadsMaySendToEachOther) {
  CTestWnd here;
  HWND hThere = nullptr;
  here.handler = [&](const SeenMessage& message) -> LRESULT {
    return message.nMessage == kAsk ? SendMessageA(hThere, kAsk + 1, 0, message.lParam) + 1 : 0;
  };
  std::atomic<LRESULT> result{0};
  std::thread other([&, hHere = here.GetSafeHwnd()] {
    CTestWnd there;
    there.handler = [](const SeenMessage& message) -> LRESULT { return message.lParam * 2; };
    hThere = there.GetSafeHwnd();
    result = SendMessageA(hHere, kAsk, 0, 10);  // answered by asking back
  });
  EXPECT_TRUE(RunLoopUntil([&] { return result != 0; }));
  EXPECT_EQ(result, 21);
  other.join();
}

TEST(CWndTest, SenderIsNotHeldByAThreadThatEndsOrServesNothing) {
  std::atomic<HWND> hWnd{nullptr};
  std::atomic<bool> bEnd{false};
  bool bHandled = false;
  std::unique_ptr<CTestWnd> pWindow;
  std::thread owner([&] {
    pWindow = std::make_unique<CTestWnd>();
    pWindow->handler = [&](const SeenMessage& message) -> LRESULT {
      bHandled = bHandled || message.nMessage == kAsk;
      return 1;
    };
    hWnd = pWindow->GetSafeHwnd();
    while (!bEnd) Sleep(1);
    CMessageLoop::Current().RunUntilIdle();
  });
  ASSERT_TRUE(WaitFor([&] { return hWnd != nullptr; }));
  EXPECT_EQ(SendMessageA(hWnd, kAsk, 0, 0), 0) << "nobody serves it";
  bEnd = true;
  owner.join();
  EXPECT_FALSE(bHandled) << "a withdrawn message is handled no more";
  EXPECT_FALSE(IsWindow(hWnd)) << "a thread's windows end with it";
  EXPECT_EQ(pWindow->GetSafeHwnd(), nullptr);
}

class CBlueWnd : public CWnd {
 public:
  LRESULT WindowProc(uint32_t nMessage, WPARAM, LPARAM) override {
    if (nMessage != kWmPaint) return 0;
    ++nPaints;
    CPaintDC dc(this);
    RECT client;
    GetClientRect(&client);
    dc.FillSolidRect({-5, -5, 1000, 1000}, 0x112233);
    dc.FillSolidRect({1, 1, 3, 2}, 0xC86464);
    oldColor = dc.SetTextColor(0xFFFFFF);
    return 0;
  }
  int nPaints = 0;
  COLORREF oldColor = 1;
};

TEST(CWndTest, VisibleWindowIsPaintedOnceByTheLoop) {
  CBlueWnd window;
  ASSERT_NE(window.Create(kWsVisible, {10, 10, 14, 13}, nullptr, 1), 0);
  EXPECT_EQ(window.nPaints, 0);
  window.Invalidate();
  CMessageLoop::Current().RunUntilIdle();
  EXPECT_EQ(window.nPaints, 1);
  EXPECT_EQ(window.oldColor, 0U);
  const CSurface& surface = window.GetSurface();
  EXPECT_EQ(surface.Width(), 4);
  EXPECT_EQ(surface.Height(), 3);
  EXPECT_EQ(surface.GetPixel(0, 0), 0x112233U);
  EXPECT_EQ(surface.GetPixel(2, 1), 0xC86464U);
  EXPECT_EQ(surface.GetPixel(3, 1), 0x112233U);
  EXPECT_EQ(surface.GetPixel(4, 0), 0U) << "outside";
  window.Invalidate();
  window.UpdateWindow();
  EXPECT_EQ(window.nPaints, 2);
  CBlueWnd tooLarge;
  EXPECT_EQ(tooLarge.Create(0, {0, 0, CSurface::kMaxSide + 1, 1}, nullptr, 1), 0);
}

TEST(CMessageLoopTest, QuitAndPostComeFromAnyThread) {
  CMessageLoop loop = CMessageLoop::Current();
  int nRun = 0;
  std::thread other([&, copy = loop]() mutable {
    copy.Post([&nRun] { ++nRun; });
    copy.Quit();
  });
  loop.Run();
  other.join();
  EXPECT_EQ(nRun, 1);

  CMessageLoop gone = loop;
  std::thread([&gone] { gone = CMessageLoop::Current(); }).join();
  EXPECT_FALSE(gone.Post([] {}));
  gone.Quit();
  gone.Run();  // not this thread's: returns
}

TEST(CMessageLoopTest, EachQuitEndsOneRun) {
  CMessageLoop loop = CMessageLoop::Current();
  CTimer patience;
  patience.Start(kTestPatienceMs, [&] {
    ADD_FAILURE() << "a Quit was lost";
    loop.Quit();
  });
  loop.Quit();
  loop.Quit();
  loop.RunUntilIdle();
  loop.Run();
  loop.Run();
}

TEST(CMessageLoopTest, RunUntilEndsAtItsTimeOut) {
  const int64_t start = GetTickCount();
  EXPECT_FALSE(CMessageLoop::Current().RunUntil([] { return false; }, 20));
  EXPECT_GE(GetTickCount() - start, 20);
}

TEST(CTimerTest, RunsOnceUnlessStoppedOrReplaced) {
  CTimer timer, stopped;
  std::string order;
  ASSERT_TRUE(stopped.Start(0, [&] { order += "x"; }));
  timer.Start(0, [&] { order += "y"; });
  timer.Start(1, [&] {
    order += "a";
    timer.Start(1, [&] { order += "b"; });
  });
  stopped.Stop();
  EXPECT_TRUE(RunLoopUntil([&] { return order.size() >= 2; }));
  CMessageLoop::Current().RunUntil([] { return false; }, 5);
  EXPECT_EQ(order, "ab");
}

}  // namespace
}  // namespace kvl
