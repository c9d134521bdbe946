#include "session.hpp"

#include <boost/json/parse.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace qnbrl_cli {

namespace json = boost::json;
using namespace qnbrl;

namespace {

// ---- Codes: what each operation family's numbers mean -------------------------------------------

enum class Family {
  Login,
  Logout,
  Token,
  Join,
  Leave,
  ChannelMessage,
  Members,
  MemberCount,
  ChannelAttribute,
  PeerMessage,
  UserAttribute,
  OnlineStatus,
  PeerAttribute,
  Invitation
};

std::string meaning(Family family, int code) {
  struct Entry {
    Family family;
    int code;
    const char* text;
  };
  using F = Family;
  static constexpr Entry kTable[] = {
      {F::Login, QNBRLLoginErrorUnknown, "refused"},
      {F::Login, QNBRLLoginErrorAppForbidden, "app forbidden"},
      {F::Login, QNBRLLoginErrorInvalidArgument, "invalid argument"},
      {F::Login, QNBRLLoginErrorInvalidAppId, "invalid app id"},
      {F::Login, QNBRLLoginErrorInvalidToken, "invalid token"},
      {F::Login, QNBRLLoginErrorTokenExpired, "token expired"},
      {F::Login, QNBRLLoginErrorAuthFail, "authentication failed"},
      {F::Login, QNBRLLoginErrorAlreadyLogin, "already logged in"},
      {F::Login, QNBRLLoginErrorTimeout, "timeout"},
      {F::Token, 2, "a token is 32 non-space characters"},
      {F::Join, QNBRLJoinChannelErrorFailure, "failure"},
      {F::Join, QNBRLJoinChannelErrorInvalidArgument, "invalid argument"},
      {F::Join, QNBRLJoinChannelErrorTimeout, "timeout"},
      {F::Leave, QNBRLLeaveChannelErrorNotJoined, "not joined"},
      {F::ChannelMessage, QNBRLChannelMessageErrorFailure, "failure"},
      {F::ChannelMessage, QNBRLChannelMessageErrorTimeout, "timeout"},
      {F::ChannelMessage, QNBRLChannelMessageErrorTooOften, "too often"},
      {F::ChannelMessage, QNBRLChannelMessageErrorTooLarge, "too large"},
      {F::ChannelMessage, QNBRLChannelMessageErrorNotJoined, "not joined"},
      {F::Members, QNBRLGetMembersErrorFailure, "failure"},
      {F::Members, QNBRLGetMembersErrorTimeout, "timeout"},
      {F::Members, QNBRLGetMembersErrorTooOften, "too often"},
      {F::Members, QNBRLGetMembersErrorNotJoined, "not joined"},
      {F::MemberCount, QNBRLChannelMemberCountErrorFailure, "failure"},
      {F::MemberCount, QNBRLChannelMemberCountErrorInvalidArgument, "invalid argument"},
      {F::MemberCount, QNBRLChannelMemberCountErrorTooOften, "too often"},
      {F::MemberCount, QNBRLChannelMemberCountErrorTimeout, "timeout"},
      {F::MemberCount, QNBRLChannelMemberCountErrorTooManyChannels, "too many channels"},
      {F::ChannelAttribute, QNBRLChannelAttributeErrorFailure, "failure"},
      {F::ChannelAttribute, QNBRLChannelAttributeErrorInvalidArgument, "invalid argument"},
      {F::ChannelAttribute, QNBRLChannelAttributeErrorTooOften, "too often"},
      {F::ChannelAttribute, QNBRLChannelAttributeErrorTimeout, "timeout"},
      {F::PeerMessage, QNBRLPeerMessageErrorFailure, "failure"},
      {F::PeerMessage, QNBRLPeerMessageErrorTimeout, "timeout"},
      {F::PeerMessage, QNBRLPeerMessageErrorPeerOffline, "peer offline"},
      {F::PeerMessage, QNBRLPeerMessageErrorTooOften, "too often"},
      {F::PeerMessage, QNBRLPeerMessageErrorTooLarge, "too large"},
      {F::UserAttribute, QNBRLUserAttributeErrorFailure, "failure"},
      {F::UserAttribute, QNBRLUserAttributeErrorInvalidArgument, "invalid argument"},
      {F::UserAttribute, QNBRLUserAttributeErrorTooOften, "too often"},
      {F::UserAttribute, QNBRLUserAttributeErrorTimeout, "timeout"},
      {F::OnlineStatus, QNBRLPeerOnlineStatusErrorFailure, "failure"},
      {F::OnlineStatus, QNBRLPeerOnlineStatusErrorInvalidArgument, "invalid argument"},
      {F::OnlineStatus, QNBRLPeerOnlineStatusErrorTimeout, "timeout"},
      {F::OnlineStatus, QNBRLPeerOnlineStatusErrorTooOften, "too often"},
      {F::PeerAttribute, QNBRLPeerAttributeErrorFailure, "failure"},
      {F::PeerAttribute, QNBRLPeerAttributeErrorInvalidArgument, "invalid argument"},
      {F::PeerAttribute, QNBRLPeerAttributeErrorTimeout, "timeout"},
      {F::PeerAttribute, QNBRLPeerAttributeErrorTooOften, "too often"},
      {F::Invitation, QNBRLInvitationErrorTimeout, "timeout"},
      {F::Invitation, QNBRLInvitationErrorInfoTooLong, "info too long"},
      {F::Invitation, QNBRLInvitationErrorWrongParty, "not the caller's invitation"},
  };
  if (code == QNBRLRequestNotLoggedIn) return "not logged in";
  for (const auto& e : kTable)
    if (e.family == family && e.code == code) return e.text;
  return {};
}

// ---- Records ----------------------------------------------------------------------------------

Record event(const char* name) {
  return {{"ts", nowMs()}, {"event", name}};
}

json::object attributesObject(const std::vector<QNBRLAttribute>& attributes) {
  json::object out;
  for (const auto& a : attributes) out[a.key] = a.value;
  return out;
}

// A deleted key reads null.
json::object usersObject(const std::vector<QNBRLUserAttributes>& users) {
  json::object out;
  for (const auto& user : users) {
    json::object attributes;
    for (const auto& a : user.attributes)
      attributes[a.key] = a.deleted ? json::value() : json::value(a.value);
    out[user.userId] = std::move(attributes);
  }
  return out;
}

void addMessage(Record& record, const QNBRLMessage& message) {
  if (message.text) record["text"] = *message.text;
  if (const auto* raw = dynamic_cast<const QNBRLRawMessage*>(&message); raw && raw->rawData) {
    record["bytes"] = raw->rawData->size();
    record["data"] = base64(*raw->rawData);
  }
  record["serverTs"] = message.serverReceivedTs;
}

const char* stateName(QNBRLConnectionState state) {
  switch (state) {
    case QNBRLConnectionState::Disconnected:
      return "Disconnected";
    case QNBRLConnectionState::Connecting:
      return "Connecting";
    case QNBRLConnectionState::Connected:
      return "Connected";
    case QNBRLConnectionState::Reconnecting:
      return "Reconnecting";
  }
  return "Unknown";
}

const char* reasonName(QNBRLConnectionChangeReason reason) {
  switch (reason) {
    case QNBRLConnectionChangeReason::LoginStarted:
      return "LoginStarted";
    case QNBRLConnectionChangeReason::LoginSucceeded:
      return "LoginSucceeded";
    case QNBRLConnectionChangeReason::LoginFailed:
      return "LoginFailed";
    case QNBRLConnectionChangeReason::LoginTimedOut:
      return "LoginTimedOut";
    case QNBRLConnectionChangeReason::Interrupted:
      return "Interrupted";
    case QNBRLConnectionChangeReason::LoggedOut:
      return "LoggedOut";
    case QNBRLConnectionChangeReason::KickedOff:
      return "KickedOff";
  }
  return "Unknown";
}

// The events `wait` accepts: the delegates' member names.
const std::set<std::string, std::less<>> kEvents = {"connectionStateChanged",
                                                    "tokenDidExpire",
                                                    "messageReceived",
                                                    "peersOnlineStatusChanged",
                                                    "peersUserAttributesChanged",
                                                    "memberJoined",
                                                    "memberLeftReason",
                                                    "attributeUpdate",
                                                    "memberCount",
                                                    "invitationFailed",
                                                    "invitationArrived",
                                                    "invitationCanceled",
                                                    "invitationAccept",
                                                    "invitationRefused"};

// Posts a command's completion from any thread: {"ts", "command", "op", "code", "error"?, results...}.
struct Reply {
  std::shared_ptr<Inbox> inbox;
  std::string command;
  const char* op;
  Family family;
  std::uint64_t call;

