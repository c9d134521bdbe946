#include "transport/api_manager.hpp"

#include <gtest/gtest.h>

using namespace qnbrl;

TEST(ServerUrl, DottedAddresses) {
  EXPECT_TRUE(isValidApiServer("https://192.168.1.20:9000"));
  EXPECT_TRUE(isValidApiServer("http://10.0.0.1"));
  EXPECT_TRUE(isValidServerIP("http://255.255.255.255"));
  EXPECT_TRUE(isValidServerIP("http://0.0.0.0"));
  EXPECT_FALSE(isValidApiServer("https://192.168.1.256"));
  EXPECT_FALSE(isValidApiServer("https://300.1.1.1"));
  EXPECT_FALSE(isValidApiServer("http://10.0.0.1/"));
  EXPECT_FALSE(isValidApiServer("http://10.0.0.1:"));
  EXPECT_FALSE(isValidApiServer("http://10.0.0"));
  EXPECT_FALSE(isValidServerIP("http://example.com"));
}

TEST(ServerUrl, HostNames) {
  EXPECT_TRUE(isValidApiServer("https://api.example.com"));
  EXPECT_TRUE(isValidApiServer("https://API.EXAMPLE.COM:443"));
  EXPECT_TRUE(isValidServerDomain("HTTPS://a-b_c.d.example.com"));
  EXPECT_TRUE(isValidServerDomain("http://1.2.3.com"));
  EXPECT_FALSE(isValidServerDomain("https://bad-.example.com"));
  EXPECT_FALSE(isValidServerDomain("https://bad_.example.com"));
  EXPECT_FALSE(isValidServerDomain("https://-bad.example.com"));
  EXPECT_FALSE(isValidServerDomain("https://localhost"));
  EXPECT_FALSE(isValidServerDomain("https://example.c0m"));
  EXPECT_FALSE(isValidServerDomain("https://example.com/path"));
  EXPECT_FALSE(isValidServerDomain("https://example.com/"));
  EXPECT_FALSE(isValidApiServer("ftp://example.com"));
  EXPECT_FALSE(isValidApiServer("wss://example.com"));
  EXPECT_FALSE(isValidApiServer(" https://example.com"));
  EXPECT_FALSE(isValidApiServer(""));
}

TEST(ServerUrl, AnchorsMatchAtLineBoundaries) {
  EXPECT_TRUE(isValidApiServer("garbage\nhttps://example.com"));
  EXPECT_TRUE(isValidApiServer("https://10.0.0.1\nnot a url"));
  EXPECT_FALSE(isValidApiServer("garbage https://example.com"));
}

TEST(ServerUrl, DefaultsAreValidHttpsBases) {
  for (const auto& url : {QNApiManager::apiServer(), QNApiManager::logServer()}) {
    EXPECT_TRUE(isValidApiServer(url)) << url;
    EXPECT_EQ(url.rfind("https://", 0), 0u) << url;
    EXPECT_NE(url.back(), '/') << url;
  }
}
