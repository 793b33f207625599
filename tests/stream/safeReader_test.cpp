#include "stream/safeReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/byteIo.h"
#include "stream/zycDecoder.h"
#include "tests/support/movieBuilder.h"

namespace {

using Items = std::vector<std::vector<uint8_t>>;

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Opens bytes as "movie.zyl".
std::unique_ptr<zycSafeReader> Read(const std::vector<uint8_t>& bytes) {
  auto reader = std::make_unique<zycSafeReader>();
  reader->OpenMemory(bytes.data(), bytes.size(), "movie.zyl");
  return reader;
}

// All pictures of a movie, one per frame; an empty picture for a frame not decoded.
std::vector<std::vector<uint8_t>> DecodeAll(zycSafeReader& reader) {
  std::vector<std::vector<uint8_t>> pictures;
  reader.Rewind();
  for (zycSafeStatus s; (s = reader.NextFrame()) != zycSafeStatus::end;)
    pictures.push_back(s == zycSafeStatus::decoded ? reader.picture() : std::vector<uint8_t>());
  return pictures;
}

// A movie whose frame `target` gets `change` applied to its items before packing.
std::vector<uint8_t> Edited(uint32_t target, std::function<void(Items*)> change,
                            movieBuilder::MovieOptions o = {}) {
  o.edit = [target, change](uint32_t frame, Items* items) {
    if (frame == target) change(items);
  };
  return movieBuilder::Zyl0(o);
}

}  // namespace

TEST(SafeReaderWalk, ListsSectionsFramesAndItemSizes) {
  movieBuilder::MovieOptions o;
  o.sound = true;
  o.sections = {3, 2};
  const auto movie = movieBuilder::Zyl0(o);
  auto reader = Read(movie);
  EXPECT_TRUE(reader->problems().empty()) << reader->error();
  ASSERT_EQ(reader->sections().size(), 2u);
  EXPECT_EQ(reader->sections()[0].offset, 64u);
  EXPECT_EQ(reader->sections()[1].firstFrame, 3u);
  ASSERT_EQ(reader->frames().size(), 5u);
  const zycSafeFrame& key = reader->frames()[0];
  EXPECT_TRUE(key.key);
  EXPECT_EQ(key.flags, kFrameFlagAlways | kFrameFlagColour | kFrameFlagSound);
  EXPECT_EQ(key.treeBytes, 2u);     // flags byte and three symbols
  EXPECT_EQ(key.colourBytes, 24u);  // three blocks
  EXPECT_EQ(key.soundBytes, 6u);
  const zycSafeFrame& p = reader->frames()[1];
  EXPECT_FALSE(p.key);
  EXPECT_EQ(p.flags, 0x3F & ~kFrameFlagImage);
  EXPECT_EQ(p.motionBytes, 1u + 4 + 4);  // one copy and two split blocks of four indices
  EXPECT_EQ(reader->pictureWidth(), 48u);
  EXPECT_EQ(reader->pictureHeight(), 16u);
}

TEST(SafeReaderDecode, StillKeyFramesDecodeWithOpaquePixels) {
  movieBuilder::MovieOptions o;
  o.stillKeyFrames = true;
  o.sound = true;
  auto reader = Read(movieBuilder::Zyl0(o));
  ASSERT_TRUE(reader->problems().empty()) << reader->error();
  ASSERT_EQ(reader->NextFrame(), zycSafeStatus::decoded) << reader->frameError();
  EXPECT_EQ(reader->frames()[0].flags, 25);
  ASSERT_EQ(reader->soundBytes(), 7u);
  EXPECT_EQ(reader->sound()[0], 0);
  for (uint32_t i = 0; i < 48 * 16; ++i) ASSERT_EQ(reader->picture()[4 * i + 3], 255) << i;
  EXPECT_TRUE(reader->CheckAll().empty());
}

// ---------------------------------------------------------------------------------------------
// Damage

