// Whole movies with sound: which frames carry a chunk, what the budget gives up for the sound,
// and whether the chunks in the file decode back to the source's sound in its order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include "stream/adpcm.h"
#include "encoder/zycEncoder.h"
#include "stream/adpcmDecoder.h"
#include "stream/framePayload.h"
#include "tests/encoder/movieCheck.h"
#include "tests/support/audioSamples.h"
#include "tests/support/testMedia.h"
#include "tests/support/videoFrames.h"

namespace {

const char kSpeechClip[] = "walkers_speech_384x288_10fps_16k.mkv";

// Hands out the clip's samples in order, then zeros, as the frame pump does at the end.
struct SoundSupplier {
  const std::vector<int16_t>* samples = nullptr;
  size_t position = 0;  // in 16-bit values
  std::vector<uint32_t> asked;
  std::vector<uint8_t> buffer;
  static const uint8_t* Read(uint32_t bytes, void* user) {
    SoundSupplier* s = static_cast<SoundSupplier*>(user);
    s->asked.push_back(bytes);
    s->buffer.assign(bytes, 0);
    const size_t values = std::min<size_t>(bytes / 2, s->samples->size() - s->position);
    std::copy_n(reinterpret_cast<const uint8_t*>(s->samples->data() + s->position), values * 2,
                s->buffer.data());
    s->position += values;
    return s->buffer.data();
  }
};

struct SoundMovie {
  std::vector<zylProgress> progresses;
  zycMovieCheck movie;
  int32_t compressionSize = 0;
  uint32_t headerFlags = 0;
  std::vector<uint32_t> asked;
};

// The clip's first pictures at a small size, which keeps the many frames quick, or at a size
// whose budget stays positive once the sound has taken its share.
const std::vector<zylTestPicture>& Pictures(bool large) {
  static const std::vector<zylTestPicture> small =
      zylDecodeVideoFrames(zylMediaPath(kSpeechClip), 8, 32, 32);
  static const std::vector<zylTestPicture> big =
      zylDecodeVideoFrames(zylMediaPath(kSpeechClip), 2, 160, 128);
  return large ? big : small;
}

const zylTestSound& Speech() {
  static const zylTestSound sound = zylDecodeSound(zylMediaPath(kSpeechClip));
  return sound;
}

// Codes `frames` pictures of the clip with its 16 kHz mono sound, or with no sound when `rate`
// is 0; `frameDuration` over a time scale of 1000000 (10 frames a second by default).
// `leadBase` is "oFMT"; a small lead brings a chunk every few frames, which keeps the movies
// that follow the phase short.
SoundMovie Encode(const std::string& name, uint32_t frames, uint32_t embedRequest,
                  uint32_t soundFlags, uint32_t leadBase, uint32_t rate = 16000,
                  uint32_t frameDuration = 100000, bool large = false) {
  const std::vector<zylTestPicture>& pictures = Pictures(large);
  SoundMovie result;
  // Tests run as parallel processes: each process writes movies of its own.
  const std::string path = ::testing::TempDir() + "soundMovie_" + name + "_" +
                           std::to_string(getpid()) + ".zyl";
  zycFileHolder holder;
  holder.file = std::fopen(path.c_str(), "w+b");
  SoundSupplier supplier;
  supplier.samples = &Speech().samples;
  zycEncoder encoder;
  encoder.verbose = false;
  encoder.embedRequest = embedRequest;
  encoder.soundFlags = soundFlags;
  encoder.soundLeadBase = leadBase;
  encoder.SetJobRange(0, frames);
  zycStreamHeader header;
  header.magic = kMagicZyl0;
  header.frameDuration = frameDuration;
  header.timeScale = 1000000;
  header.width = uint32_t(pictures.at(0).width);
  header.height = uint32_t(pictures.at(0).height);
  header.soundRate = rate;
  header.soundChannels = rate ? 1 : 0;
  for (uint32_t f = 0; f < frames; ++f) {
    const zylTestPicture& picture = pictures[f % pictures.size()];
    zylFrameImage image;
    image.pixels = const_cast<uint8_t*>(picture.pixels.data());
    image.width = picture.width;
    image.height = picture.height;
    zylProgress progress{};
    if (f == 0) {
      EXPECT_EQ(encoder.Begin(header, image, &holder, nullptr, SoundSupplier::Read, &supplier,
                              &progress, nullptr),
                0);
      result.compressionSize = encoder.CompressionSize();
    } else {
      encoder.Next(image, &progress);
    }
    image.pixels = nullptr;
    result.progresses.push_back(progress);
  }
  encoder.End();
  holder.Close();
  EXPECT_TRUE(zycCheckMovie(zycReadWholeFile(path), &result.movie)) << result.movie.error;
  std::remove(path.c_str());
  result.headerFlags = result.movie.header.flags;
  result.asked = supplier.asked;
  return result;
}

// The shift of `decoded` against `source`, within 16 samples either way, that leaves the least
// squared difference: decoded[i] matches source[i + lag].
int BestLag(const std::vector<int16_t>& source, const std::vector<int16_t>& decoded) {
  int best = 0;
  double bestNoise = -1.0;
  for (int lag = -16; lag <= 16; ++lag) {
    double noise = 0.0;
    for (size_t i = 16; i + 16 < decoded.size(); ++i) {
      const double d = double(source[size_t(long(i) + lag)]) - decoded[i];
      noise += d * d;
    }
    if (bestNoise < 0.0 || noise < bestNoise) {
      bestNoise = noise;
      best = lag;
    }
  }
  return best;
}

// 41 small frames with sound in them ("EXTC" 1, "pFMT" 32, "oFMT" 2000: a lead of 4000
// samples), coded once for the tests below.
const SoundMovie& SpeechMovie() {
  static const SoundMovie movie = Encode("speech", 41, 1, 32, 2000);
  return movie;
}

// The sound item of frame `f`, empty when the frame has none.
std::vector<uint8_t> Chunk(const zycMovieCheck& movie, size_t f) {
  zycFrameItems items;
  const std::vector<uint8_t>& frame = movie.frames[f];
  if (!zycSplitFrame(frame.data(), frame.size(), &items) || !items.sound.present) return {};
  return std::vector<uint8_t>(frame.begin() + items.sound.offset,
                              frame.begin() + items.sound.offset + items.sound.size);
}

}  // namespace

