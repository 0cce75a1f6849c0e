#include <memory>
#include <ostream>
#include <set>

#include "propclient/Json.h"
#include "propclient/Request.h"

namespace propclient {
namespace {

using request::Nothing;
using testing::Pair;
using testing::UnorderedElementsAre;

/// Keeps the answer that a request's callback gets.
template <typename T>
class Kept {
 public:
  Client::Callback<T> callback() {
    return [answer = answer_](const Answer<T>& given) { *answer = given; };
  }
  const std::optional<Answer<T>>& answer() const { return *answer_; }

 private:
  std::shared_ptr<std::optional<Answer<T>>> answer_ = std::make_shared<std::optional<Answer<T>>>();
};

bool deliver(const Request& request, const std::string& reply) {
  const Delivery delivery = request.read(json::parse(reply).value());
  if (delivery) {
    delivery();
  }
  return static_cast<bool>(delivery);
}

template <typename T>
Client::Callback<T> ignore() {
  return [](const Answer<T>&) {};
}

TEST(Request, isWrittenAsTheDaemonReadsIt) {
  const auto done = ignore<Nothing>();

  EXPECT_EQ(request::ping(done).text, R"({"param":"Are you alive?"})");
  EXPECT_EQ(request::get("A.B", Field::key, ignore<std::string>()).text,
            R"({"method":"getV","param":"A.B"})");
  EXPECT_EQ(request::get("b", Field::web, ignore<std::string>()).text,
            R"({"field":"webui","method":"getV","param":"b"})");
  EXPECT_EQ(request::set("P", "x y", Field::provisioning, done).text,
            R"({"field":"provisioning","method":"setV","param":"P","value":"x y"})");
  EXPECT_EQ(request::list("A.%", {"key", "flags"}, Field::key, ignore<std::vector<Columns>>()).text,
            R"({"fields":"key,flags","method":"getColsL","param":"A.%"})");
  EXPECT_EQ(request::list("A.%", {}, Field::web, ignore<std::vector<Columns>>()).text,
            R"({"field":"webui","method":"getColsL","param":"A.%"})");
  EXPECT_EQ(request::setList({{"A.B", "1"}, {"A.C", ""}}, Field::key, done).text,
            R"({"list":{"A.B":"1","A.C":""},"method":"setVList"})");
  EXPECT_EQ(request::setList({}, Field::key, done).text, R"({"list":{},"method":"setVList"})");
  EXPECT_EQ(request::reset("A.%", done).text, R"({"method":"resetVal","param":"A.%"})");
  EXPECT_EQ(request::makeBackup(false, done).text, R"({"method":"makeBackup"})");
  EXPECT_EQ(request::makeBackup(true, done).text, R"({"allSettings":true,"method":"makeBackup"})");
  EXPECT_EQ(request::maintenance("restore", done).text, R"({"method":"restore"})");
}

TEST(Request, leavesBytesThatAreNoUtf8ToTheDaemonsJudgement) {
  EXPECT_EQ(request::set("A.B", "\xff", Field::key, ignore<Nothing>()).text,
            "{\"method\":\"setV\",\"param\":\"A.B\",\"value\":\"\xff\"}");
}

TEST(Request, readsAValue) {
  Kept<std::string> kept;

  EXPECT_TRUE(deliver(request::get("A.B", Field::key, kept.callback()),
                      R"({"param":"A.B","result":"\u00e4","status":"Ok"})"));

  EXPECT_EQ(kept.answer()->status, Status::ok);
  EXPECT_EQ(kept.answer()->value, "\u00e4");
}

TEST(Request, readsThatThereIsNoProperty) {
  Kept<std::string> kept;

  EXPECT_TRUE(
      deliver(request::get("A.B", Field::key, kept.callback()), R"({"param":"A.B","status":"NotFound"})"));

  EXPECT_EQ(kept.answer()->status, Status::notFound);
}

TEST(Request, takesAnyKeyInTheReplyWhereAnAliasWasAskedFor) {
  Kept<std::string> kept;

  EXPECT_TRUE(deliver(request::get("b", Field::web, kept.callback()),
                      R"({"param":"A.B","result":"1","status":"Ok"})"));

  EXPECT_EQ(kept.answer()->value, "1");
}

TEST(Request, knowsTheEchoOfANameThatIsNoUtf8) {
  const Request request = request::get("A.\xff", Field::key, ignore<std::string>());

  EXPECT_TRUE(deliver(request, R"({"param":"A.\ufffd","status":"NotFound"})"));
}

TEST(Request, readsEachStatus) {
  const std::pair<const char*, Status> spellings[] = {
      {"Ok", Status::ok},
      {"NotFound", Status::notFound},
      {"RegExpError", Status::regExpError},
      {"ValueError", Status::valueError},
      {"ValueOutOfBounds", Status::valueOutOfBounds},
      {"ReadOnly", Status::readOnly},
      {"DBError", Status::dbError},
      {"InvalidRequest", Status::invalidRequest},
  };
  for (const auto& [text, status] : spellings) {
    Kept<Nothing> kept;

    deliver(request::reset("A.B", kept.callback()), std::string(R"({"status":")") + text + "\"}");

    ASSERT_TRUE(kept.answer()) << text;
    EXPECT_EQ(kept.answer()->status, status);
    EXPECT_STREQ(toText(status), text);
  }
}

TEST(Request, readsColumnsAndTheirIntegersAsText) {
  Kept<std::vector<Columns>> kept;

  deliver(request::list("A.%", {}, Field::key, kept.callback()),
          R"({"param":"A.%","result":[{"flags":14,"key":"A.B","range_min":-3,"tr069":null}],"status":"Ok"})");

  ASSERT_TRUE(kept.answer());
  ASSERT_EQ(kept.answer()->value.size(), 1U);
  EXPECT_THAT(kept.answer()->value[0],
              UnorderedElementsAre(Pair("flags", "14"), Pair("key", "A.B"), Pair("range_min", "-3")));
}

TEST(Request, readsAListWithNothingInItAsNotFound) {
  Kept<std::vector<Columns>> kept;

  deliver(request::list("A.%", {}, Field::key, kept.callback()), R"({"param":"A.%","status":null})");

  ASSERT_TRUE(kept.answer());
  EXPECT_EQ(kept.answer()->status, Status::notFound);
}

TEST(Request, isGivenUpWithoutAValue) {
  Kept<std::string> kept;

  request::get("A.B", Field::key, kept.callback()).giveUp();

  EXPECT_EQ(kept.answer()->status, Status::noAnswer);
}

/// A reply and the requests that it may be the reply to.
struct Reply {
  const char* text;
  std::set<std::string> requests;

