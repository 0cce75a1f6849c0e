#include "support/HostileRequests.h"

#include <functional>
#include <random>
#include <set>

#include "core/JsonText.h"

namespace propertyservice::test {

namespace {

constexpr std::size_t kLargestPayload = std::size_t{1024} * 1024;
constexpr int kMostValues = 256 * 1024;  ///< That the daemon reads.
constexpr std::size_t kProperties = 4096;
constexpr std::size_t kDear = 16;  ///< Every so many rows have an expression that takes long to match.

std::string quoted(const std::string& text) {
  std::string json = json::write(text);
  json.pop_back();
  return json;
}

/// As many parts as fit into a payload of 1 MiB between its beginning and its end.
std::string filled(const std::string& begin, const std::function<std::string(std::size_t)>& part,
                   const std::string& end) {
  std::string payload = begin;
  for (std::size_t i = 0;; ++i) {
    const std::string next = part(i);
    if (payload.size() + next.size() + end.size() > kLargestPayload) {
      return payload + end;
    }
    payload += next;
  }
}

std::string filled(const std::string& begin, const std::string& part, const std::string& end) {
  return filled(
      begin, [&](std::size_t) { return part; }, end);
}

std::string repeated(const std::string& unit, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) {
    all += unit;
  }
  return all;
}

/// The short names "aaa", "baa" and so on.
std::string shortName(std::size_t number) {
  constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
  std::string name;
  for (int i = 0; i < 3; ++i) {
    name += kLetters[number % kLetters.size()];
    number /= kLetters.size();
  }
  return name;
}

/// One of the many names that a list takes for `key`, because it ignores blanks.
std::string withBlanks(const std::string& key, std::size_t number) {
  std::string name;
  for (const char character : key) {
    name += character;
    if (number % 2 != 0) {
      name += ' ';
    }
    number /= 2;
  }
  return name;
}

void addPatterns(std::vector<HostileRequest>& all) {
  const std::vector<std::pair<std::string, std::string>> patterns = {
      {"ManyDots", "%[a-m]" + repeated(".", 30) + "Q"},
      {"ManyClasses", "%[a-m]" + repeated("[^A]", 40) + "Q"},
      {"LongestClasses", "%[a-m]" + repeated("[^A]", 62) + "Q"},
      {"StarredClasses", "%" + repeated("[^A]*", 50) + "Q"},
      {"StarredLetters", "%" + repeated("a*", 127)},
      {"LongestOfDots", "%" + repeated(".", 254) + "Q"},
  };
  for (const auto& [name, pattern] : patterns) {
    all.push_back({name, R"({"method":"getColsL","fields":"key","param":)" + quoted(pattern) + "}"});
    all.push_back({name + "Webui", R"({"method":"getColsL","fields":"key","field":"webui","param":)" +
                                       quoted(pattern) + "}"});
    all.push_back({name + "Reset", R"({"method":"resetVal","param":)" + quoted(pattern) + "}"});
  }
}

std::string member(const std::string& name, const std::string& value) {
  return "\"" + name + "\":\"" + value + "\",";
}

void addLists(std::vector<HostileRequest>& all, const std::vector<Row>& rows) {
  const std::string open = R"({"method":"setVList","list":{)";
  const auto tiny = [](std::size_t i) { return "\"" + shortName(i) + "\":0,"; };
  const std::string field = R"(},"field":)";

  all.push_back({"ListUnderALongField",
                 filled(open, tiny, "\"a\":0" + field + quoted(std::string(500'000, 'x')) + "}")});
  all.push_back({"ListUnderAnUnknownField", filled(open, tiny, "\"a\":0" + field + "\"tr\"}")});
  all.push_back({"ListUnderAColumnOfNumbers", filled(open, tiny, "\"a\":0" + field + "\"flags\"}")});
  all.push_back({"ListOfUnknownKeys", filled(open, tiny, "\"a\":0}}")});
  all.push_back({"ListOfOneUnknownKey", filled(open, "\"a\":0,", "\"a\":0}}")});
  all.push_back({"ListOfEmptyNames", filled(open, "\"\":0,", "\"\":0}}")});
  all.push_back({"ListOfAllKeys", filled(
                                      open,
                                      [&](std::size_t i) {
                                        return member(rows[i % rows.size()].key,
                                                      std::to_string(i) + repeated("x", 120));
                                      },
                                      "\"a\":0}}")});
  all.push_back({"ListOfOneKeyWithBlanks", filled(
                                               open,
                                               [&](std::size_t i) {
                                                 return member(
                                                     withBlanks("Short", i % 16) +
                                                         repeated(" ", static_cast<int>(i / 16 % 8)),
                                                     std::to_string(i));
                                               },
                                               "\"a\":0}}")});
  all.push_back(
      {"ListThatChangesOnePropertyOften",
       filled(
           open, [&](std::size_t i) { return member(withBlanks(rows[1].key, i), std::to_string(i)); },
           "\"a\":0}}")});
  all.push_back(
      {"ListThatBreaksOneRuleOften",
       filled(
           open, [&](std::size_t i) { return member(withBlanks(rows[0].key, i), std::to_string(i)); },
           "\"a\":0}}")});
  all.push_back(
      {"ListOfOtherKind", R"({"method":"setVList","list":[)" + repeated("0,", kMostValues - 10) + "0]}"});
  all.push_back({"ListOfState", filled(
                                    open, [](std::size_t i) { return "\"State." + shortName(i) + "\":0,"; },
                                    "\"State.a\":0}}")});
}

/// Each value of up to 256 characters costs the C library milliseconds under such an expression.
void addDearExpressions(std::vector<HostileRequest>& all, const std::vector<Row>& rows) {
  const std::size_t keys = rows.size() / kDear;
  std::mt19937 random(2);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same values in every run
  const auto part = [&](std::size_t i) {
    std::string value(218, 'A');
    for (char& character : value) {
      character = static_cast<char>((random() % 2 == 0 ? 'A' : 'a') + random() % 26);
    }
    value[value.size() - 18] = 'A';
    value.back() = '1';
    return member(withBlanks(rows[i % keys * kDear].key, i / keys), value);
  };
  all.push_back({"ListUnderDearExpressions", filled(R"({"method":"setVList","list":{)", part, "\"a\":0}}")});
}

void addNesting(std::vector<HostileRequest>& all) {
  const std::string open = R"({"method":"getV","param":"a","x":[)";
  const auto add = [&](const std::string& name, const std::string& part, bool isAnswered = false) {
    all.push_back({name, filled(open, part + ",", part + "]}"), isAnswered});
  };
  add("ManyNumbers", "0");
  add("ManyArrays", "[]");
  add("ManyObjects", "{}");
  add("ManyNestedArrays", repeated("[", 98) + repeated("]", 98));
  add("ManyArraysOfOne", "[0]");
  add("ManyStrings", "\"\"");
  add("ManyShortObjects", "{\"\":0}");
  const std::string deep = repeated("[", 98) + repeated("]", 98) + ",";
  all.push_back({"AsManyNestedArraysAsAreRead", open + repeated(deep, kMostValues / 99 - 1) + "0]}"});
  all.push_back({"AsManyArraysAsAreRead", open + repeated("[],", kMostValues / 2 - 10) + "0]}"});
  add("ManyLongNumbers", std::string(300, '1'), true);
  add("ManyTinyNumbers", "1e-300", true);
  add("ManyComments", "/**/0", true);
}

void addTexts(std::vector<HostileRequest>& all, const std::vector<Row>& rows) {
  const std::string get = R"({"method":"getV","param":")";
  const std::string set = R"({"method":"setV","param":")" + rows[0].key + R"(","value":)";
  all.push_back({"EchoOfControlCharacters", filled(get, "\x01", "\"}")});
  all.push_back({"EchoOfInvalidBytes", filled(get, "\xff", "\"}")});
  all.push_back(
      {"EchoOfAPattern", filled(R"({"method":"getColsL","fields":"key","param":"%)", "\x01", "\"}")});
  all.push_back({"UnknownMethod", filled(R"({"method":")", "\x01", "\"}")});
  all.push_back({"LongField", filled(R"({"method":"getColsL","param":"a","field":")", "\x01", "\"}")});
  all.push_back({"ValueAgainstAnExpression", filled(set + "\"", "1", "\"}")});
  all.push_back({"ValueOfManyDigits", filled(set, "1", "e-1048576}")});
  all.push_back({"StateValue", filled(R"({"method":"setV","param":"State.A","value":")", "\x01", "\"}")});
  all.push_back({"StateKey", filled(R"({"method":"setV","param":"State.)", "\x01", R"(","value":"a"})")});
}

void addColumns(std::vector<HostileRequest>& all) {
  const std::string open = R"({"method":"getColsL","param":"%","fields":")";
  all.push_back({"ManyCommas", filled(open, ",", "\"}")});
  all.push_back({"ManyUnknownColumns", filled(open, "a,", "\"}")});
  all.push_back(
      {"ManyTimesAllColumns",
       filled(open, "key,value,webui,provisioning,tr069,regexp,enum,defaultvalues,range_max,", "flags\"}")});
  all.push_back({"AllColumns", open + "\"}"});
  all.push_back({"ResetOfAll", R"({"method":"resetVal","param":"%"})"});
}

}  // namespace

