#include "transport/request.hpp"

#include "qnbrl/brl_types.hpp"
#include "transport/callback.hpp"

namespace qnbrl {
namespace {

void complete(const Operation& op, const std::string& subject, int code, const QNBRLResult* result,
              const std::function<void(int, const QNBRLResult*)>& finish, Stage stage) {
  if (op.record && op.recordFirst) op.record(op, subject, code, stage);
  callApplication(finish, code, result);
  if (op.record && !op.recordFirst) op.record(op, subject, code, stage);
}

}  // namespace

int AckCodes::codeOf(const QNBRLResult& result) const {
  auto texts = [&]() -> std::optional<int> {
    if (tooManyRequests && result.isTooManyRequests()) return tooManyRequests;
    if (result.isAckTimeout()) return noAck;
    return std::nullopt;
  };
  if (textsFirst) {
    if (auto code = texts()) return *code;
  }
  if (result.code == 0) return 0;
  if (!textsFirst) {
    if (auto code = texts()) return *code;
  }
  if (result.code > 0 && result.code < 64 && (passed >> result.code & 1)) return result.code;
  return failure;
}

void RequestPath::send(const Operation& op, Request request) const {
  int refusal = state_->login() ? request.refusal : QNBRLRequestNotLoggedIn;
  if (refusal != 0) return complete(op, request.subject, refusal, nullptr, request.finish, Stage::local);
  for (int notice : request.notices) callApplication(request.finish, notice, nullptr);
  if (op.logRequest) op.logRequest(request.payload);
  sender_->command(
      std::string(op.command), std::move(request.payload),
      [&op, subject = std::move(request.subject), finish = std::move(request.finish)](const sio::Payload& ack) {
        if (op.logAck) op.logAck(subject, ack.args);
        auto result = QNBRLResult::resultWithArray(ack.args);
        complete(op, subject, op.codes.codeOf(result), &result, finish, Stage::ack);
      },
      std::move(request.attachments));
}

void RequestPath::post(const Operation& op, std::string subject, boost::json::object payload) const {
  if (op.logRequest) op.logRequest(payload);
  sender_->command(std::string(op.command), std::move(payload), [&op, subject = std::move(subject)](const sio::Payload& ack) {
    if (op.logAck) op.logAck(subject, ack.args);
  });
}

}  // namespace qnbrl
