#include "core/Status.h"

#include <map>

#include "wire/Names.h"

namespace propertyservice {

namespace {

const std::map<Status, std::string_view> kTexts = {
    {Status::Ok, statustext::kOk},
    {Status::NotFound, statustext::kNotFound},
    {Status::RegExpError, statustext::kRegExpError},
    {Status::ValueError, statustext::kValueError},
    {Status::ValueOutOfBounds, statustext::kValueOutOfBounds},
    {Status::ReadOnly, statustext::kReadOnly},
    {Status::Changed, statustext::kOk},
    {Status::Unchanged, statustext::kOk},
    {Status::DBError, statustext::kDbError},
    {Status::InvalidRequest, statustext::kInvalidRequest},
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
