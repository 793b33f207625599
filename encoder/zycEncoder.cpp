// zycEncoder: Begin writes the header and the first key frame, Next codes one more picture,
// End tears the job down. A frame is searched once (BuildMotionVector), then the rate loop walks
// the tree at one threshold after another and packs each try for real, until the packed size
// hits the frame's budget. The frame decoder rebuilds what a player will show; the next frame
// searches against that picture and its 16 fades.
#include "encoder/zycEncoder.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "base/byteIo.h"
#include "base/clock.h"
#include "base/consoleLog.h"
#include "base/cpuFeatures.h"
#include "base/parallel.h"
#include "base/timers.h"
#include "dxt/buildLevels.h"
#include "dxt/yuvConvert.h"
#include "encoder/blockTreeWriter.h"
#include "encoder/keyFrames.h"
#include "encoder/motionSearch.h"
#include "encoder/rateControl.h"
#include "encoder/sectionPacker.h"
#include "stream/sound.h"
#include "stream/container.h"
#include "stream/decoderTables.h"
#include "stream/zycDecoder.h"
#include "vq/VQSLSQCompressor.h"

namespace {

// A picture of 4-byte pixels in 16-byte aligned storage.
struct Picture {
  uint8_t* data = nullptr;
  void Allocate(size_t bytes, uint8_t fill) {
    std::free(data);
    data = static_cast<uint8_t*>(std::aligned_alloc(16, (bytes + 15) & ~size_t(15)));
    ZYC_ASSERT(data != nullptr, "zycEncoder::Begin", "no memory for a picture of %zu bytes\n",
               bytes);
    std::memset(data, fill, bytes);
  }
  ~Picture() { std::free(data); }
};

// True when the bytes went out (or there is no file).
bool WriteZeros(FILE* file, size_t count) {
  static const uint8_t kZeros[8] = {};
  return !file || std::fwrite(kZeros, 1, count, file) == count;
}

}  // namespace

struct zycEncoder::State {
  zycStreamHeader header;
  uint32_t paddedWidth = 0;
  uint32_t paddedHeight = 0;
  uint32_t frameIndex = 0;
  uint32_t lastKeyFrame = 0;
  uint32_t threads = 1;  // "THRD" as Begin resolved it
  int32_t compressionSize = 0;
  int32_t credit = 0;
  long sectionStart = 0;
  uint32_t sectionSize = 0;

  Picture sourceFrame;
  Picture sourceYuv;
  Picture previousFrame;
  Picture decoded;  // the decoder's output, exchanged with previousFrame after each frame
  Picture references[17];
  zycDxtLevels levels;

  std::vector<zycBlock> topBlocks;
  zycBlockPool pool;
  zycFrameLists lists;
  uint32_t opcodeLength = 0;  // packed, flags byte included
  uint32_t fadeLength = 0;    // packed
  std::vector<uint8_t> colourItem;
  std::vector<uint8_t> treeCopy;
  int32_t headerBytes = 0;  // what the last try's opcode and motion items took

  std::vector<uint8_t> tablePixels;  // the colour blocks of a table frame, 48 bytes each
  std::vector<uint8_t> tableImage;   // its table image, padded for the decoder's reads
  uint32_t tableImageSize = 0;
  bool tableFrame = false;  // the frame just written carries a table item

  zycSadKernels kernels;
  zycBlockSums sourceSums;
  zycBlockSums referenceSums;
  zycFadeSums fadeSums;
  int8_t largeTable[kLargeMotionCount][2] = {};
  zycMotionSearch search;
  std::vector<uint32_t> topResults;  // the search's result of each top block
  double searchSeconds = 0.0;
  uint32_t searchCalls = 0;

  zycSoundStep sound;
  bool soundHandled = false;  // rate, "EXTC" and "pFMT" all non-zero
  zycSectionPacker packer;
  zycFileHolder* output = nullptr;
  FILE* extra[kExtraOutputCount] = {};

  VQSLSQCompressor vqCompressor{zycCpuHasSse()};
  std::vector<uint8_t> stillPixels;
  std::vector<uint8_t> stillImage;
  uint32_t stillTarget = 0;
  bool stillFrame = false;  // the frame just written is a still image

  myDecoder decoderIo;
  std::unique_ptr<zycFrameDecoder> frameDecoder{new zycFrameDecoder};
  bool decoderReady = false;

  FrameInfo last;

  FILE* file() const { return output ? output->file : nullptr; }
  // Notes a failed write, seek or flush of any output with the system's reason.
  void Check(bool ok) {
    if (!ok && output) output->NoteError(errno);
  }
  size_t PictureBytes() const { return size_t(paddedWidth) * paddedHeight * 4; }
};

// The table figures of the frame just written, for tests and statistics.
void zycEncoder::NoteTable() {
  State& s = *state_;
  if (!s.tableFrame) return;
  const VQSLSQCompressor::PFrameStatistics& t = s.vqCompressor.pFrameStatistics();
  s.last.tableBlocks = t.blockCount;
  s.last.tableNew = t.newCount;
  s.last.tableIndexBits = t.indexBits;
}

zycEncoder::zycEncoder() : state_(new State) {}

zycEncoder::~zycEncoder() {
  End();
  delete state_;
}

void zycEncoder::SetJobRange(uint32_t first, uint32_t total) {
  firstFrame = first;
  frameTotal = total;
}

