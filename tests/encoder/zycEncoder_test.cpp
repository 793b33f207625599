#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "base/byteIo.h"
#include "encoder/zycEncoder.h"
#include "stream/blockDecoder.h"
#include "stream/container.h"
#include "stream/framePayload.h"
#include "tests/encoder/encodeRun.h"
#include "tests/encoder/movieCheck.h"
#include "tests/support/digest.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"
#include "tests/support/videoFrames.h"

namespace {

const zylTestImage& Photo(const std::string& name) {
  static std::map<std::string, zylTestImage> photos;
  zylTestImage& photo = photos[name];
  if (photo.pixels.empty()) zylLoadPng(zylMediaPath(name), &photo);
  return photo;
}
const zylTestImage& Coffee() { return Photo("photo_coffee_600x400.png"); }
const zylTestImage& Astronaut() { return Photo("photo_astronaut_512x512.png"); }

zylTestPicture Crop(const zylTestImage& photo, uint32_t x, uint32_t y, uint32_t w, uint32_t h,
                    uint32_t shrink = 1) {
  zylTestImage crop = zylCropImage(photo, x, y, w, h, shrink);
  zylTestPicture p;
  p.width = int32_t(w);
  p.height = int32_t(h);
  p.pixels = std::move(crop.pixels);
  return p;
}

zylTestPicture Scaled(const zylTestPicture& p, int numerator, int denominator) {
  zylTestPicture out = p;
  for (size_t i = 0; i < out.pixels.size(); ++i) {
    if (i % 4 != 3) out.pixels[i] = uint8_t(std::min(255, p.pixels[i] * numerator / denominator));
  }
  return out;
}

// Frames of a real clip: a few, scaled down to keep the search quick.
std::vector<zylTestPicture> Clip(const char* name, int count, int w, int h) {
  return zylDecodeVideoFrames(zylMediaPath(name), count, w, h);
}

// The rebuilt picture as the next source, as it is or darkened by 25% (fade level 3: c - c x 5 /
// 20): every top block is a copy in place, or a perfect fade copy that the player's tone curve
// turns back into the source. No colour block, and no key frame.
TEST(Encoder, ARepeatOfTheRebuiltPictureIsCopiedOrFadedInPlace) {
  const struct {
    int cut;  // of 20
    uint8_t flags, opcodes, fades;
  } cases[] = {{0, kFrameFlagAlways | kFrameFlagMotion, 0x00, 0},
               {5, kFrameFlagAlways | kFrameFlagMotion | kFrameFlagFade, 0xFF, 0x33}};
  const uint32_t topBlocks = 4 * 3;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cut);
    zylTestPicture b = Crop(Coffee(), 150, 120, 64, 48);
    EncodeRun run("repeat" + std::to_string(c.cut));
    ASSERT_EQ(run.Begin(b), 0);
    const uint8_t* rebuilt = run.encoder.Reconstructed();
    for (size_t i = 0; i < b.pixels.size(); ++i) {
      b.pixels[i] = i % 4 == 3 ? 255 : uint8_t(rebuilt[i] - rebuilt[i] * c.cut / 20);
    }
    run.Next(b);
    const zylProgress& p = run.progresses[1];
    EXPECT_FALSE(p.keyFrame);
    EXPECT_EQ(run.movie.frameFlags[1], c.flags);
    EXPECT_EQ(p.motionBytesCount, topBlocks);
    EXPECT_EQ(p.fadeBytesCount, c.fades ? topBlocks / 2 : 0u);
    EXPECT_EQ(p.opcodeBytes, 1 + topBlocks / 4);
    EXPECT_EQ(p.dxtBlockCount, 0u);
    // The tree: one opcode a top block; the motion item: vector 0 everywhere.
    const std::vector<uint8_t>& frame = run.movie.frames[1];
    zycFrameItems items;
    ASSERT_TRUE(zycSplitFrame(frame.data(), frame.size(), &items));
    ASSERT_EQ(items.tree.size, 1 + topBlocks / 4);
    ASSERT_EQ(items.motion.size, topBlocks);
    ASSERT_EQ(items.fade.size, c.fades ? topBlocks / 2 : 0u);
    const uint8_t* tree = &frame[items.tree.offset];
    for (uint32_t i = 1; i < items.tree.size; ++i) EXPECT_EQ(tree[i], c.opcodes);
    for (uint32_t i = 0; i < items.motion.size; ++i) EXPECT_EQ(frame[items.motion.offset + i], 0);
    for (uint32_t i = 0; i < items.fade.size; ++i) EXPECT_EQ(frame[items.fade.offset + i], c.fades);
    for (size_t i = 0; i < b.pixels.size(); ++i) {
      if (i % 4 != 3) {
        ASSERT_EQ(run.encoder.Reconstructed()[i], b.pixels[i]) << i;
      }
    }
  }
}

