#include "codec/fileSurgery.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/consoleLog.h"
#include "base/fileIo.h"
#include "stream/container.h"
#include "stream/zylFormat.h"

namespace {

constexpr size_t kCopyBufferBytes = 65536;
constexpr size_t kNameBufferChars = 260;

// The output of a piece of surgery: every write, seek, flush and close is checked, and the
// errno of the first one that failed is kept.
struct CheckedOutput {
  FILE* file = nullptr;
  int error = 0;
  bool Check(bool ok) {
    if (!ok && error == 0) error = errno != 0 ? errno : EIO;
    return ok;
  }
  void Write(const void* bytes, size_t count) {
    if (error == 0) Check(std::fwrite(bytes, 1, count, file) == count);
  }
  void Seek(long position, int whence) {
    if (error == 0) Check(std::fseek(file, position, whence) == 0);
  }
};

// Reads the file header at the file's position. A ZYL1 header is taken in one piece. A ZYL0
// header is taken field by field: in a file cut short, a field that was not read whole keeps
// its zero (the 8-byte tail is one field).
void ReadHeader(FILE* file, bool zyl1, zycStreamHeader* h) {
  uint8_t b[kHeaderSizeZyl0] = {};
  const size_t got = std::fread(b, 1, zyl1 ? kHeaderSizeZyl1 : kHeaderSizeZyl0, file);
  if (zyl1) {
    zycLoadHeaderZyl1(b, h);
    return;
  }
  const size_t whole = got >= kHeaderSizeZyl0 ? kHeaderSizeZyl0 : got >= 56 ? 56 : got & ~size_t(3);
  std::memset(b + whole, 0, kHeaderSizeZyl0 - whole);
  zycLoadHeaderZyl0(b, h);
}

// The checks shared by Append and the ZYL0 ReplaceSection, in their order; ReplaceSection
// also compares soundChunkLimit, before reserved52.
bool CompatibleZyl0(const zycStreamHeader& a, const zycStreamHeader& b, bool chunkLimit) {
  if (a.tail[0] != b.tail[0]) return false;
  if (a.version < b.version) return false;
  if (a.flags != b.flags) return false;
  if (a.frameDuration != b.frameDuration) return false;
  if (a.timeScale != b.timeScale) return false;
  if (a.reserved36 != b.reserved36) return false;
  if (a.soundChannels != b.soundChannels) return false;
  if (a.soundRate != b.soundRate) return false;
  if (chunkLimit && a.soundChunkLimit != b.soundChunkLimit) return false;
  if (a.reserved52 != b.reserved52) return false;
  return true;
}

bool CompatibleZyl1(const zycStreamHeader& a, const zycStreamHeader& b) {
  if (a.version < b.version) return false;
  if (a.headerSize < b.headerSize) return false;
  if (a.frameDuration != b.frameDuration) return false;
  if (a.timeScale != b.timeScale) return false;
  if (a.reserved36 != b.reserved36) return false;
  if (a.soundChannels != b.soundChannels) return false;
  if (a.soundRate != b.soundRate) return false;
  if (a.soundChunkLimit != b.soundChunkLimit) return false;
  return true;
}

// Copies `count` bytes from `in` to `out` in pieces of the buffer's size. Read errors are not
// looked for: a short read passes on what the buffer holds. Stops at the first failed write.
void CopyBytes(FILE* in, CheckedOutput* out, uint64_t count, uint8_t* buffer) {
  while (count > 0 && out->error == 0) {
    const size_t piece = count < kCopyBufferBytes ? size_t(count) : kCopyBufferBytes;
    (void)std::fread(buffer, 1, piece, in);
    out->Write(buffer, piece);
    count -= piece;
  }
}

// One format's section layout for ReplaceSection's walks.
struct SectionFormat {
  bool zyl1;
  uint32_t headerBytes;  // of the file header
  uint32_t sectionHeaderBytes;
};

// The last section header read. A read past the end of the file leaves the values of the
// previous one, as the counts in the headers steer the walk. The walk counts a section's frames
// by their low 16 bits: the high byte of a ZYL1 count, like its keyType, is copied unread.
struct SectionReader {
  SectionFormat format;
  uint8_t raw[kSectionHeaderSizeZyl1] = {};  // what Write puts in the new file
  uint16_t frames = 0;
  uint32_t size = 0;
  bool stalled = false;  // a read at the end of the file that gave a section of no frames

