// How the zyl tool treats the files it writes: an existing output is replaced only when the
// user asked for it, an output that is one of the inputs is refused, and every output is
// written beside its final name and renamed into place once it is complete, so that a failed
// or refused command never leaves an old file damaged or gone.
#pragma once

#include <cstdio>
#include <string>

class Arguments;

// What to do with an output that exists: ask on a terminal (refuse elsewhere), refuse, replace.
enum class OverwritePolicy { ask, never, always };

// Takes -y/--overwrite and -n from the arguments. False (after reporting) when both are given.
bool TakeOverwritePolicy(Arguments* args, OverwritePolicy* policy);

// True when `path` may be written: nothing stands there, or the policy (or the user's answer)
// allows replacing it. Otherwise reports why and returns false.
bool MayWrite(const std::string& path, OverwritePolicy policy);

// True when both names reach the same existing file (same device and inode: through links
// too).
bool SameFile(const std::string& a, const std::string& b);

// A file written as "<final name>.partXXXXXX" in the final name's folder. Commit renames it
// over the final name; a staged file that was not committed is removed when dropped.
class StagedFile {
 public:
  StagedFile() = default;
  ~StagedFile();
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  // Creates the staged file, with the permissions a new file of the final name would get.
  // With `open` a stream for writing is kept in file(). False with error().
  bool Create(const std::string& finalPath, bool open);
  FILE* file() const { return file_; }
  const std::string& path() const { return path_; }
  const std::string& finalPath() const { return finalPath_; }
  // Flushes and closes the stream, if one is open. False with error() naming the final file
  // and the system's reason.
  bool Close();
  // Renames the staged file over the final name. False with error(); the staged file stays.
  bool Commit();
  // Closes and removes the staged file.
  void Discard();
  // Keeps the staged file where it is, whatever happens next.
  void Keep() { kept_ = true; }
  const std::string& error() const { return error_; }

 private:
  std::string finalPath_;
  std::string path_;
  FILE* file_ = nullptr;
  bool kept_ = false;
  std::string error_;
};
