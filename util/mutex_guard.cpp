#include "util/mutex_guard.h"

#include <syslog.h>

#include <cstdlib>

namespace zel::util {

// A failing lock or unlock means a corrupted or misused mutex; carrying on
// would silently break the data it guards.
MutexGuard::MutexGuard(pthread_mutex_t& mutex) : mMutex(mutex) {
  const int rc = pthread_mutex_lock(&mMutex);
  if (rc != 0) {
    syslog(LOG_ERR, "MutexGuard: pthread_mutex_lock failed [%d]\n", rc);
    std::abort();
  }
}

MutexGuard::~MutexGuard() {
  const int rc = pthread_mutex_unlock(&mMutex);
  if (rc != 0) {
    syslog(LOG_ERR, "MutexGuard: pthread_mutex_unlock failed [%d]\n", rc);
    std::abort();
  }
}

}  // namespace zel::util