  void Read(FILE* file) {
    const uint32_t need = format.sectionHeaderBytes;
    uint8_t fresh[kSectionHeaderSizeZyl1];
    const size_t got = std::fread(fresh, 1, need, file);
    if (format.zyl1) {
      std::memcpy(raw, fresh, got);
      if (got == need) Take(zycLoadSectionZyl1(raw));
    } else {
      // Field by field: `raw` holds the last values, and the u16 count and the u32 size each
      // replace theirs only when read whole.
      std::memcpy(raw, fresh, got == need ? need : got >= 2 ? 2 : 0);
      Take(zycLoadSectionZyl0(raw));
    }
    stalled = got < need && frames == 0;
  }
  void Take(const zycSectionHeader& h) {
    frames = uint16_t(h.frames);
    size = h.size;
  }
  void Write(CheckedOutput* out) { out->Write(raw, format.sectionHeaderBytes); }
};

// Copies whole sections from `in` to `out` until `done` reaches `target`. Adds each section's
// bytes to `fileSize`. False if the walk can no longer advance (the end of the file was reached
// with a section of no frames). A failed write ends the copy; `out` keeps the reason.
bool CopySections(FILE* in, CheckedOutput* out, SectionReader* reader, uint32_t* done,
                  uint32_t target, uint32_t* fileSize, uint8_t* buffer) {
  while (*done < target && out->error == 0) {
    reader->Read(in);
    if (reader->stalled) return false;
    reader->Write(out);
    CopyBytes(in, out, reader->size, buffer);
    *fileSize += reader->size + reader->format.sectionHeaderBytes;
    *done += reader->frames;
  }
  return true;
}

bool SkipSections(FILE* in, SectionReader* reader, uint32_t* done, uint32_t target) {
  while (*done < target) {
    reader->Read(in);
    if (reader->stalled) return false;
    std::fseek(in, long(reader->size), SEEK_CUR);
    *done += reader->frames;
  }
  return true;
}

// "<name without its last four characters>tmp.zyl", in a buffer of 260 characters. Empty when
// the name is shorter than four characters or the result does not fit.
std::u16string TemporaryName(const char16_t* file1) {
  std::u16string name(file1);
  static const char16_t kSuffix[] = u"tmp.zyl";
  if (name.size() < 4) return std::u16string();
  name.resize(name.size() - 4);
  name += kSuffix;
  if (name.size() + 1 > kNameBufferChars) return std::u16string();
  return name;
}

void CloseAll(FILE* a, FILE* b, FILE* c) {
  if (a) std::fclose(a);
  if (b) std::fclose(b);
  if (c) std::fclose(c);
}

int32_t ReplaceSectionIn(const SectionFormat& format, const char16_t* file1, const char16_t* file2,
                         uint32_t frameStart, uint32_t frameCount, int* reason) {
  const uint32_t magicWanted = format.zyl1 ? kMagicZyl1 : kMagicZyl0;
  zycLog(format.zyl1 ? "ReplaceSection ZYL1. frameStart:%d; frameCount:%d\n"
                     : "ReplaceSection. frameStart:%d; frameCount:%d\n",
         int32_t(frameStart), int32_t(frameCount));
  zycLog("file1:%s\n", zycUtf8(file1).c_str());
  zycLog("file2:%s\n", zycUtf8(file2).c_str());

  if (frameCount == 0) {
    zycLog("FrameCount equals zero\n");
    return 4;
  }

  FILE* f1 = zycOpenFile(file1, "r+bc");
  if (!f1) {
    *reason = errno;
    return 2;
  }
  zycStreamHeader h1;
  ReadHeader(f1, format.zyl1, &h1);
  if (h1.magic != magicWanted) {
    std::fclose(f1);
    zycLog("bad magic %d", int32_t(h1.magic));
    return 7;
  }

  const uint32_t rangeEnd = frameStart + frameCount;  // 32 bits, as the format counts
  if (rangeEnd > h1.frameCount) {
    zycLog("frameStart (%d) + frameCount (%d) > h1.frameCount (%d)\n", int32_t(frameStart),
           int32_t(frameCount), int32_t(h1.frameCount));
    std::fclose(f1);
    return 4;
  }

  FILE* f2 = zycOpenFile(file2, "rb");
  if (!f2) {
    *reason = errno;
    std::fclose(f1);
    return 2;
  }
  zycStreamHeader h2;
  ReadHeader(f2, format.zyl1, &h2);
  if (h2.magic != magicWanted) {
    CloseAll(f1, f2, nullptr);
    return 2;
  }

  if (frameCount != h2.frameCount) {
    zycLog("frameCount (%d) != h2.frameCount (%d)\n", int32_t(frameCount),
           int32_t(h2.frameCount));
    CloseAll(f1, f2, nullptr);
    return 4;
  }
  if (format.zyl1 ? !CompatibleZyl1(h1, h2) : !CompatibleZyl0(h1, h2, true)) {
    CloseAll(f1, f2, nullptr);
    return 5;
  }

  // The temporary file is made only where no file of its name stands: an unrelated file of
  // that name is never overwritten or removed.
  const std::u16string tmpName = TemporaryName(file1);
  const std::string tmpPath = zycUtf8(tmpName.c_str());
  CheckedOutput tmp;
  tmp.file = tmpName.empty() ? nullptr : zycOpenFile(tmpName.c_str(), "wbxc");
  if (!tmp.file) {
    *reason = tmpName.empty() ? ENAMETOOLONG : errno;
    if (!tmpName.empty())
      zycLog("Could not create %s: %s\n", tmpPath.c_str(), std::strerror(*reason));
    CloseAll(f1, f2, nullptr);
    return 2;
  }
  uint8_t* buffer = static_cast<uint8_t*>(std::calloc(kCopyBufferBytes, 1));
  if (!buffer) {
    CloseAll(f1, f2, tmp.file);
    std::remove(tmpPath.c_str());
    *reason = ENOMEM;
    return 2;
  }

  // The working header: file1's, with fileSize counting what the new file holds.
  zycStreamHeader work = h1;
  work.fileSize = format.headerBytes;
  auto writeWorkingHeader = [&]() {
    uint8_t b[kHeaderSizeZyl0];
    if (format.zyl1)
      zycStoreHeaderZyl1(work, b);
    else
      zycStoreHeaderZyl0(work, b);
    tmp.Seek(0, SEEK_SET);
    tmp.Write(b, format.headerBytes);
  };
  auto fail = [&](int32_t code) {
    CloseAll(f1, f2, tmp.file);
    std::remove(tmpPath.c_str());
    std::free(buffer);
    return code;
  };
  // A write that failed: nothing was changed but the temporary file, which goes.
  auto failedWrite = [&]() {
    *reason = tmp.error;
    zycLog("Could not write %s: %s\n", tmpPath.c_str(), std::strerror(tmp.error));
    return fail(3);
  };

  writeWorkingHeader();
  std::fseek(f1, long(format.headerBytes), SEEK_SET);

  SectionReader reader1{format};
  uint32_t done = 0;
  const bool headCopied =
      CopySections(f1, &tmp, &reader1, &done, frameStart, &work.fileSize, buffer);
  if (tmp.error) return failedWrite();
  if (!headCopied || done > frameStart) {
    zycLog("frame frameStart (%d) is not a keyFrame of file 1\n", int32_t(frameStart));
    return fail(4);
  }

  std::fseek(f2, long(format.headerBytes), SEEK_SET);
  SectionReader reader2{format};
  uint32_t done2 = 0;
  const bool middleCopied =
      CopySections(f2, &tmp, &reader2, &done2, frameCount, &work.fileSize, buffer);
  if (tmp.error) return failedWrite();
  if (!middleCopied) {
    zycLog("frame frameStart (%d) + frameCount (%d) is not a keyFrame of file1\n",
           int32_t(frameStart), int32_t(frameCount));
    return fail(4);
  }

  if (!SkipSections(f1, &reader1, &done, rangeEnd) || done > rangeEnd) {
    zycLog("frame frameStart (%d) + frameCount (%d) is not a keyFrame of file1\n",
           int32_t(frameStart), int32_t(frameCount));
    return fail(4);
  }

  const bool tailCopied =
      CopySections(f1, &tmp, &reader1, &done, h1.frameCount, &work.fileSize, buffer);
  if (tmp.error) return failedWrite();
  if (!tailCopied) {
    zycLog("frame frameStart (%d) + frameCount (%d) is not a keyFrame of file1\n",
           int32_t(frameStart), int32_t(frameCount));
    return fail(4);
  }

  writeWorkingHeader();
  if (tmp.error == 0) tmp.Check(std::fflush(tmp.file) == 0);
  if (tmp.error) return failedWrite();
  std::fclose(f1);
  std::fclose(f2);
  f1 = f2 = nullptr;
  std::free(buffer);
  buffer = nullptr;
  const bool closed = std::fclose(tmp.file) == 0;
  tmp.file = nullptr;
  if (!tmp.Check(closed)) return failedWrite();

  // The finished file takes file1's place in one step: there is no moment without a file1,
  // and a failed rename leaves file1 as it was.
  if (std::rename(tmpPath.c_str(), zycUtf8(file1).c_str()) != 0) {
    *reason = errno;
    zycLog("Coult not rename tmpFile to file1. errno:%d\n", *reason);
    std::remove(tmpPath.c_str());
    return 3;
  }
  return 0;
}

}  // namespace