// A hard cut two frames in: too soon for a key frame while the range of "iRNG" lasts, so a
// P-frame with the key frame's budget; a section of its own once the range has run out.
TEST(Encoder, AHardCutIsAKeyFrameOnlyAfterTheRange) {
  zylTestPicture a = Crop(Coffee(), 100, 100, 64, 48);
  zylTestPicture b = Crop(Astronaut(), 200, 40, 64, 48);
  for (const bool rangeOver : {false, true}) {
    SCOPED_TRACE(rangeOver ? "after the range" : "inside the range");
    EncodeRun run(rangeOver ? "cut2" : "cut");
    if (rangeOver) run.encoder.iRng = 0.05f;  // two frames at 25 fps
    ASSERT_EQ(run.Begin(a), 0);
    run.Next(a);
    run.Next(b);
    EXPECT_EQ(run.encoder.LastFrame().keyFrame, rangeOver);
    EXPECT_EQ(bool(run.progresses[2].keyFrame), rangeOver);
    if (!rangeOver) {
      EXPECT_GT(run.encoder.LastFrame().changed, 50.0);
      const int32_t key = int32_t(25.0 * run.encoder.CompressionSize() * double(0.2f));
      EXPECT_EQ(run.encoder.LastFrame().wantedSize, key);
      EXPECT_EQ(run.movie.sectionFrames.size(), 1u);
      continue;
    }
    EXPECT_EQ(run.movie.sectionFrames, (std::vector<uint32_t>{2, 1}));
    // A key frame of the tree has no motion item.
    EXPECT_EQ(run.movie.frameFlags[2] & kFrameFlagMotion, 0);
    // Its credit paid the six bytes of the section header.
    EXPECT_EQ(run.progresses[2].credit, run.progresses[1].credit - 6 +
                                            run.encoder.CompressionSize() - run.progresses[2].size);
  }
}

// A hard cut inside an inhibiting range stays a P-frame, but the job's last frame is a key frame
// even there, and the budget makes room for it: A = 92, K = 460, T = 18 give
// 92 - (460 + 18 - 92) / 100 = 89 on a long job; on a short one the lowered budget falls under
// 70% of A and is dropped.
TEST(Encoder, ForceLastKeyMakesTheLastFrameKeyAndLowersTheBudgetOfALongJob) {
  zylTestPicture a = Crop(Coffee(), 100, 100, 64, 48);
  zylKeyframeRange inhibit{0, 100, nullptr, 0, nullptr};
  for (const uint32_t frames : {3u, 100u}) {
    EncodeRun run("last" + std::to_string(frames));
    run.encoder.forceLastKey = 1;
    run.encoder.iRng = 0.0f;
    run.encoder.SetJobRange(0, frames);
    ASSERT_EQ(run.Begin(a, 25.0, &inhibit), 0);
    EXPECT_EQ(run.encoder.CompressionSize(), frames == 3 ? 64 * 48 * 3 / 100 : 89);
    if (frames != 3) continue;
    run.Next(Crop(Astronaut(), 200, 40, 64, 48));
    run.Next(a);
    EXPECT_FALSE(run.progresses[1].keyFrame);
    EXPECT_GT(run.encoder.LastFrame().changed, 50.0);
    EXPECT_TRUE(run.progresses[2].keyFrame);
    EXPECT_EQ(run.movie.sectionFrames, (std::vector<uint32_t>{2, 1}));
  }
}

// A picture that darkens a little every frame: fades are the cheap way to code it.
TEST(Encoder, FadesAreUsedUnlessFactIsZero) {
  zylTestPicture a = Crop(Coffee(), 150, 120, 64, 48);
  for (int noFade = 0; noFade <= 1; ++noFade) {
    EncodeRun run(noFade ? "nofade" : "fade");
    run.encoder.noFade = uint32_t(noFade);
    run.encoder.ratio = 40;
    ASSERT_EQ(run.Begin(a), 0);
    for (int f = 1; f <= 3; ++f) run.Next(Scaled(a, 20 - 2 * f, 20));
    bool anyFade = false;
    for (uint8_t flags : run.movie.frameFlags) anyFade |= (flags & kFrameFlagFade) != 0;
    EXPECT_EQ(anyFade, noFade == 0);
  }
}

