#include "tools/ctl/service_identity.h"

#include <sys/stat.h>

namespace zel::ctl {

ServiceIdentity ServiceIdentity::Of(const std::string& path) {
  ServiceIdentity identity;
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return identity;
  identity.present = true;
  identity.device = info.st_dev;
  identity.inode = info.st_ino;
  // A file system may give a new file the inode number of one just removed;
  // the change time tells them apart.
  identity.changed = info.st_ctim;
  return identity;
}

bool ServiceIdentity::SameAs(const ServiceIdentity& other) const {
  if (present != other.present) return false;
  if (!present) return true;
  return device == other.device && inode == other.inode && changed.tv_sec == other.changed.tv_sec &&
         changed.tv_nsec == other.changed.tv_nsec;
}

}  // namespace zel::ctl