  void operator()(int code, json::object results = {}) const {
    Record record{{"ts", nowMs()}, {"command", command}, {"op", op}, {"code", code}};
    if (code != 0)
      if (auto text = meaning(family, code); !text.empty()) record["error"] = text;
    for (auto& field : results) record[field.key()] = std::move(field.value());
    inbox->post({std::move(record), call, nullptr});
  }
};

// ---- Parsing ----------------------------------------------------------------------------------

struct Word {
  std::string text;
  std::size_t begin;  // where it starts in the line
};

// Words split at white space; '...' and "..." group, a backslash escapes the next character.
std::optional<std::vector<Word>> splitWords(const std::string& line) {
  std::vector<Word> words;
  std::size_t i = 0;
  while (i < line.size()) {
    if (std::isspace(static_cast<unsigned char>(line[i]))) {
      ++i;
      continue;
    }
    Word word{{}, i};
    char quote = 0;
    for (; i < line.size() && (quote || !std::isspace(static_cast<unsigned char>(line[i]))); ++i) {
      const char c = line[i];
      if (quote && c == quote) {
        quote = 0;
      } else if (!quote && (c == '"' || c == '\'')) {
        quote = c;
      } else if (c == '\\' && quote != '\'' && i + 1 < line.size()) {
        word.text += line[++i];
      } else {
        word.text += c;
      }
    }
    if (quote) return std::nullopt;
    words.push_back(std::move(word));
  }
  return words;
}

std::optional<std::int64_t> number(const std::string& text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// One parameter of a usage line: NAME, [NAME], NAME..., [NAME...] or [--flag]. TEXT takes the rest
// of the line as typed.
struct Param {
  std::string name;
  bool optional = false;
  bool many = false;
};

std::vector<Param> parseUsage(std::string_view usage) {
  std::vector<Param> params;
  const auto words = splitWords(std::string(usage));
  for (auto text : *words) {
    Param p;
    if (text.text.front() == '[') p.optional = true, text.text = text.text.substr(1, text.text.size() - 2);
    if (text.text.ends_with("...")) p.many = true, text.text.resize(text.text.size() - 3);
    p.name = text.text;
    params.push_back(std::move(p));
  }
  return params;
}

}  // namespace

// ---- The command table ------------------------------------------------------------------------

struct Session::Call {
  std::string line;
  std::string name;
  const Command* command = nullptr;
  std::vector<std::string> args;
  std::set<std::string> flags;
  std::uint64_t id = 0;

