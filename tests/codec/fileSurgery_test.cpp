#include "codec/fileSurgery.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/byteIo.h"
#include "base/fileIo.h"
#include "stream/container.h"
#include "tests/support/fileSizeLimit.h"
#include "tests/support/movieBuilder.h"

namespace {

using movieBuilder::ReadFile;
using movieBuilder::WriteFile;

// A scratch folder per test, removed with its files afterwards.
class FileSurgery : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = ::testing::TempDir() + "/zylSurgeryXXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back(0);
    ASSERT_NE(mkdtemp(buffer.data()), nullptr);
    dir_ = buffer.data();
  }
  void TearDown() override {
    for (const std::string& name : made_) std::remove(name.c_str());
    for (const char* name : {"/movie.zyl", "/movietmp.zyl", "/other.zyl"})
      std::remove((dir_ + name).c_str());
    rmdir((dir_ + "/movietmp.zyl").c_str());
    rmdir(dir_.c_str());
  }
  std::string Path(const std::string& name) {
    made_.push_back(dir_ + "/" + name);
    return dir_ + "/" + name;
  }
  std::string Make(const std::string& name, const std::vector<uint8_t>& bytes) {
    std::string path = Path(name);
    EXPECT_TRUE(WriteFile(path, bytes));
    return path;
  }
  static bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
  }

  std::string dir_;
  std::vector<std::string> made_;
};

std::u16string U16(const std::string& s) { return zycUtf16(s); }

// Sets or clears an attribute of a folder (FS_APPEND_FL: files can be made in it, but none
// removed or renamed over); false where the file system or the user can't.
bool SetFolderFlag(const std::string& dir, int flag, bool on) {
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return false;
  int flags = 0;
  bool ok = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  if (ok) {
    flags = on ? flags | flag : flags & ~flag;
    ok = ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  }
  close(fd);
  return ok;
}

int32_t RunAppend(const std::string& a, const std::string& b) {
  return Append(U16(a).c_str(), U16(b).c_str());
}

// Runs ReplaceSection and returns its code; `output` receives what it printed.
int32_t RunReplace(const std::string& a, const std::string& b, uint32_t start, uint32_t count,
                   uint32_t mode, std::string* output) {
  zycPipedStdout caught;
  const int32_t code = ReplaceSection(U16(a).c_str(), U16(b).c_str(), start, count, mode);
  *output = caught.Take();  // errno stays as ReplaceSection left it
  return code;
}

std::vector<uint8_t> Zyl0Movie(std::vector<uint32_t> sections, uint8_t seed = 0,
                               uint32_t version = 0) {
  movieBuilder::MovieOptions o;
  o.sections = std::move(sections);
  o.seed = seed;
  o.version = version;
  return movieBuilder::Zyl0(o);
}

std::vector<uint8_t> Zyl1Movie(std::vector<uint32_t> sections, uint8_t seed = 0) {
  movieBuilder::MovieOptions o;
  o.sections = std::move(sections);
  o.seed = seed;
  o.sound = true;
  return movieBuilder::Zyl1(o);
}

std::vector<zycSectionEntry> Sections(const std::vector<uint8_t>& movie) {
  std::vector<zycSectionEntry> out;
  zycSectionWalker walker;
  EXPECT_TRUE(walker.Open(movie.data(), movie.size())) << walker.error();
  zycSectionEntry e;
  while (walker.Next(&e)) out.push_back(e);
  EXPECT_TRUE(walker.error().empty()) << walker.error();
  EXPECT_EQ(walker.position(), movie.size());
  return out;
}

// The bytes of one section, its header included.
std::vector<uint8_t> SectionBytes(const std::vector<uint8_t>& movie, const zycSectionEntry& e,
                                  uint32_t headerBytes) {
  const auto begin = movie.begin() + long(e.offset);
  return std::vector<uint8_t>(begin, begin + headerBytes + e.header.size);
}