const uint8_t* zycEncoder::Reconstructed() const { return state_->previousFrame.data; }
uint32_t zycEncoder::Pitch() const { return state_->paddedWidth * 4; }
const zycEncoder::FrameInfo& zycEncoder::LastFrame() const { return state_->last; }
int32_t zycEncoder::CompressionSize() const { return state_->compressionSize; }
int32_t zycEncoder::Credit() const { return state_->credit; }
uint32_t zycEncoder::PaddedWidth() const { return state_->paddedWidth; }
uint32_t zycEncoder::PaddedHeight() const { return state_->paddedHeight; }
const uint8_t* zycEncoder::SourceFrame() const { return state_->sourceFrame.data; }

// ---------------------------------------------------------------------------------------------
// Pictures.

namespace {

// Copies `image` into the padded picture (black outside it) and its YUV form.
void TakePicture(const zylFrameImage& image, uint32_t paddedWidth, uint32_t paddedHeight,
                 uint8_t* sourceFrame, uint8_t* sourceYuv) {
  const uint32_t w = uint32_t(image.width > 0 ? image.width : 0);
  const uint32_t h = uint32_t(image.height > 0 ? image.height : 0);
  for (uint32_t y = 0; y < paddedHeight; ++y) {
    uint8_t* row = sourceFrame + size_t(y) * paddedWidth * 4;
    if (y < h && image.pixels) {
      const uint32_t inside = w < paddedWidth ? w : paddedWidth;
      std::memcpy(row, image.pixels + size_t(y) * w * 4, size_t(inside) * 4);
      std::memset(row + size_t(inside) * 4, 0, size_t(paddedWidth - inside) * 4);
    } else {
      std::memset(row, 0, size_t(paddedWidth) * 4);
    }
  }
  zycConvertToYuv(sourceFrame, sourceYuv, paddedWidth * paddedHeight);
}

inline uint8_t Darker(uint8_t c, int f) { return uint8_t(c - c * (8 - f) / 20); }
inline uint8_t Lighter(uint8_t c, int f) { return uint8_t(c + (255 - c) * (f - 7) / 20); }

}  // namespace

// A table frame carries no fade item: a player reads no fade levels for it. So that the encoder
// and a player rebuild the same picture, table frames are searched without fade candidates and
// their trees never hold a fade node.
bool zycEncoder::FadesSearched() const { return !noFade && pFrameFormat == 0; }

// references[0] is the rebuilt picture in YUV; 1 to 16 are its fades, darker by 40% down to
// 5%, then lighter by 5% up to 40%.
void zycEncoder::BuildReferences() {
  State& s = *state_;
  const uint32_t count = s.paddedWidth * s.paddedHeight;
  const uint8_t* p = s.previousFrame.data;
  // Job 0 is the picture itself, jobs 1 to 16 its fades; each writes only its own reference.
  const bool withFades = FadesSearched();
  zycParallelFor(s.threads, withFades ? 17 : 1, [&](uint32_t job) {
    if (job == 0) {
      zycConvertToYuv(p, s.references[0].data, count);
      if (useSums) s.referenceSums.Build(s.references[0].data, s.paddedWidth, s.paddedHeight);
      return;
    }
    const int f = int(job) - 1;
    uint8_t tone[256];
    for (int c = 0; c < 256; ++c) tone[c] = f < 8 ? Darker(uint8_t(c), f) : Lighter(uint8_t(c), f);
    uint8_t* out = s.references[job].data;
    for (uint32_t i = 0; i < count * 4; i += 4) {
      out[i] = tone[p[i]];
      out[i + 1] = tone[p[i + 1]];
      out[i + 2] = tone[p[i + 2]];
    }
    zycConvertToYuv(out, out, count);
  });
  if (!withFades) return;
  if (useSums) {
    const uint8_t* fades[16];
    for (int f = 0; f < 16; ++f) fades[f] = s.references[f + 1].data;
    s.fadeSums.Build(fades, s.paddedWidth, s.paddedHeight);
  }
}

// ---------------------------------------------------------------------------------------------
// Search.

uint32_t zycEncoder::BuildMotionVector(bool searchOff, bool buildLevels) {
  State& s = *state_;
  const uint64_t start = zycClockMicroseconds();
  if (buildLevels && (pFrameFormat == 0 || pFrameFormat == 1)) {
    TimerStart(kTimerDxt1Compression);
    BuildLevels(s.levels, yuvCoding ? s.sourceYuv.data : s.sourceFrame.data, dxtBackEnd,
                yuvCoding, s.threads);
    TimerStop(kTimerDxt1Compression);
  }
  TimerStart(kTimerBuildMotionVector);
  s.pool.Reset();
  zycMotionSearch& m = s.search;
  m.sourceYuv = s.sourceYuv.data;
  for (int i = 0; i < 17; ++i) m.references[i] = s.references[i].data;
  for (int i = 0; i < 3; ++i) m.dxtPreview[i] = s.levels.preview[i];
  m.paddedWidth = s.paddedWidth;
  m.paddedHeight = s.paddedHeight;
  if (motionByte) {
    m.table = kSmallMotionTable;
    m.count = motionShift >= 32 ? 0 : (256u >> motionShift);
  } else {
    m.table = s.largeTable;
    m.count = kLargeMotionCount;
  }
  m.blockMin = int32_t(blockMin);
  m.noFade = !FadesSearched();
  m.searchOff = searchOff;
  m.skipDxtError = false;
  m.kernels = s.kernels;
  m.pool = &s.pool;
  m.sourceSums = nullptr;
  m.referenceSums = nullptr;
  m.fadeSums = nullptr;
  if (useSums && !searchOff) {
    s.sourceSums.Build(s.sourceYuv.data, s.paddedWidth, s.paddedHeight);
    m.sourceSums = &s.sourceSums;
    m.referenceSums = &s.referenceSums;
    m.fadeSums = FadesSearched() ? &s.fadeSums : nullptr;
  }

  // Top blocks are searched apart, each taking its nodes from its own part of the pool; a tree
  // does not depend on the thread that searched it. Threads take the next top block as they
  // become free: the work of a block varies a lot, that of whole rows too.
  const uint32_t across = s.paddedWidth / blockMax;
  const uint32_t tops = uint32_t(s.topBlocks.size());
  zycParallelFor(s.threads, tops, [&](uint32_t i) {
    zycMotionSearch local = m;
    zycBlockPool part = s.pool.Part(i, 1);
    local.pool = &part;
    zycBlock& b = s.topBlocks[i];
    b.size = int32_t(blockMax);
    b.x = int32_t((i % across) * blockMax);
    b.y = int32_t((i / across) * blockMax);
    s.topResults[i] = local.SearchBlock(b);
  });
  uint32_t result = 0;
  for (uint32_t i = 0; i < tops; ++i) result += s.topResults[i];
  TimerStop(kTimerBuildMotionVector);
  const double seconds = double(zycClockMicroseconds() - start) / 1e6;
  s.searchSeconds += seconds;
  ++s.searchCalls;
  if (verbose) {
    zycLog("BuildMotionVector: %f\n", seconds);
    zycLog("BuildMotionVector average: %f\n", s.searchSeconds / s.searchCalls);
  }
  return result;
}