// Phone sound outputs: without a main output the movie goes to the numbered files, each with a
// header and its first section of its own; the first chunk then needs the phone sound library,
// which ends the process with exit code 1.
void BeginWithPhoneOutput(const std::string& path) {
  const zylTestPicture& picture = Pictures(false).at(0);
  SoundSupplier supplier;
  supplier.samples = &Speech().samples;
  zycEncoder encoder;
  encoder.verbose = false;
  encoder.embedRequest = 1;
  encoder.soundFlags = 1 | 32;
  zycStreamHeader header;
  header.magic = kMagicZyl0;
  header.frameDuration = 100000;
  header.timeScale = 1000000;
  header.width = uint32_t(picture.width);
  header.height = uint32_t(picture.height);
  header.soundRate = 16000;
  header.soundChannels = 1;
  FILE* extra[5] = {std::fopen(path.c_str(), "w+b"), nullptr, nullptr, nullptr, nullptr};
  zycFileHolder none;
  zylFrameImage image;
  image.pixels = const_cast<uint8_t*>(picture.pixels.data());
  image.width = picture.width;
  image.height = picture.height;
  zylProgress progress{};
  encoder.Begin(header, image, &none, extra, SoundSupplier::Read, &supplier, &progress, nullptr);
  image.pixels = nullptr;
}

TEST(SoundMovieDeathTest, PhoneOutputGetsItsHeaderThenTheProcessEnds) {
  const std::string path =
      ::testing::TempDir() + "soundMovie_phone_" + std::to_string(getpid()) + "_1.zyl";
  EXPECT_EXIT(BeginWithPhoneOutput(path), ::testing::ExitedWithCode(1), "");
  const std::vector<uint8_t> bytes = zycReadWholeFile(path);
  std::remove(path.c_str());
  ASSERT_EQ(bytes.size(), 64u + 6u);
  EXPECT_EQ(bytes[0] | bytes[1] << 8 | bytes[2] << 16 | uint32_t(bytes[3]) << 24, kMagicZyl0);
  EXPECT_EQ(bytes[12] & 2, 2);  // the header's flags tell of embedded sound
  EXPECT_EQ(bytes[40] | bytes[41] << 8, 16000);
  for (size_t i = 64; i < bytes.size(); ++i) EXPECT_EQ(bytes[i], 0) << i;
}