// A motion shift of 8 leaves only the zero vector to try, 9 none: copies in place only, then no
// copy or fade at all.
TEST(Encoder, MotiEightCopiesOnlyInPlaceAndNineNeverCopies) {
  auto frames = Clip("walkers_768x576_10fps_120f.mkv", 3, 64, 48);
  ASSERT_EQ(frames.size(), 3u);
  for (const uint32_t shift : {8u, 9u}) {
    EncodeRun run("moti" + std::to_string(shift));
    run.encoder.motionShift = shift;
    ASSERT_EQ(run.Begin(frames[0], 10.0), 0);
    run.Next(frames[1]);
    run.Next(frames[2]);
    for (size_t f = 1; f < 3; ++f) {
      const std::vector<uint8_t>& frame = run.movie.frames[f];
      zycFrameItems items;
      ASSERT_TRUE(zycSplitFrame(frame.data(), frame.size(), &items));
      EXPECT_EQ(items.motion.present, shift == 8) << f;
      if (shift == 9) {
        EXPECT_FALSE(items.fade.present) << f;
      }
      for (uint32_t i = 0; i < items.motion.size; ++i) EXPECT_EQ(frame[items.motion.offset + i], 0);
    }
  }
}

// "cMAX" 0 ends every frame after one pass at threshold 0, however far above its budget; "cMIN"
// raises the threshold of frames that fit at 0.
TEST(Encoder, ErrorLimitAndErrorMinBoundTheThreshold) {
  auto frames = Clip("walkers_768x576_10fps_120f.mkv", 3, 64, 48);
  const struct {
    uint32_t errorLimit, errorMin, ratio, lowest, highest;
  } cases[] = {{0, 0, 400, 0, 0}, {100000, 3000, 2, 3000, 100000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.errorMin);
    EncodeRun run("bounds" + std::to_string(c.errorMin));
    run.encoder.errorLimit = c.errorLimit;
    run.encoder.errorMin = c.errorMin;
    run.encoder.ratio = c.ratio;
    ASSERT_EQ(run.Begin(frames[0], 10.0), 0);
    run.Next(frames[1]);
    run.Next(frames[2]);
    for (size_t f = 1; f < 3; ++f) {
      EXPECT_GE(run.progresses[f].quantizer, c.lowest) << f;
      EXPECT_LE(run.progresses[f].quantizer, c.highest) << f;
    }
    if (c.errorLimit == 0) {
      EXPECT_EQ(run.encoder.LastFrame().passes, 0u);
    }
  }
}

TEST(Encoder, OddSizedPictureIsPaddedWithBlack) {
  zylTestPicture p = Crop(Coffee(), 10, 10, 100, 50);
  EncodeRun run("odd");
  ASSERT_EQ(run.Begin(p), 0);
  EXPECT_EQ(run.encoder.PaddedWidth(), 112u);
  EXPECT_EQ(run.encoder.PaddedHeight(), 64u);
  EXPECT_EQ(run.movie.header.width, 100u);
  EXPECT_EQ(run.movie.header.height, 50u);
  const uint8_t* s = run.encoder.SourceFrame();
  for (uint32_t y = 0; y < 64; ++y) {
    for (uint32_t x = 0; x < 112; ++x) {
      const uint8_t* px = s + (y * 112 + x) * 4;
      if (x < 100 && y < 50) {
        ASSERT_EQ(0, std::memcmp(px, &p.pixels[(y * 100 + x) * 4], 4));
      } else {
        ASSERT_EQ(zycLoad32(px), 0u) << x << "," << y;
      }
    }
  }
  run.Next(Crop(Coffee(), 12, 11, 100, 50));
}

