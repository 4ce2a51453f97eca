// The fleet page's files (tools/fleet/web/), built into the program by CMake
// (cmake/KdxWebFiles.cmake writes the source that defines them), so that the
// package installs one program and nothing is read from disk. Constant
// data; any thread.
#pragma once

#include <cstddef>

namespace zel::fleet {

struct WebFile {
  const char* path;  // as it is asked for: "/", "/app.js"
  const char* type;  // its Content-Type
  const char* data;
  size_t size;
};

extern const WebFile kWebFiles[];
extern const size_t kWebFileCount;

}  // namespace zel::fleet