  bool flag(const char* name) const { return flags.count(name) > 0; }
  std::vector<std::string> from(std::size_t first) const {
    return {args.begin() + static_cast<std::ptrdiff_t>(std::min(first, args.size())), args.end()};
  }
};

struct Session::Command {
  std::string_view name;  // one or two words
  std::string_view args;
  std::string_view about;
  std::function<Step(Session& s, Call& c)> run;
};

namespace {

// KEY=VALUE words as attributes; the first word that is not one, in `bad`.
std::vector<QNBRLAttribute> attributes(const std::vector<std::string>& words, std::string& bad) {
  std::vector<QNBRLAttribute> out;
  for (const auto& w : words) {
    const auto eq = w.find('=');
    if (eq == std::string::npos || eq == 0) {
      bad = w;
      return {};
    }
    out.push_back({w.substr(0, eq), w.substr(eq + 1)});
  }
  return out;
}

std::optional<QNBRLChannelAttributeOptions> notify(const Session::Call& c) {
  if (!c.flag("--notify")) return std::nullopt;
  return QNBRLChannelAttributeOptions{true};
}

}  // namespace

const std::vector<Session::Command>& Session::commands() {
  // Completion handlers capture a Reply (by value): they may run after the session has gone.
  auto reply = [](Session& s, const Call& c, const char* op, Family family) {
    return Reply{s.inbox_, c.line, op, family, c.id};
  };
  auto wait = [](const Call& c) { return Step{.call = c.id}; };
  static const std::vector<Command> table = {
      {"help", "[COMMAND...]", "list the commands, or the usage of those named",
       [](Session& s, Call& c) {
         std::string prefix;
         for (const auto& word : c.args) prefix += (prefix.empty() ? "" : " ") + word;
         std::string text;
         for (const auto& cmd : commands())
           if (prefix.empty() || cmd.name == prefix || cmd.name.starts_with(prefix + " "))
             text += (text.empty() ? "" : "\n") + std::string(cmd.name) + (cmd.args.empty() ? "" : " ") +
                     std::string(cmd.args) + "\n    " + std::string(cmd.about);
         if (text.empty()) return s.refuse(c, "no command '" + prefix + "'");
         s.console_.text(text);
         return Step{};
       }},
      {"quit", "", "leave the client", [](Session&, Call&) { return Step{.quit = true}; }},
      {"wait", "EVENT [SECONDS]", "scripts: wait for an event not waited for yet (default: the --timeout)",
       [](Session& s, Call& c) {
         if (!kEvents.count(c.args[0])) return s.refuse(c, "unknown event '" + c.args[0] + "'");
         auto seconds = c.args.size() > 1 ? number(c.args[1]) : s.settings_.limit.count();
         if (!seconds || *seconds <= 0) return s.refuse(c, "bad number of seconds '" + c.args[1] + "'");
         return Step{.event = c.args[0], .limit = std::chrono::seconds(*seconds)};
       }},
      {"debug", "", "the client's debug information",
       [](Session& s, Call& c) {
         const std::string text = s.kit_->getDebugInfo();
         boost::system::error_code error;
         auto info = json::parse(text, error);
         s.console_.record({{"ts", nowMs()},
                            {"command", c.line},
                            {"op", "getDebugInfo"},
                            {"code", 0},
                            {"info", error ? json::value(text) : std::move(info)}});
         return Step{};
       }},
      {"log filter", "LEVEL", "diagnostic log level: 0 silent, 1 info, 2 warnings, 4 errors, 8 critical",
       [](Session& s, Call& c) {
         const auto level = number(c.args[0]);
         if (!level) return s.refuse(c, "bad level '" + c.args[0] + "'");
         s.kit_->setLogFilters(*level);
         s.console_.record({{"ts", nowMs()}, {"command", c.line}, {"op", "setLogFilters"}, {"code", 0}});
         return Step{};
       }},
      {"log file", "PATH", "write the diagnostic log to a file",
       [](Session& s, Call& c) {
         s.kit_->setLogFile(c.args[0]);
         s.console_.record({{"ts", nowMs()}, {"command", c.line}, {"op", "setLogFile"}, {"code", 0}});
         return Step{};
       }},
      // Session
      {"login", "USER [TOKEN]", "log in (TOKEN defaults to --token; any token works on --dev)",
       [reply, wait](Session& s, Call& c) {
         const std::string token = c.args.size() > 1 ? c.args[1] : s.settings_.token;
         if (token.empty()) return s.refuse(c, "missing TOKEN (no --token given)");
         s.user_ = c.args[0];
         s.kit_->loginByToken(token, nowMs(), c.args[0], reply(s, c, "loginByToken", Family::Login));
         return wait(c);
       }},
      {"logout", "", "log out",
       [reply, wait](Session& s, Call& c) {
         s.kit_->logoutWithCompletion(reply(s, c, "logoutWithCompletion", Family::Logout));
         return wait(c);
       }},
      {"renew", "TOKEN", "new credentials for the next connection",
       [reply, wait](Session& s, Call& c) {
         s.kit_->renewToken(
             c.args[0], nowMs(),
             [r = reply(s, c, "renewToken", Family::Token)](const std::string&, int code) { r(code); });
         return wait(c);
       }},
      // Channels
      {"join", "CHANNEL", "join a channel; its events are printed from then on",
       [reply, wait](Session& s, Call& c) {
         auto channel = s.channel(c.args[0]);
         if (!channel) return s.refuse(c, "bad channel id '" + c.args[0] + "'");
         channel->joinWithCompletion(reply(s, c, "joinWithCompletion", Family::Join));
         return wait(c);
       }},
      {"leave", "CHANNEL", "leave a channel",
       [reply, wait](Session& s, Call& c) {
         auto channel = s.channel(c.args[0]);
         if (!channel) return s.refuse(c, "bad channel id '" + c.args[0] + "'");
         channel->leaveWithCompletion(reply(s, c, "leaveWithCompletion", Family::Leave));
         return wait(c);
       }},
      {"send", "CHANNEL TEXT", "send a text message to a joined channel",
       [reply, wait](Session& s, Call& c) {
         auto channel = s.channel(c.args[0]);
         if (!channel) return s.refuse(c, "bad channel id '" + c.args[0] + "'");
         channel->sendMessage(std::make_shared<QNBRLMessage>(c.args[1]), std::nullopt,
                              reply(s, c, "sendMessage", Family::ChannelMessage));
         return wait(c);
       }},
      {"sendfile", "CHANNEL FILE [TEXT]", "send a file's bytes (and a text) as a binary message",
       [reply, wait](Session& s, Call& c) {
         auto channel = s.channel(c.args[0]);
         if (!channel) return s.refuse(c, "bad channel id '" + c.args[0] + "'");
         std::ifstream in(c.args[1], std::ios::binary);
         std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(in), {});
         if (!in.is_open() || in.bad())
           return s.refuse(c, "cannot read '" + c.args[1] + "': " + std::strerror(errno));
         auto message =
             std::make_shared<QNBRLRawMessage>(std::make_shared<const QNBRLBytes>(std::move(bytes)));
         if (c.args.size() > 2) message->text = c.args[2];
         channel->sendMessage(message, std::nullopt, reply(s, c, "sendMessage", Family::ChannelMessage));
         return wait(c);
       }},
      {"members", "CHANNEL", "the members of a joined channel",
       [reply, wait](Session& s, Call& c) {
         auto channel = s.channel(c.args[0]);
         if (!channel) return s.refuse(c, "bad channel id '" + c.args[0] + "'");
         channel->getMembersWithCompletion(
             [r = reply(s, c, "getMembersWithCompletion", Family::Members)](auto members, int code) {
               json::array users;
               for (const auto& m : members.value_or(std::vector<QNBRLMember>{}))
                 users.push_back(json::value(m.userId));
               r(code, members ? json::object{{"members", std::move(users)}} : json::object{});
             });
         return wait(c);
       }},
      {"count", "CHANNEL...", "member counts of up to 32 channels",
       [reply, wait](Session& s, Call& c) {
         s.kit_->getChannelMemberCount(
             c.args, [r = reply(s, c, "getChannelMemberCount", Family::MemberCount)](auto counts, int code) {
               json::object out;
               for (const auto& n : counts.value_or(std::vector<QNChannelMemberCount>{}))
                 out[n.channelId] = n.count;
               r(code, counts ? json::object{{"counts", std::move(out)}} : json::object{});
             });
         return wait(c);
       }},
      // Channel attributes
      {"chattr set", "[--notify] CHANNEL KEY=VALUE...", "replace a channel's attributes",
       [reply, wait](Session& s, Call& c) {
         std::string bad;
         auto list = attributes(c.from(1), bad);
         if (!bad.empty()) return s.refuse(c, "bad attribute '" + bad + "': expected KEY=VALUE");
         s.kit_->setChannel(c.args[0], list, notify(c), reply(s, c, "setChannel", Family::ChannelAttribute));
         return wait(c);
       }},
      {"chattr add", "[--notify] CHANNEL KEY=VALUE...", "add or update a channel's attributes",
       [reply, wait](Session& s, Call& c) {
         std::string bad;
         auto list = attributes(c.from(1), bad);
         if (!bad.empty()) return s.refuse(c, "bad attribute '" + bad + "': expected KEY=VALUE");
         s.kit_->addOrUpdateChannel(c.args[0], list, notify(c),
                                    reply(s, c, "addOrUpdateChannel", Family::ChannelAttribute));
         return wait(c);
       }},
      {"chattr delete", "[--notify] CHANNEL KEY...", "delete some of a channel's attributes",
       [reply, wait](Session& s, Call& c) {
         s.kit_->deleteChannelAttributes(c.args[0], c.from(1), notify(c),
                                         reply(s, c, "deleteChannelAttributes", Family::ChannelAttribute));
         return wait(c);
       }},
      {"chattr clear", "[--notify] CHANNEL", "delete all of a channel's attributes",
       [reply, wait](Session& s, Call& c) {
         s.kit_->clearChannelAttributes(c.args[0], notify(c),
                                        reply(s, c, "clearChannelAttributes", Family::ChannelAttribute));
         return wait(c);
       }},
      {"chattr get", "CHANNEL [KEY...]", "a channel's attributes, all or those named",
       [reply, wait](Session& s, Call& c) {
         auto done = [r = reply(s, c, "getChannelAttributes", Family::ChannelAttribute)](auto list,
                                                                                         int code) {
           r(code, list ? json::object{{"attributes", attributesObject(*list)}} : json::object{});
         };
         if (c.args.size() > 1) {
           s.kit_->getChannelAttributes(c.args[0], c.from(1), done);
         } else {
           s.kit_->getChannelAttributes(c.args[0], done);
         }
         return wait(c);
       }},
      // The local user's attributes, and any user's
      {"attr set", "KEY=VALUE...", "replace the local user's attributes",
       [reply, wait](Session& s, Call& c) {
         std::string bad;
         auto list = attributes(c.args, bad);
         if (!bad.empty()) return s.refuse(c, "bad attribute '" + bad + "': expected KEY=VALUE");
         s.kit_->setLocalUserAttributes(list, reply(s, c, "setLocalUserAttributes", Family::UserAttribute));
         return wait(c);
       }},
      {"attr add", "KEY=VALUE...", "add or update the local user's attributes",
       [reply, wait](Session& s, Call& c) {
         std::string bad;
         auto list = attributes(c.args, bad);
         if (!bad.empty()) return s.refuse(c, "bad attribute '" + bad + "': expected KEY=VALUE");
         s.kit_->addOrUpdateLocalUserAttributes(
             list, reply(s, c, "addOrUpdateLocalUserAttributes", Family::UserAttribute));
         return wait(c);
       }},
      {"attr delete", "KEY...", "delete some of the local user's attributes",
       [reply, wait](Session& s, Call& c) {
         s.kit_->deleteLocalUserAttributesByKeys(
             c.args, reply(s, c, "deleteLocalUserAttributesByKeys", Family::UserAttribute));
         return wait(c);
       }},
      {"attr clear", "", "delete all of the local user's attributes",
       [reply, wait](Session& s, Call& c) {
         s.kit_->clearLocalUserAttributesWithCompletion(
             reply(s, c, "clearLocalUserAttributesWithCompletion", Family::UserAttribute));
         return wait(c);
       }},
      {"attr get", "USER [KEY...]", "a user's attributes, all or those named",
       [reply, wait](Session& s, Call& c) {
         auto done = [r = reply(s, c, "getUserAttributes", Family::UserAttribute)](
                         auto list, const std::string& user, int code) {
           json::object out{{"user", user}};
           if (list) out["attributes"] = attributesObject(*list);
           r(code, std::move(out));
         };
         if (c.args.size() > 1) {
           s.kit_->getUserAttributes(c.args[0], c.from(1), done);
         } else {
           s.kit_->getUserAttributes(c.args[0], done);
         }
         return wait(c);
       }},
      // Presence
      {"status subscribe", "PEER...", "be told when the peers go online or offline",
       [reply, wait](Session& s, Call& c) {
         s.kit_->subscribePeersOnlineStatus(c.args,
                                            reply(s, c, "subscribePeersOnlineStatus", Family::OnlineStatus));
         return wait(c);
       }},
      {"status unsubscribe", "PEER...", "stop being told of the peers' online status",
       [reply, wait](Session& s, Call& c) {
         s.kit_->unsubscribePeersOnlineStatus(
             c.args, reply(s, c, "unsubscribePeersOnlineStatus", Family::OnlineStatus));
         return wait(c);
       }},
      {"status query", "PEER...", "whether the peers are online now",
       [reply, wait](Session& s, Call& c) {
         s.kit_->queryPeersOnlineStatus(c.args, [r = reply(s, c, "queryPeersOnlineStatus",
                                                           Family::OnlineStatus)](auto statuses, int code) {
           json::object out;
           for (const auto& st : statuses.value_or(std::vector<QNBRLPeerOnlineStatus>{}))
             out[st.peerId] = st.isOnline;
           r(code, statuses ? json::object{{"statuses", std::move(out)}} : json::object{});
         });
         return wait(c);
       }},
      {"status subscribed", "OPTION",
       "the peers subscribed to (the dev server: 0 online status, 1 attributes)",
       [reply, wait](Session& s, Call& c) {
         const auto option = number(c.args[0]);
         if (!option) return s.refuse(c, "bad option '" + c.args[0] + "'");
         s.kit_->queryPeersBySubscriptionOption(
             *option,
             [r = reply(s, c, "queryPeersBySubscriptionOption", Family::OnlineStatus)](auto peers, int code) {
               json::array out;
               for (const auto& p : peers.value_or(std::vector<std::string>{})) out.push_back(json::value(p));
               r(code, peers ? json::object{{"peers", std::move(out)}} : json::object{});
             });
         return wait(c);
       }},
      // Peers' attributes
      {"peerattr subscribe", "PEER...", "be told when the peers' attributes change",
       [reply, wait](Session& s, Call& c) {
         s.kit_->subscribePeersUserAttribes(c.args,
                                            reply(s, c, "subscribePeersUserAttribes", Family::PeerAttribute));
         return wait(c);
       }},
      {"peerattr unsubscribe", "PEER...", "stop being told of the peers' attributes",
       [reply, wait](Session& s, Call& c) {
         s.kit_->unsubscribePeersUserAttribes(
             c.args, reply(s, c, "unsubscribePeersUserAttribes", Family::PeerAttribute));
         return wait(c);
       }},
      {"peerattr get", "PEER... [/ KEY...]", "the peers' attributes, all or those named after a /",
       [reply, wait](Session& s, Call& c) {
         // Ids cannot hold a '/', so the first one parts peers from keys.
         const auto slash = std::find(c.args.begin(), c.args.end(), "/");
         const std::vector<std::string> peers(c.args.begin(), slash);
         auto done = [r = reply(s, c, "getPeersUserAttributes", Family::PeerAttribute)](auto users,
                                                                                        int code) {
           r(code, users ? json::object{{"users", usersObject(*users)}} : json::object{});
         };
         if (slash != c.args.end()) {
           s.kit_->getPeersUserAttributes(peers, std::vector<std::string>(slash + 1, c.args.end()), done);
         } else {
           s.kit_->getPeersUserAttributes(peers, done);
         }
         return wait(c);
       }},
      // Peer messages
      {"msg", "[--offline] PEER TEXT", "send a text message to a user (--offline: kept until it logs in)",
       [reply, wait](Session& s, Call& c) {
         std::optional<QNBRLSendMessageOptions> options;
         if (c.flag("--offline")) options = QNBRLSendMessageOptions{true, false};
         s.kit_->sendMessage(std::make_shared<QNBRLMessage>(c.args[1]), c.args[0], options,
                             reply(s, c, "sendMessage", Family::PeerMessage));
         return wait(c);
       }},
      // Invitations
      {"invite send", "PEER [TEXT]", "invite a user to a call",
       [reply, wait](Session& s, Call& c) {
         auto invitation = QNBRLInvitation::create(s.user_, c.args[0]);
         if (c.args.size() > 1) invitation->setRequestInfo(c.args[1]);
         s.sent_[c.args[0]] = invitation;
         s.kit_->getBRLInvitationKit()->sendInvitation(invitation,
                                                       reply(s, c, "sendInvitation", Family::Invitation));
         return wait(c);
       }},
      {"invite cancel", "PEER", "withdraw the invitation sent to a user",
       [reply, wait](Session& s, Call& c) {
         const auto it = s.sent_.find(c.args[0]);
         if (it == s.sent_.end()) return s.refuse(c, "no invitation sent to '" + c.args[0] + "'");
         s.kit_->getBRLInvitationKit()->cancelInvitation(it->second,
                                                         reply(s, c, "cancelInvitation", Family::Invitation));
         return wait(c);
       }},
      {"invite accept", "PEER [TEXT]", "accept the invitation a user sent",
       [reply, wait](Session& s, Call& c) {
         const auto it = s.arrived_.find(c.args[0]);
         if (it == s.arrived_.end()) return s.refuse(c, "no invitation from '" + c.args[0] + "'");
         if (c.args.size() > 1) it->second->setResponseInfo(c.args[1]);
         s.kit_->getBRLInvitationKit()->acceptInvitation(it->second,
                                                         reply(s, c, "acceptInvitation", Family::Invitation));
         return wait(c);
       }},
      {"invite refuse", "PEER [TEXT]", "refuse the invitation a user sent",
       [reply, wait](Session& s, Call& c) {
         const auto it = s.arrived_.find(c.args[0]);
         if (it == s.arrived_.end()) return s.refuse(c, "no invitation from '" + c.args[0] + "'");
         if (c.args.size() > 1) it->second->setResponseInfo(c.args[1]);
         s.kit_->getBRLInvitationKit()->refuseInvitation(it->second,
                                                         reply(s, c, "refuseInvitation", Family::Invitation));
         return wait(c);
       }},
  };
  return table;
}

