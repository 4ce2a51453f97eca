#include "util/tls_wrapper.h"

namespace zel::util {

ssize_t TlsWrapper::Send(int /*fd*/, const void* /*buf*/, size_t /*len*/) { return -1; }

ssize_t TlsWrapper::Recv(int /*fd*/, void* /*buf*/, size_t /*len*/) { return -1; }

int TlsWrapper::Accept(int /*fd*/) { return 6; }

int TlsWrapper::Forget(int /*fd*/) { return 0; }

}  // namespace zel::util
