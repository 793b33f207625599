// Whole movies with sound: which frames carry a chunk, what the budget gives up for the sound,
// and whether the chunks in the file decode back to the source's sound in its order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include "base/byteIo.h"
#include "stream/adpcm.h"
#include "stream/adpcmDecoder.h"
#include "stream/framePayload.h"
#include "tests/encoder/encodeRun.h"
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

// What a job is asked: `leadBase` is "oFMT", whose small default here brings a chunk every few
// frames and keeps the movies short; `rate` 0 codes no sound; `frameDuration` is over a time
// scale of 1000000; with `phone` the movie goes to those numbered outputs instead of a file.
struct Job {
  uint32_t frames = 2;
  uint32_t embedRequest = 1;  // "EXTC"
  uint32_t soundFlags = 32;   // "pFMT"
  uint32_t leadBase = 2000;
  uint32_t rate = 16000;
  uint32_t frameDuration = 100000;
  bool large = false;
  FILE** phone = nullptr;
};

// Codes `job.frames` pictures of the clip with its 16 kHz mono sound, the movie read back after
// every frame.
SoundMovie Encode(const std::string& name, const Job& job) {
  const std::vector<zylTestPicture>& pictures = Pictures(job.large);
  SoundSupplier supplier;
  supplier.samples = &Speech().samples;
  EncodeRun run("sound_" + name, job.phone == nullptr);
  run.encoder.embedRequest = job.embedRequest;
  run.encoder.soundFlags = job.soundFlags;
  run.encoder.soundLeadBase = job.leadBase;
  run.encoder.SetJobRange(0, job.frames);
  run.header.frameDuration = job.frameDuration;
  run.header.soundRate = job.rate;
  run.header.soundChannels = job.rate ? 1 : 0;
  run.audioSupplier = SoundSupplier::Read;
  run.audioUser = &supplier;
  run.extraOutputs = job.phone;
  SoundMovie result;
  EXPECT_EQ(run.Begin(pictures.at(0), 0.0), 0);
  result.compressionSize = run.encoder.CompressionSize();
  for (uint32_t f = 1; f < job.frames; ++f) run.Next(pictures[f % pictures.size()]);
  result.progresses = run.progresses;
  result.movie = run.movie;
  result.asked = supplier.asked;
  return result;
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

// Frame 0 takes the lead of "oFMT" x 4 / 2 samples and its own; then a chunk every time a lead is
// owed again. The chunk limit is the lead and two frames' samples. At 30000/1001 frames a second
// (533.872 samples a frame) a chunk takes the samples owed rounded up to a multiple of four. The
// chunk's bytes are given back to the credit of the frame that carries it.
TEST(SoundMovie, ChunksComeWithTheFirstFrameAndThenEveryLeadOfSamples) {
  ASSERT_EQ(Speech().sampleRate, 16000u);
  const struct {
    const char* name;
    Job job;
    uint32_t chunkLimit, period;
    std::vector<uint32_t> samples;  // of each chunk; the last repeats
  } cases[] = {
      {"lead2000", {.frames = 41}, 4000 + 1600 * 2, 3, {5600, 4800}},
      {"lead16000", {.leadBase = 16000}, 32000 + 1600 * 2, 2, {33600}},
      {"ntsc", {.frames = 17, .frameDuration = 33367}, 4000 + 534 * 2, 8, {4536, 4272, 4268}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const SoundMovie m = Encode(c.name, c.job);
    ASSERT_EQ(m.movie.frames.size(), c.job.frames);
    EXPECT_EQ(m.movie.header.flags & kHeaderFlagSound, kHeaderFlagSound);
    EXPECT_EQ(m.movie.header.soundRate, 16000u);
    EXPECT_EQ(m.movie.header.soundChannels, 1u);
    EXPECT_EQ(m.movie.header.soundChunkLimit, c.chunkLimit);
    std::vector<uint32_t> asked;
    int32_t credit = -74;
    for (size_t f = 0; f < c.job.frames; ++f) {
      const std::vector<uint8_t> chunk = Chunk(m.movie, f);
      const uint8_t flag = m.movie.frameFlags[f] & kFrameFlagSound;
      const zylProgress& p = m.progresses[f];
      EXPECT_EQ(p.soundSize, chunk.size()) << f;
      credit += m.compressionSize - p.size + int32_t(p.soundSize);
      EXPECT_EQ(p.credit, credit) << f;
      if (f % c.period != 0) {
        EXPECT_EQ(flag, 0) << f;
        EXPECT_TRUE(chunk.empty()) << f;
        continue;
      }
      const uint32_t n = c.samples[std::min(asked.size(), c.samples.size() - 1)];
      asked.push_back(n * 2);
      EXPECT_EQ(flag, kFrameFlagSound) << f;
      EXPECT_EQ(chunk.size(), zycAdpcmChunkSize(n, 1)) << f;
    }
    EXPECT_EQ(m.asked, asked);
  }
}

// Sound that the movie does not store: with the defaults ("EXTC" 0) the budget still gives up
// an eighth of the raw sound bytes, the size after 2-bit coding, and the account starts 4
// lower; without the ADPCM bit of "pFMT" nothing is taken off. Either way the chunks are
// fetched, and no frame carries one. The raw frame is 160 x 128 x 3 / 100 = 614, and 646 with
// the 3200 sound bytes of a frame counted.
TEST(SoundMovie, SoundNotStoredIsFetchedAndBudgetedByTheAdpcmBit) {
  const struct {
    const char* name;
    Job job;
    int32_t budget, start;
    uint32_t rate, chunkLimit;
    std::vector<uint32_t> asked;
  } cases[] = {
      {"nosound", {.embedRequest = 0, .rate = 0}, 614, -70, 0, 0, {}},
      {"defaults", {.embedRequest = 0}, 646 - 400, -74, 16000, 35200, {33600 * 2}},
      {"noadpcm", {.soundFlags = 0}, 646, -70, 16000, 35200, {33600 * 2}},
  };
  for (auto c : cases) {
    SCOPED_TRACE(c.name);
    c.job.leadBase = 16000;
    c.job.large = true;
    const SoundMovie m = Encode(c.name, c.job);
    EXPECT_EQ(m.movie.header.flags & kHeaderFlagSound, 0u);
    EXPECT_EQ(m.movie.header.soundRate, c.rate);
    EXPECT_EQ(m.movie.header.soundChunkLimit, c.chunkLimit);
    EXPECT_EQ(m.compressionSize, c.budget);
    EXPECT_EQ(m.progresses[0].credit, c.start + m.compressionSize - m.progresses[0].size);
    EXPECT_EQ(m.asked, c.asked);
    for (size_t f = 0; f < m.movie.frames.size(); ++f) {
      EXPECT_EQ(m.movie.frameFlags[f] & kFrameFlagSound, 0) << f;
      EXPECT_EQ(m.progresses[f].soundSize, 0u) << f;
    }
  }
}


