#include "mqtt/Outbox.h"

namespace mqtt {
namespace {

TEST(Outbox, isEmptyOnceAllIsAcknowledged) {
  Outbox outbox;
  outbox.departed(1, 1, "a", 10);
  outbox.departed(2, 1, "b", 10);

  EXPECT_EQ(outbox.acknowledged(2), "b");
  EXPECT_FALSE(outbox.empty());
  EXPECT_EQ(outbox.acknowledged(1), "a");
  EXPECT_TRUE(outbox.empty());
}

TEST(Outbox, knowsNothingOfAMessageThatIsAcknowledgedTwice) {
  Outbox outbox;
  outbox.departed(1, 1, "a", 10);
  outbox.acknowledged(1);

  EXPECT_EQ(outbox.acknowledged(1), std::nullopt);
}

TEST(Outbox, hasRoomForExactlyTheGreatestNumberOfBytes) {
  Outbox outbox;
  outbox.departed(1, 1, "a", Outbox::kMostBytes - 10);

  EXPECT_TRUE(outbox.hasRoomFor(10));
  EXPECT_FALSE(outbox.hasRoomFor(11));
}

TEST(Outbox, hasRoomAgainForWhatIsAcknowledged) {
  Outbox outbox;
  outbox.departed(1, 1, "a", Outbox::kMostBytes);

  outbox.acknowledged(1);

  EXPECT_TRUE(outbox.hasRoomFor(Outbox::kMostBytes));
}

TEST(Outbox, countsWhatWaits) {
  Outbox outbox;

  outbox.wait("topic", std::string(Outbox::kMostBytes - 5, 'x'), 1);

  EXPECT_FALSE(outbox.hasRoomFor(1));
}

TEST(Outbox, hasRoomAgainForWhatLeftTheQueue) {
  Outbox outbox;
  outbox.wait("a", "123456789", 1);

  outbox.removeNext();

  EXPECT_TRUE(outbox.hasRoomFor(Outbox::kMostBytes));
}

TEST(Outbox, holdsBackWhatFindsTheFlightFull) {
  Outbox outbox;
  for (int id = 1; id <= int{Outbox::kMostInFlight}; ++id) {
    outbox.departed(id, 1, "a", 1);
  }
  outbox.wait("next", "payload", 2);

  EXPECT_EQ(outbox.next(), nullptr);
  outbox.acknowledged(1);
  ASSERT_NE(outbox.next(), nullptr);
  EXPECT_EQ(outbox.next()->topic, "next");
  EXPECT_EQ(outbox.next()->qos, 2);
}

TEST(Outbox, keepsTheFlightOfMessagesOfQos2WithinWhatTheBrokerTakes) {
  Outbox outbox;
  for (int id = 1; id <= int{Outbox::kMostInFlightQos2}; ++id) {
    outbox.departed(id, 2, "a", 1);
  }

  EXPECT_FALSE(outbox.mayDepartAtOnce(2));
  EXPECT_TRUE(outbox.mayDepartAtOnce(1));
  outbox.acknowledged(1);
  EXPECT_TRUE(outbox.mayDepartAtOnce(2));
}

TEST(Outbox, letsNoMessageOvertakeOneThatWaits) {
  Outbox outbox;
  EXPECT_TRUE(outbox.mayDepartAtOnce(1));

  outbox.wait("a", "", 1);

  EXPECT_FALSE(outbox.mayDepartAtOnce(1));
}

TEST(Outbox, forgetsOnlyMessagesOfQos0WithTheConnection) {
  Outbox outbox;
  outbox.departed(1, 0, "a", Outbox::kMostBytes - 1);
  outbox.departed(2, 1, "b", 1);

  outbox.connectionLost();

  EXPECT_EQ(outbox.acknowledged(1), std::nullopt);
  EXPECT_EQ(outbox.acknowledged(2), "b");
  EXPECT_TRUE(outbox.hasRoomFor(Outbox::kMostBytes));
}

}  // namespace
}  // namespace mqtt
