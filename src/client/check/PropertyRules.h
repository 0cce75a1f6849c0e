#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "client/check/Check.h"
#include "core/Property.h"

namespace check {

struct Complaint {
  Severity severity;
  std::string text;

  bool operator==(const Complaint&) const = default;
};

using Complaints = std::vector<Complaint>;

/// Reports what is wrong with a row of the table, taken by itself: its key and other names, its rules, and
/// its value and default by the rules of the daemon.
Complaints complaintsAbout(const propertyservice::Property& row);

/// How many characters the table counts in it.
std::size_t charactersIn(std::string_view text);

constexpr std::size_t kLongestKey = 64;
constexpr std::size_t kLongestValue = 256;

}  // namespace check
