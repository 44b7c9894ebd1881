// A session when memory runs out.
#include "session_fixtures.h"
#include "support/failing_new.h"

namespace kvl {
namespace {

using SessionShortageTest = SessionTest;

TEST_F(SessionShortageTest, RecreatedSocketAlwaysHasAnOutcome) {
  StartTcp(kEcho);
  seen.statuses.reserve(1000);
  seen.texts.resize(1000);  // as they grow the memory is the test's own
  seen.texts.clear();
  const std::function<bool()> isTold = [this] {
    return !seen.statuses.empty() && seen.statuses.back() != ESessionStatus::Connecting;
  };
  WithEverLessShortage([&] {
    seen.statuses.clear();
    control.OnRecreateSocket();
    CMessageLoop::Current().RunUntil(isTold, kTestPatienceMs);
    EXPECT_FALSE(seen.statuses.empty());
    return control.IsConnected();
  });
}

}  // namespace
}  // namespace kvl
