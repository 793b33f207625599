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

// Holds the main output of a job; closes it when dropped. Writers that see a write, seek or
// flush fail record the system's reason with NoteError; the job reads `error` after every frame
// and ends the job on the first failure.
struct zycFileHolder {
  FILE* file = nullptr;
  int error = 0;  // errno of the first failed operation on `file`, 0 while all went well
  void NoteError(int reason) {
    if (error == 0) error = reason != 0 ? reason : 5;  // EIO when the library gave no reason
  }
  zycFileHolder() = default;
  zycFileHolder(const zycFileHolder&) = delete;
  zycFileHolder& operator=(const zycFileHolder&) = delete;
  ~zycFileHolder() { Close(); }
  void Close() {
    if (file) std::fclose(file);
    file = nullptr;
  }
};