std::vector<uint8_t> Concat(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

std::string Header(const char* form, int start, int count, const std::string& a,
                   const std::string& b) {
  char line[128];
  std::snprintf(line, sizeof line, form, start, count);
  return std::string(line) + "file1:" + a + "\nfile2:" + b + "\n";
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Append

TEST_F(FileSurgery, AppendGluesTheSecondMovieBehindTheFirst) {
  const auto a = Zyl0Movie({3, 2}, 1);
  const auto b = Zyl0Movie({2, 1, 4}, 2);
  const std::string pa = Make("a.zyl", a), pb = Make("b.zyl", b);
  ASSERT_EQ(RunAppend(pa, pb), 0);
  const auto joined = ReadFile(pa);
  std::vector<uint8_t> want = a;
  want.insert(want.end(), b.begin() + 64, b.end());
  zycStore32(&want[8], uint32_t(a.size() + b.size() - 64));
  zycStore32(&want[16], 12);
  EXPECT_EQ(joined, want);
  EXPECT_EQ(Sections(joined).size(), 5u);
  EXPECT_EQ(ReadFile(pb), b);
}

TEST_F(FileSurgery, AppendLeavesWidthAndChunkLimitToTheCaller) {
  movieBuilder::MovieOptions o;
  o.sound = true;
  const auto a = movieBuilder::Zyl0(o);
  o.width = 64;
  auto b = movieBuilder::Zyl0(o);
  zycStore32(&b[48], 12345);  // soundChunkLimit
  const std::string pa = Make("a.zyl", a), pb = Make("b.zyl", b);
  EXPECT_EQ(RunAppend(pa, pb), 0);
  EXPECT_EQ(ReadFile(pa).size(), a.size() + b.size() - 64);
}

TEST_F(FileSurgery, AppendRefusalsGiveTheirCodes) {
  const auto a = Zyl0Movie({2}), z1 = Zyl1Movie({2}), z2 = Zyl1Movie({3});
  const std::string pa = Make("a.zyl", a), pz = Make("z.zyl", z1), pz2 = Make("z2.zyl", z2);
  EXPECT_EQ(RunAppend(Path("missing.zyl"), pa), 3);
  EXPECT_EQ(RunAppend(pz, pz2), 3);  // ZYL1 movies are not appended
  EXPECT_EQ(RunAppend(pa, Path("missing2.zyl")), 2);
  EXPECT_EQ(RunAppend(pa, pz), 2);  // wrong magic in file2
  // An older version goes behind a newer one only.
  const auto v1 = Zyl0Movie({2}, 0, 1), v2 = Zyl0Movie({2}, 0, 2);
  const std::string p1 = Make("v1.zyl", v1), p2 = Make("v2.zyl", v2);
  EXPECT_EQ(RunAppend(p1, p2), 5);
  EXPECT_EQ(ReadFile(p1), v1);
  EXPECT_EQ(RunAppend(p2, p1), 0);
  EXPECT_EQ(ReadFile(p2).size(), v1.size() + v2.size() - 64);
  EXPECT_EQ(ReadFile(pa), a);
  EXPECT_EQ(ReadFile(pz), z1);
  EXPECT_EQ(ReadFile(pz2), z2);

  // Each compared field, one at a time: packing byte, flags, frameDuration, timeScale,
  // reserved36, soundChannels, soundRate, reserved52.
  for (int offset : {56, 12, 20, 24, 36, 44, 40, 52}) {
    auto b = Zyl0Movie({1});
    b[offset] ^= 1;
    const std::string pb = Make("b" + std::to_string(offset) + ".zyl", b);
    EXPECT_EQ(RunAppend(pa, pb), 5) << offset;
    EXPECT_EQ(ReadFile(pa), a) << offset;
  }
}

// ---------------------------------------------------------------------------------------------
// ReplaceSection, ZYL0

TEST_F(FileSurgery, ReplaceSwapsSectionsForOtherBoundaries) {
  const auto a = Zyl0Movie({3, 2, 4}, 1);
  const auto b = Zyl0Movie({1, 1}, 9);
  const std::string pa = Make("movie.zyl", a), pb = Make("other.zyl", b);
  std::string out;
  ASSERT_EQ(RunReplace(pa, pb, 3, 2, 0, &out), 0);
  EXPECT_EQ(out, Header("ReplaceSection. frameStart:%d; frameCount:%d\n", 3, 2, pa, pb));
  const auto sa = Sections(a), sb = Sections(b);
  std::vector<uint8_t> want = Concat({std::vector<uint8_t>(a.begin(), a.begin() + 64),
                                      SectionBytes(a, sa[0], 6), SectionBytes(b, sb[0], 6),
                                      SectionBytes(b, sb[1], 6), SectionBytes(a, sa[2], 6)});
  zycStore32(&want[8], uint32_t(want.size()));
  EXPECT_EQ(ReadFile(pa), want);
  EXPECT_FALSE(Exists(dir_ + "/movietmp.zyl"));
  // From the start up to the end: file1's header before file2's sections.
  std::vector<uint8_t> whole = Zyl0Movie({9}, 4);
  ASSERT_EQ(RunReplace(pa, Make("whole.zyl", whole), 0, 9, 0, &out), 0);
  std::copy(want.begin(), want.begin() + 64, whole.begin());
  zycStore32(&whole[8], uint32_t(whole.size()));
  EXPECT_EQ(ReadFile(pa), whole);
}

TEST_F(FileSurgery, ReplaceRefusalsKeepFile1AndPrintTheirMessages) {
  const auto a = Zyl0Movie({3, 2, 4}, 1);
  const auto b2 = Zyl0Movie({2}, 5);
  const auto b3 = Zyl0Movie({3}, 5);
  const std::string pa = Make("movie.zyl", a), p2 = Make("b2.zyl", b2), p3 = Make("b3.zyl", b3);
  const struct {
    const std::string* file2;
    int start, count;
    const char* message;
  } refusals[] = {
      {&p2, 3, 0, "FrameCount equals zero\n"},
      {&p2, 8, 2, "frameStart (8) + frameCount (2) > h1.frameCount (9)\n"},
      {&p3, 3, 2, "frameCount (2) != h2.frameCount (3)\n"},
      {&p2, 2, 2, "frame frameStart (2) is not a keyFrame of file 1\n"},
      {&p3, 5, 3, "frame frameStart (5) + frameCount (3) is not a keyFrame of file1\n"},
  };
  std::string out;
  for (const auto& r : refusals) {
    EXPECT_EQ(RunReplace(pa, *r.file2, r.start, r.count, 0, &out), 4) << r.message;
    EXPECT_EQ(out, Header("ReplaceSection. frameStart:%d; frameCount:%d\n", r.start, r.count, pa,
                          *r.file2) +
                       r.message);
  }

  EXPECT_EQ(ReadFile(pa), a);
  EXPECT_FALSE(Exists(dir_ + "/movietmp.zyl"));
}

TEST_F(FileSurgery, ReplaceRefusesWrongMagicsAndMissingFiles) {
  const auto a = Zyl0Movie({2, 2}), z = Zyl1Movie({2});
  const std::string pa = Make("movie.zyl", a), pz = Make("z.zyl", z);
  std::string out;
  EXPECT_EQ(RunReplace(pz, pa, 0, 2, 0, &out), 7);
  EXPECT_NE(out.find("bad magic " + std::to_string(int32_t(kMagicZyl1))), std::string::npos);
  EXPECT_NE(out.back(), '\n');  // no line end behind the number
  EXPECT_EQ(RunReplace(pa, pz, 0, 2, 0, &out), 2);
  EXPECT_EQ(RunReplace(Path("none.zyl"), pa, 0, 2, 0, &out), 2);
  EXPECT_EQ(RunReplace(pa, Path("none2.zyl"), 0, 2, 0, &out), 2);
  EXPECT_EQ(RunReplace(pa, pa, 0, 2, 2, &out), 6);
  EXPECT_EQ(out, "");
  EXPECT_EQ(ReadFile(pa), a);
  EXPECT_EQ(ReadFile(pz), z);
}

TEST_F(FileSurgery, ReplaceComparesTheHeadersAndTheChunkLimit) {
  const auto a = Zyl0Movie({2, 2});
  const std::string pa = Make("movie.zyl", a);
  std::string out;
  // packing byte, flags, frameDuration, timeScale, reserved36, soundChannels, soundRate,
  // soundChunkLimit, reserved52.
  for (int offset : {56, 12, 20, 24, 36, 44, 40, 48, 52}) {
    auto b = Zyl0Movie({2}, 3);
    b[offset] ^= 2;
    const std::string pb = Make("b" + std::to_string(offset) + ".zyl", b);
    EXPECT_EQ(RunReplace(pa, pb, 0, 2, 0, &out), 5) << offset;
    EXPECT_EQ(out, Header("ReplaceSection. frameStart:%d; frameCount:%d\n", 0, 2, pa, pb));
  }
  const auto newer = Zyl0Movie({2}, 3, 2);
  EXPECT_EQ(RunReplace(pa, Make("newer.zyl", newer), 0, 2, 0, &out), 5);
  EXPECT_EQ(ReadFile(pa), a);
  EXPECT_FALSE(Exists(dir_ + "/movietmp.zyl"));
}

TEST_F(FileSurgery, AFileWithTheTemporaryNameIsNeverTouched) {
  const auto a = Zyl0Movie({2, 2}), b = Zyl0Movie({2}, 7);
  const std::string pa = Make("movie.zyl", a), pb = Make("other.zyl", b);
  // The temporary name replaces the last four characters; a file of that name stands there.
  const std::vector<uint8_t> unrelated = {'k', 'e', 'e', 'p'};
  const std::string tmp = Make("movietmp.zyl", unrelated);
  std::string out;
  EXPECT_EQ(RunReplace(pa, pb, 0, 2, 0, &out), 2);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_NE(out.find("Could not create " + tmp + ": File exists\n"), std::string::npos) << out;
  EXPECT_EQ(ReadFile(pa), a);
  EXPECT_EQ(ReadFile(tmp), unrelated);
  std::remove(tmp.c_str());
  EXPECT_EQ(RunReplace(pa, pb, 0, 2, 0, &out), 0);
}

TEST_F(FileSurgery, ANameOfFewerThanFourCharactersGetsNoTemporaryFile) {
  const auto a = Zyl0Movie({2, 2}), b = Zyl0Movie({2}, 7);
  const std::string pb = Make("other.zyl", b);
  // Relative to the scratch folder, so that the whole name is three characters long.
  char here[4096];
  ASSERT_NE(getcwd(here, sizeof here), nullptr);
  ASSERT_EQ(chdir(dir_.c_str()), 0);
  ASSERT_TRUE(WriteFile("abc", a));
  std::string out;
  EXPECT_EQ(RunReplace("abc", pb, 0, 2, 0, &out), 2);
  EXPECT_EQ(ReadFile("abc"), a);
  std::remove("abc");
  ASSERT_EQ(chdir(here), 0);
}

TEST_F(FileSurgery, AFailedRenameGivesCodeThreeAndKeepsFile1) {
  const auto a = Zyl0Movie({2, 2}), b = Zyl0Movie({2}, 7);
  const std::string pa = Make("movie.zyl", a), pb = Make("other.zyl", b);
  // In an append-only folder the temporary file can be made, but nothing renamed over file1.
  if (!SetFolderFlag(dir_, FS_APPEND_FL, true)) GTEST_SKIP() << "the folder can't be locked here";
  std::string out;
  const int32_t code = RunReplace(pa, pb, 0, 2, 0, &out);
  const int reason = errno;
  SetFolderFlag(dir_, FS_APPEND_FL, false);
  EXPECT_EQ(code, 3);
  EXPECT_EQ(reason, EPERM);
  EXPECT_NE(out.find("Coult not rename tmpFile to file1. errno:" + std::to_string(EPERM) + "\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(ReadFile(pa), a);
}

TEST_F(FileSurgery, AWalkThatCannotAdvanceEndsAsAMisplacedBoundary) {
  // file1 claims 4 frames but holds 2 and then a section of none: the counts would steer the
  // walk past the end of the file for ever.
  auto a = Zyl0Movie({2}, 1);
  a.insert(a.end(), 6, 0);
  zycStore32(&a[8], uint32_t(a.size()));
  zycStore32(&a[16], 4);
  const auto b = Zyl0Movie({2}, 2);
  const std::string pa = Make("movie.zyl", a), pb = Make("other.zyl", b);
  std::string out;
  EXPECT_EQ(RunReplace(pa, pb, 0, 2, 0, &out), 4);
  EXPECT_NE(out.find("frame frameStart (0) + frameCount (2) is not a keyFrame of file1\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(ReadFile(pa), a);
  EXPECT_FALSE(Exists(dir_ + "/movietmp.zyl"));
}

// ---------------------------------------------------------------------------------------------
// ReplaceSection, ZYL1

TEST_F(FileSurgery, Zyl1ReplaceCopiesEightByteSectionHeaders) {
  const auto a = Zyl1Movie({2, 3, 1}, 1);
  const auto b = Zyl1Movie({1, 2}, 8);
  const std::string pa = Make("movie.zyl", a), pb = Make("other.zyl", b);
  std::string out;
  ASSERT_EQ(RunReplace(pa, pb, 2, 3, 1, &out), 0);
  EXPECT_EQ(out, Header("ReplaceSection ZYL1. frameStart:%d; frameCount:%d\n", 2, 3, pa, pb));
  const auto sa = Sections(a), sb = Sections(b);
  std::vector<uint8_t> want = Concat({std::vector<uint8_t>(a.begin(), a.begin() + 60),
                                      SectionBytes(a, sa[0], 8), SectionBytes(b, sb[0], 8),
                                      SectionBytes(b, sb[1], 8), SectionBytes(a, sa[2], 8)});
  zycStore32(&want[12], uint32_t(want.size()));
  EXPECT_EQ(ReadFile(pa), want);
}

TEST_F(FileSurgery, Zyl1ReplaceChecksItsOwnFields) {
  const auto a = Zyl1Movie({2, 2});
  const std::string pa = Make("movie.zyl", a);
  std::string out;
  // headerSize above file1's, frameDuration, timeScale, reserved36, soundChannels, soundRate,
  // soundChunkLimit; then version above file1's.
  for (int offset : {8, 20, 24, 36, 44, 40, 48, 4}) {
    auto b = Zyl1Movie({2}, 3);
    b[offset] ^= 1;
    const std::string pb = Make("b" + std::to_string(offset) + ".zyl", b);
    EXPECT_EQ(RunReplace(pa, pb, 0, 2, 1, &out), 5) << offset;
  }
  // paramS and paramT, and a smaller headerSize, are not compared.
  auto b = Zyl1Movie({2}, 3);
  b[52] = 9;
  b[56] = 9;
  b[8] = 59;
  EXPECT_EQ(RunReplace(pa, Make("b.zyl", b), 2, 2, 1, &out), 0);

  const auto z0 = Zyl0Movie({2});
  EXPECT_EQ(RunReplace(Make("z0.zyl", z0), pa, 0, 2, 1, &out), 7);
  EXPECT_EQ(RunReplace(pa, Make("z0b.zyl", z0), 0, 2, 1, &out), 2);
}

// ---------------------------------------------------------------------------------------------
// Movies of the encoder

namespace {

std::vector<uint8_t> Golden(const std::string& name) {
  return ReadFile(std::string(ZYL_SOURCE_DIR) + "/tests/golden/" + name);
}

// The first section of a movie as a movie of its own.
std::vector<uint8_t> FirstSectionAlone(const std::vector<uint8_t>& movie) {
  const auto sections = Sections(movie);
  std::vector<uint8_t> out(movie.begin(), movie.begin() + long(sections[1].offset));
  zycStore32(&out[8], uint32_t(out.size()));
  zycStore32(&out[16], sections[0].header.frames);
  return out;
}

}  // namespace

TEST_F(FileSurgery, AnLzmaEncoderMovieRefusesAMisplacedEndAndTakesItsOwnSection) {
  const auto a = Golden("tree_still_lzma_5f.zyl");
  ASSERT_FALSE(a.empty());
  const auto b = FirstSectionAlone(a);  // frames 0 and 1
  const std::string pa = Make("movie.zyl", a), pb = Make("other.zyl", b);
  std::string out;
  EXPECT_EQ(RunReplace(pa, pb, 2, 2, 0, &out), 4);  // frame 4 is inside the second section
  EXPECT_EQ(ReadFile(pa), a);
  ASSERT_EQ(RunReplace(pa, pb, 0, 2, 0, &out), 0);
  EXPECT_EQ(ReadFile(pa), a);  // the section put in its own place: the same bytes
}
