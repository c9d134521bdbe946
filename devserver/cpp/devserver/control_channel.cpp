#include "devserver/control_channel.hpp"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <cstdio>

namespace devserver {
namespace json = boost::json;

ControlChannel::ControlChannel(const std::vector<std::string>& argv, const std::string& stderrPath,
                               std::chrono::milliseconds readyTimeout) {
  child_ = std::make_unique<ChildProcess>(
      argv, [this](std::string line) { onLine(std::move(line)); }, [this] { onEnd(); }, stderrPath);
  if (!child_->started()) {
    startError_ = child_->startError();
    return;
  }
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, readyTimeout, [&] { return pendingReady_.has_value() || ended_; });
  if (pendingReady_) {
    readyLine_ = std::move(*pendingReady_);
    ready_ = true;
  } else {
    // The script's path names the server better than the interpreter does.
    startError_ =
        argv[argv.size() > 1 ? 1 : 0] + ": no ready line" +
        (ended_ ? " (the process exited)" : " within " + std::to_string(readyTimeout.count()) + " ms");
  }
}

ControlChannel::~ControlChannel() {
  child_->stop();
}

void ControlChannel::onLine(std::string line) {
  boost::system::error_code ec;
  json::value v = json::parse(line, ec);
  json::object* obj = ec ? nullptr : v.if_object();
  if (!obj) {
    std::fprintf(stderr, "[devserver] unexpected output: %s\n", line.c_str());
    return;
  }
  std::lock_guard lock(mutex_);
  if (const auto* r = obj->if_contains("ready"); r && r->is_bool() && r->get_bool()) {
    pendingReady_ = std::move(*obj);
  } else if (const auto* id = obj->if_contains("id"); id && id->is_int64()) {
    replies_[id->get_int64()] = std::move(*obj);
  } else {
    std::fprintf(stderr, "[devserver] reply without id: %s\n", line.c_str());
    return;
  }
  changed_.notify_all();
}

void ControlChannel::onEnd() {
  std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

json::object ControlChannel::request(json::object req, std::chrono::milliseconds timeout) {
  std::int64_t id;
  {
    std::lock_guard lock(mutex_);
    id = nextId_++;
  }
  req["id"] = id;
  auto failure = [&](const char* why) { return json::object{{"id", id}, {"ok", false}, {"error", why}}; };
  if (!child_->writeLine(json::serialize(req))) return failure("the server is not running");
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, timeout, [&] { return replies_.count(id) != 0 || ended_; });
  auto it = replies_.find(id);
  if (it == replies_.end()) return failure(ended_ ? "the server exited" : "no reply in time");
  json::object reply = std::move(it->second);
  replies_.erase(it);
  return reply;
}

bool isOk(const json::object& reply) {
  const auto* ok = reply.if_contains("ok");
  return ok && ok->is_bool() && ok->get_bool();
}

std::string errorOf(const json::object& reply) {
  const auto* error = reply.if_contains("error");
  if (!error) return isOk(reply) ? "" : "no reason given";
  return error->is_string() ? std::string(error->get_string()) : json::serialize(*error);
}

}  // namespace devserver
