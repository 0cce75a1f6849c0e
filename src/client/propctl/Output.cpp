#include "client/propctl/Output.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "client/propctl/ExitStatus.h"
#include "core/JsonText.h"
#include "wire/Names.h"

namespace propctl {

namespace {

constexpr char kBold[] = "\033[1m";
constexpr char kPale[] = "\033[2m";
constexpr char kMarked[] = "\033[33m";
constexpr char kPlain[] = "\033[0m";
constexpr char kClearLine[] = "\r\033[K";

/// Columns on a terminal, where bytes that continue a character of UTF-8 take no place.
std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80U;
  }));
}

std::string joined(const std::vector<std::string>& cells, const char* separator) {
  std::string text;
  for (const std::string& cell : cells) {
    text += (&cell == &cells.front() ? "" : separator) + cell;
  }
  return text;
}

std::string aligned(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths) {
  std::string text;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    text += cells[i] + std::string(widths[i] - widthOf(cells[i]) + 2, ' ');
  }
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

}  // namespace

void Output::line(const std::string& text) {
  write(prefix_ + text + '\n');
}

void Output::value(const std::string& value) {
  line(style_.table ? escaped(value) : value);
}

std::string Output::visible(const std::string& name, const std::string& value) const {
  const bool isHidden = style_.hideSecrets && !value.empty() && propertyservice::isSecret(name);
  return isHidden ? "••••" : value;
}

void Output::json(const Json::Value& document) {
  if (style_.device.empty()) {
    write(propertyservice::json::write(document));
    return;
  }
  Json::Value ofDevice;
  ofDevice["device"] = style_.device;
  ofDevice["result"] = document;
  write(propertyservice::json::write(ofDevice));
}

void Output::table(const std::vector<std::string>& headings, const std::vector<Row>& rows) {
  if (!style_.table) {
    for (const Row& row : rows) {
      line(joined(row.cells, "\t"));
    }
    return;
  }
  std::vector<std::size_t> widths;
  widths.reserve(headings.size());
  for (const std::string& heading : headings) {
    widths.push_back(widthOf(heading));
  }
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < row.cells.size(); ++i) {
      widths[i] = std::max(widths[i], widthOf(row.cells[i]));
    }
  }
  line(inColour(kBold, aligned(headings, widths)));
  for (const Row& row : rows) {
    const std::string text = aligned(row.cells, widths);
    line(row.marked ? inColour(kMarked, text) : text);
  }
}

std::string Output::pale(const std::string& text) const {
  return inColour(kPale, text);
}

void Output::pass(const std::string& results, const std::string& errors) {
  progress("");
  write(results);
  flush();
  errors_ << errors << std::flush;
}

void Output::complain(const std::string& text) {
  progress("");
  errors_ << "propctl: " << prefix_ << text << std::endl;
  spoken_ = true;
  complaint_ = text;
}

void Output::error() {
  Json::Value ofDevice;
  ofDevice["device"] = style_.device;
  ofDevice["error"] = complaint_;
  write(propertyservice::json::write(ofDevice));
}

void Output::remark(const std::string& text) {
  if (!style_.quiet) {
    progress("");
    errors_ << prefix_ << text << std::endl;
    spoken_ = true;
  }
}

void Output::progress(const std::string& text) {
  if (style_.progress && !style_.quiet) {
    errors_ << kClearLine << text << std::flush;
  }
}

void Output::flush() {
  errno = 0;
  if (!out_.flush()) {
    giveUp(errno);
  }
}

void Output::write(const std::string& text) {
  spoken_ = true;
  errno = 0;
  if (!(out_ << text)) {
    giveUp(errno);
  }
}

std::string Output::inColour(const char* colour, const std::string& text) const {
  return style_.colour ? colour + text + kPlain : text;
}

void Output::giveUp(int reason) {
  if (reason == EPIPE) {
    // The reader has had enough: end as any other program of a pipeline does. The client's thread, where
    // changes are printed, blocks all signals.
    std::signal(SIGPIPE, SIG_DFL);
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    std::raise(SIGPIPE);
  }
  throw Failure(ExitStatus::refused,
                std::string("cannot write the output: ") + std::generic_category().message(reason));
}

}  // namespace propctl
