// Runs every callback of the client on the application's own loop (QNBRLOptions::executor) instead of
// the library's thread: logs a user in, joins a channel, reads its members and logs out, one step per
// completion, all on main()'s thread. Exits with 0 when each step succeeded there.
#include <qnbrl/qnbrl.hpp>

#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace {

// The application's loop: the library hands it tasks from its own thread, main() runs them in order.
class Loop {
 public:
  void post(std::function<void()> task) {
    {
      std::lock_guard lock(mutex_);
      tasks_.push_back(std::move(task));
    }
    ready_.notify_one();
  }
  void run() {
    while (!stopped_) {
      std::unique_lock lock(mutex_);
      ready_.wait(lock, [this] { return !tasks_.empty(); });
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
    }
  }
  void stop() { stopped_ = true; }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> tasks_;
  bool stopped_ = false;  // only touched on the loop's thread
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: %s API_SERVER_URL USER_ID\n", argv[0]), 2;
  Loop loop;
  const auto loopThread = std::this_thread::get_id();
  int failures = 0;
  auto onLoop = [&](const char* what) {
    if (std::this_thread::get_id() == loopThread) return;
    std::printf("%s: not on the application's loop\n", what);
    ++failures;
  };
  auto check = [&](const char* step, int code) {
    onLoop(step);
    std::printf("%s: %d\n", step, code);
    failures += code != 0;
  };

  qnbrl::QNBRLOptions options;
  options.envConfig.apiServer = options.envConfig.logServer = argv[1];
  options.executor = [&loop](std::function<void()> task) { loop.post(std::move(task)); };
  auto delegate = std::make_shared<qnbrl::QNBRLDelegate>();
  delegate->connectionStateChanged = [&](qnbrl::QNBRLKit&, qnbrl::QNBRLConnectionState state, auto reason) {
    onLoop("connection state");
    std::printf("connection state %d, reason %d\n", static_cast<int>(state), static_cast<int>(reason));
  };
  auto kit = qnbrl::QNBRLKit::create("my-app-id", delegate, options);
  if (!kit) return 2;
  auto channel = kit->createChannelWithId("lobby", {});
  kit->loginByToken("a-token-from-your-app-server", std::time(nullptr) * 1000LL, argv[2], [&](int code) {
    check("login", code);
    channel->joinWithCompletion([&](int code) {
      check("join", code);
      channel->getMembersWithCompletion([&](auto members, int code) {
        check("members", code);
        std::printf("  %zu member(s)\n", members ? members->size() : 0);
        kit->logoutWithCompletion([&](int code) {
          check("logout", code);
          loop.stop();
        });
      });
    });
  });
  loop.run();
  return failures == 0 ? 0 : 1;
}
