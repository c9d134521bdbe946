#pragma once
// The one path every request takes: login check → the operation's local checks → its log line →
// "command" [name, payload] with the command's time-out → decode → the operation's code → telemetry
// → completion. An operation is a static description (Operation) over this one implementation, so
// its code table can be read, and tested, as data.
#include "socketio/codec.hpp"
#include "transport/brl_result.hpp"
#include "transport/callback.hpp"
#include "transport/state_manager.hpp"

#include <boost/json/object.hpp>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qnbrl {

// Emits "command" [name, payload] and waits for the acknowledgement. `done` runs exactly once, on the
// main queue: with the server's acknowledgement, or with ["NO ACK"] once the command's time-out has
// passed (also when there is no connection at all).
class CommandSender {
 public:
  using AckHandler = std::function<void(const sio::Payload& ack)>;
  virtual ~CommandSender() = default;
  virtual void command(const std::string& name, boost::json::object payload, AckHandler done,
                       std::vector<sio::BufferPtr> attachments = {}) = 0;
};

// Server codes 0 to 63 as a set.
constexpr std::uint64_t codeSet(std::initializer_list<int> codes) {
  std::uint64_t set = 0;
  for (int code : codes) set |= std::uint64_t{1} << code;
  return set;
}

// What an acknowledgement means to one operation.
struct AckCodes {
  int noAck = 0;                       // no acknowledgement in time
  std::optional<int> tooManyRequests{};  // the server's rate refusal; none: read like any other answer
  std::uint64_t passed = 0;            // server codes handed on unchanged (codeSet)
  int failure = 1;                     // every other refusal, a malformed answer included
  bool textsFirst = false;             // the two texts win over a "result" of 0

  int codeOf(const QNBRLResult& result) const;
};

// Where an outcome was decided: by the local checks, or by the acknowledgement.
enum class Stage { local, ack };

struct Operation {
  std::string_view command{};
  AckCodes codes{};
  // Writes the telemetry record of an outcome, if the operation keeps one; it is called for every
  // outcome, success included. Null: no telemetry.
  void (*record)(const struct Operation& op, const std::string& subject, int code, Stage stage) = nullptr;
  std::string_view interface{};  // the operation's full name, as telemetry's "interface"
  std::string_view action{};     // telemetry's action word
  // The info line before the request goes out, and the one when its acknowledgement arrives.
  void (*logRequest)(const boost::json::object& payload) = nullptr;
  void (*logAck)(const std::string& subject, const boost::json::array& ack) = nullptr;
  bool recordFirst = false;  // the record is written before the completion runs
};

struct Request {
  std::string subject{};  // what a telemetry record names, such as the channel id
  int refusal = 0;      // the operation's first failing local check, 0 when they all pass
  // Codes told at once without stopping the request (an over-size message body).
  std::vector<int> notices{};
  boost::json::object payload{};
  std::vector<sio::BufferPtr> attachments{};
  // Runs once per outcome with the operation's code and, when the server answered, its decoded
  // result (null otherwise): it mirrors a confirmation in local state, then calls the completion.
  std::function<void(int code, const QNBRLResult* result)> finish{};
};

class RequestPath {
 public:
  RequestPath(std::shared_ptr<const QNBRLStateManager> state, std::shared_ptr<CommandSender> sender,
              std::shared_ptr<const ApplicationCalls> application = ApplicationCalls::create())
      : state_(std::move(state)), sender_(std::move(sender)), application_(std::move(application)) {}

  bool loggedIn() const { return state_->login(); }
  // Where the client's completions and delegate callbacks run; features wrap the application's
  // completions with it where a public operation takes them.
  const ApplicationCalls& application() const { return *application_; }

  // A local refusal completes on the calling thread; an answer or a time-out on the main queue.
  // `finish` runs exactly once per outcome, whatever becomes of the client meanwhile.
  void send(const Operation& op, Request request) const;

  // Sends without a completion: the acknowledgement is only logged (heartbeats, leave).
  void post(const Operation& op, std::string subject, boost::json::object payload) const;

 private:
  const std::shared_ptr<const QNBRLStateManager> state_;
  const std::shared_ptr<CommandSender> sender_;
  const std::shared_ptr<const ApplicationCalls> application_;
};

}  // namespace qnbrl
