// The connection settings: the options by long name, the checks of the
// settings as a whole, and the password file (refused when it is not a
// regular file, empty, unreadable or its first line too long; a warning when
// others may read it, and for a password sent in the clear to another
// machine).
#include "tools/mqtt/connection.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"

namespace zel::mqtt::test {
namespace {

using ::zel::test::TempDir;

// Run as root, takes the effective user id of "nobody" for its lifetime, with
// the directory opened to it, so that file permissions apply as they do to an
// ordinary user.
class UnprivilegedWhileRoot {
 public:
  explicit UnprivilegedWhileRoot(const std::string& dir) : mDir(dir), mRoot(::geteuid() == 0) {
    if (!mRoot) return;
    EXPECT_EQ(::chmod(mDir.c_str(), 0755), 0);
    EXPECT_EQ(::seteuid(kNobody), 0);
  }
  ~UnprivilegedWhileRoot() {
    if (!mRoot) return;
    EXPECT_EQ(::seteuid(0), 0);
    ::chmod(mDir.c_str(), 0700);
  }
  UnprivilegedWhileRoot(const UnprivilegedWhileRoot&) = delete;
  UnprivilegedWhileRoot& operator=(const UnprivilegedWhileRoot&) = delete;

 private:
  static constexpr uid_t kNobody = 65534;
  std::string mDir;
  bool mRoot;
};

class ConnectionTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& text, mode_t mode = 0600) {
    std::string path = dir.File(name);
    std::ofstream(path) << text;
    ::chmod(path.c_str(), mode);
    return path;
  }

  // Check's failure or "ok", and the warnings.
  std::string Checked() {
    std::string what;
    std::string why;
    warnings.clear();
    return settings.Check(what, why, warnings) ? "ok" : what + ": " + why;
  }

  void Set(const std::string& name, const std::string& value) {
    std::string why;
    ASSERT_TRUE(settings.Set(name, value, why)) << name << ": " << why;
  }

  TempDir dir;
  ConnectionSettings settings;
  std::vector<std::string> warnings;
};

TEST_F(ConnectionTest, BrokerUrlIsParsed) {
  Set("broker", "mqtts://broker.example:8884");
  EXPECT_TRUE(settings.broker.tls);
  EXPECT_EQ(settings.broker.host, "broker.example");
  EXPECT_EQ(settings.broker.port, 8884);
  std::string why;
  EXPECT_FALSE(settings.Set("broker", "http://x", why));
  EXPECT_EQ(why, "not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]: \"http://x\"");
}

TEST_F(ConnectionTest, FilesNamedMustBeThereAndOfTheirKind) {
  std::string why;
  EXPECT_FALSE(settings.Set("cafile", dir.File("missing.pem"), why));
  EXPECT_EQ(why, dir.File("missing.pem") + ": No such file or directory");
  EXPECT_FALSE(settings.Set("cert", dir.path(), why));
  EXPECT_EQ(why, dir.path() + ": a directory");
  EXPECT_FALSE(settings.Set("capath", Write("ca.pem", "x"), why));
  EXPECT_EQ(why, dir.File("ca.pem") + ": not a directory");
  EXPECT_TRUE(settings.Set("key", dir.File("ca.pem"), why));
}

TEST_F(ConnectionTest, OnlyTheConnectionsNamesAreTaken) {
  for (const char* name : {"broker", "cafile", "capath", "cert", "key", "username", "password-file"}) {
    EXPECT_TRUE(ConnectionSettings::Takes(name)) << name;
  }
  EXPECT_FALSE(ConnectionSettings::Takes("prefix"));
  std::string why;
  EXPECT_FALSE(settings.Set("prefix", "x", why));
  EXPECT_EQ(why, "not an option of the broker connection");
  EXPECT_FALSE(settings.Set("username", "", why));
  EXPECT_EQ(why, "may not be empty");
}

TEST_F(ConnectionTest, TlsOptionsNeedAnMqttsBroker) {
  Set("cafile", Write("ca.pem", "x"));
  EXPECT_EQ(Checked(), "--broker: TLS options need an mqtts:// broker");
  Set("broker", "mqtts://b");
  EXPECT_EQ(Checked(), "ok");
}

TEST_F(ConnectionTest, CertificateAndKeyGoTogether) {
  Set("broker", "mqtts://b");
  Set("cert", Write("c.pem", "x"));
  EXPECT_EQ(Checked(), "--cert: needs --cert and --key together");
  settings.certFile.clear();
  Set("key", Write("c.key", "x"));
  EXPECT_EQ(Checked(), "--key: needs --cert and --key together");
}

