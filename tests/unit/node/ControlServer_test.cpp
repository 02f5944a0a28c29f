#include "control/ControlServer.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <condition_variable>
#include <list>
#include <optional>

#include "ControlClient.h"
#include "TemporaryFolder.h"
#include "VelaException.h"
#include "control/ControlProtocol.h"

namespace VelaNode {
namespace {

using Poco::JSON::Object;
using testing::HasSubstr;

class ControlServerTest : public testing::Test {
 protected:
  ControlServerTest() { _server.start(_path); }

  /** The commands of this test's server. */
  Object::Ptr handle(const Object& request, ControlReply& reply) {
    const std::string command = request.getValue<std::string>("command");
    Object::Ptr result(new Object);
    if (command == "fail") throw ControlError("no such thing");
    if (command == "count") {
      for (int i = 0; i < request.getValue<int>("to"); ++i) {
        Object item;
        item.set("i", i);
        reply.sendItem(item);
      }
    }
    if (command == "block") {
      _isBlocked = true;
      // No time-out: only the client's or the server's end lets it go.
      _wasAbandoned = reply.isAbandoned(-1);
      _isBlocked = false;
    }
    result->set("done", command);
    return result;
  }

  template <class Condition>
  static bool eventually(const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return condition();
  }

  TemporaryFolder _folder;
  const std::string _path = _folder.file("node.sock");
  std::atomic<bool> _isBlocked{false};
  std::atomic<bool> _wasAbandoned{false};
  ControlServer _server{[this](const Object& request, ControlReply& reply) { return handle(request, reply); }};
};

TEST_F(ControlServerTest, AnswersOneLinePerRequest) {
  ControlClient client(_path);
  EXPECT_EQ(R"({"ok":true,"result":{"done":"x"}})", client.ask(R"({"command":"x"})"));
  EXPECT_EQ(R"({"error":"no such thing","ok":false})", client.ask(R"({"command":"fail"})"));
  client.send(R"({"command":"count","to":2})"
              "\n"
              R"({"command":"y"})"
              "\n");
  EXPECT_EQ(R"({"item":{"i":0}})", client.readLine());
  EXPECT_EQ(R"({"item":{"i":1}})", client.readLine());
  EXPECT_THAT(client.readLine(), HasSubstr("count"));
  EXPECT_THAT(client.readLine(), HasSubstr("\"y\""));
}

TEST_F(ControlServerTest, RefusesWhatIsNoRequestAndGoesOn) {
  ControlClient client(_path);
  for (const char* line : {"", "{", "[1,2]", "7", "\"text\"", "null", "{\"command\":", "\xff\xfe", "{\"other\":1}"}) {
    const std::string answer = client.ask(line);
    EXPECT_THAT(answer, HasSubstr("\"ok\":false")) << line;
  }
  EXPECT_THAT(client.ask(R"({"command":"x"})"), HasSubstr("\"ok\":true"));
}

TEST_F(ControlServerTest, RequestMayComeInPiecesButNotEndlessly) {
  ControlClient client(_path);
  client.send(R"({"comm)");
  ControlClient other(_path);
  EXPECT_THAT(other.ask(R"({"command":"x"})"), HasSubstr("\"ok\":true"));
  EXPECT_THAT(client.ask(R"(and":"x"})"), HasSubstr("\"ok\":true"));
  std::thread sender([&] { client.send(std::string(ControlServer::maxRequestLength + 100000, 'x')); });
  EXPECT_THAT(client.readLine(), HasSubstr("longer than"));
  EXPECT_EQ("(end)", client.readLine());
  sender.join();
}

TEST_F(ControlServerTest, HalfOpenClientsEndAndTooManyAreTurnedAway) {
  _server.stop();
  constexpr int idleTimeoutMs = 100;
  ControlServer server([](const Object&, ControlReply&) { return Object::Ptr(); }, idleTimeoutMs);
  server.start(_path);
  ControlClient half(_path);
  half.send("{\"comm");
  EXPECT_EQ("(end)", half.readLine());
  server.stop();

  _server.start(_path);
  std::list<ControlClient> clients;
  while (clients.size() < ControlServer::maxClients) {
    clients.emplace_back(_path);
    EXPECT_THAT(clients.back().ask("{\"command\":\"x\"}"), HasSubstr("\"ok\":true"));
  }
  EXPECT_THAT(ControlClient(_path).readLine(), HasSubstr("clients already"));
  clients.pop_front();
  bool isServed = false;  // once: who was served may hold the place a moment longer
  EXPECT_TRUE(eventually([&] {
    isServed = isServed || ControlClient(_path).ask("{\"command\":\"x\"}").find("true") != std::string::npos;
    return isServed;
  }));

  // A process short of descriptors keeps the last ones to itself.
  clients.clear();
  rlimit before{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
  const rlimit few{ControlServer::reservedDescriptors, before.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &few));
  EXPECT_THAT(ControlClient(_path).readLine(), HasSubstr("last descriptors"));
  ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(ControlServerTest, LongRequestHoldsNobodyUpAndEndsWithItsClient) {
  std::optional<ControlClient> blocking(std::in_place, _path);
  blocking->send("{\"command\":\"block\"}\n");
  ASSERT_TRUE(eventually([&] { return _isBlocked.load(); }));
  for (int i = 0; i < 20; ++i) {
    ControlClient client(_path);
    EXPECT_THAT(client.ask(R"({"command":"x"})"), HasSubstr("\"ok\":true"));
  }
  blocking.reset();
  EXPECT_TRUE(eventually([&] { return !_isBlocked; }));
  EXPECT_TRUE(_wasAbandoned);
}

TEST_F(ControlServerTest, StopEndsClientsAndRemovesTheSocket) {
  ControlClient idle(_path);
  ControlClient blocking(_path);
  EXPECT_THAT(idle.ask(R"({"command":"x"})"), HasSubstr("\"ok\":true"));
  blocking.send("{\"command\":\"block\"}\n");
  ASSERT_TRUE(eventually([&] { return _isBlocked.load(); }));
  _server.stop();
  EXPECT_EQ("(end)", idle.readLine());
  EXPECT_FALSE(std::filesystem::exists(_path));
  _server.start(_path);
  EXPECT_THAT(ControlClient(_path).ask(R"({"command":"x"})"), HasSubstr("\"ok\":true"));
}

TEST_F(ControlServerTest, ClientThatDoesNotReadDoesNotKeepTheServerFromStopping) {
  ControlClient deaf(_path);
  deaf.send("{\"command\":\"count\",\"to\":1000000}\n");
  EXPECT_THAT(ControlClient(_path).ask(R"({"command":"x"})"), HasSubstr("\"ok\":true"));
  _server.stop();
}

TEST_F(ControlServerTest, SocketIsPrivateAndReplacesAStaleOneWherePossible) {
  struct stat status {};
  ASSERT_EQ(0, ::stat(_path.c_str(), &status));
  EXPECT_EQ(S_IRUSR | S_IWUSR, status.st_mode & 0777U);
  ControlServer next([](const Object&, ControlReply&) { return Object::Ptr(); });
  next.start(_path);
  EXPECT_EQ(R"({"ok":true,"result":{}})", ControlClient(_path).ask("{}"));
  next.stop();
  EXPECT_THROW(next.start(_folder.file(std::string(maxSocketPathLength, 'x'))), Vela::VelaException);
  EXPECT_THROW(next.start(_folder.file("missing/node.sock")), Vela::VelaException);
}

}  // namespace
}  // namespace VelaNode
