// The qnbrl command-line client driven as its users drive it: scripted --json processes talking to each
// other through the dev server, bad input, and the interactive prompt on a terminal (tmux).
#include "support/devserver.hpp"
#include "support/temp_dir.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
namespace json = boost::json;
using testing_support::TempDir;
using testing_support::waitUntil;

struct SessionServer {
  static testing_support::DevServerOptions options() {
    testing_support::DevServerOptions o;
    o.tavernTls = 0;
    o.session = true;
    return o;
  }
};

// One qnbrl process: its stdout records and its stderr lines once it has ended.
class Cli {
 public:
  Cli(const std::vector<std::string>& args, const std::filesystem::path& stderrPath)
      : stderrPath_(stderrPath),
        child_(
            argv(args),
            [this](std::string line) {
              std::lock_guard lock(mutex_);
              stdout_.push_back(std::move(line));
            },
            [this] { ended_ = true; }, stderrPath.string()) {}

  void input(const std::string& line) { child_.writeLine(line); }
  // The exit status once it has ended by itself (bounded); -1 when it had to be stopped.
  int status() {
    const bool ended = waitUntil([this] { return ended_.load(); }, 40s);
    const int status = child_.stop();
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::vector<json::object> records() {
    std::lock_guard lock(mutex_);
    std::vector<json::object> out;
    for (const auto& line : stdout_) out.push_back(json::parse(line).as_object());
    return out;
  }
  // The first record with these fields, or an empty object.
  json::object find(const json::object& fields) {
    for (auto& r : records()) {
      bool all = true;
      for (const auto& [key, value] : fields) all = all && r.contains(key) && r.at(key) == value;
      if (all) return r;
    }
    return {};
  }
  // For failure messages: what it printed.
  std::string transcript() {
    std::lock_guard lock(mutex_);
    std::string out;
    for (const auto& line : stdout_) out += line + "\n";
    return out;
  }
  std::vector<std::string> ownErrors() const {  // stderr lines of qnbrl itself, not of the library
    std::ifstream in(stderrPath_);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);)
      if (line.starts_with("qnbrl: ")) out.push_back(line);
    return out;
  }

 private:
  static std::vector<std::string> argv(std::vector<std::string> args) {
    args.insert(args.begin(), QNBRL_CLI);
    return args;
  }
  std::filesystem::path stderrPath_;
  std::mutex mutex_;
  std::vector<std::string> stdout_;
  std::atomic<bool> ended_{false};
  devserver::ChildProcess child_;
};

class CliTest : public testing_support::DevServerSuiteOf<SessionServer> {
 protected:
  std::vector<std::string> as(const std::string& user) {
    return {"--api", server_->httpUrl(), "--user", user, "--token", "t", "--json"};
  }
  std::string script(const std::string& name, const std::string& text) {
    const auto path = dir_.path() / name;
    std::ofstream(path) << text;
    return path.string();
  }
  std::unique_ptr<Cli> start(std::vector<std::string> args, const std::string& scriptText = {}) {
    if (!scriptText.empty()) args.push_back(script("script" + std::to_string(++runs_), scriptText));
    return std::make_unique<Cli>(args, dir_.path() / ("stderr" + std::to_string(++runs_)));
  }
  TempDir dir_;
  int runs_ = 0;
};

