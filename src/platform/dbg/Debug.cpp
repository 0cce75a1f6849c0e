#include "dbg/Debug.h"

#include <atomic>
#include <iostream>

// PLACEHOLDER, being replaced.
namespace dbg {
namespace {
std::atomic<unsigned> g{14};
}
void DebugStreamBuf::setMask(unsigned m) {
  g = m;
}
unsigned DebugStreamBuf::mask() {
  return g;
}
Entry::Entry(const std::string& tag, Level level, SourceLocation where)
    : tag_(tag), level_(level), where_(where), enabled_((g & static_cast<unsigned>(level)) != 0) {}
Entry::~Entry() {
  if (!enabled_)
    return;
  std::string f(where_.file);
  if (auto d = f.rfind('.'); d != std::string::npos)
    f.resize(d);
  while (!text_.empty() && text_.back() == '\n')
    text_.pop_back();
  const char* w = level_ == Level::error     ? "error"
                  : level_ == Level::warning ? "warning"
                  : level_ == Level::info    ? "info"
                                             : "debug";
  std::cerr << "time " + tag_ + " " + w + " " + f + ":" + std::to_string(where_.line) + " " + text_ + "\n";
}
Debug::Debug(std::string tag) : tag_(std::move(tag)) {}
}  // namespace dbg
