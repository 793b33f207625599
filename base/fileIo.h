// Files named by UTF-16 strings, as the codec interface passes them, opened through the C
// library with UTF-8 names. No state.
#pragma once

#include <cstdio>
#include <string>

std::string zycUtf8(const char16_t* name);
std::u16string zycUtf16(const std::string& name);

// Opens a file by a UTF-16 name. The mode is that of fopen; a trailing 'c' (commit on flush)
// is accepted and has no further meaning here.
FILE* zycOpenFile(const char16_t* name, const char* mode);

// Holds the main output of a job; closes it when dropped.
struct zycFileHolder {
  FILE* file = nullptr;
  zycFileHolder() = default;
  zycFileHolder(const zycFileHolder&) = delete;
  zycFileHolder& operator=(const zycFileHolder&) = delete;
  ~zycFileHolder() { Close(); }
  void Close() {
    if (file) std::fclose(file);
    file = nullptr;
  }
};
