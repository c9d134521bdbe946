// The secure store against a real Secret Service, under a private session bus with an unlocked keyring
// (scripts/test.sh provides one). Without one the tests skip, except the locked-keyring test, which
// starts a session of its own.
#include "support/keychain_store.hpp"
#include "support/temp_dir.hpp"
#include "support/uuid_helper.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>
#include <libsecret/secret.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>

using namespace qnbrl;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using testing_support::TempDir;

namespace {

// The same attributes as the store's items, matched by any client regardless of schema name.
const SecretSchema* const kAnyClient =
    secret_schema_new("org.example.Other", SECRET_SCHEMA_DONT_MATCH_NAME, "service",
                      SECRET_SCHEMA_ATTRIBUTE_STRING, "account", SECRET_SCHEMA_ATTRIBUTE_STRING, nullptr);

SecretCollection* defaultCollection(SecretService* service) {
  return secret_collection_for_alias_sync(service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr,
                                          nullptr);
}

// Why the default keyring cannot be used, or empty when it can.
std::string defaultCollectionProblemNow() {
  GError* error = nullptr;
  SecretService* service = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
  if (!service) {
    std::string why = error ? error->message : "unknown error";
    g_clear_error(&error);
    return "no Secret Service on the session bus (" + why + ")";
  }
  SecretCollection* collection = defaultCollection(service);
  std::string problem = !collection ? "the Secret Service has no default keyring"
                        : secret_collection_get_locked(collection) ? "the default keyring is locked"
                                                                   : "";
  if (collection) g_object_unref(collection);
  g_object_unref(service);
  return problem;
}

// True once a daemon owns the Secret Service name. Asking without activating matters: a call made
// while a freshly started keyring daemon is still registering would have the bus start a second,
// locked one that takes the name.
bool secretServiceNameOwned() {
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  if (!bus) return false;
  GVariant* reply = g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
      g_variant_new("(s)", "org.freedesktop.secrets"), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 2000,
      nullptr, nullptr);
  gboolean owned = FALSE;
  if (reply) {
    g_variant_get(reply, "(b)", &owned);
    g_variant_unref(reply);
  }
  g_object_unref(bus);
  return owned;
}

// Waits a few seconds for a keyring daemon started just before the tests to register and load its
// keyring; a missing bus is final at once.
std::string defaultCollectionProblem() {
  if (!g_getenv("DBUS_SESSION_BUS_ADDRESS")) return defaultCollectionProblemNow();
  testing_support::waitUntil(secretServiceNameOwned, std::chrono::seconds(5));
  std::string problem;
  testing_support::waitUntil([&] { return (problem = defaultCollectionProblemNow()).empty(); },
                             std::chrono::seconds(5));
  return problem;
}

bool lockDefaultCollection() {
  SecretService* service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, nullptr);
  if (!service) return false;
  SecretCollection* collection = defaultCollection(service);
  bool locked = false;
  if (collection) {
    GList objects{collection, nullptr, nullptr};
    locked = secret_service_lock_sync(service, &objects, nullptr, nullptr, nullptr) > 0;
    g_object_unref(collection);
  }
  g_object_unref(service);
  return locked;
}

std::string lookupAsAnotherClient(const std::string& service, const std::string& account) {
  gchar* value = secret_password_lookup_sync(kAnyClient, nullptr, nullptr, "service", service.c_str(),
                                             "account", account.c_str(), nullptr);
  std::string out = value ? value : "(none)";
  secret_password_free(value);
  return out;
}

class SecretServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto problem = defaultCollectionProblem(); !problem.empty())
      GTEST_SKIP() << problem
                   << "; run these tests under dbus-run-session with gnome-keyring-daemon --unlock";
    backend = secretServiceBackend();
    ASSERT_NE(backend, nullptr);
    // A service of its own per test, so parallel runs do not meet in the shared keyring.
    QNKeyChainStore::setDefaultService(service);
    QNKeyChainStore::setBackend(backend);
  }
  void TearDown() override {
    if (backend) {
      backend->remove(service, "k");
      backend->remove("", "k");
    }
    QNKeyChainStore::setBackend(nullptr);
  }

  std::string service = std::string("qnbrl-test-") +
                        ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" +
                        std::to_string(::getpid());
  std::shared_ptr<KeyChainBackend> backend;
};

}  // namespace

