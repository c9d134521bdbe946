// Logs a user in and exits with 0 once the service has accepted the login.
#include <qnbrl/qnbrl.hpp>

#include <cstdio>
#include <ctime>
#include <future>

int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: %s API_SERVER_URL USER_ID\n", argv[0]), 2;
  qnbrl::QNBRLOptions options;
  options.envConfig.apiServer = options.envConfig.logServer = argv[1];
  auto delegate = std::make_shared<qnbrl::QNBRLDelegate>();  // held weakly: keep it alive
  delegate->connectionStateChanged = [](qnbrl::QNBRLKit&, qnbrl::QNBRLConnectionState state, auto reason) {
    std::printf("connection state %d, reason %d\n", static_cast<int>(state), static_cast<int>(reason));
  };
  auto kit = qnbrl::QNBRLKit::create("my-app-id", delegate, options);
  if (!kit) return 2;       // the URL was refused
  std::promise<int> login;  // the completion runs exactly once, on the library's thread
  kit->loginByToken("a-token-from-your-app-server", std::time(nullptr) * 1000LL, argv[2],
                    [&login](int code) { login.set_value(code); });
  int code = login.get_future().get();
  std::printf("login: %d\n", code);
  return code == qnbrl::QNBRLLoginErrorOk ? 0 : 1;
}
