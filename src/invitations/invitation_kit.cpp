#include "invitations/invitation_kit.hpp"

#include "diagnostics/log.hpp"
#include "invitations/invitation_store.hpp"
#include "transport/wire.hpp"

namespace qnbrl {
namespace {

using State = QNBRLInvitationState;

// The four requests share one command and one reading of its answer: only a missing acknowledgement
// and the server's codes 3 and 4 fail; any other answer counts as success.
constexpr Operation kInvitationOp{
    .command = "invitationOp",
    .codes = {.noAck = QNBRLInvitationErrorTimeout, .passed = codeSet({3, 4}), .failure = QNBRLInvitationErrorOk,
              .textsFirst = true},
};

// Every property under its own name; an absent text is left out.
boost::json::object jsonObject(const QNBRLInvitation& invitation) {
  boost::json::object object{{"inviter", invitation.inviter()}, {"invitee", invitation.invitee()}};
  if (auto info = invitation.requestInfo()) object["requestInfo"] = *info;
  if (auto info = invitation.responseInfo()) object["responseInfo"] = *info;
  object["state"] = static_cast<std::int64_t>(invitation.state());
  return object;
}

std::optional<std::string> optionalStringIn(const boost::json::object& object, std::string_view key) {
  const auto* value = object.if_contains(key);
  if (!value || !value->is_string()) return std::nullopt;
  return std::string(value->get_string());
}

bool tooLong(const std::optional<std::string>& info) {
  return info && info->size() > QNBRLInvitationInfoMaxBytes;
}

}  // namespace

std::shared_ptr<QNBRLInvitation> QNBRLInvitation::create(std::string inviter, std::string invitee) {
  std::shared_ptr<QNBRLInvitation> invitation(new QNBRLInvitation(std::move(inviter), std::move(invitee)));
  QNInvitationStore::shared().addInvitation(invitation);
  return invitation;
}

QNBRLInvitation::QNBRLInvitation(std::string inviter, std::string invitee)
    : inviter_(std::move(inviter)), invitee_(std::move(invitee)) {}

QNBRLInvitation::QNBRLInvitation(const Pushed&, std::string inviter, std::string invitee)
    : QNBRLInvitation(std::move(inviter), std::move(invitee)) {}

std::optional<std::string> QNBRLInvitation::requestInfo() const {
  std::lock_guard lock(mutex_);
  return requestInfo_;
}

void QNBRLInvitation::setRequestInfo(std::optional<std::string> info) {
  std::lock_guard lock(mutex_);
  requestInfo_ = std::move(info);
}

std::optional<std::string> QNBRLInvitation::responseInfo() const {
  std::lock_guard lock(mutex_);
  return responseInfo_;
}

void QNBRLInvitation::setResponseInfo(std::optional<std::string> info) {
  std::lock_guard lock(mutex_);
  responseInfo_ = std::move(info);
}

std::shared_ptr<QNBRLInvitationKit> QNBRLInvitationKit::Impl::create(
    std::shared_ptr<const RequestPath> requests, std::shared_ptr<const QNBRLStateManager> stateManager) {
  auto kit = std::make_shared<QNBRLInvitationKit>(std::make_unique<Impl>(std::move(requests), std::move(stateManager)));
  kit->impl_->self = kit;
  return kit;
}

QNBRLInvitationKit::QNBRLInvitationKit(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

QNBRLInvitationKit::~QNBRLInvitationKit() = default;

void QNBRLInvitationKit::setDelegate(std::weak_ptr<QNBRLInvitationDelegate> delegate) {
  std::lock_guard lock(impl_->mutex);
  impl_->delegate = std::move(delegate);
}

void QNBRLInvitationKit::sendInvitation(const std::shared_ptr<QNBRLInvitation>& invitation, Completion completion) {
  impl_->request("send", invitation, std::move(completion));
}

void QNBRLInvitationKit::cancelInvitation(const std::shared_ptr<QNBRLInvitation>& invitation, Completion completion) {
  impl_->request("cancel", invitation, std::move(completion));
}

void QNBRLInvitationKit::acceptInvitation(const std::shared_ptr<QNBRLInvitation>& invitation, Completion completion) {
  impl_->request("accept", invitation, std::move(completion));
}

void QNBRLInvitationKit::refuseInvitation(const std::shared_ptr<QNBRLInvitation>& invitation, Completion completion) {
  impl_->request("refuse", invitation, std::move(completion));
}

void QNBRLInvitationKit::Impl::request(std::string_view type, const std::shared_ptr<QNBRLInvitation>& invitation,
                                       Completion completion) {
  const bool send = type == "send";
  const bool byInviter = send || type == "cancel";
  Request request;
  if (!invitation || (byInviter ? invitation->inviter() : invitation->invitee()) != stateManager->userId()) {
    request.refusal = QNBRLInvitationErrorWrongParty;
  } else if (tooLong(invitation->requestInfo()) || tooLong(invitation->responseInfo())) {
    request.refusal = QNBRLInvitationErrorInfoTooLong;
  } else {
    request.payload = {{"type", type}, {"invitation", jsonObject(*invitation)}};
  }
  request.finish = [send, invitation, weak = self, completion = requests->application().completion(std::move(completion))](
                       int code, const QNBRLResult*) {
    auto& store = QNInvitationStore::shared();
    if (code == QNBRLInvitationErrorOk && send) {
      invitation->setState(State::Arrived);
      if (auto kit = weak.lock()) store.addTimerAndInvitation(invitation, kit);
    } else if (code == QNBRLInvitationErrorOk) {
      store.removeTimerAndInvitation(*invitation);
    } else if (code == QNBRLInvitationErrorTimeout && send) {
      invitation->setState(State::Failed);
    }
    callApplication(completion, code);
  };
  requests->send(kInvitationOp, std::move(request));
}

std::shared_ptr<QNBRLInvitation> QNBRLInvitationKit::Impl::invitationOf(const sio::Payload& data) {
  auto result = QNBRLResult::resultWithArray(data.args);
  const auto* item = result.response ? result.response->if_contains("invitation") : nullptr;
  if (!item || !item->is_object()) return nullptr;
  const auto& object = item->get_object();
  const auto* stateValue = object.if_contains("state");
  boost::system::error_code error;
  auto state = stateValue ? stateValue->to_number<std::int64_t>(error) : 0;
  if (!stateValue || error) return nullptr;
  auto invitation = std::make_shared<QNBRLInvitation>(QNBRLInvitation::Pushed{}, stringIn(object, "inviter"),
                                                      stringIn(object, "invitee"));
  invitation->setRequestInfo(optionalStringIn(object, "requestInfo"));
  invitation->setResponseInfo(optionalStringIn(object, "responseInfo"));
  invitation->setState(static_cast<State>(state));
  QNLog::shared().info("InvitationNotify: %@", jsonObject(*invitation));
  return invitation;
}

void QNBRLInvitationKit::Impl::parseInvitation(const std::shared_ptr<QNBRLInvitation>& incoming) {
  auto kit = self.lock();
  if (!kit) return;
  auto& store = QNInvitationStore::shared();
  auto stored = store.getInvitation(*incoming);
  if (stored) stored->setState(incoming->state());
  const auto& invitation = stored ? stored : incoming;
  // The store follows a change only when the delegate took it in.
  switch (incoming->state()) {
    case State::Failed:
      tell(&QNBRLInvitationDelegate::invitationFailed, invitation, 0);
      break;
    case State::Arrived:
      // The invitee's side times out too.
      if (tell(&QNBRLInvitationDelegate::invitationArrived, invitation)) store.addTimerAndInvitation(invitation, kit);
      break;
    case State::Canceled:
      if (tell(&QNBRLInvitationDelegate::invitationCanceled, invitation)) store.removeTimerAndInvitation(*invitation);
      break;
    case State::Accepted:
      // The pushed object, with the invitee's answer; the stored one has taken its state.
      if (tell(&QNBRLInvitationDelegate::invitationAccept, incoming)) store.removeTimerAndInvitation(*invitation);
      break;
    case State::Refused:
      if (tell(&QNBRLInvitationDelegate::invitationRefused, invitation)) store.removeTimerAndInvitation(*invitation);
      break;
    default:  // a state without a meaning
      break;
  }
}

}  // namespace qnbrl
