#include "tools/mqtt/connection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zel::mqtt {
namespace {

const char kBroker[] = "broker";
const char kCaFile[] = "cafile";
const char kCaPath[] = "capath";
const char kCert[] = "cert";
const char kKey[] = "key";
const char kUsername[] = "username";
const char kPasswordFile[] = "password-file";
// Permission bits of group and others.
constexpr mode_t kOthersBits = S_IRWXG | S_IRWXO;
// How much of the file is read at a time.
constexpr size_t kReadSize = 4096;

// "<path>: <why>"
std::string About(const std::string& path, const std::string& why) { return path + ": " + why; }

bool Readable(const std::string& path, bool directory, std::string& why) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || ::access(path.c_str(), R_OK) != 0) {
    why = About(path, SystemErrorText(errno));
    return false;
  }
  if (directory != S_ISDIR(info.st_mode)) {
    why = About(path, directory ? "not a directory" : "a directory");
    return false;
  }
  return true;
}

// The permission bits in octal, as chmod takes them: "0644".
std::string Octal(mode_t mode) {
  std::string text = "0000";
  for (size_t i = 0; i < 3; ++i) text[3 - i] = static_cast<char>('0' + ((mode >> (3 * i)) & 7U));
  return text;
}

// Reads `fd` until its first line is whole or known to be too long; false
// with the errno text when a read fails.
bool ReadFirstLine(int fd, std::string& line, std::string& why) {
  line.clear();
  char buffer[kReadSize];
  while (line.size() <= ConnectionSettings::kMaxPasswordLine) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      why = SystemErrorText(errno);
      return false;
    }
    if (got == 0) break;
    const char* end = static_cast<const char*>(std::memchr(buffer, '\n', static_cast<size_t>(got)));
    line.append(buffer, end != nullptr ? static_cast<size_t>(end - buffer) : static_cast<size_t>(got));
    if (end != nullptr) break;
  }
  return true;
}

}  // namespace

std::string SystemErrorText(int error) {
  char buffer[128];
  // GNU's strerror_r returns the text, in `buffer` or a static string.
  return ::strerror_r(error, buffer, sizeof buffer);
}

bool ConnectionSettings::Takes(const std::string& longName) {
  for (const char* name : {kBroker, kCaFile, kCaPath, kCert, kKey, kUsername, kPasswordFile}) {
    if (longName == name) return true;
  }
  return false;
}

bool ConnectionSettings::Set(const std::string& longName, const std::string& value, std::string& why) {
  if (longName == kBroker) {
    if (BrokerAddress::Parse(value, broker)) return true;
    why = "not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]: \"" + value + "\"";
    return false;
  }
  if (longName == kCaFile || longName == kCert || longName == kKey) {
    std::string& file = longName == kCaFile ? caFile : longName == kCert ? certFile : keyFile;
    file = value;
    return Readable(value, false, why);
  }
  if (longName == kCaPath) {
    caPath = value;
    return Readable(value, true, why);
  }
  if (longName == kUsername) {
    username = value;
    if (!value.empty()) return true;
    why = "may not be empty";
    return false;
  }
  if (longName == kPasswordFile) {
    passwordFile = value;
    if (!value.empty()) return true;
    why = "may not be empty";
    return false;
  }
  why = "not an option of the broker connection";
  return false;
}

bool ConnectionSettings::Check(std::string& what, std::string& why, std::vector<std::string>& warnings) {
  const bool tlsOptions = !caFile.empty() || !caPath.empty() || !certFile.empty() || !keyFile.empty();
  if (tlsOptions && !broker.tls) {
    what = "--broker";
    why = "TLS options need an mqtts:// broker";
    return false;
  }
  if (certFile.empty() != keyFile.empty()) {
    what = certFile.empty() ? "--key" : "--cert";
    why = "needs --cert and --key together";
    return false;
  }
  if (passwordFile.empty()) return true;
  what = "--password-file";
  if (username.empty()) {
    why = "needs --username";
    return false;
  }
  std::string read;
  std::string warning;
  if (!ReadPasswordFile(passwordFile, read, why, warning)) return false;
  password = read;
  if (!warning.empty()) warnings.push_back(warning);
  if (!broker.tls && !broker.Loopback()) {
    warnings.push_back("the password of " + username + " goes unencrypted to the broker at " + broker.Url() +
                       "; use mqtts:// for a broker on another machine");
  }
  return true;
}

bool ReadPasswordFile(const std::string& path, std::string& password, std::string& why, std::string& warning) {
  warning.clear();
  // Not blocking, so that a named pipe is refused rather than waited on.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    why = About(path, SystemErrorText(errno));
    return false;
  }
  struct stat info {};
  bool ok = false;
  if (::fstat(fd, &info) != 0) {
    why = About(path, SystemErrorText(errno));
  } else if (!S_ISREG(info.st_mode)) {
    why = About(path, "not a regular file");
  } else if (info.st_size == 0) {
    why = About(path, "empty");
  } else if (ReadFirstLine(fd, password, why)) {
    if (!password.empty() && password.back() == '\r') password.pop_back();
    if (password.size() > ConnectionSettings::kMaxPasswordLine) {
      why = About(path, "its first line is longer than 64 KB");
    } else if (password.empty()) {
      why = About(path, "its first line is empty");
    } else {
      ok = true;
    }
  } else {
    why = About(path, why);
  }
  ::close(fd);
  if (ok && (info.st_mode & kOthersBits) != 0) {
    warning = "permissions " + Octal(info.st_mode & 0777U) + " for the password file " + path +
              " are too open: it should be readable by its owner alone (chmod 600 " + path + ")";
  }
  if (!ok) password.clear();
  return ok;
}

}  // namespace zel::mqtt