// ---------------------------------------------------------------------------------------------
// One try of a block tree frame: walk at `threshold`, pack the items through the packer.

int32_t zycEncoder::TryTree(bool key, uint32_t threshold, uint32_t& errorNext, bool hasSound,
                            bool fadeAllowed) {
  State& s = *state_;
  zycFrameLists& l = s.lists;
  TimerStart(kTimerQuantize);
  l.Clear();
  errorNext = kErrorNextStart;
  zycWalk walk{&l, int32_t(blockMin), motionByte};
  for (const zycBlock& b : s.topBlocks) {
    if (key) {
      walk.KeyBlock(b, threshold, errorNext);
    } else {
      walk.PBlock(b, threshold, errorNext);
    }
  }
  s.opcodeLength = zycPackOpcodes(l.opcodes.data(), l.opcodes.size());
  const uint32_t fadeCount = fadeAllowed ? l.fadeBytes.size() : 0;
  l.opcodes[0] = zycBlockTreeFlags(l.motionBytes.size(), l.dxtList.size(), fadeCount,
                                   pFrameFormat, hasSound);
  TimerStop(kTimerQuantize);

  TimerStart(kTimerBackupZip);
  s.packer.Save();
  TimerStop(kTimerBackupZip);
  int32_t size = s.packer.PackItem(l.opcodes.data(), s.opcodeLength);
  TimerStart(kTimerSaveOffset);
  if (l.motionBytes.size()) size += s.packer.PackItem(l.motionBytes.data(), l.motionBytes.size());
  TimerStop(kTimerSaveOffset);
  s.headerBytes = size;
  const uint32_t n = l.dxtList.size();
  TimerStart(kTimerSaveBlock);
  if (n) {
    s.colourItem.resize(size_t(n) * 8);
    const uint8_t* levels[3] = {s.levels.blocks[0].data(), s.levels.blocks[1].data(),
                                s.levels.blocks[2].data()};
    zycGatherColourItem(l.dxtList.data(), n, levels, s.paddedWidth, s.colourItem.data());
    size += s.packer.PackItem(s.colourItem.data(), n * 8);
  }
  TimerStop(kTimerSaveBlock);
  s.fadeLength = 0;
  if (l.fadeBytes.size()) {
    s.fadeLength = zycPackFades(l.fadeBytes.data(), l.fadeBytes.size());
    const int32_t fadePacked = s.packer.PackItem(l.fadeBytes.data(), s.fadeLength);
    size += fadePacked;
    s.headerBytes += fadePacked;
  }
  return s.packer.FinishSize(size);
}

// The frame's sound item. Frames for the phone sound outputs put a record of two 16-bit words
// before the chunk: 4, and 2 for 16000 samples a second, else 1.
int32_t zycEncoder::PackSound() {
  State& s = *state_;
  if (!embedded) return s.packer.PackItem(s.sound.chunk.data(), s.sound.soundSize);
  std::vector<uint8_t> item(4 + size_t(s.sound.soundSize));
  zycStore16(item.data(), 4);
  zycStore16(item.data() + 2, s.header.soundRate == 16000 ? 2 : 1);
  if (s.sound.soundSize) std::memcpy(item.data() + 4, s.sound.chunk.data(), s.sound.soundSize);
  return s.packer.PackItem(item.data(), uint32_t(item.size()));
}

// The final write of a block tree frame after the last try was restored: the same items, the
// sound between the colour and fade items, committed to the file.
int32_t zycEncoder::WriteTree(bool hasSound) {
  State& s = *state_;
  zycFrameLists& l = s.lists;
  zycSectionPacker& p = s.packer;
  int32_t size = p.PackItem(l.opcodes.data(), s.opcodeLength);
  if (l.motionBytes.size()) size += p.PackItem(l.motionBytes.data(), l.motionBytes.size());
  if (l.dxtList.size()) size += p.PackItem(s.colourItem.data(), l.dxtList.size() * 8);
  if (hasSound) size += PackSound();
  if (s.fadeLength) size += p.PackItem(l.fadeBytes.data(), s.fadeLength);
  size = p.FinishSize(size);
  p.Commit();
  s.sectionSize += uint32_t(size);
  p.sectionPackedSize += uint32_t(size);
  return size;
}

