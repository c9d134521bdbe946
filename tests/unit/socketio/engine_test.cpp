// The engine against a server played by hand over an in-memory transport, on a private event loop
// and a manual clock.
#include "support/memory_transport.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

using namespace testing_support;
using namespace std::chrono_literals;
namespace json = boost::json;

namespace {

// A heartbeat window of 500 ms.
constexpr const char* kOpen = R"(0{"sid":"e1","upgrades":[],"pingInterval":300,"pingTimeout":200})";
constexpr const char* kReply = R"(40{"sid":"s1"})";

class SocketIoEngine : public ::testing::Test {
 protected:
  SocketIoEngine() { sio::Clock::install(clock_); }
  ~SocketIoEngine() override { sio::Clock::install(nullptr); }

  void SetUp() override { make(); }

  // A fresh engine that records what its handlers hear as "name args".
  void make(sio::Options options = {}) {
    heard_.clear();
    engine_ = std::make_shared<sio::detail::Engine>(io_.get_executor(), "http://memory", std::move(options),
                                                    link_.factory());
    for (const char* name : {"connect", "disconnect", "news"}) {
      engine_->on(name, [this, name](const sio::Payload& p, const sio::Responder&) {
        heard_.push_back(std::string(name) + (p.args.empty() ? "" : " " + json::serialize(p.args)));
      });
    }
  }
  void poll() {
    io_.restart();
    io_.poll();
  }
  void advance(std::chrono::milliseconds d) {
    clock_->advance(d);
    poll();
  }
  MemoryTransport& server() { return *link_.current; }
  // A frame from the server: "B:" and raw bytes for a binary one.
  void deliver(const std::string& frame) {
    if (frame.rfind("B:", 0) == 0) {
      server().binary(sio::Buffer(frame.begin() + 2, frame.end()));
    } else {
      server().text(frame);
    }
    poll();
  }
  // Starts an attempt and lets the transport come up.
  void connect() {
    engine_->connect(6s, [this] { heard_.push_back("timeout"); });
    poll();
    server().open();
  }
  void connectFully() {
    connect();
    deliver(kOpen);
    deliver(kReply);
    ASSERT_EQ(heard_, std::vector<std::string>{"connect"});
  }

