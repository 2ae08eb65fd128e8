// Progress: counts and fraction, observers told of every change, the cancellation handler run once.

#include "foundation/progress.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace tesselune {
namespace {

TEST(Progress, ReportsChangesToObservers) {
  Progress progress;
  EXPECT_TRUE(progress.isIndeterminate());
  EXPECT_EQ(progress.fractionCompleted(), 0);
  std::vector<std::string> seen;
  auto id = progress.addObserver([&](const Progress& p) {
    seen.push_back(p.localizedDescription() + "|" + std::to_string(p.completedUnitCount()));
  });
  progress.setLocalizedDescription("Deleting");
  progress.setTotalUnitCount(4);
  progress.setCompletedUnitCount(1);
  EXPECT_DOUBLE_EQ(progress.fractionCompleted(), 0.25);
  progress.setUserInfoObject(true, "windowVisibility");
  EXPECT_EQ(progress.userInfo().at("windowVisibility"), Value(true));
  progress.setUserInfoObject(Value(), "windowVisibility");
  EXPECT_TRUE(progress.userInfo().empty());
  progress.removeObserver(id);
  progress.setCompletedUnitCount(2);
  EXPECT_EQ(seen,
            (std::vector<std::string>{"Deleting|0", "Deleting|0", "Deleting|1", "Deleting|1", "Deleting|1"}));
}

TEST(Progress, RunsTheCancellationHandlerOnce) {
  Progress progress(10);
  int calls = 0;
  progress.setCancellationHandler([&] { ++calls; });
  std::vector<std::jthread> cancellers;
  for (int i = 0; i < 4; ++i) cancellers.emplace_back([&] { progress.cancel(); });
  cancellers.clear();
  EXPECT_TRUE(progress.isCancelled());
  EXPECT_EQ(calls, 1);
  // Set after the fact, a handler runs at once.
  progress.setCancellationHandler([&] { ++calls; });
  EXPECT_EQ(calls, 2);

  Progress fixed(3);
  fixed.setCancellable(false);
  fixed.cancel();
  EXPECT_FALSE(fixed.isCancelled());
}

}  // namespace
}  // namespace tesselune