// The budget is the raw frame over "RATI", the key frame's 25 x 20% of it at 25 fps; the
// header's 64 bytes and the first section's 6 are paid from the start.
TEST(Encoder, BudgetsOfTheFirstFrame) {
  const struct {
    uint32_t width, height, ratio;
    int32_t budget, key;
  } cases[] = {{320, 240, 100, 2304, int32_t(25.0 * 2304 * double(0.2f))},
               {160, 400, 96, 2000, 10000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
    EncodeRun run("budget" + std::to_string(c.width));
    run.encoder.ratio = c.ratio;
    ASSERT_EQ(run.Begin(Crop(Coffee(), 0, 0, c.width, c.height)), 0);
    EXPECT_EQ(run.encoder.CompressionSize(), c.budget);
    EXPECT_EQ(run.progresses[0].credit, -70 + c.budget - run.progresses[0].size);
    EXPECT_EQ(run.encoder.LastFrame().wantedSize, c.key);
    EXPECT_LE(run.progresses[0].size, c.key);
  }
}

// Behind the header's fields: the packing byte, parameter S on three bytes and T; or, in a header
// of versions 1 to 3, the two words A and B. Each leaves the other pair out.
TEST(Encoder, HeaderTailHoldsPackingAndParametersOrTheTwoWords) {
  const struct {
    uint32_t version;
    std::vector<uint8_t> tail;
  } cases[] = {{0, {0, 0xAB, 0xEF, 0xCD, 0x78, 0x56, 0x34, 0x12}}, {2, {11, 0, 0, 0, 22, 0, 0, 0}}};
  for (const auto& c : cases) {
    EncodeRun run("tail" + std::to_string(c.version));
    run.version = c.version;
    run.encoder.headerS = 0xABCDEF;
    run.encoder.headerT = 0x12345678;
    run.encoder.headerA = 11;
    run.encoder.headerB = 22;
    ASSERT_EQ(run.Begin(Crop(Coffee(), 0, 0, 32, 32)), 0);
    const std::vector<uint8_t> bytes = run.FileBytes();
    EXPECT_EQ(zycLoad32(&bytes[4]), c.version);
    EXPECT_EQ(zycLoad32(&bytes[52]), 7u);
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 56, bytes.begin() + 64), c.tail);
  }
}

// Headers of versions 1 to 3 have no packing byte, so readers take their sections as deflate:
// the encoder refuses LZMA with them before writing anything; every other pair is read back by
// both readers.
TEST(Encoder, EveryHeaderVersionAndPackingIsReadBackOrRefused) {
  auto frames = Clip("tree_320x240_15fps_cinepak.avi", 2, 64, 48);
  ASSERT_EQ(frames.size(), 2u);
  for (uint32_t version = 0; version <= 4; ++version) {
    for (uint32_t packing = 0; packing <= 1; ++packing) {
      SCOPED_TRACE("version " + std::to_string(version) + " packing " + std::to_string(packing));
      EncodeRun run("version" + std::to_string(version) + "_" + std::to_string(packing));
      run.version = version;
      run.encoder.packing = packing;
      const bool refused = packing == 1 && version >= 1 && version <= 3;
      if (refused) {
        EXPECT_NE(run.Begin(frames[0], 15.0), 0);
        EXPECT_TRUE(run.FileBytes().empty());
        continue;
      }
      ASSERT_EQ(run.Begin(frames[0], 15.0), 0);
      run.Next(frames[1]);
      const std::vector<uint8_t> bytes = run.FileBytes();
      run.ExpectSafeReaderAgrees();
      // The section's size is what the frames took; an LZMA section's head holds 5 property
      // bytes, then the unpacked size.
      EXPECT_EQ(zycLoad32(&bytes[66]), uint32_t(run.progresses[0].size + run.progresses[1].size));
      if (packing == 1) {
        EXPECT_EQ(zycLoad64(&bytes[64 + 6 + 5]), run.movie.unpacked[0].size());
      }
    }
  }
}

TEST(Encoder, TwoByteMotionIndicesSetTheHeaderFlagAndDecode) {
  auto frames = Clip("walkers_768x576_10fps_120f.mkv", 2, 32, 32);
  ASSERT_EQ(frames.size(), 2u);
  EncodeRun run("wide");
  run.encoder.motionByte = false;
  ASSERT_EQ(run.Begin(frames[0], 10.0), 0);
  run.Next(frames[1]);
  EXPECT_EQ(run.movie.header.flags, kHeaderFlagAlways | kHeaderFlagWideMotion);
  zycFrameItems items;
  ASSERT_TRUE(zycSplitFrame(run.movie.frames[1].data(), run.movie.frames[1].size(), &items));
  ASSERT_TRUE(items.motion.present);
  EXPECT_EQ(items.motion.size % 2, 0u);
}