// The end of a block tree frame after its rate loop. With table frames the colour blocks get a
// budget of their own: what the frame's size leaves after its opcode and motion items, plus a
// hundredth of any credit. While that budget is gone, far too small for a frame that is too
// big, or asks more than the largest reduction of the table coder, the threshold moves on to
// the next error that matters, which takes more blocks out of the colour list.
int32_t zycEncoder::FinishBlockFrame(bool key, int32_t wantedSize, int32_t size,
                                     uint32_t& errorMax, uint32_t& errorNext, uint32_t& passes,
                                     bool hasSound) {
  State& s = *state_;
  if (pFrameFormat != 1 || s.lists.dxtList.size() == 0) return WriteTree(hasSound);
  const float maxRatio = key ? vqRatioMaxKey : vqRatioMaxP;
  int32_t budget = 0;
  for (;;) {
    const double raw = 48.0 * s.lists.dxtList.size();
    budget = wantedSize - s.headerBytes;
    if (s.credit > 0) budget += s.credit / 100;
    const bool again = budget < 1 ||
                       (size > wantedSize && int64_t(budget) <= int64_t(wantedSize) * 40 / 100) ||
                       raw / budget > maxRatio;
    // Nothing left to take out: the frame goes out as it is.
    if (!again || errorNext == kErrorNextStart || errorMax == errorNext) break;
    errorMax = errorNext;
    ++passes;
    size = TryTree(key, errorMax, errorNext, hasSound, true);
    s.packer.Restore();
    if (s.lists.dxtList.size() == 0) return WriteTree(hasSound);
  }
  const double raw = 48.0 * s.lists.dxtList.size();
  if (budget > 0 && raw / budget < vqRatioMin) budget = int32_t(raw / vqRatioMin);
  return WriteTable(key, budget, hasSound);
}

// The final write of a table frame: the opcode and motion items, the sound, then the colour
// blocks as a table image in place of the colour item. Always on the main file.
int32_t zycEncoder::WriteTable(bool key, int32_t budget, bool hasSound) {
  State& s = *state_;
  zycFrameLists& l = s.lists;
  zycSectionPacker& p = s.packer;
  int32_t size = p.PackItem(l.opcodes.data(), s.opcodeLength);
  if (l.motionBytes.size()) size += p.PackItem(l.motionBytes.data(), l.motionBytes.size());
  if (hasSound) size += p.PackItem(s.sound.chunk.data(), s.sound.soundSize);

  // Each colour block as the decoder's table path will show it: 4x4 samples of the preview of
  // its level, back from YUV to RGB with the decoder's tables, three bytes a pixel, red first.
  const uint32_t n = l.dxtList.size();
  s.tablePixels.resize(size_t(n) * 48);
  const zycDxtLevels& v = s.levels;
  for (uint32_t i = 0; i < n; ++i) {
    const zycBlock& b = *l.dxtList[i];
    const uint32_t level = b.size == 4 ? 0 : b.size == 8 ? 1 : 2;
    const uint32_t step = uint32_t(b.size) / 4;
    uint8_t* out = &s.tablePixels[size_t(i) * 48];
    for (uint32_t j = 0; j < 4; ++j) {
      for (uint32_t k = 0; k < 4; ++k, out += 3) {
        const uint8_t* px = v.preview[level] +
                            (size_t(uint32_t(b.y) + j * step) * s.paddedWidth + uint32_t(b.x) + k * step) * 4;
        const int32_t yy = v.yTable[px[1]];
        out[0] = v.clampTable[yy + v.crToR[px[2]] + kClampBias];
        out[1] = v.clampTable[yy + v.crToG[px[2]] + v.cbToG[px[0]] + kClampBias];
        out[2] = v.clampTable[yy + v.cbToB[px[0]] + kClampBias];
      }
    }
  }
  s.vqCompressor.verbose = verbose;
  s.tableImageSize = s.vqCompressor.compressPFrame(s.tablePixels.data(), n, key, budget, s.tableImage);
  const int32_t packed = p.PackItem(s.tableImage.data(), s.tableImageSize);
  s.tableImage.resize(size_t(s.tableImageSize) + 16, 0);  // the decoder may read a word ahead
  size = p.FinishSize(size + packed);
  if (verbose) {
    const double raw = 48.0 * n;
    zycLog("ZIP VQ Compressed blocks size: %d (%.1f%%) ratio %.1f:1 (zip compression: %.1f%%)\n",
           packed, raw > 0 ? packed * 100.0 / raw : 0.0, packed > 0 ? raw / packed : 0.0,
           s.tableImageSize ? packed * 100.0 / s.tableImageSize : 0.0);
  }
  p.Commit();
  s.sectionSize += uint32_t(size);
  p.sectionPackedSize += uint32_t(size);
  // The frame is written: its new entries are in the ring from now on.
  s.vqCompressor.commitPFrame();
  s.tableFrame = true;
  return size;
}