namespace {

int32_t AppendIn(const char16_t* file1, const char16_t* file2, int* reason) {
  FILE* f1 = zycOpenFile(file1, "r+bc");
  if (!f1) {
    *reason = errno;
    return 3;
  }
  zycStreamHeader h1;
  ReadHeader(f1, false, &h1);
  if (h1.magic != kMagicZyl0) {
    std::fclose(f1);
    return 3;
  }

  FILE* f2 = zycOpenFile(file2, "rb");
  if (!f2) {
    *reason = errno;
    std::fclose(f1);
    return 2;
  }
  zycStreamHeader h2;
  ReadHeader(f2, false, &h2);
  if (h2.magic != kMagicZyl0) {
    CloseAll(f1, f2, nullptr);
    return 2;
  }

  if (!CompatibleZyl0(h1, h2, false)) {
    CloseAll(f1, f2, nullptr);
    return 5;
  }

  // file1 is written in place: its size and header as they are now are what a failed write
  // brings it back to.
  zycWholeState before;
  before.set = true;
  // A header cut short is taken as it is, as the fields were read.
  bool measured = std::fseek(f1, 0, SEEK_SET) == 0;
  if (measured) before.headBytes = uint32_t(std::fread(before.head, 1, kHeaderSizeZyl0, f1));
  measured = measured && std::fseek(f1, 0, SEEK_END) == 0;
  const long oldSize = measured ? std::ftell(f1) : -1;
  if (oldSize < 0) {
    *reason = errno != 0 ? errno : EIO;
    CloseAll(f1, f2, nullptr);
    return 3;
  }
  before.size = uint64_t(oldSize);

  // Both fields wrap in 32 bits, as the format stores them.
  const uint32_t appended = h2.fileSize - kHeaderSizeZyl0;
  h1.frameCount += h2.frameCount;
  h1.fileSize += appended;
  CheckedOutput out;
  out.file = f1;
  out.Check(zycWriteHeaderCounts(f1, h1));
  out.Seek(0, SEEK_END);

  uint8_t* buffer = static_cast<uint8_t*>(std::calloc(kCopyBufferBytes, 1));
  if (!buffer && out.error == 0) {
    out.error = ENOMEM;
  } else if (buffer) {
    // file2 stands at offset 64, where its header ended.
    CopyBytes(f2, &out, uint64_t(appended), buffer);
    std::free(buffer);
  }
  std::fclose(f2);
  if (out.error == 0) out.Check(std::fflush(f1) == 0);
  if (out.error != 0) {
    *reason = out.error;
    const int restored = zycCloseAndRestore(f1, before);
    const std::string name = zycUtf8(file1);
    zycLog("Could not write %s: %s\n", name.c_str(), std::strerror(out.error));
    if (restored != 0) {
      zycLog("Could not bring %s back to its old size: %s\n", name.c_str(),
             std::strerror(restored));
    }
    return 3;
  }
  if (std::fclose(f1) != 0) {
    // The last bytes did not reach the file: bring it back by its name.
    *reason = errno;
    zycLog("Could not write %s: %s\n", zycUtf8(file1).c_str(), std::strerror(*reason));
    if (FILE* again = zycOpenFile(file1, "r+b")) zycCloseAndRestore(again, before);
    return 3;
  }
  return 0;
}

}  // namespace

