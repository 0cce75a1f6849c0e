#pragma once

#include <string>
#include <vector>

#include "core/Property.h"
#include "database/ProvisioningDump.h"

namespace propertyservice {

/// The persistent properties. The outcome for each property is its status afterwards. Requests come one at a
/// time; `isWriterIdle` and `isWriterFailing` may be asked from any thread.
class IPersistentDatabase {
 public:
  virtual ~IPersistentDatabase() = default;

  /// Fills the property that is named by its "key", or by its "provisioning" or "webui" name. `NotFound`
  /// otherwise.
  virtual void get(Property& property) = 0;

  /// True while the write-behind worker sleeps and the storage has taken every accepted write.
  virtual bool isWriterIdle() = 0;

  /// Writes "value" after validation; the property leaves with all its stored members. `Changed`,
  /// `Unchanged`, `NotFound`, `ValueError` for a value that the table cannot hold, or what a validator
  /// objected to.
  virtual void set(Property& property) = 0;

  /// The properties whose column `selector` ("key" when empty) equals `keyPattern`, or matches it when it
  /// holds a "%"; of each the members named in `columns`, or all when that is empty.
  virtual std::vector<Property> getMultiple(const std::string& keyPattern,
                                            const std::vector<std::string>& columns,
                                            const std::string& selector) = 0;

  /// `set` on each, in order; a failure does not stop the others.
  virtual void setMultiple(std::vector<Property>& properties) = 0;

  /// Takes the value back to the default, without validation.
  virtual void reset(Property& property) = 0;

  /// `reset` on every property whose key matches; returns them with their statuses.
  virtual std::vector<Property> resetMultiple(const std::string& keyPattern) = 0;

  virtual ProvisioningDump getProvisioningDump() = 0;

  /// True while accepted writes wait because the storage cannot take them.
  virtual bool isWriterFailing() = 0;

  /// To be called before the end, from any thread: all waiting for locks on the storage takes one second at
  /// most from now on.
  virtual void hurry() = 0;
};

}  // namespace propertyservice