TEST_F(CliTest, TwoUsersConverseThroughEveryFeature) {
  std::ofstream(dir_.path() / "blob", std::ios::binary) << std::string("\x00\x01\xfe\xff", 4);
  auto alice = start(as("alice"),
                     "join room\n"
                     "wait memberJoined\n"
                     "members room\n"
                     "send room hello bob\n"
                     "sendfile room " +
                         (dir_.path() / "blob").string() +
                         " a file\n"
                         "chattr set --notify room topic=plans\n"
                         "attr set mood=happy\n"
                         "wait messageReceived\n"
                         "msg bob psst\n"
                         "wait invitationArrived\n"
                         "invite accept bob sure\n"
                         "wait memberLeftReason\n"
                         "logout\n");
  // Bob comes once alice is in: she hears him join, and he finds her online.
  ASSERT_TRUE(waitUntil(
      [&] {
        return !alice->find({{"command", "join room"}}).empty();
      },
      20s))
      << alice->transcript();
  auto bob = start(as("bob"),
                   "status subscribe alice\n"
                   "wait peersOnlineStatusChanged\n"
                   "peerattr subscribe alice\n"
                   "join room\n"
                   "wait messageReceived\n"
                   "wait messageReceived\n"
                   "wait attributeUpdate\n"
                   "wait peersUserAttributesChanged\n"
                   "send room hi alice\n"
                   "wait messageReceived\n"
                   "invite send alice call?\n"
                   "wait invitationAccept\n"
                   "leave room\n"
                   "wait peersOnlineStatusChanged\n");
  ASSERT_EQ(alice->status(), 0) << alice->transcript();
  ASSERT_EQ(bob->status(), 0) << bob->transcript();

  EXPECT_FALSE(alice->find({{"event", "memberJoined"}, {"channel", "room"}, {"user", "bob"}}).empty());
  EXPECT_EQ(alice->find({{"command", "members room"}})["members"], json::parse(R"(["alice","bob"])"));
  EXPECT_FALSE(alice->find({{"event", "messageReceived"}, {"user", "bob"}, {"text", "hi alice"}}).empty());
  EXPECT_FALSE(alice->find({{"event", "invitationArrived"}, {"inviter", "bob"}, {"info", "call?"}}).empty());
  EXPECT_FALSE(alice->find({{"event", "memberLeftReason"}, {"user", "bob"}, {"reason", "Quit"}}).empty());

  EXPECT_FALSE(bob->find({{"event", "messageReceived"}, {"channel", "room"}, {"text", "hello bob"}}).empty());
  const auto file = bob->find({{"event", "messageReceived"}, {"text", "a file"}});
  EXPECT_EQ(file.if_contains("data") ? file.at("data") : json::value(), "AAH+/w==");
  EXPECT_EQ(bob->find({{"event", "attributeUpdate"}})["attributes"], json::parse(R"({"topic":"plans"})"));
  EXPECT_EQ(bob->find({{"event", "peersUserAttributesChanged"}})["users"],
            json::parse(R"({"alice":{"mood":"happy"}})"));
  EXPECT_FALSE(bob->find({{"event", "messageReceived"}, {"peer", "alice"}, {"text", "psst"}}).empty());
  EXPECT_FALSE(bob->find({{"event", "invitationAccept"}, {"invitee", "alice"}, {"info", "sure"}}).empty());
  // Online when subscribing, offline after her logout: the last change.
  std::vector<json::value> statuses;
  for (auto& r : bob->records())
    if (r.contains("event") && r.at("event") == "peersOnlineStatusChanged") statuses.push_back(r["statuses"]);
  EXPECT_EQ(statuses,
            (std::vector<json::value>{json::parse(R"({"alice":true})"), json::parse(R"({"alice":false})")}));
}