// A key frame held as a still image: compressed to 105% of the wanted size, and again at 95%
// of the last target while the packed frame is too big. The items are the flags byte alone,
// the image, and the sound.
int32_t zycEncoder::WriteStill(int32_t wantedSize, bool hasSound) {
  State& s = *state_;
  zycSectionPacker& p = s.packer;
  const uint8_t* picture = yuvCoding ? s.sourceYuv.data : s.sourceFrame.data;
  const size_t pixels = size_t(s.paddedWidth) * s.paddedHeight;
  s.stillPixels.resize(pixels * 3);
  for (size_t i = 0; i < pixels; ++i) std::memcpy(&s.stillPixels[i * 3], picture + i * 4, 3);
  s.lists.Clear();
  s.lists.opcodes[0] = uint8_t(kFrameFlagAlways | kFrameFlagImage | (hasSound ? kFrameFlagSound : 0));
  s.opcodeLength = 1;
  s.fadeLength = 0;
  s.vqCompressor.verbose = verbose;

  int32_t target = int32_t(int64_t(wantedSize) * 105 / 100);
  for (;;) {
    p.Save();
    int32_t size = p.PackItem(s.lists.opcodes.data(), 1);
    const uint32_t imageSize = s.vqCompressor.compress(s.stillPixels.data(), s.paddedWidth,
                                                       s.paddedHeight, target, s.stillImage);
    s.stillImage.resize(imageSize);
    const int32_t imagePacked = p.PackItem(s.stillImage.data(), imageSize);
    size = p.FinishSize(size + imagePacked);
    if (verbose) {
      zycLog("Size after Zipping: %d (zip compression: %.1f%%)\n", imagePacked,
             target ? 100.0 * imagePacked / target : 0.0);
    }
    p.Restore();
    // A target of 0 can't shrink further; the frame goes out as it is.
    if (size > wantedSize && target != 0) {
      target = int32_t(float(target) * 0.95f);
      continue;
    }
    break;
  }
  s.stillTarget = uint32_t(target);
  int32_t size = p.PackItem(s.lists.opcodes.data(), 1);
  size += p.PackItem(s.stillImage.data(), uint32_t(s.stillImage.size()));
  if (hasSound) size += PackSound();
  size = p.FinishSize(size);
  p.Commit();
  s.sectionSize += uint32_t(size);
  p.sectionPackedSize += uint32_t(size);
  s.stillFrame = true;
  return size;
}

// Runs the decoder on the items just written, then makes the references of the next frame.
void zycEncoder::Rebuild() {
  State& s = *state_;
  zycFrameLists& l = s.lists;
  zycFrameDecoder& d = *s.frameDecoder;
  if (s.stillFrame) {
    uint32_t stopWord = 0;
    uint32_t stateWord = 0;
    d.io = &s.decoderIo;
    d.colourStream = s.stillImage.data();
    d.tableStream = nullptr;
    d.stopWord = &stopWord;
    d.stateWord = &stateWord;
    d.stopMask = 0;
    d.DecodeImage(s.previousFrame.data);
    d.stopWord = &d.ownStopWord;
    d.stateWord = &d.ownStateWord;
    s.stillFrame = false;
    BuildReferences();
    return;
  }
  s.treeCopy.assign(l.opcodes.data(), l.opcodes.data() + s.opcodeLength);
  s.treeCopy.resize(s.treeCopy.size() + 8, 0);  // the decoder may look one word ahead
  uint32_t stopWord = 0;
  uint32_t stateWord = 0;
  d.io = &s.decoderIo;
  d.treeStream = s.treeCopy.data() + 1;
  d.motionStream = l.motionBytes.data();
  d.colourStream = s.colourItem.data();
  d.indexStream = s.colourItem.data() + size_t(l.dxtList.size()) * 4;
  d.fadeStream = l.fadeBytes.data();
  d.tableStream = s.tableFrame ? s.tableImage.data() : nullptr;
  s.tableFrame = false;
  d.stopWord = &stopWord;
  d.stateWord = &stateWord;
  d.stopMask = 0;
  d.DecodeFrame(s.previousFrame.data, s.decoded.data);
  std::swap(s.previousFrame.data, s.decoded.data);
  d.stopWord = &d.ownStopWord;
  d.stateWord = &d.ownStateWord;
  BuildReferences();
}

void zycEncoder::PatchFile() {
  State& s = *state_;
  if (s.packer.writeError && s.output) s.output->NoteError(s.packer.writeError);
  FILE* f = s.file();
  if (!f || embedded) return;
  bool ok = std::fseek(f, 0, SEEK_END) == 0;
  const long end = std::ftell(f);
  s.header.fileSize = uint32_t(end);
  uint8_t section[6];
  zycStore16(section, uint16_t(s.frameIndex - s.lastKeyFrame));
  zycStore32(section + 2, s.sectionSize);
  ok = ok && end >= 0 && std::fseek(f, s.sectionStart, SEEK_SET) == 0 &&
       std::fwrite(section, 1, 6, f) == 6;
  s.header.frameCount = s.frameIndex;
  uint8_t word[4];
  zycStore32(word, s.header.fileSize);
  ok = ok && std::fseek(f, 8, SEEK_SET) == 0 && std::fwrite(word, 1, 4, f) == 4;
  zycStore32(word, s.header.frameCount);
  ok = ok && std::fseek(f, 16, SEEK_SET) == 0 && std::fwrite(word, 1, 4, f) == 4;
  ok = ok && std::fseek(f, 0, SEEK_END) == 0;
  ok = ok && std::fflush(f) == 0;
  s.Check(ok);
  // The file is a whole movie of the frames so far: the job can come back to this moment.
  if (ok && s.output->error == 0) {
    uint8_t head[kHeaderSizeZyl0];
    zycStoreHeaderZyl0(s.header, head);
    // An LZMA section rewrites its unpacked size, which stands with the property bytes right
    // behind the section header, and the packed bytes from `committedAt` on.
    uint8_t record[6 + 13];
    std::memcpy(record, section, 6);
    const bool rewritten = s.packer.packing() == 1 && s.packer.headAt() == s.sectionStart + 6;
    if (rewritten) std::memcpy(record + 6, s.packer.head(), 13);
    s.output->MarkWhole(uint64_t(end), head, kHeaderSizeZyl0, uint64_t(s.sectionStart), record,
                        rewritten ? 19 : 6, rewritten ? uint64_t(s.packer.committedAt()) : 0,
                        rewritten ? &s.packer.committed() : nullptr);
  }
}