TEST(Encoder, DataFileListsTheCopiedBlocksOfEachFrame) {
  namespace fs = std::filesystem;
  const fs::path before = fs::current_path();
  const fs::path dir =
      fs::path(::testing::TempDir()) / ("encoderDataFile_" + std::to_string(getpid()));
  fs::create_directories(dir / "c:");
  fs::current_path(dir);
  zylTestPicture p = Crop(Coffee(), 150, 120, 64, 48);
  {
    EncodeRun run("datafile");
    run.encoder.dataFileWanted = true;
    ASSERT_EQ(run.Begin(p), 0);
    std::memcpy(p.pixels.data(), run.encoder.Reconstructed(), p.pixels.size());
    run.Next(p);
    run.encoder.End();
  }
  fs::current_path(before);
  std::vector<uint8_t> text = zycReadWholeFile((dir / "c:" / "test.txt").string());
  const std::string content(text.begin(), text.end());
  fs::remove_all(dir);
  EXPECT_EQ(content.rfind("// zylCodec Verbose Data File v1.0\n", 0), 0u);
  // Frame 1 copies its 12 top blocks in place.
  const size_t at = content.find("Frame 1 : 12 blocks\n");
  ASSERT_NE(at, std::string::npos) << content;
  EXPECT_NE(content.find("  16, 32, 16, 0, 0\n", at), std::string::npos);
}

TEST(Encoder, AZeroBudgetStillEndsEveryFrame) {
  auto frames = Clip("walkers_768x576_10fps_120f.mkv", 3, 32, 32);
  ASSERT_EQ(frames.size(), 3u);
  EncodeRun run("zeroBudget");
  run.encoder.ratio = 1000000;
  ASSERT_EQ(run.Begin(frames[0], 10.0), 0);
  EXPECT_EQ(run.encoder.CompressionSize(), 0);
  run.Next(frames[1]);
  run.Next(frames[2]);
  EXPECT_EQ(run.encoder.LastFrame().wantedSize, 0);
  EXPECT_GT(run.progresses[2].size, 0);  // written anyway, the debt carried on
  EXPECT_LT(run.progresses[2].credit, run.progresses[1].credit);
}

TEST(Encoder, CodesWithoutAnOpenOutput) {
  zylTestPicture p = Crop(Coffee(), 0, 0, 32, 32);
  EncodeRun run("none", false);
  ASSERT_EQ(run.Begin(p), 0);
  run.Next(p);
  EXPECT_EQ(run.progresses[1].frameIndex, 1u);
  EXPECT_GT(run.progresses[1].size, 0);
  EXPECT_TRUE(run.FileBytes().empty());
}

struct TableCase {
  const char* clip;
  uint32_t ratio, iFrameFormat, packing;
  uint32_t vqLimit;  // "uFMT"; 0 leaves the ring to grow frame by frame
};

class TableFrames : public ::testing::TestWithParam<TableCase> {};

