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

#include "base/clock.h"
#include "base/consoleLog.h"
#include "base/cpuFeatures.h"
#include "base/parallel.h"
#include "base/timers.h"
#include "dxt/buildLevels.h"
#include "dxt/yuvConvert.h"
#include "encoder/blockTreeWriter.h"
#include "encoder/fadeBand.h"
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

// Top-block rows of a band of fades: more rows cost memory, fewer make the rows that the vectors
// reach above and below each band a larger share of the work.
constexpr uint32_t kFadeBandTops = 8;

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
  zycBudget budget;
  long sectionStart = 0;
  uint32_t sectionSize = 0;

  Picture sourceFrame;
  Picture sourceYuv;
  Picture previousFrame;
  Picture decoded;  // the decoder's output, exchanged with previousFrame after each frame
  Picture reference;  // the rebuilt picture in YUV
  zycFadeBand fades;   // its fades, a band of rows at a time
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
int32_t zycEncoder::CompressionSize() const { return state_->budget.compressionSize; }
int32_t zycEncoder::Credit() const { return state_->budget.credit; }
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

}  // namespace

// A table frame carries no fade item: a player reads no fade levels for it. So that the encoder
// and a player rebuild the same picture, table frames are searched without fade candidates and
// their trees never hold a fade node.
bool zycEncoder::FadesSearched() const { return !noFade && pFrameFormat == 0; }

// The rebuilt picture in YUV, for the next frame's search; its fades are made band by band
// as the search goes.
void zycEncoder::BuildReferences() {
  State& s = *state_;
  constexpr uint32_t kParts = 16;  // runs of rows, shared among the threads
  const size_t rowBytes = size_t(s.paddedWidth) * 4;
  zycParallelFor(s.threads, kParts, [&](uint32_t part) {
    const uint32_t first = s.paddedHeight * part / kParts;
    const uint32_t end = s.paddedHeight * (part + 1) / kParts;
    zycConvertToYuv(s.previousFrame.data + first * rowBytes, s.reference.data + first * rowBytes,
                    s.paddedWidth * (end - first));
  });
  if (useSums) s.referenceSums.Build(s.reference.data, s.paddedWidth, s.paddedHeight);
}

// ---------------------------------------------------------------------------------------------
// Search.

uint32_t zycEncoder::BuildMotionVector(Search search, Levels levels) {
  State& s = *state_;
  const bool searchOff = search == Search::kOff;
  const uint64_t start = zycClockMicroseconds();
  if (levels == Levels::kBuild && (pFrameFormat == 0 || pFrameFormat == 1)) {
    TimerStart(kTimerDxt1Compression);
    BuildLevels(s.levels, yuvCoding ? s.sourceYuv.data : s.sourceFrame.data, dxtBackEnd,
                yuvCoding, s.threads);
    TimerStop(kTimerDxt1Compression);
  }
  TimerStart(kTimerBuildMotionVector);
  s.pool.Reset();
  zycMotionSearch& m = s.search;
  m.sourceYuv = s.sourceYuv.data;
  m.references[0] = s.reference.data;
  for (int i = 1; i < 17; ++i) m.references[i] = nullptr;
  m.fadeTop = 0;
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
  }

  // Top blocks are searched apart, each taking its nodes from its own part of the pool; a tree
  // does not depend on the thread that searched it. Threads take the next top block as they
  // become free: the work of a block varies a lot, that of whole rows too.
  // The fades are made for a band of top-block rows at a time, with the rows above and below
  // that the vectors reach.
  const uint32_t across = s.paddedWidth / blockMax;
  const uint32_t tops = uint32_t(s.topBlocks.size());
  const uint32_t down = tops / across;
  const bool withFades = FadesSearched() && !searchOff && m.count;
  uint32_t reach = 0;
  for (uint32_t k = 0; k < m.count; ++k) {
    const uint32_t dy = uint32_t(m.table[k][1] < 0 ? -m.table[k][1] : m.table[k][1]);
    if (dy > reach) reach = dy;
  }
  const uint32_t bandTops = withFades ? kFadeBandTops : down;
  if (withFades) {
    const uint32_t most = bandTops * blockMax + 2 * reach;
    s.fades.Allocate(s.paddedWidth, most < s.paddedHeight ? most : s.paddedHeight);
  }
  for (uint32_t row = 0; row < down; row += bandTops) {
    const uint32_t end = row + bandTops < down ? row + bandTops : down;
    if (withFades) {
      const zycRowSpan span = zycFadeRows(row, end, blockMax, reach, s.paddedHeight);
      s.fades.Build(s.previousFrame.data, span.first, span.count, m.referenceSums != nullptr,
                    s.threads, row != 0);
      for (int f = 0; f < 16; ++f) m.references[f + 1] = s.fades.Picture(f);
      m.fadeTop = span.first;
      m.fadeSums = m.referenceSums ? &s.fades.sums() : nullptr;
    }
    zycParallelFor(s.threads, (end - row) * across, [&](uint32_t j) {
      const uint32_t i = row * across + j;
      zycMotionSearch local = m;
      zycBlockPool part = s.pool.Part(i, 1);
      local.pool = &part;
      zycBlock& b = s.topBlocks[i];
      b.size = int32_t(blockMax);
      b.x = int32_t((i % across) * blockMax);
      b.y = int32_t((i / across) * blockMax);
      s.topResults[i] = local.SearchBlock(b);
    });
  }
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