int32_t Append(const char16_t* file1, const char16_t* file2) {
  int reason = 0;
  const int32_t status = AppendIn(file1, file2, &reason);
  errno = reason;
  return status;
}

int32_t ReplaceSectionZyl0(const char16_t* file1, const char16_t* file2, uint32_t frameStart,
                           uint32_t frameCount) {
  int reason = 0;
  const int32_t status = ReplaceSectionIn({false, kHeaderSizeZyl0, kSectionHeaderSizeZyl0}, file1,
                                          file2, frameStart, frameCount, &reason);
  errno = reason;
  return status;
}

int32_t ReplaceSectionZyl1(const char16_t* file1, const char16_t* file2, uint32_t frameStart,
                           uint32_t frameCount) {
  int reason = 0;
  const int32_t status = ReplaceSectionIn({true, kHeaderSizeZyl1, kSectionHeaderSizeZyl1}, file1,
                                          file2, frameStart, frameCount, &reason);
  errno = reason;
  return status;
}

int32_t ReplaceSection(const char16_t* file1, const char16_t* file2, uint32_t frameStart,
                       uint32_t frameCount, uint32_t mode) {
  if (mode == 0) return ReplaceSectionZyl0(file1, file2, frameStart, frameCount);
  if (mode == 1) return ReplaceSectionZyl1(file1, file2, frameStart, frameCount);
  return 6;
}
