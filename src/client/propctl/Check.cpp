#include "client/check/Check.h"

#include "client/propctl/Commands.h"
#include "client/propctl/Text.h"

namespace propctl {

namespace {

const char* inWords(check::Severity severity) {
  return severity == check::Severity::error ? "error" : "warning";
}

}  // namespace

ExitStatus check(Output& output, const Names& files) {
  const check::Report report = check::check({files.begin(), files.end()});
  Json::Value findings(Json::arrayValue);
  for (const check::Finding& finding : report.findings) {
    if (output.style().json) {
      Json::Value& object = findings.append(Json::objectValue);
      object["file"] = finding.file;
      object["line"] = static_cast<Json::UInt64>(finding.line);
      object["severity"] = inWords(finding.severity);
      object["text"] = finding.text;
    } else {
      const std::string line = finding.line == 0 ? "" : ':' + std::to_string(finding.line);
      output.line(escaped(finding.file) + line + ": " + inWords(finding.severity) + ": " + finding.text);
    }
  }
  if (output.style().json) {
    output.json(findings);
  } else if (report.findings.empty()) {
    output.remark(std::to_string(report.files) + (report.files == 1 ? " file" : " files") +
                  ", nothing found");
  }
  if (report.unreadable) {
    return ExitStatus::usage;
  }
  return report.findings.empty() ? ExitStatus::done : ExitStatus::refused;
}

}  // namespace propctl