// ---- The session ------------------------------------------------------------------------------

Session::Session(const Settings& settings, std::shared_ptr<Inbox> inbox, Console& console)
    : settings_(settings), inbox_(std::move(inbox)), console_(console) {
  // The callbacks run on the library's thread: they only post records.
  auto post = [inbox = inbox_](Record record, std::shared_ptr<QNBRLInvitation> invitation = nullptr) {
    inbox->post({std::move(record), 0, std::move(invitation)});
  };
  delegate_ = std::make_shared<QNBRLDelegate>();
  delegate_->connectionStateChanged = [post](QNBRLKit&, QNBRLConnectionState state,
                                             QNBRLConnectionChangeReason why) {
    auto r = event("connectionStateChanged");
    r["state"] = stateName(state);
    r["reason"] = reasonName(why);
    post(std::move(r));
  };
  delegate_->tokenDidExpire = [post](QNBRLKit&) { post(event("tokenDidExpire")); };
  delegate_->messageReceived = [post](QNBRLKit&, const std::shared_ptr<QNBRLMessage>& message,
                                      const std::string& peer) {
    auto r = event("messageReceived");
    r["peer"] = peer;
    addMessage(r, *message);
    post(std::move(r));
  };
  delegate_->peersOnlineStatusChanged = [post](QNBRLKit&,
                                               const std::vector<QNBRLPeerOnlineStatus>& statuses) {
    json::object out;
    for (const auto& s : statuses) out[s.peerId] = s.isOnline;
    auto r = event("peersOnlineStatusChanged");
    r["statuses"] = std::move(out);
    post(std::move(r));
  };
  delegate_->peersUserAttributesChanged = [post](QNBRLKit&, const std::vector<QNBRLUserAttributes>& users) {
    auto r = event("peersUserAttributesChanged");
    r["users"] = usersObject(users);
    post(std::move(r));
  };

  channelDelegate_ = std::make_shared<QNBRLChannelDelegate>();
  auto member = [](const char* name, const QNBRLMember& m) {
    auto r = event(name);
    r["channel"] = m.channelId;
    r["user"] = m.userId;
    return r;
  };
  channelDelegate_->memberJoined = [post, member](QNBRLChannel&, const QNBRLMember& m) {
    post(member("memberJoined", m));
  };
  // memberLeft would tell the same leave again, without the reason.
  channelDelegate_->memberLeftReason = [post, member](QNBRLChannel&, const QNBRLMember& m,
                                                      QNBRLChannelMemberLeftReason reason) {
    auto r = member("memberLeftReason", m);
    r["reason"] = reason == QNBRLChannelMemberLeftQuit         ? "Quit"
                  : reason == QNBRLChannelMemberLeftDisconnect ? "Disconnect"
                                                               : "Unknown";
    post(std::move(r));
  };
  channelDelegate_->messageReceived =
      [post, member](QNBRLChannel&, const std::shared_ptr<QNBRLMessage>& message, const QNBRLMember& m) {
        auto r = member("messageReceived", m);
        addMessage(r, *message);
        post(std::move(r));
      };
  channelDelegate_->attributeUpdate = [post](QNBRLChannel& channel, const std::vector<QNBRLAttribute>& list) {
    auto r = event("attributeUpdate");
    r["channel"] = channel.channelId();
    r["attributes"] = attributesObject(list);
    post(std::move(r));
  };
  channelDelegate_->memberCount = [post](QNBRLChannel& channel, std::int32_t count) {
    auto r = event("memberCount");
    r["channel"] = channel.channelId();
    r["count"] = count;
    post(std::move(r));
  };

  invitationDelegate_ = std::make_shared<QNBRLInvitationDelegate>();
  auto invitation = [post](const char* name, const std::shared_ptr<QNBRLInvitation>& inv,
                           std::optional<std::string> info) {
    auto r = event(name);
    r["inviter"] = inv->inviter();
    r["invitee"] = inv->invitee();
    if (info) r["info"] = *info;
    return r;
  };
  invitationDelegate_->invitationFailed =
      [post, invitation](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& inv, int code) {
        auto r = invitation("invitationFailed", inv, std::nullopt);
        r["code"] = code;
        post(std::move(r), inv);
      };
  invitationDelegate_->invitationArrived = [post, invitation](QNBRLInvitationKit&,
                                                              const std::shared_ptr<QNBRLInvitation>& inv) {
    post(invitation("invitationArrived", inv, inv->requestInfo()), inv);
  };
  invitationDelegate_->invitationCanceled = [post, invitation](QNBRLInvitationKit&,
                                                               const std::shared_ptr<QNBRLInvitation>& inv) {
    post(invitation("invitationCanceled", inv, std::nullopt), inv);
  };
  invitationDelegate_->invitationAccept = [post, invitation](QNBRLInvitationKit&,
                                                             const std::shared_ptr<QNBRLInvitation>& inv) {
    post(invitation("invitationAccept", inv, inv->responseInfo()), inv);
  };
  invitationDelegate_->invitationRefused = [post, invitation](QNBRLInvitationKit&,
                                                              const std::shared_ptr<QNBRLInvitation>& inv) {
    post(invitation("invitationRefused", inv, inv->responseInfo()), inv);
  };

  kit_ = QNBRLKit::create(settings_.appId, delegate_, settings_.options);
  // The kit is made now so that invitations pushed before the first invite command are heard.
  if (kit_) kit_->getBRLInvitationKit()->setDelegate(invitationDelegate_);
}

