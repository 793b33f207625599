#include "host/tool/outputFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "host/tool/toolCommon.h"

bool TakeOverwritePolicy(Arguments* args, OverwritePolicy* policy) {
  const bool yes = args->Flag("-y") | args->Flag("--overwrite");
  const bool no = args->Flag("-n");
  if (yes && no) {
    Fail(kExitUsage, "-y (--overwrite) and -n contradict each other");
    return false;
  }
  *policy = yes ? OverwritePolicy::always : no ? OverwritePolicy::never : OverwritePolicy::ask;
  return true;
}

bool MayWrite(const std::string& path, OverwritePolicy policy) {
  struct stat st = {};
  if (path == "-" || lstat(path.c_str(), &st) != 0) return true;
  if (policy == OverwritePolicy::always) return true;
  if (policy == OverwritePolicy::ask && isatty(STDIN_FILENO) && isatty(STDERR_FILENO)) {
    std::fprintf(stderr, "zyl: %s exists; overwrite it? [y/N] ", path.c_str());
    std::fflush(stderr);
    char answer[16] = {};
    if (std::fgets(answer, sizeof answer, stdin) && (answer[0] == 'y' || answer[0] == 'Y')) {
      return true;
    }
  }
  Fail(kExitOutput, "%s exists; -y (--overwrite) replaces it", path.c_str());
  return false;
}

bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa = {}, sb = {};
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

StagedFile::~StagedFile() {
  if (!kept_) Discard();
}

bool StagedFile::Create(const std::string& finalPath, bool open) {
  finalPath_ = finalPath;
  std::vector<char> name(finalPath.begin(), finalPath.end());
  static const char kSuffix[] = ".partXXXXXX";
  name.insert(name.end(), kSuffix, kSuffix + sizeof kSuffix);
  const int fd = mkstemp(name.data());
  if (fd < 0) {
    error_ = finalPath + ": can't create (" + std::strerror(errno) + ")";
    return false;
  }
  path_ = name.data();
  // mkstemp makes the file private; a new output gets what the user's mask allows.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  if (!open) {
    close(fd);
    return true;
  }
  file_ = fdopen(fd, "wb");
  if (!file_) {
    error_ = finalPath + ": can't create (" + std::strerror(errno) + ")";
    close(fd);
    return false;
  }
  return true;
}

bool StagedFile::Close() {
  if (!file_) return true;
  const bool flushed = std::fflush(file_) == 0;
  const int reason = errno;
  const bool closed = std::fclose(file_) == 0;
  file_ = nullptr;
  if (flushed && closed) return true;
  error_ = finalPath_ + ": write failed (" + std::strerror(flushed ? errno : reason) + ")";
  return false;
}

bool StagedFile::Commit() {
  if (!Close()) return false;
  if (std::rename(path_.c_str(), finalPath_.c_str()) != 0) {
    error_ = "can't rename " + path_ + " to " + finalPath_ + " (" + std::strerror(errno) + ")";
    return false;
  }
  path_.clear();
  return true;
}

void StagedFile::Discard() {
  if (file_) std::fclose(file_);
  file_ = nullptr;
  if (!path_.empty()) std::remove(path_.c_str());
  path_.clear();
}