  friend void PrintTo(const Reply& reply, std::ostream* stream) { *stream << reply.text; }
};

class RequestReplies : public testing::TestWithParam<Reply> {
 protected:
  static std::map<std::string, Request> requests() {
    const auto done = ignore<Nothing>();
    std::map<std::string, Request> all;
    all.emplace("ping", request::ping(done));
    all.emplace("get", request::get("A.B", Field::key, ignore<std::string>()));
    all.emplace("set", request::set("A.B", "1", Field::key, done));
    all.emplace("list", request::list("A.B", {}, Field::key, ignore<std::vector<Columns>>()));
    all.emplace("setList", request::setList({}, Field::key, done));
    all.emplace("restore", request::maintenance("restore", done));
    all.emplace("marker", request::marker("?unique-1"));
    return all;
  }
};

TEST_P(RequestReplies, areTakenByRequestsOfTheirShapeAlone) {
  std::set<std::string> taking;

  for (const auto& [name, request] : requests()) {
    if (deliver(request, GetParam().text)) {
      taking.insert(name);
    }
  }

  EXPECT_EQ(taking, GetParam().requests);
}

INSTANTIATE_TEST_SUITE_P(, RequestReplies,
                         testing::Values(Reply{R"({"param":"Ok"})", {"ping"}}, Reply{R"({"param":"ok"})", {}},
                                         Reply{R"({"param":"A.B","result":"1","status":"Ok"})", {"get"}},
                                         Reply{R"({"param":"A.C","result":"1","status":"Ok"})", {}},
                                         Reply{R"({"param":"A.B","result":1,"status":"Ok"})", {}},
                                         Reply{R"({"param":"A.B","status":"Ok"})", {"set"}},
                                         Reply{R"({"param":"A.C","status":"Ok"})", {}},
                                         Reply{R"({"param":"A.B","status":"NotFound"})", {"get", "set"}},
                                         Reply{R"({"param":"A.B","status":"Perhaps"})", {}},
                                         Reply{R"({"param":"A.B","result":[],"status":"Ok"})", {"list"}},
                                         Reply{R"({"param":"A.B","status":null})", {"list"}},
                                         Reply{R"({"param":"?unique-1","status":null})", {"marker"}},
                                         Reply{R"({"param":"?unique-2","status":null})", {}},
                                         Reply{R"({"status":"Ok"})", {"setList", "restore"}},
                                         Reply{R"({"status":"DBError"})", {"setList", "restore"}},
                                         Reply{R"({"status":""})", {}}, Reply{R"({"status":7})", {}},
                                         Reply{R"({"audio.volume":"5"})", {}}, Reply{"null", {}},
                                         Reply{"{}", {}}, Reply{"[]", {}}, Reply{R"("Ok")", {}},
                                         Reply{"7", {}}));

}  // namespace
}  // namespace propclient
