#pragma once

#include <string>
#include <vector>

#include "core/Property.h"
#include "database/ProvisioningDump.h"

namespace propertyservice {

/// The one door to all properties, persistent and volatile. The outcome for each property is its status
/// afterwards.
///
/// Requests come one at a time; `isWriterIdle` and `isWriterFailing` may be asked from any thread. Operations
/// on volatile keys throw `VolatileStorageException` when the store fails.
class IDatabaseService {
 public:
  virtual ~IDatabaseService() = default;

  /// Fills the property that is named by its "key", or by its "provisioning" or "webui" name. `NotFound`
  /// otherwise.
  virtual void get(Property& property) = 0;

  /// Writes "value": `Changed`, `Unchanged`, `NotFound`, or what a validator objected to.
  virtual void set(Property& property) = 0;

  /// The properties whose column `selector` ("key" when empty, "webui" or "provisioning") equals
  /// `keyPattern`, or matches it when it holds a "%"; of each the members named in `columns`, or all when
  /// that is empty. A pattern for volatile keys is logged as an error and matches nothing.
  virtual std::vector<Property> getMultiple(const std::string& keyPattern,
                                            const std::vector<std::string>& columns,
                                            const std::string& selector) = 0;

  /// Writes each property in order. The first key decides for all whether they are volatile or persistent.
  virtual void setMultiple(std::vector<Property>& properties) = 0;

  /// Takes a persistent property back to its default, removes a volatile one.
  virtual void reset(Property& property) = 0;

  /// Resets every persistent property that matches; returns them with their statuses.
  virtual std::vector<Property> resetMultiple(const std::string& keyPattern) = 0;

  /// True when the database file holds every accepted write, also after a power cut.
  virtual bool isWriterIdle() = 0;

  virtual ProvisioningDump getProvisioningDump() = 0;

  /// True while accepted writes wait because the database file cannot be written.
  virtual bool isWriterFailing() = 0;

  /// To be called before the process ends, from any thread: all waiting for locks on the database file takes
  /// one second at most from now on.
  virtual void hurry() = 0;
};

}  // namespace propertyservice