  boost::asio::io_context io_;
  std::shared_ptr<sio::ManualClock> clock_ = std::make_shared<sio::ManualClock>();
  MemoryLink link_;
  std::shared_ptr<sio::detail::Engine> engine_;
  std::vector<std::string> heard_;
};

TEST_F(SocketIoEngine, HostileOrMisplacedFramesCloseTheConnectionOnceWithAReason) {
  struct Case {
    bool connected;  // whether the frames come after the connect reply or right after the transport opened
    std::vector<std::string> frames;
    std::string reason;
  } cases[] = {
      // Before the open packet there is no heartbeat: accepting anything would leave a silent server unseen.
      {false, {kReply}, "Transport error: packet before open"},
      {false, {"2"}, "Transport error: packet before open"},
      {false, {R"(42["news"])"}, "Transport error: packet before open"},
      {false, {"B:x"}, "Transport error: packet before open"},
      {true, {kOpen}, "Transport error: invalid open packet"},
      {true, {"9"}, "Transport error: unknown Engine.IO packet type"},
      {true, {R"(42["connect"])"}, "Parse error: reserved event name"},
      {true, {R"(451-["news",{"_placeholder":true,"num":0}])", R"(42["news"])"},
       "Parse error: text packet before all attachments arrived"},
      {true, {"B:x"}, "Parse error: binary frame with no packet awaiting attachments"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.frames.front());
    make();
    if (c.connected) {
      connectFully();
    } else {
      connect();
    }
    for (const auto& f : c.frames) deliver(f);
    std::vector<std::string> expected{"disconnect " + json::serialize(json::array{c.reason})};
    if (c.connected) expected.insert(expected.begin(), "connect");
    advance(24h);
    EXPECT_EQ(heard_, expected);
    EXPECT_TRUE(server().closed);
    EXPECT_EQ(engine_->status(), sio::Socket::Status::Disconnected);
  }
}

TEST_F(SocketIoEngine, ASilentServerIsDetectedAtEveryStage) {
  struct Case {
    std::vector<std::string> frames;
    std::chrono::milliseconds silence;
    std::string outcome;
  } cases[] = {
      {{}, 6s, "timeout"},  // transport up, no open packet: the connect time-out
      {{kOpen}, 500ms, R"(disconnect ["Ping timeout"])"},
      {{kOpen, kReply}, 500ms, R"(disconnect ["Ping timeout"])"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.frames.size());
    make();
    connect();
    for (const auto& f : c.frames) deliver(f);
    advance(c.silence - 1ms);
    EXPECT_TRUE(heard_.empty() || heard_.back() == "connect");
    advance(1ms);
    ASSERT_FALSE(heard_.empty());
    EXPECT_EQ(heard_.back(), c.outcome);
    EXPECT_TRUE(server().closed);
  }
  // A ping is answered and opens a new window.
  make();
  connectFully();
  advance(400ms);
  deliver("2");
  EXPECT_EQ(server().sent.back().text, "3");
  advance(499ms);
  EXPECT_EQ(heard_, std::vector<std::string>{"connect"});
  advance(1ms);
  EXPECT_EQ(heard_.back(), R"(disconnect ["Ping timeout"])");
}

TEST_F(SocketIoEngine, PacketsOverTheMemoryBoundsCloseTheConnection) {
  sio::Options o;
  o.packet_limits = {1000, 64 * 1024};
  const auto zeros = [](std::size_t n) {
    std::string s = R"(42["news",[)";
    for (std::size_t i = 0; i < n; ++i) s += i ? ",0" : "0";
    return s + "]]";
  };
  const std::string attachments = R"(452-["news",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])";
  struct Case {
    std::vector<std::string> frames;
    std::string outcome;
  } cases[] = {
      // 56 KiB of text make a 56 KiB value; 6 KiB of zeros would make a 72 KiB array.
      {{R"(42["news",")" + std::string(56 * 1024, 'x') + R"("])"}, ""},
      {{zeros(3000)}, R"(disconnect ["Parse error: payload needs more than 65536 bytes to decode"])"},
      {{attachments, "B:" + std::string(500, 'a'), "B:" + std::string(500, 'b')}, ""},
      {{attachments, "B:" + std::string(500, 'a'), "B:" + std::string(501, 'b')},
       R"(disconnect ["Parse error: attachments over 1000 bytes in all"])"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.outcome);
    make(o);
    connectFully();
    for (const auto& f : c.frames) deliver(f);
    ASSERT_EQ(heard_.size(), 2u);
    if (c.outcome.empty()) {
      EXPECT_EQ(heard_[1].rfind("news ", 0), 0u);
      EXPECT_FALSE(server().closed);
    } else {
      EXPECT_EQ(heard_[1], c.outcome);
      EXPECT_TRUE(server().closed);
    }
  }
}

TEST(SocketIoManager, DestructionNeverWaitsForTheEventLoopAndNoHandlerBeginsAfterIt) {
  auto clock = std::make_shared<sio::ManualClock>();
  sio::Clock::install(clock);
  boost::asio::io_context io;
  auto work = boost::asio::make_work_guard(io);
  std::thread loop([&] { io.run(); });
  const auto onLoop = [&](std::function<void()> f) {
    std::promise<void> done;
    boost::asio::post(io, [&] {
      f();
      done.set_value();
    });
    return done.get_future().wait_for(10s) == std::future_status::ready;
  };
  MemoryLink link;
  auto manager = std::make_unique<sio::Manager>(
      std::make_shared<sio::detail::Engine>(io.get_executor(), "http://memory", sio::Options{}, link.factory()));
  auto& socket = *manager->socket();
  std::atomic<int> begun{0};
  for (const char* name : {"news", "disconnect"}) socket.on(name, [&](auto&, auto&) { ++begun; });
  socket.connect(6s, [&] { ++begun; });
  ASSERT_TRUE(onLoop([&] {
    link.current->open();
    link.current->text(kOpen);
    link.current->text(kReply);
  }));
  std::mutex mutex;
  std::vector<std::string> answers;
  for (int i = 0; i < 2; ++i) {
    socket.emitWithAck("ask", {}, 6s, [&](const sio::Payload& p) {
      std::lock_guard lock(mutex);
      answers.push_back(json::serialize(p.args));
    });
  }
  // The loop is held up with an event and the first answer queued behind it.
  std::promise<void> release;
  boost::asio::post(io, [held = release.get_future()] { held.wait_for(10s); });
  boost::asio::post(io, [&] {
    link.current->text(R"(42["news"])");
    link.current->text(R"(430["ok"])");
  });
  auto destroyed = std::async(std::launch::async, [&] { manager.reset(); });
  EXPECT_EQ(destroyed.wait_for(5s), std::future_status::ready);
  release.set_value();
  destroyed.wait();
  ASSERT_TRUE(onLoop([] {}));
  clock->advance(6s);
  ASSERT_TRUE(onLoop([] {}));
  EXPECT_EQ(begun, 0);
  EXPECT_EQ(answers, (std::vector<std::string>{R"(["ok"])", R"(["NO ACK"])"}));
  work.reset();
  loop.join();
  sio::Clock::install(nullptr);
}

// On the steady clock the armed timer holds the acknowledgement table and the table holds the timer.
TEST(SocketIoManager, AnEventLoopDestroyedWithAnArmedDeadlineFreesTheAcknowledgement) {
  auto io = std::make_unique<boost::asio::io_context>();
  MemoryLink link;
  auto sentinel = std::make_shared<int>();
  std::weak_ptr<int> watch = sentinel;
  auto manager = std::make_unique<sio::Manager>(
      std::make_shared<sio::detail::Engine>(io->get_executor(), "http://memory", sio::Options{}, link.factory()));
  manager->socket()->emitWithAck("ask", {}, 6s, [sentinel = std::move(sentinel)](const sio::Payload&) {});
  io->poll();
  manager.reset();
  io.reset();
  EXPECT_TRUE(watch.expired());
}

}  // namespace
