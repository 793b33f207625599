// A job through the library's one export: zylInitCodec, parameters by tag, Encode on a media
// source in memory. The written movie is read back on its own, and the picture the progress
// callback shows after each frame is the one the movie decodes to.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "base/fileIo.h"
#include "codec/zylCodec.h"
#include "tests/encoder/movieCheck.h"
#include "tests/support/memorySource.h"
#include "tests/support/testMedia.h"
#include "tests/support/videoFrames.h"

namespace {

std::vector<std::vector<uint8_t>>* gShown = nullptr;
std::vector<uint32_t>* gKeys = nullptr;

int32_t Record(zylProgress* progress, uint32_t) {
  std::vector<uint8_t> picture(size_t(progress->pitch) * ((progress->height + 15) & ~15u));
  std::memcpy(picture.data(), progress->reconstructed, picture.size());
  gShown->push_back(std::move(picture));
  gKeys->push_back(progress->keyFrame);
  return 1;
}

TEST(CodecJob, EncodeThroughTheExportWritesTheMovieThatTheCallbackShows) {
  std::vector<zylTestPicture> frames =
      zylDecodeVideoFrames(zylMediaPath("handheld_box_640x480_30fps_sound.mp4"), 4, 80, 64);
  ASSERT_EQ(frames.size(), 4u);
  std::vector<zycTestPicture> pictures;
  for (const zylTestPicture& f : frames) {
    zycTestPicture p;
    p.width = f.width;
    p.height = f.height;
    for (size_t i = 0; i < f.pixels.size(); i += 4) p.bgr.insert(p.bgr.end(), &f.pixels[i], &f.pixels[i] + 3);
    pictures.push_back(std::move(p));
  }
  zycMemorySource media(pictures, 30.0);
  std::vector<std::vector<uint8_t>> shown;
  std::vector<uint32_t> keys;
  gShown = &shown;
  gKeys = &keys;
  zylCodec* codec = zylInitCodec(Record, 0);
  ASSERT_NE(codec, nullptr);
  codec->SetParam(zylTag('w', 'F', 'M', 'T'), 0);
  codec->SetParam(zylTag('R', 'A', 'T', 'I'), 30);
  const std::string path = ::testing::TempDir() + "codecJob_" + std::to_string(getpid()) + ".zyl";
  const int32_t status = codec->Encode(media.source(), 0, zycUtf16(path).c_str());
  codec->Destroy();
  EXPECT_EQ(status, 0);

  zycMovieCheck movie;
  ASSERT_TRUE(zycCheckMovie(zycReadWholeFile(path), &movie)) << movie.error;
  std::remove(path.c_str());
  EXPECT_EQ(movie.header.width, 80u);
  EXPECT_EQ(movie.header.height, 64u);
  ASSERT_EQ(movie.frames.size(), 4u);
  ASSERT_EQ(shown.size(), 4u);
  EXPECT_EQ(keys[0], 1u);
  ASSERT_EQ(shown.back().size(), movie.lastPicture.size());
  EXPECT_EQ(shown.back(), movie.lastPicture);
}

}  // namespace
