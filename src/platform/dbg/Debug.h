#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>

namespace dbg {

/// The value of a level is its bit in the mask.
enum class Level : unsigned { error = 2, warning = 4, info = 8, debug = 16 };

/// Where in the source an entry is made. As a default argument it is the caller's own place.
struct SourceLocation {
  const char* file;  ///< As the compiler was given it, relative to src/.
  int line;

  static constexpr SourceLocation current(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {file, line};
  }
};

/// The process-wide switch of the log: an entry is written only when the bit of its level is set.
/// Safe from any thread; in force from the next entry on.
class DebugStreamBuf {
 public:
  static void setMask(unsigned mask);
  static unsigned mask();
};

/// One log entry, built with `<<` and written when it goes out of scope.
///
/// An entry whose level is masked formats nothing. What is dear to compute is given as a callable, which is
/// called only for an entry that is written:
///
///     logger().debug() << "Loaded " << [&] { return json::write(value); };
class Entry {
 public:
  Entry(const std::string& tag, Level level, SourceLocation where);
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;
  ~Entry();

  Entry& operator<<(std::string_view text) {
    if (enabled_) {
      text_.append(text);
    }
    return *this;
  }

  template <std::integral Number>
  requires(!std::same_as<Number, char> && !std::same_as<Number, bool>) Entry& operator<<(Number number) {
    if (enabled_) {
      text_.append(std::to_string(number));
    }
    return *this;
  }

  template <std::invocable Text>
  Entry& operator<<(Text&& text) {
    if (enabled_) {
      *this << text();
    }
    return *this;
  }

 private:
  const std::string& tag_;
  const Level level_;
  const SourceLocation where_;
  const bool enabled_;
  std::string text_;
};

/// A log under a tag. Safe from any thread; entries of several threads never mix.
///
/// Each entry goes to standard error as one line: time stamp (UTC), tag, level word, file:line, text:
///
///     2026-11-21T08:15:30.123 PROP-SRV error core/Dispatcher:42 text
///
/// Control characters within the text are written as escapes (`\n`, else `\xNN`), one line break at its end
/// is dropped. Under systemd, that is where standard error is the journal at the first entry, the journal's
/// priority prefix stands in place of the time stamp (`<3>PROP-SRV error ...`). What standard error does not
/// take is lost.
class Debug {
 public:
  explicit Debug(std::string tag);

  Entry error(SourceLocation where = SourceLocation::current()) const { return {tag_, Level::error, where}; }
  Entry warning(SourceLocation where = SourceLocation::current()) const {
    return {tag_, Level::warning, where};
  }
  Entry info(SourceLocation where = SourceLocation::current()) const { return {tag_, Level::info, where}; }
  Entry debug(SourceLocation where = SourceLocation::current()) const { return {tag_, Level::debug, where}; }

 private:
  const std::string tag_;
};

}  // namespace dbg