TEST(SoundMovie, ChunksComeWithTheFirstFrameAndThenEveryLeadOfSamples) {
  ASSERT_EQ(Pictures(false).size(), 8u);
  ASSERT_EQ(Speech().sampleRate, 16000u);
  const SoundMovie& m = SpeechMovie();
  ASSERT_EQ(m.movie.frames.size(), 41u);
  EXPECT_EQ(m.headerFlags & kHeaderFlagSound, kHeaderFlagSound);
  EXPECT_EQ(m.movie.header.soundRate, 16000u);
  EXPECT_EQ(m.movie.header.soundChannels, 1u);
  // Lead 2000 x 4 / 2 = 4000 samples, 1600 samples a frame: 4000 + 1600 x 2.
  EXPECT_EQ(m.movie.header.soundChunkLimit, 7200u);
  // Frame 0 takes the lead and its own 1600 samples; then 4000 are owed after 3 frames
  // (4800 taken), every 3 frames.
  std::vector<uint32_t> asked;
  for (size_t f = 0; f < 41; ++f) {
    const std::vector<uint8_t> chunk = Chunk(m.movie, f);
    if (f % 3 == 0) {
      const uint32_t n = f == 0 ? 5600 : 4800;
      asked.push_back(n * 2);
      EXPECT_EQ(m.movie.frameFlags[f] & kFrameFlagSound, kFrameFlagSound) << f;
      EXPECT_EQ(chunk.size(), zycAdpcmChunkSize(n, 1)) << f;
      EXPECT_EQ(m.progresses[f].soundSize, chunk.size()) << f;
    } else {
      EXPECT_EQ(m.movie.frameFlags[f] & kFrameFlagSound, 0) << f;
      EXPECT_TRUE(chunk.empty()) << f;
      EXPECT_EQ(m.progresses[f].soundSize, 0u) << f;
    }
  }
  EXPECT_EQ(m.asked, asked);
}

// On a 32 x 32 picture the chunk is far larger than the picture's own bytes.
TEST(SoundMovie, DefaultLeadTakesTwoSecondsWithTheFirstFrame) {
  const SoundMovie m = Encode("lead", 2, 1, 32, 16000);
  ASSERT_EQ(m.movie.frames.size(), 2u);
  // Lead 16000 x 4 / 2 = 32000 samples: 32000 + 1600 x 2.
  EXPECT_EQ(m.movie.header.soundChunkLimit, 35200u);
  EXPECT_EQ(Chunk(m.movie, 0).size(), zycAdpcmChunkSize(33600, 1));
  EXPECT_EQ(Chunk(m.movie, 0).size(), 8403u);
  EXPECT_TRUE(Chunk(m.movie, 1).empty());
  EXPECT_EQ(m.asked, (std::vector<uint32_t>{33600 * 2}));
}

TEST(SoundMovie, FractionalSamplesPerFrameRoundUpToMultiplesOfFour) {
  // 30000/1001 frames a second: 533.872 samples a frame. Frame 0 owes 4533.872 and takes 4536,
  // 2.128 too many; frame 8 owes 8 x 533.872 - 2.128 = 4268.848 and takes 4272; frame 16
  // owes 4267.824 and takes 4268.
  const SoundMovie m = Encode("ntsc", 17, 1, 32, 2000, 16000, 33367);
  ASSERT_EQ(m.movie.frames.size(), 17u);
  EXPECT_EQ(m.movie.header.soundChunkLimit, 4000u + 534u * 2u);
  for (size_t f = 0; f < 17; ++f) {
    EXPECT_EQ(Chunk(m.movie, f).empty(), f % 8 != 0) << f;
  }
  EXPECT_EQ(m.asked, (std::vector<uint32_t>{4536 * 2, 4272 * 2, 4268 * 2}));
}