std::vector<Row> variedRows() {
  constexpr std::string_view kWords[] = {"Audio",   "Ringer",  "Volume", "Network", "Gateway",  "Address",
                                         "Account", "Display", "Name",   "Server",  "Primary",  "Backup",
                                         "Port",    "Timeout", "Enable", "Codec",   "Priority", "Headset",
                                         "Line",    "Key",     "Label",  "Forward", "Busy",     "Number",
                                         "Voice",   "Mail",    "Update", "Url",     "Proxy",    "User"};
  std::mt19937 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same rows in every run
  std::set<std::string> keys;
  std::vector<Row> rows;
  const std::vector<Row> needed = Device::defaultRows();
  while (rows.size() + needed.size() < kProperties) {
    std::string key;
    for (std::size_t words = 3 + random() % 4; words > 0; --words) {
      key += (key.empty() ? "" : ".") + std::string(kWords[random() % std::size(kWords)]);
    }
    if (key.size() > 64 || !keys.insert(key).second) {
      continue;
    }
    Row row{.key = key,
            .value = "1",
            .defaultValue = "a",
            .flags = 8,
            .webui = "Web" + key,
            .provisioning = "P." + key};
    if (rows.size() % kDear == 0) {
      row.regexp = "^(.*[A-Z].{16}[0-9]|" + std::to_string(rows.size()) + "x)$";
    }
    rows.push_back(row);
  }
  rows.insert(rows.end(), needed.begin(), needed.end());
  return rows;
}

std::vector<HostileRequest> hostileRequests(const std::vector<Row>& rows) {
  std::vector<HostileRequest> all;
  addPatterns(all);
  addLists(all, rows);
  addDearExpressions(all, rows);
  addNesting(all);
  addTexts(all, rows);
  addColumns(all);
  return all;
}

}  // namespace propertyservice::test