TEST_F(ConnectionTest, PasswordFileNeedsAUserName) {
  Set("password-file", Write("pw", "secret\n"));
  EXPECT_EQ(Checked(), "--password-file: needs --username");
}

TEST_F(ConnectionTest, PasswordIsTheFirstLineOfItsFileWithoutItsLineEnd) {
  Set("username", "box1");
  Set("password-file", Write("pw", "s3cret word\r\nnot this\n"));
  EXPECT_EQ(Checked(), "ok");
  EXPECT_EQ(settings.password, std::optional<std::string>("s3cret word"));
  EXPECT_TRUE(warnings.empty());
}

TEST_F(ConnectionTest, PasswordFileThatIsEmptyIsRefused) {
  Set("username", "box1");
  Set("password-file", Write("pw", ""));
  EXPECT_EQ(Checked(), "--password-file: " + dir.File("pw") + ": empty");
  Set("password-file", Write("pw2", "\nsecond line\n"));
  EXPECT_EQ(Checked(), "--password-file: " + dir.File("pw2") + ": its first line is empty");
}

TEST_F(ConnectionTest, PasswordFileThatIsADirectoryOrADeviceIsRefused) {
  Set("username", "box1");
  Set("password-file", dir.path());
  EXPECT_EQ(Checked(), "--password-file: " + dir.path() + ": not a regular file");
  Set("password-file", "/dev/zero");
  EXPECT_EQ(Checked(), "--password-file: /dev/zero: not a regular file");
}

TEST_F(ConnectionTest, PasswordFileThatIsMissingOrUnreadableIsRefused) {
  Set("username", "box1");
  Set("password-file", dir.File("missing"));
  EXPECT_EQ(Checked(), "--password-file: " + dir.File("missing") + ": No such file or directory");
  Set("password-file", Write("locked", "pw\n", 0));
  // Root reads every file, so the check runs as an ordinary user then.
  std::string checked;
  {
    const UnprivilegedWhileRoot user(dir.path());
    checked = Checked();
  }
  EXPECT_EQ(checked, "--password-file: " + dir.File("locked") + ": Permission denied");
}

TEST_F(ConnectionTest, PasswordFileWhoseFirstLineIsLongerThan64KbIsRefused) {
  Set("username", "box1");
  Set("password-file", Write("pw", std::string(65535, 'p') + "\n"));
  EXPECT_EQ(Checked(), "ok");
  Set("password-file", Write("long", std::string(65536, 'p') + "\n"));
  EXPECT_EQ(Checked(), "--password-file: " + dir.File("long") + ": its first line is longer than 64 KB");
  Set("password-file", Write("huge", std::string(10 << 20, 'p')));
  EXPECT_EQ(Checked(), "--password-file: " + dir.File("huge") + ": its first line is longer than 64 KB");
}

TEST_F(ConnectionTest, PasswordFileThatOthersMayReadIsTakenWithAWarningNamingIt) {
  Set("username", "box1");
  Set("password-file", Write("pw", "secret\n", 0644));
  EXPECT_EQ(Checked(), "ok");
  EXPECT_EQ(warnings, std::vector<std::string>{"permissions 0644 for the password file " + dir.File("pw") +
                                               " are too open: it should be readable by its owner alone (chmod 600 " +
                                               dir.File("pw") + ")"});
  Set("password-file", Write("pw2", "secret\n", 0640));
  EXPECT_EQ(Checked(), "ok");
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_EQ(warnings[0].rfind("permissions 0640 for the password file ", 0), 0u);
}

TEST_F(ConnectionTest, PasswordInTheClearToAnotherMachineIsTakenWithAWarning) {
  Set("username", "box1");
  Set("password-file", Write("pw", "secret\n"));
  Set("broker", "mqtt://10.0.0.5");
  EXPECT_EQ(Checked(), "ok");
  EXPECT_EQ(warnings, std::vector<std::string>{"the password of box1 goes unencrypted to the broker at "
                                               "mqtt://10.0.0.5:1883; use mqtts:// for a broker on another machine"});
  for (const char* url : {"mqtt://localhost", "mqtt://127.0.0.1:1884", "mqtts://10.0.0.5"}) {
    Set("broker", url);
    EXPECT_EQ(Checked(), "ok");
    EXPECT_TRUE(warnings.empty()) << url;
  }
}

TEST_F(ConnectionTest, SystemErrorTextIsTheCLibrarys) {
  EXPECT_EQ(SystemErrorText(ECONNREFUSED), "Connection refused");
}

}  // namespace
}  // namespace zel::mqtt::test