// The rest of the commands, each checked by what the service answers.
TEST_F(CliTest, EveryOtherCommandReachesTheService) {
  auto alice = start(as("alice"),
                     "attr set a=1 b=2\n"
                     "attr add c=3\n"
                     "attr delete a\n"
                     "attr get alice b c\n"
                     "attr clear\n"
                     "attr get alice\n"
                     "chattr add lobby x=1 y=2\n"
                     "chattr delete lobby x\n"
                     "chattr get lobby y\n"
                     "chattr clear lobby\n"
                     "chattr get lobby\n"
                     "count lobby other\n"
                     "status subscribe bob\n"
                     "peerattr subscribe bob\n"
                     "status subscribed 1\n"
                     "status unsubscribe bob\n"
                     "peerattr unsubscribe bob\n"
                     "status subscribed 0\n"
                     "log filter 0\n"
                     "debug\n"
                     "wait invitationArrived\n"
                     "invite refuse bob no thanks\n"
                     "wait invitationArrived\n"
                     "wait invitationCanceled\n"
                     "renew 0123456789abcdef0123456789abcdef\n");
  ASSERT_TRUE(waitUntil(
      [&] {
        return !alice->find({{"command", "login 'alice'"}}).empty();
      },
      20s))
      << alice->transcript();
  auto bob = start(as("bob"),
                   "attr set k=v\n"
                   "peerattr get bob carol / k\n"
                   "invite send alice lunch?\n"
                   "wait invitationRefused\n"
                   "invite send alice dinner?\n"
                   "invite cancel alice\n");
  ASSERT_EQ(alice->status(), 0) << alice->transcript();
  ASSERT_EQ(bob->status(), 0) << bob->transcript();

  auto result = [](Cli& cli, const std::string& command, const char* field) {
    auto record = cli.find({{"command", command}});
    return record.if_contains(field) ? record.at(field) : json::value();
  };
  EXPECT_EQ(result(*alice, "attr get alice b c", "attributes"), json::parse(R"({"b":"2","c":"3"})"));
  EXPECT_EQ(result(*alice, "chattr get lobby y", "attributes"), json::parse(R"({"y":"2"})"));
  EXPECT_EQ(result(*alice, "chattr get lobby", "attributes"), json::object());
  EXPECT_EQ(result(*alice, "count lobby other", "counts"), json::parse(R"({"lobby":0,"other":0})"));
  EXPECT_EQ(result(*alice, "status subscribed 1", "peers"), json::parse(R"(["bob"])"));
  EXPECT_EQ(result(*alice, "status subscribed 0", "peers"), json::array());
  EXPECT_EQ(result(*alice, "debug", "info").at_pointer("/loginArguments/userId"), "alice");
  EXPECT_EQ(result(*alice, "attr get alice", "attributes"), json::object());
  EXPECT_EQ(result(*bob, "peerattr get bob carol / k", "users"),
            json::parse(R"({"bob":{"k":"v"},"carol":{}})"));
  // The inviter is told with its own invitation, which carries no answer text.
  EXPECT_FALSE(bob->find({{"event", "invitationRefused"}, {"inviter", "bob"}, {"invitee", "alice"}}).empty());
  EXPECT_FALSE(alice->find({{"event", "invitationCanceled"}, {"inviter", "bob"}}).empty());
}

TEST_F(CliTest, FirstFailingCommandEndsTheRunWithStatusOneAndOfflineMessagesWait) {
  auto alice = start(as("alice"), "msg --offline carol kept for you\nmsg carol lost\nstatus query carol\n");
  ASSERT_EQ(alice->status(), 1) << alice->transcript();
  EXPECT_EQ(alice->find({{"command", "msg --offline carol kept for you"}})["code"], 0);
  const auto failed = alice->find({{"command", "msg carol lost"}});
  EXPECT_EQ(failed.if_contains("code") ? failed.at("code") : json::value(), 3);
  EXPECT_EQ(failed.if_contains("error") ? failed.at("error") : json::value(), "peer offline");
  EXPECT_TRUE(alice->find({{"command", "status query carol"}}).empty());

  auto carol = start(as("carol"), "wait messageReceived 10\n");
  ASSERT_EQ(carol->status(), 0) << carol->transcript();
  EXPECT_FALSE(
      carol->find({{"event", "messageReceived"}, {"peer", "alice"}, {"text", "kept for you"}}).empty());
}

