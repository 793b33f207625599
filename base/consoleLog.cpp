#include "base/consoleLog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

void zycLogV(const char* format, va_list args) { std::vfprintf(stdout, format, args); }

void zycLog(const char* format, ...) {
  va_list args;
  va_start(args, format);
  zycLogV(format, args);
  va_end(args);
}

void zycError(int line, const char* function, const char* file, const char* format, ...) {
  std::printf("\x1b[0;40;31mERROR line %d in %s() %s:\x1b[0;m ", line, function, file);
  va_list args;
  va_start(args, format);
  zycLogV(format, args);
  va_end(args);
}

void zycAssertFail(int line, const char* function, const char* file, const char* format, ...) {
  std::printf("\x1b[0;40;31mASSERT\x1b[0;m line %d in %s() %s: ", line, function, file);
  va_list args;
  va_start(args, format);
  zycLogV(format, args);
  va_end(args);
  std::fflush(stdout);
  __builtin_trap();
}

const char* zycBaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}