// ---------------------------------------------------------------------------------------------
// Begin.

int32_t zycEncoder::Begin(zycStreamHeader& header, const zylFrameImage& image,
                          zycFileHolder* output, FILE** extraOutputs,
                          zylAudioSupplierFn audioSupplier, void* audioUser,
                          zylProgress* progress, const zylKeyframeRange* plan) {
  End();
  State& s = *state_;
  // Headers of versions 1 to 3 carry two words where the packing byte stands, so a reader
  // takes their sections as deflate.
  if (packing != 0 && zycTailHoldsWords(header.version)) {
    if (verbose) zycLog("Lzma packing needs a header version other than 1, 2 or 3\n");
    return 1;
  }
  s.vqCompressor.tableLimit = vqLimit / 48 * 48;
  s.output = output;
  if (dataFileWanted) {
    dataFile = std::fopen("c:/test.txt", "w");
    if (dataFile) {
      std::fputs("// zylCodec Verbose Data File v1.0\n", dataFile);
      std::fputs("//--------------------------------\n//\n", dataFile);
      std::fputs("// Frame [id] : [n] blocks\n", dataFile);
      std::fputs("//   position (x,y), dimension (size), motion vector (x,y)\n", dataFile);
      std::fputs("//--------------------------------\n\n", dataFile);
    }
  }
  keyframePlan = plan;

  // Set-up.
  if (!motionByte) zycFillLargeMotionTable(s.largeTable);
  s.header = header;
  s.paddedWidth = (header.width + blockMax - 1) / blockMax * blockMax;
  s.paddedHeight = (header.height + blockMax - 1) / blockMax * blockMax;
  s.frameIndex = 0;
  s.lastKeyFrame = 0;
  const uint32_t topCount = (s.paddedWidth / blockMax) * (s.paddedHeight / blockMax);
  s.topBlocks.assign(topCount, zycBlock());
  s.topResults.assign(topCount, 0);
  s.threads = zycThreadsInUse(threads);
  s.pool.Allocate(topCount, int32_t(blockMax), int32_t(blockMin));
  const size_t bytes = s.PictureBytes();
  s.previousFrame.Allocate(bytes, 255);
  s.decoded.Allocate(bytes, 255);
  for (Picture& r : s.references) r.Allocate(bytes, 255);
  s.sourceFrame.Allocate(bytes, 255);
  s.sourceYuv.Allocate(bytes, 255);
  s.levels.Allocate(s.paddedWidth, s.paddedHeight);
  s.lists.Reserve(s.paddedWidth * s.paddedHeight / 16 + 16);
  s.colourItem.reserve(size_t(s.paddedWidth) * s.paddedHeight / 2);
  zycSadChoose(&s.kernels, allowSimd);

  s.header.fileSize = 0;
  s.header.frameCount = 0;
  s.header.reserved36 = 0;
  s.header.reserved52 = kReserved52;
  std::memset(s.header.tail, 0, sizeof s.header.tail);
  s.soundHandled = header.soundRate && soundFlags && embedRequest;
  s.header.flags = kHeaderFlagAlways;
  if (s.soundHandled) s.header.flags |= kHeaderFlagSound;
  if (yuvCoding) s.header.flags |= kHeaderFlagYuv;
  if (!motionByte) s.header.flags |= kHeaderFlagWideMotion;

  s.sound.Start(header.soundRate, header.soundChannels, soundLeadBase, header.frameDuration,
                header.timeScale, audioSupplier, audioUser);
  s.header.soundChunkLimit =
      zycSoundChunkLimit(s.sound.soundLead, s.sound.samplesPerFrame, header.soundChannels);

  s.frameDecoder->Setup(s.paddedWidth, s.paddedHeight, 32, yuvCoding, motionByte ? 1 : 0);
  s.frameDecoder->io = &s.decoderIo;
  s.decoderReady = true;

  embedded = (header.soundRate && embedRequest && (soundFlags & 15)) ? 1 : 0;
  if (embedded) {
    if (packing == 1) {
      if (verbose) zycLog("Lzma is not compatible with Docomo embedded file");
      return 1;
    }
    if (pFrameFormat != 0) {
      if (verbose) zycLog("PFrameFormat!=zyPFrameDXTC is not compatible with Docomo embedded file");
      return 1;
    }
    if (s.file() && verbose) {
      zycLog("WARNING: when encoding with docomo embedding sound we don't directly write in main "
             "output file (but in extraSoundFiles)");
    }
  }
  if (progress) progress->keyFrame = 1;

  for (int i = 0; i < kExtraOutputCount; ++i) s.extra[i] = extraOutputs ? extraOutputs[i] : nullptr;
  if (extraOutputs && !embedRequest) {
    for (int i = 0; i < 4; ++i) {
      if ((soundFlags & (1u << i)) && s.extra[i]) {
        s.Check(std::fseek(s.extra[i], 0, SEEK_SET) == 0 && WriteZeros(s.extra[i], 4));
      }
    }
  }

  if (zycTailHoldsWords(s.header.version)) {
    zycSetTailWords(&s.header, headerA, headerB);
  } else {
    zycSetTailPacking(&s.header, uint8_t(packing), headerS, headerT);
  }

  uint8_t head[kHeaderSizeZyl0];
  zycStoreHeaderZyl0(s.header, head);
  if (!embedded) {
    if (FILE* f = s.file()) {
      s.Check(std::fseek(f, 0, SEEK_SET) == 0 &&
              std::fwrite(head, 1, sizeof head, f) == sizeof head && WriteZeros(f, 6));
    }
  } else {
    for (FILE* f : s.extra) {
      if (!f) continue;
      s.Check(std::fseek(f, 0, SEEK_SET) == 0 &&
              std::fwrite(head, 1, sizeof head, f) == sizeof head && WriteZeros(f, 6));
    }
  }
  header = s.header;  // the job's record, completed
  s.sectionStart = 64;
  s.sectionSize = 0;
  // Room for a whole frame: the picture's bytes, and a sound chunk, which on a small picture can
  // be larger than the picture itself.
  s.packer.Open(packing, s.paddedWidth * s.paddedHeight * 3 + 2 * s.header.soundChunkLimit + 4096,
                lzmaDictionary, embedded ? nullptr : s.file());

  s.credit = -70;
  const uint32_t ratioDivisor = ratio ? ratio : 1;
  const uint32_t raw = s.paddedWidth * s.paddedHeight * 3 + s.header.soundChunkLimit -
                       s.sound.soundLead;
  if (header.soundRate == 0 || soundFlags == 0) {
    s.compressionSize = int32_t(raw / ratioDivisor);
    if (verbose) zycLog("No Sound. CompressionSize:%d\n", s.compressionSize);
  } else {
    s.credit = -74;
    const uint32_t perFrame = s.header.soundChunkLimit - s.sound.soundLead;
    s.compressionSize =
        int32_t(raw / ratioDivisor) - int32_t(perFrame >> ((soundFlags & 32) ? 3 : 2));
    if (verbose) zycLog("Has Sound. CompressionSize:%d\n", s.compressionSize);
  }
  if (forceLastKey && frameTotal && s.header.frameDuration) {
    const double fps = double(s.header.timeScale) / double(s.header.frameDuration);
    const int32_t k = int32_t(fps * double(iDmp) * double(s.compressionSize) * iRat);
    const int32_t t = int32_t(double(s.compressionSize) * iRat);
    const int32_t candidate =
        s.compressionSize - int32_t(uint32_t(k + t - s.compressionSize) / frameTotal);
    if (candidate > 0.7 * s.compressionSize) s.compressionSize = candidate;
  }

  TakePicture(image, s.paddedWidth, s.paddedHeight, s.sourceFrame.data, s.sourceYuv.data);
  s.sound.Take(soundFlags, s.extra);
  const bool hasSound = s.soundHandled && s.sound.soundSize != 0;

  zycBudget budget{s.compressionSize, iRat, iDmp, s.header.timeScale, s.header.frameDuration};
  const int32_t wantedSize = budget.KeyFrameSize();
  if (iFrameFormat != 0) {
    const int32_t size = WriteStill(wantedSize, hasSound);
    s.credit += s.compressionSize - size + (hasSound ? int32_t(s.sound.soundSize) : 0);
    s.last = FrameInfo{true, wantedSize, size, 0, 0, 0, 100.0};
    FillProgress(progress, true, size, hasSound);
    Rebuild();
    ++s.frameIndex;
    PatchFile();
    return 0;
  }

  // The first key frame: the tree with the search off, and the rate loop of Begin.
  BuildMotionVector(true, true);
  zycBeginRateLoop loop;
  loop.wantedSize = wantedSize;
  // A table frame's try packs the colour item, which the table image then replaces by
  // something smaller.
  loop.targetSize = pFrameFormat == 1 ? 2 * wantedSize : wantedSize;
  loop.errorMin = errorMin;
  loop.errorLimit = errorLimit;
  loop.verbose = verbose;
  uint32_t errorNext = 0;
  int32_t size = 0;
  for (;;) {
    size = TryTree(true, loop.errorMax, errorNext, hasSound, false);
    s.packer.Restore();
    if (!loop.AfterPass(size, errorNext)) break;
  }
  size = FinishBlockFrame(true, wantedSize, size, loop.errorMax, errorNext, loop.passes, hasSound);
  s.credit += s.compressionSize - size + (hasSound ? int32_t(s.sound.soundSize) : 0);
  if (verbose) {
    zycLog("errorNext: %u, errorMax: %u, size: %u, wantedSize: %u\n", errorNext, loop.errorMax,
           uint32_t(size), uint32_t(wantedSize));
    zycLog("-------------------------------------------------------------\n");
  }
  s.last = FrameInfo{true, wantedSize, size, loop.errorMax, errorNext, loop.passes, 100.0};
  NoteTable();
  FillProgress(progress, true, size, hasSound);
  Rebuild();
  s.pool.Reset();
  ++s.frameIndex;
  PatchFile();
  return 0;
}