TEST(SoundMovie, DecodedSoundLinesUpWithTheSource) {
  const SoundMovie& m = SpeechMovie();
  std::vector<int16_t> decoded;
  std::vector<uint8_t> previousEnd;
  for (size_t f = 0; f < m.movie.frames.size(); ++f) {
    const std::vector<uint8_t> chunk = Chunk(m.movie, f);
    if (chunk.empty()) continue;
    // Each chunk's header is the state where the previous chunk ended.
    if (!decoded.empty()) {
      const int16_t last = decoded.back();
      EXPECT_EQ(int16_t(chunk[0] << 8 | chunk[1]), last) << f;
    }
    std::vector<int16_t> part(zycAdpcmSamples(uint32_t(chunk.size()), 1));
    ASSERT_EQ(zycAdpcmDecode(chunk.data(), uint32_t(chunk.size()), 1, part.data()), part.size());
    decoded.insert(decoded.end(), part.begin(), part.end());
  }
  ASSERT_EQ(decoded.size(), 5600u + 13u * 4800u);
  const std::vector<int16_t>& source = Speech().samples;
  ASSERT_GE(source.size(), decoded.size());
  // The chunks hold the source's samples in order with nothing lost or doubled: the movie's
  // sound is exactly what the coder makes of the source's first samples in one go.
  const uint32_t n = uint32_t(decoded.size());
  zycAdpcmState state = {};
  std::vector<uint8_t> whole(zycAdpcmChunkSize(n, 1));
  std::vector<int16_t> rebuilt(n);
  zycAdpcmEncode(state, source.data(), n, 1, whole.data(), rebuilt.data());
  EXPECT_TRUE(decoded == rebuilt);
  // The coder's predictor trails the sound by about a sample, since it only ever moves a
  // quarter step towards it; the movie adds no offset of its own.
  const int lag = BestLag(source, decoded);
  EXPECT_EQ(lag, BestLag(source, rebuilt));
  EXPECT_GE(lag, -1);
  EXPECT_LE(lag, 0);
  double signal = 0.0, noise = 0.0;
  for (size_t i = 0; i < decoded.size(); ++i) {
    signal += double(source[i]) * source[i];
    noise += (double(source[i]) - decoded[i]) * (double(source[i]) - decoded[i]);
  }
  const double snr = 10.0 * std::log10(signal / noise);
  std::printf("movie sound: %zu samples, best lag %d, SNR %.2f dB\n", decoded.size(), lag, snr);
  EXPECT_GT(snr, 10.5);
}

// Sound that the movie does not store: with the defaults ("EXTC" 0) the budget still gives up
// an eighth of the raw sound bytes, the size after 2-bit coding, and the account starts 4
// lower; without the ADPCM bit of "pFMT" nothing is taken off. Either way the chunks are
// fetched, and no frame carries one.
TEST(SoundMovie, SoundNotStoredIsFetchedAndBudgetedByTheAdpcmBit) {
  const SoundMovie silent = Encode("nosound", 2, 0, 32, 16000, 0, 100000, true);
  // The raw frame: 160 x 128 x 3 / 100, and with the 3200 sound bytes a frame counted, 646.
  EXPECT_EQ(silent.compressionSize, 614);
  EXPECT_EQ(silent.progresses[0].credit, -70 + silent.compressionSize - silent.progresses[0].size);
  EXPECT_TRUE(silent.asked.empty());
  const struct {
    const char* name;
    uint32_t embed, flags;
    int32_t budget, start;
  } cases[] = {{"defaults", 0, 32, 646 - 400, -74}, {"noadpcm", 1, 0, 646, -70}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const SoundMovie m = Encode(c.name, 2, c.embed, c.flags, 16000, 16000, 100000, true);
    EXPECT_EQ(m.headerFlags & kHeaderFlagSound, 0u);
    EXPECT_EQ(m.movie.header.soundRate, 16000u);
    EXPECT_EQ(m.movie.header.soundChunkLimit, 35200u);
    EXPECT_EQ(m.compressionSize, c.budget);
    EXPECT_EQ(m.progresses[0].credit, c.start + m.compressionSize - m.progresses[0].size);
    EXPECT_EQ(m.asked, (std::vector<uint32_t>{33600 * 2}));
    for (size_t f = 0; f < m.movie.frames.size(); ++f) {
      EXPECT_EQ(m.movie.frameFlags[f] & kFrameFlagSound, 0) << f;
      EXPECT_EQ(m.progresses[f].soundSize, 0u) << f;
    }
  }
}

TEST(SoundMovie, ChunkBytesAreGivenBackToTheFrameThatCarriesThem) {
  const SoundMovie& m = SpeechMovie();
  ASSERT_EQ(m.progresses.size(), 41u);
  // credit(f) = credit(f - 1) + compressionSize - size, plus the sound bytes of a frame with
  // sound; frame 0 starts from -74.
  int32_t credit = -74;
  for (size_t f = 0; f < m.progresses.size(); ++f) {
    credit += m.compressionSize - m.progresses[f].size + int32_t(m.progresses[f].soundSize);
    EXPECT_EQ(m.progresses[f].credit, credit) << f;
  }
  EXPECT_GT(m.progresses[39].soundSize, 0u);
}

