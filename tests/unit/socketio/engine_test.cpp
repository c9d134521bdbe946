// The engine against a server played by hand over an in-memory transport, on a private event loop
// and a manual clock.
#include "support/memory_transport.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <future>
#include <thread>

using namespace testing_support;
using namespace std::chrono_literals;
namespace json = boost::json;

namespace {

// A heartbeat window of 500 ms.
constexpr const char* kOpen =
    R"(0{"sid":"e1","upgrades":[],"pingInterval":300,"pingTimeout":200,"maxPayload":1000})";
constexpr const char* kReply = R"(40{"sid":"s1"})";

class SocketIoEngine : public ::testing::Test {
 protected:
  SocketIoEngine() { sio::Clock::install(clock_); }
  ~SocketIoEngine() override { sio::Clock::install(nullptr); }

  void SetUp() override { make(); }

  // A fresh engine whose handlers record what they hear, and when if not at once: "connect",
  // "news", "disconnect [reason] @500ms", "timeout @6000ms".
  void make() {
    heard_.clear();
    start_ = clock_->now();
    sio::Options options;
    options.packet_limits = {1000, 64 * 1024};
    engine_ = std::make_shared<sio::detail::Engine>(io_.get_executor(), "http://memory", options, link_.factory());
    for (const char* name : {"connect", "disconnect", "news"}) {
      engine_->on(name, [this, name](const sio::Payload& p, const sio::Responder&) {
        note(name + (name == std::string("disconnect") ? " " + json::serialize(p.args) : ""));
      });
    }
  }
  void note(std::string what) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(clock_->now() - start_).count();
    heard_.push_back(ms ? what + " @" + std::to_string(ms) + "ms" : what);
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
  // The text frames the engine sent, space-separated.
  std::string sent() {
    std::string out;
    for (const auto& f : server().sent) out += (out.empty() ? "" : " ") + f.text;
    return out;
  }
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
    engine_->connect(6s, [this] { note("timeout"); });
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
  sio::Clock::time_point start_;
  MemoryLink link_;
  std::shared_ptr<sio::detail::Engine> engine_;
  std::vector<std::string> heard_;
};

TEST_F(SocketIoEngine, WhatTheServerDoesAndWhatTheSocketReports) {
  const auto zeros = [](std::size_t n) {
    std::string s = R"(42["news",[0)";
    for (std::size_t i = 1; i < n; ++i) s += ",0";
    return s + "]]";
  };
  const std::string two = R"(452-["news",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])";
  const std::string a500 = "B:" + std::string(500, 'a');
  struct Case {
    std::vector<std::string> frames;  // after the transport opened; "+N" lets N ms pass
    std::vector<std::string> heard;   // once the server has then been silent for a day
    std::string sent;
  } cases[] = {
      // Before the open packet there is no heartbeat: accepting anything would leave a silent server unseen.
      {{kReply}, {R"(disconnect ["Transport error: packet before open"])"}, ""},
      {{"2"}, {R"(disconnect ["Transport error: packet before open"])"}, ""},
      {{R"(42["news"])"}, {R"(disconnect ["Transport error: packet before open"])"}, ""},
      {{"B:x"}, {R"(disconnect ["Transport error: packet before open"])"}, ""},
      // A silent server, at every stage: the connect time-out, then the heartbeat window.
      {{}, {"timeout @6000ms"}, ""},
      {{kOpen}, {R"(disconnect ["Ping timeout"] @500ms)"}, "40"},
      {{kOpen, kReply}, {"connect", R"(disconnect ["Ping timeout"] @500ms)"}, "40"},
      {{kOpen, kReply, "+400", "2"}, {"connect", R"(disconnect ["Ping timeout"] @900ms)"}, "40 3"},
      // Hostile frames.
      {{kOpen, kReply, kOpen}, {"connect", R"(disconnect ["Transport error: invalid open packet"])"}, "40"},
      {{kOpen, kReply, "9"}, {"connect", R"(disconnect ["Transport error: unknown Engine.IO packet type"])"}, "40"},
      {{kOpen, kReply, R"(42["connect"])"}, {"connect", R"(disconnect ["Parse error: reserved event name"])"}, "40"},
      {{kOpen, kReply, two, R"(42["news"])"},
       {"connect", R"(disconnect ["Parse error: text packet before all attachments arrived"])"}, "40"},
      {{kOpen, kReply, "B:x"},
       {"connect", R"(disconnect ["Parse error: binary frame with no packet awaiting attachments"])"}, "40"},
      // Memory bounds: 56 KiB of text make a 56 KiB value, 6 KiB of zeros a 72 KiB array.
      {{kOpen, kReply, R"(42["news",")" + std::string(56 * 1024, 'x') + R"("])"},
       {"connect", "news", R"(disconnect ["Ping timeout"] @500ms)"}, "40"},
      {{kOpen, kReply, zeros(3000)},
       {"connect", R"(disconnect ["Parse error: payload needs more than 65536 bytes to decode"])"}, "40"},
      {{kOpen, kReply, two, a500, "B:" + std::string(500, 'b')},
       {"connect", "news", R"(disconnect ["Ping timeout"] @500ms)"}, "40"},
      {{kOpen, kReply, two, a500, "B:" + std::string(501, 'b')},
       {"connect", R"(disconnect ["Parse error: attachments over 1000 bytes in all"])"}, "40"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.heard.back());
    make();
    connect();
    for (const auto& f : c.frames) {
      if (f.rfind("+", 0) == 0) {
        advance(std::chrono::milliseconds(std::stoi(f.substr(1))));
      } else {
        deliver(f);
      }
    }
    // A millisecond at a time, so that each report says when it came.
    for (int ms = 0; ms < 7000; ++ms) advance(1ms);
    advance(24h);
    EXPECT_EQ(heard_, c.heard);
    EXPECT_EQ(sent(), c.sent);
    EXPECT_TRUE(server().closed);
  }
}

TEST_F(SocketIoEngine, EmitsWaitForTheConnectionAndEveryAcknowledgementIsAnsweredOnce) {
  std::vector<std::string> answers;
  const auto emit = [&](std::string event, json::array args) {
    engine_->emit(event, {std::move(args), {}}, 6s, [&answers, event](const sio::Payload& p) {
      answers.push_back(event + " " + json::serialize(p.args));
    });
  };
  emit("early", {});  // held until the server accepts
  connectFully();
  // Refused, and sent nothing: a reserved name, invalid UTF-8, a frame over the server's maxPayload.
  emit("disconnect", {});
  emit("bad", {"\xff"});
  emit("big", {std::string(1000, 'x')});
  emit("late", {});
  deliver(R"(430["ok"])");
  deliver(R"(430["again"])");
  server().drop("Transport close");
  emit("after", {});
  advance(5999ms);
  EXPECT_EQ(answers.size(), 1u);
  advance(60s);
  EXPECT_EQ(answers, (std::vector<std::string>{R"(early ["ok"])", R"(disconnect ["NO ACK"])", R"(bad ["NO ACK"])",
                                               R"(big ["NO ACK"])", R"(late ["NO ACK"])", R"(after ["NO ACK"])"}));
  EXPECT_EQ(sent(), R"(40 420["early"] 424["late"])");
  EXPECT_EQ(heard_, (std::vector<std::string>{"connect", R"(disconnect ["Transport close"])"}));
}

TEST_F(SocketIoEngine, DroppingItsManagerNeverWaitsForTheLoopAndNoHandlerBeginsAfterwards) {
  connectFully();
  auto manager = std::make_unique<sio::Manager>(engine_);
  std::vector<std::string> answers;
  for (int i = 0; i < 2; ++i) {
    manager->socket()->emitWithAck("ask", {}, 6s,
                                   [&](const sio::Payload& p) { answers.push_back(json::serialize(p.args)); });
  }
  io_.restart();
  auto work = boost::asio::make_work_guard(io_);
  std::thread loop([&] { io_.run(); });
  const auto sync = [&] {
    std::promise<void> done;
    boost::asio::post(io_, [&] { done.set_value(); });
    return done.get_future().wait_for(10s) == std::future_status::ready;
  };
  // The loop is held up, with an event and the first answer queued behind it.
  std::promise<void> release;
  boost::asio::post(io_, [held = release.get_future()] { held.wait_for(10s); });
  boost::asio::post(io_, [&] {
    server().text(R"(42["news"])");
    server().text(R"(430["ok"])");
  });
  auto dropped = std::async(std::launch::async, [&] { manager.reset(); });
  EXPECT_EQ(dropped.wait_for(5s), std::future_status::ready);
  release.set_value();
  dropped.wait();
  ASSERT_TRUE(sync());
  clock_->advance(6s);
  ASSERT_TRUE(sync());
  work.reset();
  loop.join();
  EXPECT_EQ(heard_, std::vector<std::string>{"connect"});
  EXPECT_EQ(answers, (std::vector<std::string>{R"(["ok"])", R"(["NO ACK"])"}));
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