void zycEncoder::FillProgress(zylProgress* progress, bool key, int32_t size, bool hasSound) {
  if (!progress) return;
  State& s = *state_;
  progress->frameIndex = s.frameIndex;
  progress->keyFrame = key ? 1 : 0;
  progress->size = size;
  progress->soundSize = hasSound ? s.sound.soundSize : 0;
  progress->credit = s.credit;
  progress->quantizer = s.last.errorMax;
  progress->opcodeBytes = s.opcodeLength;
  progress->motionBytesCount = s.lists.motionBytes.size();
  progress->dxtBlockCount = s.stillFrame ? s.stillTarget : s.lists.dxtList.size();
  progress->fadeBytesCount = s.fadeLength;
}

// ---------------------------------------------------------------------------------------------
// Next.

int32_t zycEncoder::Next(const zylFrameImage& image, zylProgress* progress) {
  State& s = *state_;
  if (!s.decoderReady) return 0;
  if (progress) progress->keyFrame = 0;
  TakePicture(image, s.paddedWidth, s.paddedHeight, s.sourceFrame.data, s.sourceYuv.data);
  BuildMotionVector(false, true);

  s.sound.Take(soundFlags, s.extra);
  if (verbose) zycLog("soundSize:%d\n", s.sound.soundSize);
  const bool hasSound = s.soundHandled && s.sound.soundSize != 0;

  // Key frame or P-frame.
  const double changed = zycChangedPercent(s.topBlocks.data(), uint32_t(s.topBlocks.size()));
  zycBudget budget{s.compressionSize, iRat, iDmp, s.header.timeScale, s.header.frameDuration};
  const double fps = budget.FramesPerSecond();
  const double seconds = fps > 0 ? double(s.frameIndex - s.lastKeyFrame) / fps : 0.0;
  zycKeyPlanVerdict verdict = zycWalkKeyPlan(keyframePlan, firstFrame + s.frameIndex);
  if (forceLastKey && frameTotal && s.frameIndex == frameTotal - 1) verdict.forced = true;
  const bool key = zycIsKeyFrame(changed, seconds, iRng, verdict.forced, verdict.inhibited);
  int32_t wantedSize = budget.PFrameSize(changed, s.credit);

  if (key) {
    s.packer.Restart();
    if (progress) progress->keyFrame = 1;
    if (verbose) zycLog("--- Start a new keyframe ---\n");
    if (FILE* f = s.file(); f && !embedded) {
      s.sectionStart = std::ftell(f);
      s.Check(s.sectionStart >= 0 && WriteZeros(f, 6));
    }
    s.sectionSize = 0;
    // The levels of this picture are already made; only the tree is searched again.
    if (iFrameFormat == 0) BuildMotionVector(true, false);
    wantedSize = budget.KeyFrameSize();
    s.credit -= 6;
    s.lastKeyFrame = s.frameIndex;
  }

  if (key && iFrameFormat != 0) {
    TimerStart(kTimerNext);
    const int32_t size = WriteStill(wantedSize, hasSound);
    s.credit += s.compressionSize - size + (hasSound ? int32_t(s.sound.soundSize) : 0);
    s.last = FrameInfo{true, wantedSize, size, 0, 0, 0, changed};
    FillProgress(progress, true, size, hasSound);
    Rebuild();
    TimerStop(kTimerNext);
    s.pool.Reset();
    ++s.frameIndex;
    PatchFile();
    return 0;
  }

  zycRateLoop loop;
  loop.verbose = verbose;
  loop.Start(wantedSize, pFrameFormat == 1 ? 2 * wantedSize : wantedSize, ratio, errorMin,
             errorLimit);
  uint32_t errorNext = 0;
  int32_t size = 0;
  TimerStart(kTimerNext);
  TimerStart(kTimerQuantizeCompress);
  for (;;) {
    size = TryTree(key, loop.errorMax, errorNext, hasSound, true);
    TimerStart(kTimerDeflateEnd);
    s.packer.Restore();
    TimerStop(kTimerDeflateEnd);
    if (!loop.AfterPass(size, errorNext)) break;
  }
  TimerStop(kTimerQuantizeCompress);
  size = FinishBlockFrame(key, wantedSize, size, loop.errorMax, errorNext, loop.passes, hasSound);
  s.credit += s.compressionSize - size + (hasSound ? int32_t(s.sound.soundSize) : 0);

  if (dataFile) {
    const zycFrameLists& l = s.lists;
    std::fprintf(dataFile, "Frame %d : %d blocks\n", int(s.frameIndex), int(l.motionBlocks.size()));
    const int8_t (*table)[2] = motionByte ? kSmallMotionTable : s.largeTable;
    for (uint32_t i = 0; i < l.motionBlocks.size(); ++i) {
      const zycBlock& b = *l.motionBlocks[i];
      const uint32_t index = b.motionIndex & (motionByte ? 0xFFu : 0xFFFu);
      std::fprintf(dataFile, "  %d, %d, %d, %d, %d\n", b.x, b.y, b.size, table[index][0],
                   table[index][1]);
    }
  }
  if (verbose) {
    zycLog("Pass number before convergence: %u\n", loop.passes);
    zycLog("errorNext: %u, errorMax: %u, size: %u, wantedSize: %u\n", errorNext, loop.errorMax,
           uint32_t(size), uint32_t(wantedSize));
    zycLog("-------------------------------------------------------------\n");
  }
  s.last = FrameInfo{key, wantedSize, size, loop.errorMax, errorNext, loop.passes, changed};
  NoteTable();
  FillProgress(progress, key, size, hasSound);

  Rebuild();
  TimerStop(kTimerNext);
  s.pool.Reset();
  ++s.frameIndex;
  PatchFile();
  return 0;
}

// ---------------------------------------------------------------------------------------------
// End.

void zycEncoder::End() {
  State& s = *state_;
  if (dataFile) {
    std::fclose(dataFile);
    dataFile = nullptr;
  }
  s.packer.Close();
  if (s.decoderReady) {
    s.frameDecoder->io = &s.decoderIo;
    s.frameDecoder->Release();
    s.decoderReady = false;
  }
  s.frameIndex = 0;
}