// Table frames of real clips: after every frame, both readers decode the file to the encoder's
// reconstruction; the colour blocks come from the table item and the tree holds no fade node.
TEST_P(TableFrames, RealClipDecodesToTheReconstruction) {
  const TableCase& c = GetParam();
  auto frames = Clip(c.clip, 6, 160, 120);
  ASSERT_EQ(frames.size(), 6u);
  EncodeRun run("table");
  run.encoder.pFrameFormat = 1;
  run.encoder.ratio = c.ratio;
  run.encoder.iFrameFormat = c.iFrameFormat;
  run.encoder.packing = c.packing;
  run.encoder.vqLimit = c.vqLimit;
  // Frame 3 opens a second section: a still image, or a table frame that restarts the ring.
  const uint32_t forced[] = {3};
  zylKeyframeRange plan{0, 0, forced, 1, nullptr};
  ASSERT_EQ(run.Begin(frames[0], 10.0, &plan), 0);
  uint32_t tableFrames = 0;
  for (size_t i = 1; i < frames.size(); ++i) {
    run.Next(frames[i]);
    if (HasFatalFailure()) return;
    const uint8_t flags = run.movie.frameFlags.back();
    EXPECT_FALSE(flags & (kFrameFlagColour | kFrameFlagFade)) << "frame " << i;
    if (flags & kFrameFlagTable) ++tableFrames;
    run.ExpectSafeReaderAgrees();
  }
  EXPECT_GE(tableFrames, 3u);
  ASSERT_EQ(run.movie.sectionFrames, (std::vector<uint32_t>{3, 3}));
  if (c.iFrameFormat == 0) {
    zycFrameItems items;
    const std::vector<uint8_t>& key = run.movie.frames[3];
    ASSERT_TRUE(zycSplitFrame(key.data(), key.size(), &items));
    ASSERT_TRUE(items.table.present);
    EXPECT_EQ(key[items.table.offset + 1], 1);  // reset
  } else {
    EXPECT_EQ(run.movie.frameFlags[3], kFrameFlagAlways | kFrameFlagImage);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Encoder, TableFrames,
    ::testing::Values(TableCase{"walkers_768x576_10fps_120f.mkv", 100, 0, 0, 230400},
                      TableCase{"walkers_768x576_10fps_120f.mkv", 30, 1, 0, 230400},
                      TableCase{"tree_320x240_15fps_cinepak.avi", 30, 0, 1, 230400},
                      TableCase{"handheld_box_640x480_30fps_sound.mp4", 100, 1, 1, 230400},
                      TableCase{"coin_pen_568x320_30fps_sound.mov", 30, 0, 0, 0}));

// A small block table over a longer clip with a hard cut: the ring fills and wraps, old
// entries fall out, and every frame still decodes to the encoder's reconstruction.
TEST(Encoder, TableRingWrapsThroughAHardCut) {
  auto frames = Clip("walkers_768x576_10fps_120f.mkv", 10, 160, 120);
  ASSERT_EQ(frames.size(), 10u);
  frames.insert(frames.begin() + 5, Crop(Coffee(), 100, 100, 160, 120));
  EncodeRun run("tableRing");
  run.encoder.pFrameFormat = 1;
  run.encoder.iFrameFormat = 1;
  run.encoder.ratio = 30;
  run.encoder.vqLimit = 48 * 300;
  ASSERT_EQ(run.Begin(frames[0], 10.0), 0);
  for (size_t i = 1; i < frames.size(); ++i) {
    run.Next(frames[i]);
    if (HasFatalFailure()) return;
  }
  // The cut came too soon for a key frame: a P-frame of table blocks.
  EXPECT_EQ(run.movie.sectionFrames.size(), 1u);
  EXPECT_TRUE(run.movie.frameFlags[5] & kFrameFlagTable);
  uint64_t written = 0;
  uint32_t ring = 0, origins = 0;
  for (size_t f = 1; f < run.movie.frames.size(); ++f) {
    const std::vector<uint8_t>& frame = run.movie.frames[f];
    zycFrameItems items;
    ASSERT_TRUE(zycSplitFrame(frame.data(), frame.size(), &items));
    if (!items.table.present) continue;
    const uint8_t* image = frame.data() + items.table.offset;
    EXPECT_EQ(image[1], 0);  // no reset after a still image
    ring = zycLoad32(image + 4);
    written += uint64_t(zycLoad32(image + 16)) * 48;
    if (zycLoad32(image + 8) != 0) ++origins;
  }
  EXPECT_GE(ring, 48u * 300);  // raised where a frame or the still image needs more
  EXPECT_GT(written, 2u * ring);
  EXPECT_GT(origins, 0u);
  run.ExpectSafeReaderAgrees();
}

TEST(Encoder, RefusesLzmaWithPhoneSoundWithoutWriting) {
  zylTestPicture p = Crop(Coffee(), 0, 0, 32, 32);
  EncodeRun run("refuseLzma");
  run.encoder.packing = 1;
  run.encoder.embedRequest = 1;
  run.encoder.soundFlags = 32 | 1;
  run.header.soundRate = 16000;
  run.header.soundChannels = 1;
  EXPECT_EQ(run.Begin(p), 1);
  EXPECT_TRUE(run.FileBytes().empty());
}

TEST(Encoder, StillImageKeyFramesDecodeAndMeetTheirBudget) {
  auto frames = Clip("walkers_768x576_10fps_120f.mkv", 4, 128, 96);
  ASSERT_EQ(frames.size(), 4u);
  EncodeRun run("still");
  run.encoder.iFrameFormat = 1;
  run.encoder.iRng = 0.0f;
  const uint32_t forced[] = {2};
  zylKeyframeRange plan{0, 0, forced, 1, nullptr};
  ASSERT_EQ(run.Begin(frames[0], 10.0, &plan), 0);
  for (size_t i = 1; i < frames.size(); ++i) run.Next(frames[i]);
  EXPECT_EQ(run.movie.frameFlags[0], kFrameFlagAlways | kFrameFlagImage);
  EXPECT_EQ(run.movie.frameFlags[2], kFrameFlagAlways | kFrameFlagImage);
  EXPECT_EQ(run.movie.sectionFrames, (std::vector<uint32_t>{2, 2}));
  // The image item follows a tree item of one byte.
  EXPECT_EQ(zycLoad32(run.movie.frames[0].data()), 1u);
  EXPECT_EQ(zycLoad32(run.movie.frames[0].data() + 9), kStillImageMagic);
  for (size_t f : {size_t(0), size_t(2)}) {
    EXPECT_EQ(run.progresses[f].quantizer, 0u);
    EXPECT_EQ(run.progresses[f].opcodeBytes, 1u);
    EXPECT_GT(run.progresses[f].dxtBlockCount, 0u);  // the compressor's final target
  }
  EXPECT_LE(run.progresses[0].size, int32_t(10.0 * run.encoder.CompressionSize() * double(0.2f)));
  // P-frames after a still image copy from its reconstruction.
  EXPECT_TRUE(run.movie.frameFlags[1] & kFrameFlagMotion);
}

// PSNR of the columns from `x0` on of a reconstruction (padded pitch) against the picture.
double PsnrFromColumn(const zylTestPicture& p, const uint8_t* rebuilt, uint32_t pitch, int x0) {
  double squares = 0.0;
  size_t count = 0;
  for (int y = 0; y < p.height; ++y)
    for (int x = x0; x < p.width; ++x)
      for (int c = 0; c < 3; ++c, ++count) {
        const double d = double(p.pixels[(size_t(y) * p.width + x) * 4 + c]) -
                         double(rebuilt[size_t(y) * pitch + size_t(x) * 4 + c]);
        squares += d * d;
      }
  return 10.0 * std::log10(255.0 * 255.0 * double(count) / std::max(squares, 1e-9));
}

// Surface coordinates wrap at 1024 in the decoder; the still image fits its surfaces in those
// coordinates, so the columns past 1024 look as good as the rest.
TEST(Encoder, StillImageKeyFramesWiderThan1024PixelsDecodeWell) {
  // A band of a real clip enlarged to 1280 pixels: the whole height of 720 costs the group
  // search of the still image minutes.
  auto frames = Clip("walkers_768x576_10fps_120f.mkv", 2, 1280, 128);
  ASSERT_EQ(frames.size(), 2u);
  EncodeRun run("still720");
  run.encoder.iFrameFormat = 1;
  run.encoder.ratio = 30;
  ASSERT_EQ(run.Begin(frames[0], 10.0), 0);
  EXPECT_EQ(run.movie.frameFlags[0], kFrameFlagAlways | kFrameFlagImage);
  const double left = PsnrFromColumn(frames[0], run.encoder.Reconstructed(), 1280 * 4, 0);
  const double right = PsnrFromColumn(frames[0], run.encoder.Reconstructed(), 1280 * 4, 1024);
  EXPECT_GT(right, 24.0);
  EXPECT_GT(right, left - 4.0);
  run.Next(frames[1]);
}

TEST(Encoder, PlainSimdAndSumBoundedSearchesWriteTheSameMovie) {
  auto frames = Clip("walkers_768x576_10fps_120f.mkv", 3, 64, 48);
  std::vector<uint8_t> files[3];
  for (int variant = 0; variant < 3; ++variant) {
    EncodeRun run("variant" + std::to_string(variant));
    // 0 plain, 1 the fastest kernels the processor runs (AVX2 or SSE2), 2 those without the sums
    run.encoder.allowSimd = variant != 0;
    run.encoder.useSums = variant != 2;
    ASSERT_EQ(run.Begin(frames[0], 10.0), 0);
    run.Next(frames[1]);
    run.Next(frames[2]);
    files[variant] = run.FileBytes();
  }
  EXPECT_EQ(files[0], files[1]);
  EXPECT_EQ(files[1], files[2]);
}

// The decoder copies and fades with SIMD kernels; each set must give the plain decoder's
// pictures on the golden movies and on real clips with many fades, block-tree and table
// P-frames.
TEST(Encoder, EveryDecoderKernelSetDecodesThePlainPictures) {
  if (zycBestBlockKernels() == kBlockKernelsPlain) GTEST_SKIP() << "no SIMD kernels here";
  std::vector<std::vector<uint8_t>> movies;
  for (const char* name : {"walkers_speech_6f.zyl", "tree_still_lzma_5f.zyl"}) {
    movies.push_back(zycReadWholeFile(std::string(ZYL_SOURCE_DIR) + "/tests/golden/" + name));
  }
  auto frames = Clip("walkers_768x576_10fps_120f.mkv", 4, 96, 64);
  for (auto& f : frames) f = Scaled(f, 3 + int(&f - frames.data()), 6);  // darker, then lighter
  for (uint32_t table : {0u, 1u}) {
    EncodeRun run("fades" + std::to_string(table));
    run.encoder.pFrameFormat = table;
    ASSERT_EQ(run.Begin(frames[0], 10.0), 0);
    for (size_t i = 1; i < frames.size(); ++i) run.Next(frames[i]);
    movies.push_back(run.FileBytes());
  }
  uint32_t fadeFrames = 0;
  for (const auto& movie : movies) {
    zycMovieCheck plain;
    plain.keepPictures = true;
    plain.kernels = kBlockKernelsPlain;
    ASSERT_TRUE(zycCheckMovie(movie, &plain)) << plain.error;
    for (int kernels = kBlockKernelsSse2; kernels <= zycBestBlockKernels(); ++kernels) {
      zycMovieCheck fast;
      fast.keepPictures = true;
      fast.kernels = kernels;
      ASSERT_TRUE(zycCheckMovie(movie, &fast)) << fast.error;
      ASSERT_EQ(fast.pictures.size(), plain.pictures.size());
      for (size_t i = 0; i < fast.pictures.size(); ++i) {
        ASSERT_EQ(fast.pictures[i], plain.pictures[i]) << "kernels " << kernels << " picture " << i;
      }
    }
    fadeFrames += plain.fadeFrames;
  }
  EXPECT_GT(fadeFrames, 0u);
}

// Rows of top blocks, bands of the levels and the fades are shared among threads; the movie
// must not depend on how many there are. Every clip, deflate and LZMA, block-tree and
// still-image key frames, table P-frames, with a key frame in the middle of the job. The movies
// are pinned by digest too: a change of any choice of the search, the rate loop, the DXT levels,
// the still images, the table blocks or the packing shows here, and must be a deliberate one.
TEST(Encoder, EveryThreadCountWritesTheSameMovie) {
  const char* const clips[] = {"walkers_768x576_10fps_120f.mkv", "handheld_box_640x480_30fps_sound.mp4",
                               "coin_pen_568x320_30fps_sound.mov", "tree_320x240_15fps_cinepak.avi",
                               "walkers_speech_384x288_10fps_16k.mkv"};
  struct Format {
    uint32_t packing, still, table;  // "nFMT", "iFMT", "jFMT"
  };
  const Format formats[] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}, {0, 0, 1}};
  const uint32_t forced[] = {2};
  const zylKeyframeRange plan{0, 0, forced, 1, nullptr};
  const uint32_t digests[5][5] = {  // by clip, then format
      {2289918771u, 2418359528u, 1295900902u, 4004082517u, 3559815275u},
      {268336107u, 812129779u, 2150057719u, 1253207194u, 2603090962u},
      {3810493481u, 1474352159u, 351698642u, 1220498376u, 341525928u},
      {1611432466u, 2470503382u, 1854614801u, 1258773982u, 3661147305u},
      {330031653u, 2224308205u, 550964983u, 2832696391u, 3897464991u}};
  for (size_t c = 0; c < 5; ++c) {
    const char* clip = clips[c];
    const auto frames = Clip(clip, 4, 144, 96);
    ASSERT_EQ(frames.size(), 4u) << clip;
    for (size_t f = 0; f < 5; ++f) {
      const Format& format = formats[f];
      std::vector<uint8_t> first;
      for (uint32_t threads : {1u, 2u, 3u}) {
        EncodeRun run("threads" + std::to_string(threads));
        run.encoder.threads = threads;
        run.encoder.packing = format.packing;
        run.encoder.iFrameFormat = format.still;
        run.encoder.pFrameFormat = format.table;
        run.encoder.SetJobRange(0, 4);
        ASSERT_EQ(run.Begin(frames[0], 25.0, &plan), 0);
        for (size_t i = 1; i < frames.size(); ++i) run.Next(frames[i]);
        ASSERT_TRUE(run.progresses[2].keyFrame);
        const std::vector<uint8_t> bytes = run.FileBytes();
        if (threads == 1) {
          first = bytes;
          EXPECT_EQ(zylDigest(bytes), digests[c][f]) << clip << " format " << f;
        } else {
          EXPECT_EQ(bytes, first) << clip << " nFMT " << format.packing << " iFMT "
                                  << format.still << " jFMT " << format.table << " threads "
                                  << threads;
        }
      }
    }
  }
}

}  // namespace
