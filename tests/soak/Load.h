#pragma once

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <json/value.h>

#include "soak/Disturbances.h"
#include "soak/Model.h"
#include "support/BusClient.h"
#include "support/Device.h"

namespace propertyservice::soak {

/// A client that reads and writes properties of its own in every way there is, one request after the other,
/// and knows what each answer must be. Used by one thread at a time; what contradicts the model is thrown as
/// `std::runtime_error`.
class Load {
 public:
  struct Count {
    std::size_t answered = 0;
    std::size_t lost = 0;  ///< Without an answer, or with one, during a disturbance.
  };

  Load(int number, unsigned seed, const Disturbances& disturbances);

  /// The rows of its properties in the database, in their defaults.
  const std::vector<test::Row>& rows() const { return rows_; }

  void sendRandomRequest();

  /// Reads everything. Throws unless the daemon holds a value for each property that it may hold.
  void verify();

  Model& model() { return model_; }
  const std::map<std::string, Count>& counts() const { return counts_; }

 private:
  struct Attempt {
    std::string value;
    std::string status;  ///< What a write of it is answered with.
  };

  void getValue();
  void getColumns();
  void getProvisioningDump();
  void setValue();
  void setInvalidValue();
  void setList();
  void resetOne();
  void resetAll();
  void useVolatile();
  void readVolatile(const std::string& key);
  void setVolatileList();

  /// Sends a request; the reply, or nothing when the system was disturbed before it came.
  std::optional<Json::Value> ask(const Json::Value& request);

  /// Acts on what has happened since the last request; the moment up to which.
  Disturbances::Moment catchUp();
  void send(const Json::Value& request);
  std::optional<std::string> waitForReply(const Disturbances::Moment& before);
  void expectStatus(const Json::Value& request, const Json::Value& reply, const std::string& status) const;

  /// With the answer to a write: notes what the daemon holds now, or may hold.
  void conclude(const std::optional<Json::Value>& reply, const std::string& key, const Value& value);

  const test::Row& randomRow();
  std::string randomValue(const test::Row& row);
  Attempt randomInvalidValue(const test::Row& row);
  std::string randomText(std::size_t length);
  int random(int least, int greatest);

  const std::string group_;
  const Disturbances& disturbances_;
  Disturbances::Moment known_;
  std::mt19937 generator_;
  std::vector<test::Row> rows_;
  std::vector<std::string> volatileKeys_;
  Model model_;
  std::map<std::string, Count> counts_;  ///< By the request's method.
  std::unique_ptr<test::BusClient> bus_;
  int busNumber_ = 0;
};

}  // namespace propertyservice::soak
