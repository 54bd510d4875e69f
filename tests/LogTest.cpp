#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/Log.h"
#include "platform/host/LogCapture.h"

namespace {

TEST(Log, AssertionLinesNameExpressionSourcePathAndLineAndExecutionGoesOn) {
  OzmPlatform::ScopedLogCapture log;
  const int line = __LINE__ + 1;
  const bool ok = OZM_ASSERT(1 + 1 == 3);
  EXPECT_FALSE(ok);
  EXPECT_TRUE(OZM_ASSERT(2 + 2 == 4));
  OZM_ASSERT_WIDE(sizeof(char) == 2);
  const std::vector<OzmPlatform::LogLine> lines = log.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].priority, OzmPlatform::kLogInfo);
  EXPECT_EQ(lines[0].text, "ASSERT FAILED: '1 + 1 == 3' at tests/LogTest line " + std::to_string(line));
  EXPECT_EQ(lines[1].text.rfind("ASSERT FAILED: 'sizeof(char) == 2' at tests/LogTest line ", 0), 0u) << lines[1].text;
}

TEST(Log, CaptureTakesLinesFromEveryThreadWithTheirPriorities) {
  OzmPlatform::ScopedLogCapture log;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i) OZM_LOGW("[%i] line %i", t, i);
    });
  }
  for (auto& thread : threads) thread.join();
  OZM_LOGE("done %s", "now");
  EXPECT_EQ(log.Lines().size(), 201u);
  EXPECT_EQ(log.Count("[3] line 49"), 1u);
  EXPECT_EQ(log.Lines().back().priority, OzmPlatform::kLogError);
  EXPECT_EQ(log.Lines().back().text, "done now");
}

TEST(Log, NestedCapturesRestoreTheOuterSink) {
  OzmPlatform::ScopedLogCapture outer;
  {
    OzmPlatform::ScopedLogCapture inner;
    OZM_LOGI("inner");
    EXPECT_TRUE(inner.Contains("inner"));
  }
  OZM_LOGI("outer");
  EXPECT_FALSE(outer.Contains("inner"));
  EXPECT_TRUE(outer.Contains("outer"));
}

}  // namespace
