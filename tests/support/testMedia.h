// Paths of the shared real clips and photographs used by tests and benchmarks.
#pragma once

#include <string>

inline std::string zylMediaPath(const std::string& name) {
  return std::string(ZYL_MEDIA_DIR) + "/" + name;
}
