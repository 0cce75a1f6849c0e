#include <ostream>

#include "client/propclient/FakeDaemon.h"
#include "propclient/Listing.h"
#include "propclient/Session.h"

namespace propclient {
namespace {

using namespace std::chrono_literals;

std::string padded(int number) {
  const std::string digits = std::to_string(number);
  return std::string(4 - digits.size(), '0') + digits;
}

/// A table of many properties.
struct Table {
  const char* name;
  std::function<std::string(int number)> key;

  friend void PrintTo(const Table& table, std::ostream* stream) { *stream << table.name; }
};

class Listings : public testing::TestWithParam<Table> {
 protected:
  static constexpr int kProperties = 1500;

  Listings() {
    for (int i = 0; i < kProperties; ++i) {
      daemon_.values[GetParam().key(i)] = "value " + std::to_string(i);
    }
    session_.opened();
  }

  void start(const std::string& pattern, const std::vector<std::string>& columns,
             std::function<bool(const std::string&)> wants = {}) {
    Listing::start(
        {.pattern = pattern, .columns = columns, .wants = std::move(wants)},
        [this](Request request) { session_.ask(std::move(request), Clock::now()); },
        [this](const std::vector<Columns>& rows, std::size_t all) {
          rows_.insert(rows_.end(), rows.begin(), rows.end());
          all_ = all;
          return goesOn_;
        },
        [this](Status status) { status_ = status; });
  }

  /// Serves everything, and notes how many rows with a value the longest reply had.
  void serveAll() {
    while (daemon_.hasRequests()) {
      daemon_.serve();
      ++replies_;
      const auto reply = daemon_.arrive();
      const Json::Value rows = json::parse(reply->payload).value()["result"];
      if (!rows.empty() && rows[0].isMember("value")) {
        mostRows_ = std::max<std::size_t>(mostRows_, rows.size());
      }
      session_.received(reply->topic, reply->payload);
    }
  }

  std::map<std::string, std::string> matching(const std::string& pattern) const {
    const auto compiled = propertyservice::KeyPattern::compile(pattern);
    std::map<std::string, std::string> values = daemon_.values;
    std::erase_if(values, [&](const auto& property) { return !compiled->matches(property.first); });
    return values;
  }

  std::map<std::string, std::string> read() const {
    std::map<std::string, std::string> values;
    for (const Columns& row : rows_) {
      EXPECT_TRUE(values.emplace(row.at("key"), row.at("value")).second) << row.at("key") << " came twice";
    }
    return values;
  }

  FakeDaemon daemon_;
  Session session_{Topics("panel", ""), daemon_, 5s, "?unique-"};
  bool goesOn_ = true;
  std::vector<Columns> rows_;
  std::size_t all_ = 0;
  std::size_t mostRows_ = 0;
  std::size_t replies_ = 0;
  std::optional<Status> status_;
};

TEST_P(Listings, readEachMatchOnceInPiecesThatFit) {
  for (const std::string pattern : {"%", "A%", "%7", "A.B%1", "[A-C]%", "A.%"}) {
    rows_.clear();
    mostRows_ = 0;
    replies_ = 0;
    const auto expected = matching(pattern);

    start(pattern, {"key", "value"});
    serveAll();

    EXPECT_EQ(status_, expected.empty() ? Status::notFound : Status::ok) << pattern;
    EXPECT_EQ(read(), expected) << pattern;
    EXPECT_LE(mostRows_, Listing::kMostRows) << pattern;
    EXPECT_LE(replies_, 100U) << pattern;
    if (!expected.empty()) {
      EXPECT_EQ(all_, expected.size()) << pattern;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    , Listings,
    testing::Values(
        Table{"groups",
              [](int i) { return std::string(1, static_cast<char>('A' + i % 26)) + ".B" + padded(i); }},
        Table{"one group", [](int i) { return "A.Extension" + padded(i) + ".DisplayName"; }},
        Table{"beginnings of each other",
              [](int i) {
                return "A." + std::string(1, static_cast<char>('B' + i / 60)) + std::string(i % 60, 'x');
              }},
        Table{"operators", [](int i) { return R"(A.B[*]\.^$-,)" + padded(i) + "]{}()+?|"; }},
        Table{"what the pattern would match, too",
              [](int i) { return (i % 2 == 0 ? "A.B" : "AxB") + padded(i / 2) + "%"; }},
        Table{"beyond ASCII", [](int i) { return "A.B\u00fc\u4e2d" + padded(i) + "\U0001d11e"; }}),
    [](const auto& test) {
      std::string name = test.param.name;
      std::replace_if(
          name.begin(), name.end(), [](char byte) { return std::isalnum(byte) == 0; }, '_');
      return name;
    });

class ListingOfMany : public Listings {};

INSTANTIATE_TEST_SUITE_P(, ListingOfMany,
                         testing::Values(Table{"A", [](int i) { return "A.B" + padded(i); }}));

TEST_P(ListingOfMany, readsNamesAloneInOneRequest) {
  start("%", {"key"});

  EXPECT_EQ(daemon_.requests.size(), 2U);  // with the marker of a new connection
  serveAll();
  EXPECT_EQ(rows_.size(), 1500U);
}

TEST_P(ListingOfMany, readsOneNameInOneRequest) {
  start("A.B0001", {"key", "value"});
  serveAll();

  EXPECT_EQ(rows_, (std::vector<Columns>{{{"key", "A.B0001"}, {"value", "value 1"}}}));
  EXPECT_EQ(replies_, 2U);
}

TEST_P(ListingOfMany, leavesOutTheNameWhereItIsNotAskedFor) {
  start("A.B000%", {"value"});
  serveAll();

  EXPECT_EQ(rows_.size(), 10U);
  EXPECT_EQ(rows_.front(), (Columns{{"value", "value 0"}}));
}

TEST_P(ListingOfMany, readsNoPieceThatIsNotWanted) {
  start("%", {"key", "value"}, [](const std::string& key) { return key == "A.B0042"; });
  serveAll();

  EXPECT_EQ(rows_.size(), 1U);
  EXPECT_EQ(replies_, 3U);
}

TEST_P(ListingOfMany, asksOnlyForAFewPiecesAhead) {
  start("%", {"key", "value"});
  for (int i = 0; i < 20; ++i) {
    daemon_.serve();
    const auto reply = daemon_.arrive();
    session_.received(reply->topic, reply->payload);
    EXPECT_LE(daemon_.requests.size(), 4U);
  }
}

TEST_P(ListingOfMany, asksForNothingMoreWhenItIsStopped) {
  goesOn_ = false;
  start("%", {"key", "value"});
  serveAll();

  EXPECT_LE(replies_, 6U);
  EXPECT_EQ(status_, std::nullopt);
}

TEST_P(ListingOfMany, endsOnceWithTheFirstPieceThatFails) {
  start("%", {"key", "value"});
  for (int i = 0; i < 5; ++i) {
    daemon_.serve();
    const auto reply = daemon_.arrive();
    session_.received(reply->topic, reply->payload);
  }

  session_.lost();

  EXPECT_EQ(status_, Status::noAnswer);
}

}  // namespace
}  // namespace propclient
