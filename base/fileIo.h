// Files named by UTF-16 strings, as the codec interface passes them, opened through the C
// library with UTF-8 names. No state.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

std::string zycUtf8(const char16_t* name);
std::u16string zycUtf16(const std::string& name);

// Opens a file by a UTF-16 name. The mode is that of fopen; a trailing 'c' (commit on flush)
// is accepted and has no further meaning here.
FILE* zycOpenFile(const char16_t* name, const char* mode);

// A moment at which a file being written was whole: its size, and the header and section
// header bytes that stood at their places then. Everything else before `size` was final.
struct zycWholeState {
  bool set = false;       // false until a first whole moment was recorded
  uint64_t size = 0;      // bytes of the file
  uint8_t head[64] = {};  // the bytes at offset 0
  uint32_t headBytes = 0;
  uint64_t sectionAt = 0;  // file position of `section`
  uint8_t section[24] = {};  // a section header, and what follows it that later frames rewrite
  uint32_t sectionBytes = 0;
  // Bytes that later frames rewrite in place (a section packed afresh after every frame): what
  // stood from `tailAt` on.
  uint64_t tailAt = 0;
  std::vector<uint8_t> tail;
};

// Closes `file` and brings the file back to `state`: cut to its size (to nothing when the
// state was never set), then its header and section bytes written back. Bytes the stream could
// not write are dropped with everything behind the size. Returns 0 or the errno of the step
// that failed.
int zycCloseAndRestore(FILE* file, const zycWholeState& state);

// Holds the main output of a job; closes it when dropped. Writers that see a write, seek or
// flush fail record the system's reason with NoteError; the job reads `error` after every frame
// and ends the job on the first failure.
//
// Writers also record, after every frame that reached the file whole (its bytes written, the
// headers patched, the file flushed), how to get back to that moment: the file's size, its
// header and the header of the section being written. The job uses it to cut a movie whose next
// frame did not fit back to its last whole frame.
struct zycFileHolder {
  FILE* file = nullptr;
  int error = 0;  // errno of the first failed operation on `file`, 0 while all went well
  void NoteError(int reason) {
    if (error == 0) error = reason != 0 ? reason : 5;  // EIO when the library gave no reason
  }
  // Notes errno when `ok` is false; returns `ok`.
  bool Check(bool ok);

  zycWholeState whole;
  void MarkWhole(uint64_t size, const uint8_t* head, uint32_t headBytes, uint64_t sectionAt,
                 const uint8_t* section, uint32_t sectionBytes, uint64_t tailAt = 0,
                 const std::vector<uint8_t>* tail = nullptr);

  zycFileHolder() = default;
  zycFileHolder(const zycFileHolder&) = delete;
  zycFileHolder& operator=(const zycFileHolder&) = delete;
  ~zycFileHolder() { Close(); }
  // Closes the file; a failed close (the last buffered bytes could not be written) is noted.
  void Close() {
    if (file && std::fclose(file) != 0) NoteError(errno);
    file = nullptr;
  }
};

// Closes the holder's file and brings the file `name` back to the holder's last whole state
// (see zycCloseAndRestore); the name is used when the file was already closed.
int zycCutToWhole(zycFileHolder* holder, const char16_t* name);
