#include "dbg/Debug.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>

namespace dbg {

namespace {

constexpr unsigned kAllButDebug = 14;

std::atomic<unsigned> enabledLevels{kAllButDebug};

/// systemd tells a service which file its journal is; standard error may have been redirected since.
bool standardErrorIsTheJournal() {
  const char* const journal = std::getenv("JOURNAL_STREAM");  // NOLINT(concurrency-mt-unsafe): read only
  struct stat file {};
  return journal != nullptr && fstat(STDERR_FILENO, &file) == 0 &&
         std::to_string(file.st_dev) + ':' + std::to_string(file.st_ino) == journal;
}

/// Where all entries go, each in one unbuffered write, so that none is lost however the process ends. What
/// standard error does not take is dropped.
struct Output {
  const bool toJournal = standardErrorIsTheJournal();
  spdlog::logger logger{"", std::make_shared<spdlog::sinks::stderr_sink_mt>()};

  Output() {
    logger.set_level(spdlog::level::trace);
    logger.set_formatter(std::make_unique<spdlog::pattern_formatter>(
        toJournal ? "%v" : "%Y-%m-%dT%H:%M:%S.%e %v", spdlog::pattern_time_type::utc));
  }
};

Output& output() {
  // Never destroyed: workers may log until the very end.
  static auto* const instance = new Output;
  return *instance;
}

struct Severity {
  spdlog::level::level_enum level;
  std::string_view journalPrefix;
};

Severity severityOf(Level level) {
  switch (level) {
    case Level::error:
      return {spdlog::level::err, "<3>"};
    case Level::warning:
      return {spdlog::level::warn, "<4>"};
    case Level::info:
      return {spdlog::level::info, "<6>"};
    case Level::debug:
      break;
  }
  return {spdlog::level::debug, "<7>"};
}

std::string_view withoutExtension(std::string_view file) {
  return file.substr(0, file.rfind('.'));
}

using Line = spdlog::memory_buf_t;

void append(Line& line, std::string_view text) {
  line.append(text.data(), text.data() + text.size());
}

void appendEscaped(Line& line, std::string_view text) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 && byte != 0x7f) {
      line.push_back(character);
    } else if (character == '\n') {
      append(line, "\\n");
    } else {
      append(line, "\\x");
      line.push_back(kHexDigits[byte >> 4]);
      line.push_back(kHexDigits[byte & 0xf]);
    }
  }
}

}  // namespace

void DebugStreamBuf::setMask(unsigned mask) {
  enabledLevels.store(mask, std::memory_order_relaxed);
}

unsigned DebugStreamBuf::mask() {
  return enabledLevels.load(std::memory_order_relaxed);
}

Entry::Entry(const std::string& tag, Level level, SourceLocation where)
    : tag_(tag),
      level_(level),
      where_(where),
      enabled_((DebugStreamBuf::mask() & static_cast<unsigned>(level)) != 0) {}

Entry::~Entry() {
  if (!enabled_) {
    return;
  }
  Output& out = output();
  const Severity severity = severityOf(level_);
  const auto word = spdlog::level::to_string_view(severity.level);
  std::string_view text = text_;
  if (text.ends_with('\n')) {
    text.remove_suffix(1);
  }

  Line line;
  if (out.toJournal) {
    append(line, severity.journalPrefix);
  }
  append(line, tag_);
  append(line, " ");
  append(line, {word.data(), word.size()});
  append(line, " ");
  append(line, withoutExtension(where_.file));
  append(line, ":");
  append(line, std::to_string(where_.line));
  append(line, " ");
  appendEscaped(line, text);
  out.logger.log(severity.level, spdlog::string_view_t(line.data(), line.size()));
}

Debug::Debug(std::string tag) : tag_(std::move(tag)) {}

}  // namespace dbg
