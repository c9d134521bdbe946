// The options' executor: every callback of the client runs on the application's loop, in the order the
// library produced them, and the library never waits for that loop.
#include "support/users_fixture.hpp"

#include <condition_variable>
#include <deque>
#include <thread>

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

// An application loop on a thread of its own, which the test can hold.
class AppLoop {
 public:
  AppLoop() : thread_([this] { run(); }) {}
  ~AppLoop() {
    post(nullptr);
    resume();
    thread_.join();
  }
  QNBRLOptions options(const std::string& server) {
    QNBRLOptions options;
    options.envConfig.apiServer = options.envConfig.logServer = server;
    options.executor = [this](std::function<void()> task) { post(std::move(task)); };
    return options;
  }
  std::thread::id id() const { return thread_.get_id(); }
  void hold() { set(true); }
  void resume() { set(false); }
  std::size_t waiting() {
    std::lock_guard lock(mutex_);
    return tasks_.size();
  }
  void post(std::function<void()> task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    changed_.notify_one();
  }
  void set(bool held) {
    std::lock_guard lock(mutex_);
    held_ = held;
    changed_.notify_one();
  }
  void run() {
    for (;;) {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return !held_ && !tasks_.empty(); });
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      if (!task) return;
      task();
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> tasks_;
  bool held_ = false;
  std::thread thread_;
};

class ExecutorTest : public UsersTest {
 protected:
  // What alice's callbacks heard, each checked to run on the loop.
  void heard(std::string line) {
    EXPECT_EQ(std::this_thread::get_id(), loop.id()) << line << " ran off the application's loop";
    std::lock_guard lock(mutex);
    lines.push_back(std::move(line));
  }
  std::vector<std::string> all() {
    std::lock_guard lock(mutex);
    return lines;
  }
  std::shared_ptr<QNBRLKit> alice() {
    delegate->connectionStateChanged = [this](QNBRLKit&, QNBRLConnectionState s, QNBRLConnectionChangeReason r) {
      heard("state " + std::to_string(static_cast<int>(s)) + " " + std::to_string(static_cast<int>(r)));
    };
    delegate->messageReceived = [this](QNBRLKit&, const std::shared_ptr<QNBRLMessage>& m, const std::string&) {
      heard("peer " + m->text.value_or(""));
    };
    return QNBRLKit::create("app-1", delegate, loop.options(server_->httpUrl()));
  }
  QNBRLKit::Completion step(std::string name) {
    return [this, name](int code) { heard(name + " " + std::to_string(code)); };
  }

  AppLoop loop;
  std::shared_ptr<QNBRLDelegate> delegate = std::make_shared<QNBRLDelegate>();
  std::mutex mutex;
  std::vector<std::string> lines;
};

TEST_F(ExecutorTest, CallbacksRunOnTheApplicationLoopInTheLibrarysOrder) {
  auto kit = alice();
  // A local refusal still completes at once on the calling thread.
  std::thread::id refusedOn;
  kit->setLocalUserAttributes({{"k", "v"}}, [&](int code) {
    EXPECT_EQ(code, QNBRLUserAttributeErrorNotLoggedIn);
    refusedOn = std::this_thread::get_id();
  });
  EXPECT_EQ(refusedOn, std::this_thread::get_id());

  auto bob = user("bob", B, false);
  kit->loginByToken("token-1", 1700000000000, "alice", step("login"));
  ASSERT_TRUE(waitUntil([&] { return all().size() == 3; }));
  for (int i = 0; i < 20; ++i) {
    kit->setLocalUserAttributes({{"n", std::to_string(i)}}, step("set" + std::to_string(i)));
    bob->kit->sendMessage(std::make_shared<QNBRLMessage>("m" + std::to_string(i)), "alice", std::nullopt, {});
  }
  ASSERT_TRUE(waitUntil([&] { return all().size() == 43; }));

  // The delegate hears of the connection before the login completes; completions and pushes each
  // keep their order.
  auto heard = all();
  EXPECT_EQ(std::vector(heard.begin(), heard.begin() + 3),
            (std::vector<std::string>{"state 2 1", "state 3 2", "login 0"}));
  std::vector<std::string> sets, messages;
  for (auto& line : heard) {
    if (line.starts_with("set")) sets.push_back(line);
    if (line.starts_with("peer")) messages.push_back(line);
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(sets[i], "set" + std::to_string(i) + " 0");
    EXPECT_EQ(messages[i], "peer m" + std::to_string(i));
  }
}

// While the loop is held the library goes on (bob's requests complete); once alice's client is
// released, what was handed over but not begun is dropped, except request completions.
TEST_F(ExecutorTest, TheLibraryNeverWaitsAndAReleaseDropsAllButCompletions) {
  auto kit = alice();
  kit->loginByToken("token-1", 1700000000000, "alice", step("login"));
  ASSERT_TRUE(waitUntil([&] { return all().size() == 3; }));
  auto bob = user("bob", B, false);

  loop.hold();
  kit->setLocalUserAttributes({{"k", "v"}}, step("set"));
  Codes sent;
  bob->kit->sendMessage(std::make_shared<QNBRLMessage>("hello"), "alice", std::nullopt, sent.completion());
  EXPECT_EQ(sent.await(), 0);
  ASSERT_TRUE(waitUntil([&] { return loop.waiting() == 2; }));  // the completion and the message
  kit.reset();
  std::promise<void> drained;
  loop.post([&] { drained.set_value(); });
  loop.resume();
  ASSERT_EQ(drained.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_EQ(all(), (std::vector<std::string>{"state 2 1", "state 3 2", "login 0", "set 0"}));
}

}  // namespace
