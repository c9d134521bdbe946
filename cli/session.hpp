#pragma once
// The client's commands: one table (name, arguments, usage, handler) over the public API of one
// QNBRLKit. Commands run on the thread that reads them; the library's callbacks only post records to
// the Inbox, which that thread prints.
#include "output.hpp"

#include "qnbrl/qnbrl.hpp"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace qnbrl_cli {

struct Settings {
  std::string appId;
  qnbrl::QNBRLOptions options;
  std::string token;               // the login's token when the command gives none
  std::chrono::seconds limit{20};  // the longest a script waits for a completion or an event
};

// What the reading loop does after a command.
struct Step {
  bool ok = true;          // false: refused, its error printed
  std::uint64_t call = 0;  // non-zero: the completion (Item::call) that ends the command
  std::string event{};     // non-empty: `wait` for this event
  std::chrono::seconds limit{0};
  bool quit = false;
};

class Session {
 public:
  Session(const Settings& settings, std::shared_ptr<Inbox> inbox, Console& console);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // False when the client could not be made (a server URL was refused).
  bool ready() const { return kit_ != nullptr; }
  // How long a script waits for a completion.
  std::chrono::seconds limit() const { return settings_.limit; }
  Step run(const std::string& line);
  // Takes note of an item before it is printed: event counts for `wait`, invitations that arrived.
  void absorb(const Item& item);
  // True, and counted as used, when an event of that name came that no earlier wait used.
  bool consume(const std::string& event);

  struct Call;
  struct Command;

 private:
  static const std::vector<Command>& commands();
  Step refuse(const Call& call, const std::string& why);
  std::shared_ptr<qnbrl::QNBRLChannel> channel(const std::string& id);

  Settings settings_;
  std::shared_ptr<Inbox> inbox_;
  Console& console_;
  std::shared_ptr<qnbrl::QNBRLDelegate> delegate_;
  std::shared_ptr<qnbrl::QNBRLChannelDelegate> channelDelegate_;
  std::shared_ptr<qnbrl::QNBRLInvitationDelegate> invitationDelegate_;
  std::shared_ptr<qnbrl::QNBRLKit> kit_;
  std::uint64_t calls_ = 0;
  std::string user_;  // the user of the last login command: the inviter of the invitations sent
  std::map<std::string, std::shared_ptr<qnbrl::QNBRLInvitation>> sent_;     // by invitee
  std::map<std::string, std::shared_ptr<qnbrl::QNBRLInvitation>> arrived_;  // by inviter
  std::map<std::string, std::uint64_t> seen_, used_;                        // events by name
};

}  // namespace qnbrl_cli
