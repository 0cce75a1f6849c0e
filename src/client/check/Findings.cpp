#include "client/check/Findings.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <utility>

#include <json/value.h>

#include "core/JsonText.h"

namespace check {

namespace {

constexpr std::size_t kMostFindings = 1000;
constexpr std::size_t kMostQuoted = 120;

bool isUnprintable(char character) {
  return character < ' ' || character > '~';
}

}  // namespace

Source::Source(std::size_t index, std::string path, std::string text)
    : index_(index), path_(std::move(path)), text_(std::move(text)), lineStarts_{0} {
  for (std::size_t end = text_.find('\n'); end != std::string::npos; end = text_.find('\n', end + 1)) {
    lineStarts_.push_back(end + 1);
  }
}

std::string Source::name() const {
  return std::filesystem::path(path_).filename().string();
}

std::size_t Source::lineAt(std::size_t offset) const {
  const auto next = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), offset);
  return static_cast<std::size_t>(next - lineStarts_.begin());
}

std::string inQuotes(std::string_view text) {
  const std::string_view shown = text.substr(0, kMostQuoted);
  std::string written = propertyservice::json::write(Json::Value(shown.data(), shown.data() + shown.size()));
  written.pop_back();
  if (shown.size() < text.size()) {
    written += "...";
  }
  return written;
}

void Findings::error(const Source& source, std::size_t line, std::string text) {
  add(source, line, Severity::error, std::move(text));
}

void Findings::warning(const Source& source, std::size_t line, std::string text) {
  add(source, line, Severity::warning, std::move(text));
}

void Findings::add(const Source& source, std::size_t line, Severity severity, std::string text) {
  std::vector<Finding>& found = byFile_[source.index()];
  if (found.size() > kMostFindings) {
    return;
  }
  if (found.size() == kMostFindings) {
    line = 0;
    text = "further findings are left out";
  }
  // Messages of libraries quote the file as it is.
  std::replace_if(text.begin(), text.end(), isUnprintable, '?');
  found.push_back({source.path(), line, severity, std::move(text)});
}

std::vector<Finding> Findings::sorted() && {
  std::vector<Finding> all;
  for (auto& [index, found] : byFile_) {
    std::stable_sort(found.begin(), found.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    std::move(found.begin(), found.end(), std::back_inserter(all));
  }
  return all;
}

}  // namespace check