// A movie whose header disagrees with its bytes is refused with the reason.
TEST(SafeReaderDamage, HeadersThatDisagreeWithTheFileAreRefused) {
  const auto good = movieBuilder::Zyl0({});
  const std::string end = std::to_string(good.size());
  const struct {
    std::function<void(std::vector<uint8_t>*)> change;
    std::string message;  // the whole message, or a part of it behind "..."
  } cases[] = {
      {[](std::vector<uint8_t>* m) {
         m->push_back(0);
         zycStore32(&(*m)[8], uint32_t(m->size()));
       },
       "movie.zyl: 1 bytes stand behind the last section, at byte " + end},
      {[](std::vector<uint8_t>* m) { (*m)[3] = 'X'; },
       "movie.zyl: bad magic " + std::to_string(int32_t(zycLoad32(good.data()) ^ ('X' ^ '0') << 24))},
      {[](std::vector<uint8_t>* m) { zycStore32(&(*m)[8], 10); },
       "movie.zyl: the header gives a file size of 10 bytes, the file holds " + end},
      {[](std::vector<uint8_t>* m) { zycStore32(&(*m)[16], 6); }, "...section header at byte"},
  };
  for (const auto& c : cases) {
    auto movie = good;
    c.change(&movie);
    const std::string error = Read(movie)->error();
    if (c.message.starts_with("...")) {
      EXPECT_TRUE(Contains(error, c.message.substr(3))) << error;
    } else {
      EXPECT_EQ(error, c.message);
    }
  }
}

TEST(SafeReaderDamage, BytesBehindTheHeadersEndAreAnUnfinishedFrameNotAFault) {
  // A job stopped between appending a frame and patching the headers leaves this.
  auto movie = movieBuilder::Zyl0({});
  const size_t end = movie.size();
  movie.insert(movie.end(), {1, 2, 3, 4, 5});
  auto reader = Read(movie);
  EXPECT_TRUE(reader->problems().empty()) << reader->error();
  ASSERT_EQ(reader->notes().size(), 1u);
  EXPECT_EQ(reader->notes()[0], "movie.zyl: 5 bytes behind the movie's end at byte " +
                                    std::to_string(end) +
                                    " are ignored (a frame being written when the encoder stopped)");
  EXPECT_TRUE(reader->CheckAll().empty());

  // Stopped inside the first frame: the header is still as first written, size 0, no frames.
  std::vector<uint8_t> begun(movie.begin(), movie.begin() + 70);
  zycStore32(&begun[8], 0);
  zycStore32(&begun[16], 0);
  std::fill(begun.begin() + 64, begun.end(), 0);
  begun.insert(begun.end(), {9, 9, 9});
  reader = Read(begun);
  EXPECT_TRUE(reader->problems().empty()) << reader->error();
  EXPECT_EQ(reader->notes().size(), 1u);
  EXPECT_TRUE(reader->frames().empty());
}

TEST(SafeReaderDamage, WideMotionIndicesStayInTheirTable) {
  movieBuilder::MovieOptions o;
  o.wideMotion = true;
  auto plain = Read(movieBuilder::Zyl0({}));
  auto wide = Read(movieBuilder::Zyl0(o));
  ASSERT_TRUE(wide->problems().empty()) << wide->error();
  EXPECT_EQ(wide->frames()[1].motionBytes, 18u);
  EXPECT_TRUE(wide->CheckAll().empty());
  EXPECT_EQ(DecodeAll(*wide), DecodeAll(*plain));

  // Index 4095 is (-32,-32); 4096 is beyond the table.
  auto far = Read(Edited(1, [](Items* i) { zycStore16((*i)[1].data() + 2, 4095); }, o));
  auto beyond = Read(Edited(1, [](Items* i) { zycStore16((*i)[1].data(), 4096); }, o));
  ASSERT_EQ(far->CheckAll().size(), 1u);
  EXPECT_TRUE(Contains(far->CheckAll()[0], "motion index 1 (vector 4095: -32,-32) reads outside"));
  ASSERT_EQ(beyond->CheckAll().size(), 1u);
  EXPECT_TRUE(Contains(beyond->CheckAll()[0], "selects vector 4096, beyond the table of 4096"));
}

