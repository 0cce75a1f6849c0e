#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "core/Dispatcher.h"
#include "core/JsonText.h"
#include "support/FakeDatabaseBackup.h"
#include "support/FakeDatabaseService.h"
#include "support/FakeIPCClient.h"
#include "support/FakeMessenger.h"

namespace propertyservice::test {

/// A dispatcher among fakes, and a client "panel" that asks it.
class DispatcherFixture : public testing::Test {
 protected:
  /// The text of the reply; empty when there is none.
  std::string askText(const std::string& payload) {
    const std::size_t before = client->published().size();
    dispatcher.messageArrived("panel/prop-service", payload);
    const auto published = client->published();
    if (published.size() == before) {
      return "";
    }
    EXPECT_EQ(published.size(), before + 1);
    EXPECT_EQ(published.back().topic, "prop-service/panel");
    EXPECT_EQ(published.back().qos, 1);
    return published.back().payload;
  }

  Json::Value ask(const std::string& payload) {
    Json::Value reply;
    EXPECT_TRUE(json::parse(askText(payload), reply)) << payload;
    return reply;
  }

  static Json::Value jsonOf(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(json::parse(text, value)) << text;
    return value;
  }

  const std::shared_ptr<FakeIPCClient> client = std::make_shared<FakeIPCClient>();
  const std::shared_ptr<FakeDatabaseService> database = std::make_shared<FakeDatabaseService>();
  FakeDatabaseBackup* const backup = new FakeDatabaseBackup;  // owned by the dispatcher, like the next
  FakeMessenger* const messenger = new FakeMessenger;
  Dispatcher dispatcher{client, database, std::unique_ptr<IDatabaseBackup>(backup),
                        std::unique_ptr<IMessenger>(messenger)};
};

}  // namespace propertyservice::test
