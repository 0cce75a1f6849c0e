#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <json/value.h>

#include "core/Status.h"

namespace propertyservice {

/// One configuration parameter: a JSON object whose members are named after the columns of the table
/// `settings`, and the outcome of the last operation on it.
///
/// A property holds exactly the members it was given: a missing member, a null member and an empty text are
/// three different things. "range_min", "range_max" and "flags" are JSON integers, the other columns JSON
/// strings.
///
/// A value type without a lock of its own.
class Property {
 public:
  using Columns = std::initializer_list<std::pair<std::string_view, std::string>>;
  using Member = std::pair<std::string, Json::Value>;

  /// No member, JSON null, status `Ok`.
  Property() = default;

  /// Sets the columns in the order given; a later one of the same name replaces the earlier. A text that is
  /// no 32-bit integer where one is wanted is logged as a warning and ends the construction: neither that
  /// column nor those after it are set.
  explicit Property(Columns columns);

  /// Takes a row in its JSON form as it is. Anything but an object gives a property without members.
  static Property fromJson(Json::Value json);

  /// The member, or null when there is none.
  Json::Value get(std::string_view column) const { return member(column); }

  /// The same without a copy. Valid until this property changes.
  const Json::Value& member(std::string_view column) const;

  /// The member as text; empty when it is missing or null. Throws `Json::LogicError` for an array or an
  /// object.
  std::string text(std::string_view column) const { return member(column).asString(); }

  void set(std::string_view column, Json::Value value);

  /// Makes room for so many members, so that they need not be moved as they become more.
  void reserve(std::size_t members) { members_.reserve(members); }
  void remove(std::string_view column);

  /// Removes all members but those that are named.
  void keepOnly(const std::vector<std::string>& columns);

  /// The whole object; null while there has been no member.
  Json::Value json() const;

  /// The members in the ascending order of their names. Valid until this property changes.
  const std::vector<Member>& members() const { return members_; }

  Status status() const { return status_; }
  void setStatus(Status status) { status_ = status; }

  /// Compares the members by name, type and value; the status takes no part.
  bool operator==(const Property& other) const { return json() == other.json(); }

 private:
  std::vector<Member> members_;  ///< A dozen at most: to go through them is faster than to walk a tree.
  bool isObject_ = false;
  Status status_ = Status::Ok;
};

}  // namespace propertyservice