int32_t zycEncoder::TryTree(bool key, uint32_t threshold, uint32_t& errorNext, bool hasSound) {
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
  // The key frame walk makes no fade blocks.
  l.opcodes[0] = zycBlockTreeFlags(l.motionBytes.size(), l.dxtList.size(), l.fadeBytes.size(),
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

// The frame's sound item; frames for the phone sound outputs put their record before the chunk.
int32_t zycEncoder::PackSound() {
  State& s = *state_;
  if (!embedded) return s.packer.PackItem(s.sound.chunk.data(), s.sound.soundSize);
  std::vector<uint8_t> item(kPhoneSoundHeadBytes + size_t(s.sound.soundSize));
  zycStorePhoneSoundHead(s.header.soundRate, item.data());
  if (s.sound.soundSize)
    std::memcpy(item.data() + kPhoneSoundHeadBytes, s.sound.chunk.data(), s.sound.soundSize);
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
  return CommitFrame(p.FinishSize(size));
}

// Writes the items packed since the last restore; `size` is what they take in the section.
int32_t zycEncoder::CommitFrame(int32_t size) {
  State& s = *state_;
  s.packer.Commit();
  s.sectionSize += uint32_t(size);
  s.packer.sectionPackedSize += uint32_t(size);
  return size;
}

// The end of a block tree frame after its rate loop. With table frames the colour blocks get a
// budget of their own: what the frame's size leaves after its opcode and motion items, plus a
// hundredth of any credit. While that budget is gone, far too small for a frame that is too
// big, or asks more than the largest reduction of the table coder, the threshold moves on to
// the next error that matters, which takes more blocks out of the colour list. `frame` holds
// the last try; its size becomes that of the frame written.
void zycEncoder::FinishBlockFrame(FrameInfo& frame, bool hasSound) {
  State& s = *state_;
  const bool key = frame.keyFrame;
  const int32_t wantedSize = frame.wantedSize;
  if (pFrameFormat != 1 || s.lists.dxtList.size() == 0) {
    frame.size = WriteTree(hasSound);
    return;
  }
  const float maxRatio = key ? vqRatioMaxKey : vqRatioMaxP;
  int32_t budget = 0;
  for (;;) {
    const double raw = 48.0 * s.lists.dxtList.size();
    budget = wantedSize - s.headerBytes;
    if (s.budget.credit > 0) budget += s.budget.credit / 100;
    const bool again =
        budget < 1 ||
        (frame.size > wantedSize && int64_t(budget) <= int64_t(wantedSize) * 40 / 100) ||
        raw / budget > maxRatio;
    // Nothing left to take out: the frame goes out as it is.
    if (!again || frame.errorNext == kErrorNextStart || frame.errorMax == frame.errorNext) break;
    frame.errorMax = frame.errorNext;
    ++frame.passes;
    frame.size = TryTree(key, frame.errorMax, frame.errorNext, hasSound);
    s.packer.Restore();
    if (s.lists.dxtList.size() == 0) {
      frame.size = WriteTree(hasSound);
      return;
    }
  }
  const double raw = 48.0 * s.lists.dxtList.size();
  if (budget > 0 && raw / budget < vqRatioMin) budget = int32_t(raw / vqRatioMin);
  frame.size = WriteTable(key, budget, hasSound);
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
  CommitFrame(size);
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
  size = CommitFrame(p.FinishSize(size));
  s.stillFrame = true;
  return size;
}

// Runs the decoder on the items just written, then makes the references of the next frame.
void zycEncoder::Rebuild() {
  State& s = *state_;
  zycFrameLists& l = s.lists;
  zycFrameDecoder& d = *s.frameDecoder;
  uint32_t stopWord = 0;
  uint32_t stateWord = 0;
  d.io = &s.decoderIo;
  d.stopWord = &stopWord;
  d.stateWord = &stateWord;
  d.stopMask = 0;
  if (s.stillFrame) {
    d.colourStream = s.stillImage.data();
    d.tableStream = nullptr;
    d.DecodeImage(s.previousFrame.data);
    s.stillFrame = false;
  } else {
    s.treeCopy.assign(l.opcodes.data(), l.opcodes.data() + s.opcodeLength);
    s.treeCopy.resize(s.treeCopy.size() + 8, 0);  // the decoder may look one word ahead
    d.treeStream = s.treeCopy.data() + 1;
    d.motionStream = l.motionBytes.data();
    d.colourStream = s.colourItem.data();
    d.indexStream = s.colourItem.data() + size_t(l.dxtList.size()) * 4;
    d.fadeStream = l.fadeBytes.data();
    d.tableStream = s.tableFrame ? s.tableImage.data() : nullptr;
    s.tableFrame = false;
    d.DecodeFrame(s.previousFrame.data, s.decoded.data);
    std::swap(s.previousFrame.data, s.decoded.data);
  }
  d.stopWord = &d.ownStopWord;
  d.stateWord = &d.ownStateWord;
  BuildReferences();
}

void zycEncoder::PatchFile() {
  State& s = *state_;
  if (s.packer.writeError && s.output) s.output->NoteError(s.packer.writeError);
  if (!s.file() || embedded) return;
  zycOpenSectionState section;
  section.start = s.sectionStart;
  section.header.frames = s.frameIndex - s.lastKeyFrame;
  section.header.size = s.sectionSize;
  s.header.frameCount = s.frameIndex;
  // An LZMA section rewrites its unpacked size, which stands with the property bytes right
  // behind the section header, and the packed bytes from `committedAt` on.
  const bool rewritten = s.packer.packing() == kPackingLzma &&
                         s.packer.headAt() == s.sectionStart + long(kSectionHeaderSizeZyl0);
  zycPatchAfterFrame(s.output, &s.header, section,
                     rewritten ? uint64_t(s.packer.committedAt()) : 0,
                     rewritten ? &s.packer.committed() : nullptr,
                     rewritten ? s.packer.head() : nullptr, rewritten ? kLzmaHeadBytes : 0);
}

// ---------------------------------------------------------------------------------------------
// Begin: the settings checked, the job's storage, the header, the budget, the first key frame.

int32_t zycEncoder::Begin(zycStreamHeader& header, const zylFrameImage& image,
                          zycFileHolder* output, FILE** extraOutputs,
                          zylAudioSupplierFn audioSupplier, void* audioUser,
                          zylProgress* progress, const zylKeyframeRange* plan) {
  End();
  state_->output = output;
  if (!CheckSettings(header)) return 1;
  keyframePlan = plan;
  Allocate(header);
  WriteHeader(header, extraOutputs, audioSupplier, audioUser);
  OpenBudget();
  FirstFrame(image, progress);
  return 0;
}

// False, after saying why, for settings no movie can be made with. Sets `embedded`.
bool zycEncoder::CheckSettings(const zycStreamHeader& header) {
  // Headers of versions 1 to 3 carry two words where the packing byte stands, so a reader
  // takes their sections as deflate.
  if (packing != kPackingDeflate && zycTailHoldsWords(header.version)) {
    if (verbose) zycLog("Lzma packing needs a header version other than 1, 2 or 3\n");
    return false;
  }
  embedded = (header.soundRate && embedRequest && (soundFlags & 15)) ? 1 : 0;
  if (!embedded) return true;
  if (packing == kPackingLzma) {
    if (verbose) zycLog("Lzma is not compatible with Docomo embedded file");
    return false;
  }
  if (pFrameFormat != 0) {
    if (verbose) zycLog("PFrameFormat!=zyPFrameDXTC is not compatible with Docomo embedded file");
    return false;
  }
  if (state_->file() && verbose) {
    zycLog("WARNING: when encoding with docomo embedding sound we don't directly write in main "
           "output file (but in extraSoundFiles)");
  }
  return true;
}

// The pictures, tree, lists and kernels of a job of this picture size, and its frame decoder.
void zycEncoder::Allocate(const zycStreamHeader& header) {
  State& s = *state_;
  s.vqCompressor.tableLimit = vqLimit / 48 * 48;
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
  if (!motionByte) zycFillLargeMotionTable(s.largeTable);
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
  s.reference.Allocate(bytes, 255);
  s.sourceFrame.Allocate(bytes, 255);
  s.sourceYuv.Allocate(bytes, 255);
  s.levels.Allocate(s.paddedWidth, s.paddedHeight);
  s.lists.Reserve(s.paddedWidth * s.paddedHeight / 16 + 16);
  s.colourItem.reserve(size_t(s.paddedWidth) * s.paddedHeight / 2);
  zycSadChoose(&s.kernels, allowSimd);

  s.frameDecoder->Setup(s.paddedWidth, s.paddedHeight, 32, yuvCoding, motionByte ? 1 : 0);
  s.frameDecoder->io = &s.decoderIo;
  s.decoderReady = true;
}

// The job's header completed from the settings and the sound, written at the start of the main
// file (of the extra files when the sound is embedded), and the packer opened behind it.
void zycEncoder::WriteHeader(zycStreamHeader& header, FILE** extraOutputs,
                             zylAudioSupplierFn audioSupplier, void* audioUser) {
  State& s = *state_;
  s.header = header;
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

  zycOpenSectionState first;
  if (!embedded) {
    if (FILE* f = s.file()) s.Check(zycWriteMovieStart(f, s.header, &first));
  } else {
    for (FILE* f : s.extra) {
      if (f) s.Check(zycWriteMovieStart(f, s.header, &first));
    }
  }
  header = s.header;  // the job's record, completed
  s.sectionStart = long(kHeaderSizeZyl0);
  s.sectionSize = 0;
  // Room for a whole frame: the picture's bytes, and a sound chunk, which on a small picture can
  // be larger than the picture itself.
  s.packer.Open(packing, s.paddedWidth * s.paddedHeight * 3 + 2 * s.header.soundChunkLimit + 4096,
                lzmaDictionary, embedded ? nullptr : s.file());
}

void zycEncoder::OpenBudget() {
  State& s = *state_;
  zycBudgetSetup setup;
  setup.pictureBytes = s.paddedWidth * s.paddedHeight * 3;
  setup.soundChunkLimit = s.header.soundChunkLimit;
  setup.soundLead = s.sound.soundLead;
  setup.soundRate = s.header.soundRate;
  setup.soundFlags = soundFlags;
  setup.ratio = ratio;
  setup.lastKeyOver = forceLastKey ? frameTotal : 0;
  s.budget = zycBudget{0, iRat, iDmp, s.header.timeScale, s.header.frameDuration, 0};
  s.budget.Open(setup, verbose);
}

// The first key frame: a still image, or the tree with the search off and Begin's rate loop.
void zycEncoder::FirstFrame(const zylFrameImage& image, zylProgress* progress) {
  State& s = *state_;
  if (progress) progress->keyFrame = 1;
  TakePicture(image, s.paddedWidth, s.paddedHeight, s.sourceFrame.data, s.sourceYuv.data);
  s.sound.Take(soundFlags, s.extra);
  const bool hasSound = s.soundHandled && s.sound.soundSize != 0;
  const int32_t wantedSize = s.budget.KeyFrameSize();
  FrameInfo info;
  if (iFrameFormat != 0) {
    info = FrameInfo{.keyFrame = true, .wantedSize = wantedSize,
                     .size = WriteStill(wantedSize, hasSound)};
  } else {
    BuildMotionVector(Search::kOff, Levels::kBuild);
    const bool key = true;  // Begin's frame is always a key frame
    info = CodeTree(Caller::kBegin, key, wantedSize, hasSound);
  }
  info.changed = 100.0;
  FinishFrame(Caller::kBegin, info, hasSound, progress);
}

// ---------------------------------------------------------------------------------------------
// Next.

int32_t zycEncoder::Next(const zylFrameImage& image, zylProgress* progress) {
  State& s = *state_;
  if (!s.decoderReady) return 0;
  if (progress) progress->keyFrame = 0;
  TakePicture(image, s.paddedWidth, s.paddedHeight, s.sourceFrame.data, s.sourceYuv.data);
  BuildMotionVector(Search::kMotion, Levels::kBuild);

  s.sound.Take(soundFlags, s.extra);
  if (verbose) zycLog("soundSize:%d\n", s.sound.soundSize);
  const bool hasSound = s.soundHandled && s.sound.soundSize != 0;

  // Key frame or P-frame.
  const double changed = zycChangedPercent(s.topBlocks.data(), uint32_t(s.topBlocks.size()));
  const double fps = s.budget.FramesPerSecond();
  const double seconds = fps > 0 ? double(s.frameIndex - s.lastKeyFrame) / fps : 0.0;
  zycKeyPlanVerdict verdict = zycWalkKeyPlan(keyframePlan, firstFrame + s.frameIndex);
  if (forceLastKey && frameTotal && s.frameIndex == frameTotal - 1) verdict.forced = true;
  const bool key = zycIsKeyFrame(changed, seconds, iRng, verdict.forced, verdict.inhibited);
  int32_t wantedSize = s.budget.PFrameSize(changed);
  if (key) {
    OpenSection(progress);
    // The levels of this picture are already made; only the tree is searched again.
    if (iFrameFormat == 0) BuildMotionVector(Search::kOff, Levels::kKeep);
    wantedSize = s.budget.KeyFrameSize();
    s.budget.OpenSection();
    s.lastKeyFrame = s.frameIndex;
  }

  TimerStart(kTimerNext);
  FrameInfo info =
      key && iFrameFormat != 0
          ? FrameInfo{.keyFrame = true, .wantedSize = wantedSize,
                      .size = WriteStill(wantedSize, hasSound)}
          : CodeTree(Caller::kNext, key, wantedSize, hasSound);
  info.changed = changed;
  FinishFrame(Caller::kNext, info, hasSound, progress);
  return 0;
}

// A key frame starts a new section: the packer forgets the frames before, and the section's
// head is written as zeros for the patch to fill.
void zycEncoder::OpenSection(zylProgress* progress) {
  State& s = *state_;
  s.packer.Restart();
  if (progress) progress->keyFrame = 1;
  if (verbose) zycLog("--- Start a new keyframe ---\n");
  if (FILE* f = s.file(); f && !embedded) {
    zycOpenSectionState opened;
    s.Check(zycOpenSection(f, kMagicZyl0, 0, &opened));
    s.sectionStart = opened.start;
  }
  s.sectionSize = 0;
}

// A block tree frame: the rate loop over the tree's thresholds, then the frame's final write.
zycEncoder::FrameInfo zycEncoder::CodeTree(Caller caller, bool key, int32_t wantedSize,
                                           bool hasSound) {
  State& s = *state_;
  zycRateLoop loop;
  loop.verbose = verbose;
  // A table frame's try packs the colour item, which the table image then replaces by
  // something smaller.
  const int32_t target = pFrameFormat == 1 ? 2 * wantedSize : wantedSize;
  const bool timed = caller == Caller::kNext;
  if (timed) {
    loop.Start(wantedSize, target, ratio, errorMin, errorLimit);
    TimerStart(kTimerQuantizeCompress);
  } else {
    loop.StartConverging(wantedSize, target, errorMin, errorLimit);
  }
  uint32_t errorNext = 0;
  int32_t size = 0;
  for (;;) {
    size = TryTree(key, loop.errorMax, errorNext, hasSound);
    if (timed) TimerStart(kTimerDeflateEnd);
    s.packer.Restore();
    if (timed) TimerStop(kTimerDeflateEnd);
    if (!loop.AfterPass(size, errorNext)) break;
  }
  if (timed) TimerStop(kTimerQuantizeCompress);
  FrameInfo frame{key, wantedSize, size, loop.errorMax, errorNext, loop.passes};
  FinishBlockFrame(frame, hasSound);
  return frame;
}

// The end of every frame: the credit, the figures, the progress record, the closed loop, and
// the headers patched so that the file is a whole movie.
void zycEncoder::FinishFrame(Caller caller, const FrameInfo& info, bool hasSound,
                             zylProgress* progress) {
  State& s = *state_;
  s.budget.Spend(info.size, hasSound ? s.sound.soundSize : 0);
  if (!s.stillFrame) ReportTreeFrame(caller, info);
  s.last = info;
  NoteTable();
  FillProgress(progress, hasSound);
  Rebuild();
  if (caller == Caller::kNext) TimerStop(kTimerNext);
  s.pool.Reset();
  ++s.frameIndex;
  PatchFile();
}

// The data file's lines and the closing messages of a block tree frame.
void zycEncoder::ReportTreeFrame(Caller caller, const FrameInfo& info) {
  State& s = *state_;
  if (dataFile && caller == Caller::kNext) {
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
  if (!verbose) return;
  if (caller == Caller::kNext) zycLog("Pass number before convergence: %u\n", info.passes);
  zycLog("errorNext: %u, errorMax: %u, size: %u, wantedSize: %u\n", info.errorNext, info.errorMax,
         uint32_t(info.size), uint32_t(info.wantedSize));
  zycLog("-------------------------------------------------------------\n");
}

void zycEncoder::FillProgress(zylProgress* progress, bool hasSound) {
  if (!progress) return;
  State& s = *state_;
  progress->frameIndex = s.frameIndex;
  progress->keyFrame = s.last.keyFrame ? 1 : 0;
  progress->size = s.last.size;
  progress->soundSize = hasSound ? s.sound.soundSize : 0;
  progress->credit = s.budget.credit;
  progress->quantizer = s.last.errorMax;
  progress->opcodeBytes = s.opcodeLength;
  progress->motionBytesCount = s.lists.motionBytes.size();
  progress->dxtBlockCount = s.stillFrame ? s.stillTarget : s.lists.dxtList.size();
  progress->fadeBytesCount = s.fadeLength;
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
