#include "transport/api_manager.hpp"

#include <gtest/gtest.h>

using namespace qnbrl;

TEST(ServerUrl, DottedAddressesAndHostNames) {
  for (const char* url : {"https://192.168.1.20:9000", "http://255.255.255.255", "http://0.0.0.0",
                          "https://10.0.0.1\nnot a url"})  // anchors match at line boundaries
    EXPECT_TRUE(isValidServerIP(url)) << url;
  for (const char* url : {"https://192.168.1.256", "https://300.1.1.1", "http://10.0.0.1/",
                          "http://10.0.0.1:", "http://10.0.0", "http://example.com"})
    EXPECT_FALSE(isValidServerIP(url)) << url;
  for (const char* url : {"https://api.example.com", "https://API.EXAMPLE.COM:443",
                          "HTTPS://a-b_c.d.example.com", "http://1.2.3.com", "garbage\nhttps://example.com"})
    EXPECT_TRUE(isValidServerDomain(url)) << url;
  for (const char* url : {"https://bad-.example.com", "https://bad_.example.com", "https://-bad.example.com",
                          "https://localhost", "https://example.c0m", "https://example.com/path",
                          "https://example.com/", "garbage https://example.com", "http://10.0.0.1"})
    EXPECT_FALSE(isValidServerDomain(url)) << url;
  for (const char* url :
       {"ftp://example.com", "wss://example.com", " https://example.com", "", "ftp://1.2.3.4"})
    EXPECT_FALSE(isValidApiServer(url)) << url;
  EXPECT_TRUE(isValidApiServer("http://10.0.0.1") && isValidApiServer("https://example.com"));
}

TEST(ServerUrl, DefaultsAreValidHttpsBases) {
  for (const auto& url : {QNApiManager::apiServer(), QNApiManager::logServer()})
    EXPECT_TRUE(isValidApiServer(url) && url.starts_with("https://") && !url.ends_with('/')) << url;
}
