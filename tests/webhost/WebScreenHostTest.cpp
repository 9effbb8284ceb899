// The web host as a host application holds it, without a browser.

#include <gtest/gtest.h>
#include <httplib.h>

#include "quillet/base/MainQueue.h"
#include "quillet/webhost/WebScreenHost.h"

namespace quillet {
namespace {

// A port outside 0 to 65535 gives no host; a host released without stop() stops serving.
TEST(WebScreenHost, PortsOutsideTheRangeAndAHostReleasedWithoutStop) {
  const auto main = std::make_shared<RunLoop>();
  EXPECT_EQ(WebScreenHost::start(main, "127.0.0.1", -1), nullptr);
  EXPECT_EQ(WebScreenHost::start(main, "127.0.0.1", 65536), nullptr);
  auto host = WebScreenHost::start(main);
  ASSERT_NE(host, nullptr);
  httplib::Client client("127.0.0.1", host->port());
  EXPECT_TRUE(client.Get("/tcfapi.js"));
  host.reset();
  EXPECT_FALSE(client.Get("/tcfapi.js"));
}

}  // namespace
}  // namespace quillet