Session::~Session() = default;

std::shared_ptr<QNBRLChannel> Session::channel(const std::string& id) {
  return kit_->createChannelWithId(id, channelDelegate_);
}

Step Session::refuse(const Call& call, const std::string& why) {
  const std::string what = (call.name.empty() ? "" : call.name + ": ") + why;
  console_.error(what);
  if (console_.json()) console_.record({{"ts", nowMs()}, {"command", call.line}, {"error", what}});
  return Step{.ok = false};
}

Step Session::run(const std::string& input) {
  Call call;
  const auto first = input.find_first_not_of(" \t\r\n");
  if (first == std::string::npos || input[first] == '#') return {};
  call.line = input.substr(first, input.find_last_not_of(" \t\r\n") + 1 - first);
  const auto words = splitWords(call.line);
  if (!words) return refuse(call, "unterminated quote");

  // The two-word name first ("chattr set"), then the one-word one.
  std::size_t used = 0;
  for (std::size_t n : {2, 1}) {
    if (words->size() < n) continue;
    std::string name = (*words)[0].text + (n == 2 ? " " + (*words)[1].text : "");
    for (const auto& cmd : commands())
      if (cmd.name == name) call.command = &cmd, used = n;
    if (call.command) break;
  }
  if (!call.command) {
    const std::string& name = (*words)[0].text;
    for (const auto& cmd : commands())
      if (cmd.name.starts_with(name + " "))
        return refuse(call, "unknown command '" + call.line.substr(0, call.line.find(' ', name.size() + 1)) +
                                "' (see: help " + name + ")");
    return refuse(call, "unknown command '" + name + "' (see: help)");
  }
  call.name = call.command->name;
  const std::string usage = " (usage: " + call.name + (call.command->args.empty() ? "" : " ") +
                            std::string(call.command->args) + ")";

  // Flags come first, then the parameters in order.
  const auto params = parseUsage(call.command->args);
  std::size_t i = used;
  for (; i < words->size() && (*words)[i].text.starts_with("--"); ++i) {
    const auto& flag = (*words)[i].text;
    if (std::none_of(params.begin(), params.end(), [&](const Param& p) { return p.name == flag; }))
      return refuse(call, "unknown option " + flag + usage);
    call.flags.insert(flag);
  }
  for (const auto& p : params) {
    if (p.name.starts_with("--")) continue;
    if (i == words->size()) {
      if (!p.optional) return refuse(call, "missing " + p.name + usage);
      continue;
    }
    if (p.name == "TEXT") {  // the rest of the line as typed, unless it is one (quoted) word
      call.args.push_back(i + 1 == words->size() ? (*words)[i].text : call.line.substr((*words)[i].begin));
      i = words->size();
    } else if (p.many) {  // the last parameter that takes words; any after it is the handler's to read
      for (; i < words->size(); ++i) call.args.push_back((*words)[i].text);
      break;
    } else {
      call.args.push_back((*words)[i++].text);
    }
  }
  if (i < words->size()) return refuse(call, "too many arguments" + usage);
  call.id = ++calls_;
  return call.command->run(*this, call);
}

void Session::absorb(const Item& item) {
  const auto* name = item.record.if_contains("event");
  if (!name) return;
  const std::string event(name->get_string());
  ++seen_[event];
  if (event == "invitationArrived" && item.invitation) arrived_[item.invitation->inviter()] = item.invitation;
}

bool Session::consume(const std::string& event) {
  if (seen_[event] <= used_[event]) return false;
  ++used_[event];
  return true;
}

}  // namespace qnbrl_cli