TEST_F(CliTest, BadInputGetsOneLineErrorAndStatus) {
  struct Case {
    std::vector<std::string> args;
    std::string line;  // one command on stdin
    int status;
    std::string error;
  };
  const std::vector<Case> cases = {
      {{}, "frobnicate", 1, "unknown command 'frobnicate' (see: help)"},
      {{}, "chattr frob c", 1, "unknown command 'chattr frob' (see: help chattr)"},
      {{}, "join", 1, "join: missing CHANNEL (usage: join CHANNEL)"},
      {{}, "join a b", 1, "join: too many arguments (usage: join CHANNEL)"},
      {{}, "join bad/id", 1, "join: bad channel id 'bad/id'"},
      {{},
       "sendfile c /nonexistent/file",
       1,
       "sendfile: cannot read '/nonexistent/file': No such file or directory"},
      {{}, "msg --urgent bob hi", 1, "msg: unknown option --urgent (usage: msg [--offline] PEER TEXT)"},
      {{}, "attr set novalue", 1, "attr set: bad attribute 'novalue': expected KEY=VALUE"},
      {{}, "send c \"open", 1, "unterminated quote"},
      {{}, "wait nothing", 1, "wait: unknown event 'nothing'"},
      {{}, "wait memberJoined soon", 1, "wait: bad number of seconds 'soon'"},
      {{}, "invite accept bob", 1, "invite accept: no invitation from 'bob'"},
      {{}, "login alice", 1, "login: missing TOKEN (no --token given)"},
      {{}, "join c", 1, ""},  // 102 from the SDK: a completion with its code, no error of qnbrl's own
      {{"--api", "ftp://host"}, "", 2, "the client refused the server URLs"},
      {{"--dev", "--devserver", "/nonexistent"}, "", 2, "--dev is unavailable"},
      {{"--frobnicate"}, "", 2, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line + " " + (c.args.empty() ? "" : c.args.front()));
    auto args = c.args.empty() ? std::vector<std::string>{"--api", server_->httpUrl()} : c.args;
    args.push_back("--json");
    auto cli = start(args);
    cli->input(c.line);
    cli->input("quit");
    EXPECT_EQ(cli->status(), c.status);
    const auto errors = cli->ownErrors();
    if (c.error.empty()) {
      EXPECT_TRUE(errors.empty()) << errors.front();
      continue;
    }
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find(c.error), std::string::npos) << errors[0];
    if (c.status == 1) {
      const auto record = cli->find({{"command", c.line}});
      EXPECT_EQ(record.if_contains("error") ? record.at("error") : json::value(),
                json::value(errors[0].substr(7)));
    }
  }
}

// The screen of a tmux session of its own, running qnbrl on a terminal.
class Terminal {
 public:
  Terminal(const std::filesystem::path& dir, const std::string& command) : socket_((dir / "tmux").string()) {
    run("new-session -d -x 160 -y 40 '" + command + "'");
  }
  ~Terminal() { run("kill-server"); }
  void type(const std::string& text) { run("send-keys -l '" + text + "'"); }
  void enter() { run("send-keys Enter"); }
  std::vector<std::string> screen() const {
    std::vector<std::string> lines;
    if (std::FILE* p = ::popen(("tmux -S " + socket_ + " capture-pane -p").c_str(), "r")) {
      std::array<char, 512> buffer{};
      while (std::fgets(buffer.data(), buffer.size(), p)) lines.emplace_back(buffer.data());
      ::pclose(p);
    }
    for (auto& l : lines) l.erase(l.find_last_not_of(" \n") + 1);
    while (!lines.empty() && lines.back().empty()) lines.pop_back();
    return lines;
  }
  std::string lastLine() const {
    const auto lines = screen();
    return lines.empty() ? "" : lines.back();
  }
  bool shows(const std::string& text) const {
    for (const auto& l : screen())
      if (l.find(text) != std::string::npos) return true;
    return false;
  }

 private:
  void run(const std::string& args) const {
    ASSERT_EQ(std::system(("tmux -S " + socket_ + " " + args).c_str()), 0) << args;
  }
  std::string socket_;
};

TEST_F(CliTest, EventWhileTypingLeavesTheTypedTextIntact) {
  Terminal bob(dir_.path(),
               std::string(QNBRL_CLI) + " --api " + server_->httpUrl() + " --user bob --token t");
  ASSERT_TRUE(waitUntil([&] { return bob.shows("login 'bob': ok"); }, 20s));
  bob.type("join room");
  bob.enter();
  ASSERT_TRUE(waitUntil([&] { return bob.shows("join room: ok"); }, 20s));
  bob.type("send room half typ");
  ASSERT_TRUE(waitUntil([&] { return bob.lastLine() == "qnbrl> send room half typ"; }));

  auto alice = start(as("alice"), "join room\nsend room from alice\n");
  ASSERT_EQ(alice->status(), 0);
  ASSERT_TRUE(
      waitUntil([&] { return bob.shows("messageReceived channel=room user=alice text=\"from alice\""); }));
  EXPECT_EQ(bob.lastLine(), "qnbrl> send room half typ");

  // The editor's buffer, not only the screen, kept the text.
  bob.type("ed");
  bob.enter();
  EXPECT_TRUE(waitUntil([&] { return bob.shows("send room half typed: ok"); }));
}

}  // namespace
