#include "base/fileIo.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

std::string zycUtf8(const char16_t* name) {
  std::string out;
  if (!name) return out;
  for (const char16_t* p = name; *p; ++p) {
    uint32_t c = *p;
    if (c >= 0xD800 && c < 0xDC00 && p[1] >= 0xDC00 && p[1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (uint32_t(p[1]) - 0xDC00);
      ++p;
    }
    if (c < 0x80) {
      out += char(c);
    } else if (c < 0x800) {
      out += char(0xC0 | c >> 6);
      out += char(0x80 | (c & 63));
    } else if (c < 0x10000) {
      out += char(0xE0 | c >> 12);
      out += char(0x80 | (c >> 6 & 63));
      out += char(0x80 | (c & 63));
    } else {
      out += char(0xF0 | c >> 18);
      out += char(0x80 | (c >> 12 & 63));
      out += char(0x80 | (c >> 6 & 63));
      out += char(0x80 | (c & 63));
    }
  }
  return out;
}

std::u16string zycUtf16(const std::string& name) {
  std::u16string out;
  size_t i = 0;
  while (i < name.size()) {
    uint32_t c = uint8_t(name[i]);
    int extra = c < 0x80 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
    if (extra) c &= 0x3F >> extra;
    ++i;
    for (int k = 0; k < extra && i < name.size(); ++k, ++i) c = c << 6 | (uint8_t(name[i]) & 63);
    if (c >= 0x10000) {
      c -= 0x10000;
      out += char16_t(0xD800 + (c >> 10));
      out += char16_t(0xDC00 + (c & 0x3FF));
    } else {
      out += char16_t(c);
    }
  }
  return out;
}

FILE* zycOpenFile(const char16_t* name, const char* mode) {
  std::string m;
  for (const char* p = mode; *p; ++p)
    if (*p != 'c') m += *p;
  std::string path = zycUtf8(name);
  return std::fopen(path.c_str(), m.c_str());
}

bool zycFileHolder::Check(bool ok) {
  if (!ok) NoteError(errno);
  return ok;
}

void zycFileHolder::MarkWhole(uint64_t size, const uint8_t* head, uint32_t headBytes,
                              uint64_t sectionAt, const uint8_t* section, uint32_t sectionBytes,
                              uint64_t tailAt, const std::vector<uint8_t>* tail) {
  whole.set = true;
  whole.size = size;
  whole.headBytes = headBytes < sizeof whole.head ? headBytes : sizeof whole.head;
  std::memcpy(whole.head, head, whole.headBytes);
  whole.sectionAt = sectionAt;
  whole.sectionBytes = sectionBytes < sizeof whole.section ? sectionBytes : sizeof whole.section;
  std::memcpy(whole.section, section, whole.sectionBytes);
  whole.tailAt = tailAt;
  if (tail) {
    whole.tail = *tail;
  } else {
    whole.tail.clear();
  }
}

namespace {

bool WriteAllAt(int fd, const uint8_t* bytes, size_t count, uint64_t at) {
  while (count > 0) {
    const ssize_t done = pwrite(fd, bytes, count, off_t(at));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    bytes += done;
    count -= size_t(done);
    at += uint64_t(done);
  }
  return true;
}

int Restore(int fd, const zycWholeState& w) {
  // Shortening first frees the room the header patches may need.
  bool ok = ftruncate(fd, off_t(w.set ? w.size : 0)) == 0;
  if (ok && w.set) {
    ok = WriteAllAt(fd, w.tail.data(), w.tail.size(), w.tailAt) &&
         WriteAllAt(fd, w.section, w.sectionBytes, w.sectionAt) &&
         WriteAllAt(fd, w.head, w.headBytes, 0);
  }
  int reason = ok ? 0 : (errno != 0 ? errno : EIO);
  if (close(fd) != 0 && reason == 0) reason = errno;
  return reason;
}

}  // namespace

int zycCloseAndRestore(FILE* file, const zycWholeState& state) {
  // The stream may still hold bytes it could not write; closing it may place some of them, and
  // the cut that follows removes them again.
  const int fd = dup(fileno(file));
  const int dupReason = errno;
  std::fclose(file);
  if (fd < 0) return dupReason;
  return Restore(fd, state);
}

int zycCutToWhole(zycFileHolder* holder, const char16_t* name) {
  if (holder->file) {
    FILE* file = holder->file;
    holder->file = nullptr;
    return zycCloseAndRestore(file, holder->whole);
  }
  const int fd = open(zycUtf8(name).c_str(), O_WRONLY);
  if (fd < 0) return errno;
  return Restore(fd, holder->whole);
}