// One item made to disagree with the rest of its frame: named by frame and reason, and the
// only problem found.
TEST(SafeReaderDamage, ItemsThatDisagreeAreNamedWithTheirFrame) {
  enum Kind { plainFrames, tableFrames, stillKeys };
  struct Case {
    Kind kind;
    uint32_t frame;
    std::function<void(Items*)> change;
    const char* message;
  };
  const Case cases[] = {
      // Frame 1, block 0 is a split block whose first child fades with index 0; give it (0,-1).
      {plainFrames, 1, [](Items* i) { (*i)[1][0] = 1; },
       "frame 1 (section 0 at byte 64): motion index 0 (vector 1: 0,-1) reads outside the picture "
       "(block 8 at 0,0)"},
      // The tree against its items.
      {plainFrames, 0, [](Items* i) { (*i)[1].resize(16); }, "the colour item holds 2 blocks, the tree has 3"},
      {plainFrames, 1, [](Items* i) { (*i)[1].push_back(0); }, "the motion item holds 10 bytes, the tree takes 9"},
      {plainFrames, 1, [](Items* i) { (*i)[1].resize(8); }, "motion index 8 is beyond the motion item (8 bytes)"},
      {plainFrames, 1, [](Items* i) { (*i)[0].push_back(0); }, "the tree item holds"},
      {plainFrames, 1, [](Items* i) { (*i)[0].resize(3); }, "the tree runs past its item"},
      {plainFrames, 1, [](Items* i) { i->back().push_back(0); }, "the fade item holds 3 bytes, the tree has 4 fade"},
      // Table images: their header against the ring and the tree.
      {tableFrames, 1,
       [](Items* i) {
         std::vector<uint8_t>& t = i->back();
         t[2] = 32;  // two indices of 32 bits in a stream of one word
         zycStore32(&t[16], 0);
         zycStore32(&t[24], 0);
         t.resize(28);
         zycStore32(&t[20], 28);
       },
       "bit stream runs past the image at index 1"},
      {tableFrames, 1, [](Items* i) { zycStore32(&i->back()[4], 100); }, "a block table of 100 bytes"},
      {tableFrames, 1, [](Items* i) { zycStore32(&i->back()[4], 96); }, "index 3 (block 1) beyond the 2 entries"},
      {tableFrames, 1, [](Items* i) { zycStore32(&i->back()[8], 50); }, "origin 50"},
      {tableFrames, 1, [](Items* i) { zycStore32(&i->back()[12], 3); }, "table-block image of 3 blocks for a tree of 2"},
      {tableFrames, 1, [](Items* i) { zycStore32(&i->back()[16], 9); }, "9 new entries"},
      {tableFrames, 1, [](Items* i) { zycStore32(&i->back()[20], 40); }, "new entries at byte 40"},
      {tableFrames, 1, [](Items* i) { i->back().resize(20); }, "shorter than its 24-byte header"},
      {tableFrames, 1, [](Items* i) { (*i)[0][1] |= 0x0C; }, "fade blocks but no fade levels"},
      // Still images: indices against their tables, the header against the picture.
      {stillKeys, 0, [](Items* i) { zycStore32(&(*i)[1][20], 1); }, "codebook index 1 beyond its 1 entries"},
      {stillKeys, 0, [](Items* i) { zycStore32(&(*i)[1][24], zycLoad32(&(*i)[1][16]) + 36); },
       "surface index 1 beyond its 1 surfaces"},
      {stillKeys, 0, [](Items* i) { zycStore32(&(*i)[1][4], 48); }, "does not fit its block table"},
      {stillKeys, 0, [](Items* i) { zycStore16(&(*i)[1][12], 32); }, "still image of 32 x 16 pixels"},
      {stillKeys, 0, [](Items* i) { (*i)[1][0] ^= 1; }, "still image has magic"},
      {stillKeys, 0, [](Items* i) { zycStore32(&(*i)[1][24], uint32_t((*i)[1].size()) - 8); },
       "lies outside the image"},
      {stillKeys, 0, [](Items* i) { (*i)[1].resize(30); }, "lies outside the image"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    movieBuilder::MovieOptions o;
    o.tableFrames = c.kind == tableFrames;
    o.stillKeyFrames = c.kind == stillKeys;
    auto reader = Read(Edited(c.frame, c.change, o));
    ASSERT_TRUE(reader->problems().empty()) << reader->error();
    const auto problems = reader->CheckAll();
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_TRUE(Contains(problems[0], c.message)) << problems[0];
    EXPECT_TRUE(Contains(problems[0], "movie.zyl: frame " + std::to_string(c.frame))) << problems[0];
  }
}

TEST(SafeReaderDamage, DamagedPackedDataIsReported) {
  // LZMA data that ends short of the unpacked size behind its five property bytes.
  movieBuilder::MovieOptions o;
  o.packing = kPackingLzma;
  auto movie = movieBuilder::Zyl0(o);
  zycStore64(&movie[64 + 6 + 5], zycLoad64(&movie[64 + 6 + 5]) + 1);
  auto reader = Read(movie);
  EXPECT_TRUE(Contains(reader->error(), "movie.zyl: section 0 at byte 64: LZMA data damaged"))
      << reader->error();
}

// ---------------------------------------------------------------------------------------------
// Movies of the encoder

namespace {

std::vector<uint8_t> Golden(const std::string& name) {
  return movieBuilder::ReadFile(std::string(ZYL_SOURCE_DIR) + "/tests/golden/" + name);
}

}  // namespace

// Encoder movies read without a complaint; every prefix of them is refused and a flipped byte
// never takes the reader out of its buffers, however it ends.
TEST(SafeReaderGolden, EncoderMoviesReadCleanAndTheirDamageStaysInBounds) {
  for (const char* name : {"walkers_speech_6f.zyl", "tree_still_lzma_5f.zyl"}) {
    SCOPED_TRACE(name);
    const auto movie = Golden(name);
    ASSERT_FALSE(movie.empty());
    auto reader = Read(movie);
    EXPECT_TRUE(reader->problems().empty()) << reader->error();
    EXPECT_TRUE(reader->CheckAll().empty());
    ASSERT_EQ(reader->sections().size(), 2u);
    const auto pictures = DecodeAll(*reader);
    ASSERT_GE(pictures.size(), 5u);
    for (const auto& picture : pictures) {
      ASSERT_FALSE(picture.empty());
      // A real picture: not one flat colour.
      EXPECT_NE(std::count(picture.begin(), picture.end(), picture[0]), long(picture.size()));
    }
    if (name[0] == 'w') {  // the speech movie has sound in its first frame
      EXPECT_GT(reader->frames()[0].soundBytes, 0u);
    }

    // Every length near the start and the end, and a stride in between.
    size_t tried = 0;
    for (size_t cut = 0; cut < movie.size(); cut += (cut < 100 || cut + 100 > movie.size()) ? 1 : 37) {
      zycSafeReader prefix;
      EXPECT_FALSE(prefix.OpenMemory(movie.data(), cut, "movie.zyl")) << cut;
      EXPECT_TRUE(Contains(prefix.error(), "movie.zyl: ")) << cut;
      if (++tried % 8 == 0) prefix.CheckAll();  // decoding what is left, now and then
    }
    for (size_t i = 0; i < movie.size(); i += 47) {
      auto damaged = movie;
      damaged[i] ^= 0xA5;
      zycSafeReader flipped;
      flipped.OpenMemory(damaged.data(), damaged.size(), "movie.zyl");
      flipped.CheckAll();
    }
  }
}

// ---------------------------------------------------------------------------------------------
// ZYL1

// Plane streams of junk: the first P-frame is damage, named by its place; the next one builds
// on it and is not decoded, without being a fault of its own.
TEST(SafeReaderZyl1, JunkPlanesAreDamageAndWhatBuildsOnThemIsNotDecoded) {
  movieBuilder::MovieOptions o;
  o.planeFrames = true;
  o.sections = {3};
  auto reader = Read(movieBuilder::Zyl1(o));
  ASSERT_TRUE(reader->problems().empty()) << reader->error();
  EXPECT_EQ(reader->frames()[1].planeBytes[0], 14u);
  EXPECT_EQ(reader->NextFrame(), zycSafeStatus::decoded);
  EXPECT_EQ(reader->NextFrame(), zycSafeStatus::damaged);
  EXPECT_TRUE(Contains(reader->frameError(), "movie.zyl: frame 1 (section 0 at byte 60): "))
      << reader->frameError();
  EXPECT_EQ(reader->NextFrame(), zycSafeStatus::undecodable);
  EXPECT_EQ(reader->frameError(),
            "movie.zyl: frame 2 (section 0 at byte 60): builds on a frame that was not decoded");
  EXPECT_EQ(reader->CheckAll().size(), 1u);
  EXPECT_EQ(reader->undecodableFrames(), 1u);
}

TEST(SafeReaderZyl1, ASectionMustStartWithAKeyFrame) {
  movieBuilder::MovieOptions o;
  o.sections = {2};
  auto movie = movieBuilder::Zyl1(o);
  // The key frame record's flags become a repeat's.
  movie[60 + 8] = kRecordFlagRepeat;
  auto reader = Read(movie);
  EXPECT_TRUE(Contains(reader->error(), "frame 0 (section 0 at byte 60): ")) << reader->error();
}