TEST_F(SecretServiceTest, StoresReplacesAndDeletesUnderServiceAndAccount) {
  EXPECT_TRUE(QNKeyChainStore::setString("first", "k"));
  EXPECT_TRUE(QNKeyChainStore::setString("second \xC3\xA9", "k"));
  EXPECT_EQ(QNKeyChainStore::stringForKey("k"), "second \xC3\xA9");
  // Other Secret Service clients see the item, with the value as text.
  EXPECT_EQ(lookupAsAnotherClient(service, "k"), "second \xC3\xA9");

  // The empty service name is a service of its own.
  QNKeyChainStore::setDefaultService("");
  ASSERT_TRUE(QNKeyChainStore::setString("nameless", "k"));
  QNKeyChainStore::setDefaultService(service);
  EXPECT_TRUE(QNKeyChainStore::deleteKey("k"));
  CaptureStdout();
  EXPECT_EQ(QNKeyChainStore::stringForKey("k"), std::nullopt);
  EXPECT_FALSE(QNKeyChainStore::deleteKey("k"));
  EXPECT_EQ(GetCapturedStdout(),
            "SecItemCopyMatching error, status: 3 00000003      \n"
            "SecItemDelete error, status: 3 00000003      \n");
  EXPECT_EQ(lookupAsAnotherClient("", "k"), "nameless");
}

// Locking the shared keyring would disturb other tests, so this one starts a private session bus
// and keyring and re-runs itself inside it.
TEST(SecretServiceLocked, LockedKeyringRefusesQuicklyAndEachDeviceIdentifierIsFresh) {
  if (std::getenv("QNBRL_LOCKED_KEYRING_CHILD")) {
    ASSERT_EQ(defaultCollectionProblem(), "");
    ASSERT_TRUE(lockDefaultCollection());
    QNKeyChainStore::setDefaultService("qnbrl-locked-test");
    QNKeyChainStore::setBackend(secretServiceBackend());
    auto start = std::chrono::steady_clock::now();
    CaptureStdout();
    EXPECT_FALSE(QNKeyChainStore::setString("v", "k"));
    auto a = QNUUIDHelper::uuidForDevice();
    auto b = QNUUIDHelper::uuidForDevice();
    auto printed = GetCapturedStdout();
    EXPECT_EQ(printed.rfind("SecItemAdd error, status: 2 00000002     \n", 0), 0u) << printed;
    EXPECT_EQ(a.size(), 32u);
    EXPECT_NE(a, b);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    return;
  }
  if (std::system("command -v dbus-run-session >/dev/null && command -v gnome-keyring-daemon >/dev/null") !=
      0)
    GTEST_SKIP() << "needs dbus-run-session and gnome-keyring-daemon";
  TempDir home;
  char self[4096];
  ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  ASSERT_GT(n, 0);
  self[n] = '\0';
  // The child's stdout and stderr (its failures, a sanitizer's report) come back in the failure message,
  // through a file: the private session's daemons could hold a pipe open after the child has gone.
  const auto log = home.path() / "child.log";
  // No XDG_RUNTIME_DIR or GNOME_KEYRING_CONTROL: the daemon must not find the user's own keyring.
  std::string command = "timeout 60 env -u XDG_RUNTIME_DIR -u GNOME_KEYRING_CONTROL HOME='" +
                        home.path().string() +
                        "' QNBRL_LOCKED_KEYRING_CHILD=1 dbus-run-session -- sh -c "
                        "'printf pw | gnome-keyring-daemon --unlock --components=secrets >/dev/null && "
                        "exec \"$0\" --gtest_filter=SecretServiceLocked.*' '" +
                        std::string(self) + "' >'" + log.string() + "' 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0) << std::ifstream(log).rdbuf();
}
