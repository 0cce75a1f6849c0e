#include "core/Status.h"

#include <map>

namespace propertyservice {

namespace {

const std::map<Status, std::string_view> kTexts = {
    {Status::Ok, "Ok"},
    {Status::NotFound, "NotFound"},
    {Status::RegExpError, "RegExpError"},
    {Status::ValueError, "ValueError"},
    {Status::ValueOutOfBounds, "ValueOutOfBounds"},
    {Status::ReadOnly, "ReadOnly"},
    {Status::Changed, "Ok"},
    {Status::Unchanged, "Ok"},
    {Status::DBError, "DBError"},
    {Status::InvalidRequest, "InvalidRequest"},
};

}  // namespace

std::optional<std::string_view> toText(Status status) {
  const auto entry = kTexts.find(status);
  if (entry == kTexts.end()) {
    return std::nullopt;
  }
  return entry->second;
}

}  // namespace propertyservice
