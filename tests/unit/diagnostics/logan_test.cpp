#include "diagnostics/logan.hpp"

#include <gtest/gtest.h>

using namespace qnbrl;

TEST(Logan, InertPlaceholderKeepsOnlyItsConfiguration) {
  auto config = std::make_shared<LoganConfigProtocol>();
  std::unique_ptr<QNLoganProtocol> logan = std::make_unique<QNLogan>(config);
  bool called = false;
  logan->writeLog("x");
  logan->uploadAllAsyn([&] { called = true; });
  logan->uploadNextAsyn([&] { called = true; });
  EXPECT_FALSE(called);
  EXPECT_EQ(logan->getConfig(), config);
  EXPECT_EQ(logan->getFileCount(), 0);
  EXPECT_EQ(logan->getFileDir(), "");
  EXPECT_EQ(logan->getEncryptCode(), "");
}
