// The still image coder: the surface phase (single fits, then groups of blocks that share one
// surface), the codebook phase (sizing from the target, training, assignment, colour sort) and
// the writing of the image block.
#include "vq/VQSLSQCompressor.h"

#include <algorithm>
#include <ctime>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "base/byteIo.h"
#include "base/consoleLog.h"
#include "dxt/baseColourDxt.h"
#include "stream/imageFormat.h"
#include "stream/zycDecoder.h"
#include "vq/VQCodebook.h"
#include "vq/surfaceLSQSolver.h"
#include "vq/vqBitStream.h"

namespace {

constexpr const char* kCompressName = "VQSLSQCompressor::compress";
constexpr float kSlsqTolerance = 2.75f;  // largest pixel error of a surface, in all three tests
constexpr uint32_t kMinGroupBlocks = 4;
constexpr uint32_t kScratchBytes = 131072;
// Informative figures of the statistics: a pixel tolerance and the square full vector distance.
constexpr double kVqPixelTolerance = 9.0;
constexpr double kVqVectorTolerance = 9.0 * 9.0 * 48.0;

// One 8x8 block of the picture.
struct BlockRecord {
  uint32_t blockType;  // 0 surface, 1 codebook
  uint16_t slsqIndex;  // surface: 3 x element number; codebook: the block's VQ number
  uint16_t vqIndex[4];  // codebook index of each quarter: top left, top right, bottom left, bottom right
};
static_assert(sizeof(BlockRecord) == 16);
constexpr uint32_t kTypeSurface = 0;
constexpr uint32_t kTypeCodebook = 1;
constexpr uint16_t kUndecided = 0xFFFF;

uint32_t bitLength(uint32_t v) { return v ? 32 - uint32_t(__builtin_clz(v)) : 0; }

// A coefficient set fits its 16-bit fixed point form when the binary exponent (as ilogb gives
// it: 2^e <= |k| < 2^(e+1)) of k0 is at most 11, of k1 and k2 at most 5, of k3, k4, k5 at most
// -5. Those are exactly the ranges of 2^3, 2^9 and 2^19 fixed point in 16 bits.
bool fitsFixedPoint(const float k[6]) {
  static constexpr int kLimits[6] = {11, 5, 5, -5, -5, -5};
  for (int i = 0; i < 6; ++i) {
    if (!std::isfinite(k[i])) return false;
    if (k[i] != 0.0f && std::ilogb(k[i]) > kLimits[i]) return false;
  }
  return true;
}

int16_t toFixedPoint(float k, int fractionBits) {
  return int16_t(std::trunc(double(k) * std::ldexp(1.0, fractionBits)));
}

// Processor time of the calling thread, in seconds: the phases are timed by the work they do,
// whatever else runs on the machine.
double threadSeconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// Sums of one fit kept while a group grows: the moments and the right sides of the three
// channels, summed block after block in list order.
struct GroupFit {
  SlsqMoments moments;
  double rhs[3][6];
};

// The surface phase over one picture.
class SurfacePhase {
 public:
  SurfacePhase(const double* powers, const float* pixels, uint32_t width, uint32_t height,
               BlockRecord* records, bool verbose)
      : powers_(powers), pixels_(pixels), width_(width), blocksX_(width / 8),
        blockCount_(width / 8 * (height / 8)), records_(records), verbose_(verbose) {}

  // Runs both passes; returns the surface elements, 36 bytes each.
  std::vector<uint8_t> run(bool reference) {
    positions_.resize(size_t(blockCount_) * 2);
    for (uint32_t i = 0; i < blockCount_; ++i) {
      positions_[2 * i] = int32_t(i % blocksX_ * 8);
      positions_[2 * i + 1] = int32_t(i / blocksX_ * 8);
    }
    if (!reference) prepareSums();

    // First pass: blocks that no surface fits alone are codebook blocks.
    aloneError_.resize(blockCount_);
    for (uint32_t i = 0; i < blockCount_; ++i) {
      float k[3][6];
      aloneError_[i] = reference ? fitList(&positions_[2 * i], 1, k) : fitAlone(i, k);
      if (aloneError_[i] > kSlsqTolerance) makeCodebookBlock(i);
    }

    // Second pass: groups around each seed still undecided.
    for (uint32_t seed = 0; seed < blockCount_; ++seed) {
      if (records_[seed].slsqIndex != kUndecided) continue;
      float k[3][6];
      const float alone = reference ? fitList(&positions_[2 * seed], 1, k) : aloneError_[seed];
      if (alone > kSlsqTolerance) {
        makeCodebookBlock(seed);
        continue;
      }
      const uint16_t element = uint16_t(3 * elementCount_);
      records_[seed].blockType = kTypeSurface;
      records_[seed].slsqIndex = element;
      if (reference)
        growGroupReference(seed, element, k);
      else
        growGroupFast(seed, element, k);

      bool keep = group_.size() >= kMinGroupBlocks;
      for (int c = 0; keep && c < 3; ++c) keep = fitsFixedPoint(k[c]);
      if (!keep) {
        for (size_t m = 1; m < group_.size(); ++m) {
          records_[group_[m]].blockType = 0xFFFFFFFFu;
          records_[group_[m]].slsqIndex = kUndecided;
        }
        makeCodebookBlock(seed);
      } else {
        static constexpr int kFractionBits[6] = {3, 9, 9, 19, 19, 19};
        for (int c = 0; c < 3; ++c)
          for (int i = 0; i < 6; ++i) {
            uint8_t bytes[2];
            zycStore16(bytes, uint16_t(toFixedPoint(k[c][i], kFractionBits[i])));
            elements_.push_back(bytes[0]);
            elements_.push_back(bytes[1]);
          }
        ++elementCount_;
      }
      if (verbose_) zycLog("SLSQ calculation: %d%%.\r", int(uint64_t(seed) * 100 / blockCount_));
    }
    return std::move(elements_);
  }

  uint32_t codebookBlocks() const { return codebookBlocks_; }

 private:
  void makeCodebookBlock(uint32_t block) {
    records_[block].blockType = kTypeCodebook;
    records_[block].slsqIndex = uint16_t(codebookBlocks_++);
  }

  // Straightforward fit of a list of blocks, all three channels, from the pixels.
  float fitList(const int32_t* positions, uint32_t count, float k[3][6]) const {
    float largest = 0.0f;
    for (int c = 0; c < 3; ++c) {
      const float e = SurfaceLSQSolver::solve(powers_, pixels_ + c, width_, 3, positions, count, k[c]);
      if (e > largest) largest = e;
    }
    return largest;
  }

  // Reference group search: every pair and every group refitted from its pixels.
  void growGroupReference(uint32_t seed, uint16_t element, float k[3][6]) {
    std::vector<uint32_t> candidates;
    std::vector<float> errors;
    int32_t pair[4] = {positions_[2 * seed], positions_[2 * seed + 1], 0, 0};
    for (uint32_t j = 0; j < blockCount_; ++j) {
      if (records_[j].slsqIndex != kUndecided) continue;
      pair[2] = positions_[2 * j];
      pair[3] = positions_[2 * j + 1];
      const float e = fitList(pair, 2, k);
      if (e < kSlsqTolerance) {
        candidates.push_back(j);
        errors.push_back(e);
      }
    }
    std::vector<uint32_t> order(candidates.size());
    vqSortAscending(errors.data(), uint32_t(errors.size()), order.data());

    group_.assign(1, seed);
    std::vector<int32_t> list(positions_.begin() + 2 * seed, positions_.begin() + 2 * seed + 2);
    for (uint32_t o : order) {
      const uint32_t j = candidates[o];
      list.push_back(positions_[2 * j]);
      list.push_back(positions_[2 * j + 1]);
      if (fitList(list.data(), uint32_t(list.size() / 2), k) <= kSlsqTolerance) {
        group_.push_back(j);
        records_[j].blockType = kTypeSurface;
        records_[j].slsqIndex = element;
      } else {
        list.resize(list.size() - 2);
      }
    }
    fitList(list.data(), uint32_t(list.size() / 2), k);
  }

  // Per block sums that make a fit of a list cost little more than its Gauss elimination: the
  // column sums of each block column, and the right sides of each block. The right-side terms
  // of integer samples are whole numbers far below 2^53, so their sums are exact and do not
  // depend on the order of addition; the moments are summed in the very order of a fit.
  void prepareSums() {
    columnSums_.resize(size_t(blocksX_) * 5);
    for (uint32_t bx = 0; bx < blocksX_; ++bx) slsqColumnSums(powers_, int32_t(bx * 8), &columnSums_[bx * 5]);
    rightSides_.assign(size_t(blockCount_) * 18, 0.0);
    for (uint32_t i = 0; i < blockCount_; ++i)
      for (int c = 0; c < 3; ++c)
        slsqAddBlockRightSide(&rightSides_[size_t(i) * 18 + c * 6], powers_, pixels_ + c, width_, 3,
                              positions_[2 * i], positions_[2 * i + 1]);
  }

  void addBlock(GroupFit& fit, uint32_t block) const {
    slsqAddBlockMoments(fit.moments, powers_, &columnSums_[(block % blocksX_) * 5],
                        positions_[2 * block + 1]);
    const double* rhs = &rightSides_[size_t(block) * 18];
    for (int c = 0; c < 3; ++c)
      for (int i = 0; i < 6; ++i) fit.rhs[c][i] += rhs[c * 6 + i];
  }

  static void startFit(GroupFit& fit) {
    slsqClearMoments(fit.moments);
    for (int c = 0; c < 3; ++c)
      for (int i = 0; i < 6; ++i) fit.rhs[c][i] = 0.0;
  }

  static void solveFit(const GroupFit& fit, float k[3][6]) {
    for (int c = 0; c < 3; ++c) slsqSolveNormal(fit.moments, fit.rhs[c], k[c]);
  }

  float blockError(const float k[3][6], uint32_t block, float largest) const {
    for (int c = 0; c < 3; ++c)
      largest = slsqBlockError(k[c], powers_, pixels_ + c, width_, 3, positions_[2 * block],
                               positions_[2 * block + 1], largest);
    return largest;
  }

  float fitAlone(uint32_t block, float k[3][6]) const {
    GroupFit fit;
    startFit(fit);
    addBlock(fit, block);
    solveFit(fit, k);
    return blockError(k, block, 0.0f);
  }

  // Largest change of any surface value over the block when the coefficients change by
  // `delta` (absolute differences), the largest over the channels.
  double changeBound(const double delta[3][6], uint32_t block) const {
    const double x = positions_[2 * block] + 7.0, y = positions_[2 * block + 1] + 7.0;
    const double basis[6] = {1.0, x, y, x * x, y * y, x * y};
    double largest = 0.0;
    for (int c = 0; c < 3; ++c) {
      double sum = 0.0;
      for (int i = 0; i < 6; ++i) sum += delta[c][i] * basis[i];
      if (sum > largest) largest = sum;
    }
    return largest;
  }

  // Fast group search with the same outcome as the reference. A pair or group fit adds one
  // block to running sums instead of refitting every member from its pixels; a pair is dropped
  // as soon as one error reaches the tolerance. Each member keeps an upper bound of its error
  // under the group's current coefficients; when the coefficients move, the bound grows by the
  // largest change of the surface over the block plus a margin far above any rounding of the
  // error's evaluation, and only members whose bound passes the tolerance are evaluated again.
  // A member proven within the tolerance by its bound is within it exactly as well, so the
  // accepted candidates are those of the reference.
  void growGroupFast(uint32_t seed, uint16_t element, float k[3][6]) {
    GroupFit seedFit;
    startFit(seedFit);
    addBlock(seedFit, seed);

    candidates_.clear();
    candidateErrors_.clear();
    for (uint32_t j = 0; j < blockCount_; ++j) {
      if (records_[j].slsqIndex != kUndecided) continue;
      GroupFit trial = seedFit;
      addBlock(trial, j);
      float pk[3][6];
      solveFit(trial, pk);
      float e = blockError(pk, j, 0.0f);
      if (!(e < kSlsqTolerance)) continue;
      e = blockError(pk, seed, e);
      if (e < kSlsqTolerance) {
        candidates_.push_back(j);
        candidateErrors_.push_back(e);
      }
    }
    order_.resize(candidates_.size());
    vqSortAscending(candidateErrors_.data(), uint32_t(candidateErrors_.size()), order_.data());

    group_.assign(1, seed);
    GroupFit accepted = seedFit;
    float acceptedK[3][6];
    solveFit(accepted, acceptedK);
    bounds_.assign(1, double(aloneError_[seed]));
    for (uint32_t o : order_) {
      const uint32_t j = candidates_[o];
      GroupFit trial = accepted;
      addBlock(trial, j);
      float tk[3][6];
      solveFit(trial, tk);
      const float candidateError = blockError(tk, j, 0.0f);
      bool fits = candidateError <= kSlsqTolerance;
      if (fits) {
        double delta[3][6];
        for (int c = 0; c < 3; ++c)
          for (int i = 0; i < 6; ++i)
            delta[c][i] = std::fabs(double(tk[c][i]) - double(acceptedK[c][i])) * (1.0 + 1e-6);
        trialBounds_.resize(group_.size());
        for (size_t m = 0; fits && m < group_.size(); ++m) {
          double bound = bounds_[m] + changeBound(delta, group_[m]) + kBoundMargin;
          if (bound > kSlsqTolerance) {
            bound = blockError(tk, group_[m], 0.0f);
            fits = bound <= kSlsqTolerance;
          }
          trialBounds_[m] = bound;
        }
      }
      if (fits) {
        group_.push_back(j);
        records_[j].blockType = kTypeSurface;
        records_[j].slsqIndex = element;
        accepted = trial;
        std::memcpy(acceptedK, tk, sizeof(tk));
        bounds_.swap(trialBounds_);
        bounds_.push_back(candidateError);
      }
    }
    std::memcpy(k, acceptedK, sizeof(acceptedK));
  }

  // Added to an error bound at each move of the coefficients; the rounding of one evaluation
  // of the error is below 1e-4 for surfaces near the picture's values.
  static constexpr double kBoundMargin = 1e-3;

  const double* powers_;
  const float* pixels_;
  uint32_t width_, blocksX_, blockCount_;
  BlockRecord* records_;
  bool verbose_;
  std::vector<int32_t> positions_;
  std::vector<float> aloneError_;
  std::vector<double> columnSums_, rightSides_;
  std::vector<uint32_t> candidates_, order_, group_;
  std::vector<float> candidateErrors_;
  std::vector<double> bounds_, trialBounds_;
  std::vector<uint8_t> elements_;
  uint32_t elementCount_ = 0;
  uint32_t codebookBlocks_ = 0;
};

// The four 4x4 quarters of an 8x8 block as 48 floats each, rows top first.
void quarterVector(const float* pixels, uint32_t width, uint32_t block, uint32_t quarter,
                   float* out) {
  const uint32_t blocksX = width / 8;
  const uint32_t x = block % blocksX * 8 + (quarter & 1) * 4;
  const uint32_t y = block / blocksX * 8 + (quarter >> 1) * 4;
  for (uint32_t row = 0; row < 4; ++row)
    std::memcpy(out + row * 12, pixels + (size_t(y + row) * width + x) * 3, 12 * sizeof(float));
}

int percent(uint64_t part, uint64_t whole) { return whole ? int(part * 100 / whole) : 0; }
double percentF(double part, double whole) { return whole > 0 ? part * 100.0 / whole : 0.0; }
double ratio(double whole, double part) { return part > 0 ? whole / part : 0.0; }

// The codebook's index width and vector count: the largest codebook that fits the target
// beside the surfaces and the index table, and no more vectors than the codebook blocks have
// quarters.
struct CodebookPlan {
  int64_t bits = 12;
  int64_t vectors = 4096;
};

CodebookPlan planCodebook(int64_t target, uint32_t elementCount, uint32_t surfaceBits,
                          uint32_t slsqBlocks, uint32_t vqBlocks) {
  const int64_t surfaceTableBytes = int64_t(elementCount) * kSurfaceEntryBytes;
  auto indexBytes = [&](int64_t b) {
    return (int64_t(1 + surfaceBits) * slsqBlocks + (1 + 4 * b) * int64_t(vqBlocks)) / 8;
  };
  int64_t b = 12, n = 4096;
  bool limits = true;
  if (!(target > surfaceTableBytes + 16732 + indexBytes(12))) {
    limits = false;
    while (b >= 3) {
      --b;
      n = int64_t(1) << b;
      const int64_t need =
          (n * 51 / 100) * 48 / 6 + surfaceTableBytes + kStillImageHeaderBytes + indexBytes(b);
      if (target > need) {
        limits = true;
        break;
      }
    }
  }
  if (limits) {
    int64_t room =
        ((target - surfaceTableBytes - indexBytes(b) - kStillImageHeaderBytes) / 8) & ~int64_t(3);
    if (room == 0) room = 4;
    if (room < n) n = room;
    if (4 * int64_t(vqBlocks) < n) {
      n = vqBlocks ? 4 * int64_t(vqBlocks) : 4;
      b = bitLength(uint32_t(n));
    }
  }
  return {b, n};
}

// The codebook trained on the quarters of all codebook blocks, and each quarter's nearest
// vector written into its block's record.
struct Assignment {
  std::vector<uint32_t> blocks;  // the codebook blocks, in picture order
  std::vector<uint8_t> used;     // per trained vector: some quarter took it
  float biggest = 0.0f;          // largest squared distance of a quarter to its vector
  uint32_t rounds = 0;
};

Assignment trainAndAssign(const float* pixels, uint32_t width, std::vector<BlockRecord>& records,
                          uint32_t vqBlocks, VQCodebook& codebook, bool verbose) {
  Assignment a;
  a.blocks.reserve(vqBlocks);
  for (uint32_t i = 0; i < records.size(); ++i)
    if (records[i].blockType == kTypeCodebook) a.blocks.push_back(i);
  std::vector<float> training(size_t(vqBlocks) * 4 * kVqComponents);
  for (uint32_t v = 0; v < vqBlocks; ++v)
    for (uint32_t q = 0; q < 4; ++q)
      quarterVector(pixels, width, a.blocks[v], q, &training[(size_t(v) * 4 + q) * kVqComponents]);
  a.rounds = codebook.train(training.data(), vqBlocks * 4, verbose);

  a.used.assign(codebook.size, 0);
  for (uint32_t v = 0; v < vqBlocks; ++v) {
    for (uint32_t q = 0; q < 4; ++q) {
      float d;
      const uint32_t index = codebook.nearest(&training[(size_t(v) * 4 + q) * kVqComponents], &d);
      records[a.blocks[v]].vqIndex[q] = uint16_t(index);
      a.used[index] = 1;
      if (d > a.biggest) a.biggest = d;
    }
  }
  return a;
}

// The used vectors, components cut to bytes, sorted by colour, the blocks' indices renumbered
// to match; stored as DXT1 blocks, one a vector, as the decoder reads them.
std::vector<uint8_t> storeCodebook(const VQCodebook& codebook, uint32_t bits,
                                   const Assignment& a, std::vector<BlockRecord>& records) {
  const uint32_t n = codebook.size;
  std::vector<uint32_t> compactNumber(size_t(n), 0);
  std::vector<uint8_t> compact;
  uint32_t count = 0;
  for (uint32_t i = 0; i < n; ++i) {
    if (!a.used[i]) continue;
    compactNumber[i] = count++;
    const float* row = codebook.vectors + size_t(i) * kVqComponents;
    for (uint32_t c = 0; c < kVqComponents; ++c)
      compact.push_back(uint8_t(std::clamp(row[c], 0.0f, 255.0f)));
  }
  ZYC_ASSERT(count <= n && count <= (uint32_t(1) << bits) && count <= 65536, kCompressName,
             "Internal error.\n");

  std::vector<float> keys(count);
  for (uint32_t i = 0; i < count; ++i) keys[i] = vqColourKey(&compact[size_t(i) * 48]);
  std::vector<uint32_t> order(count), rank(count);
  vqSortAscending(keys.data(), count, order.data());
  std::vector<uint8_t> sorted(compact.size());
  for (uint32_t k = 0; k < count; ++k) {
    rank[order[k]] = k;
    std::memcpy(&sorted[size_t(k) * 48], &compact[size_t(order[k]) * 48], 48);
  }
  for (uint32_t block : a.blocks)
    for (uint32_t q = 0; q < 4; ++q)
      records[block].vqIndex[q] = uint16_t(rank[compactNumber[records[block].vqIndex[q]]]);

  // One column of 4x4 pictures, one block each.
  std::vector<uint8_t> dxt(size_t(count) * 8);
  if (count) zycCompressDxtn(3, 4, int(4 * count), sorted.data(), dxt.data());
  const size_t dxtBytes = size_t((4 + 3) / 4) * ((4 * count + 3) / 4) * 8;
  ZYC_ASSERT(dxtBytes == size_t(count) * 8, kCompressName, "Internal error.\n");
  return dxt;
}

// The index table: per block in picture order, a 1 and its four codebook indices, or a 0 and
// its surface element.
VqBitWriter writeIndexTable(const std::vector<BlockRecord>& records, uint32_t vqBits,
                            uint32_t surfaceBits) {
  VqBitWriter bits;
  for (const BlockRecord& r : records) {
    if (r.blockType == kTypeCodebook) {
      bits.put(1, 1);
      for (uint32_t q = 0; q < 4; ++q) bits.put(r.vqIndex[q], vqBits);
    } else if (r.blockType == kTypeSurface) {
      bits.put(0, 1);
      bits.put(r.slsqIndex / 3u, surfaceBits);
    } else {
      ZYC_ERROR(kCompressName, "Invalid internal state");
    }
  }
  return bits;
}

// The statistics lines of a compress.
void logStatistics(const VQSLSQStatistics& st, uint32_t width, uint32_t height) {
  const uint32_t blocksX = width / 8, blocksY = height / 8;
  const uint32_t blockCount = st.blockCount, slsqBlocks = st.slsqBlocks, vqBlocks = st.vqBlocks;
  const uint32_t pixelCount = width * height;
  const uint32_t rgbBytes = pixelCount * 3;
  const uint32_t pureDxt = pixelCount / 2;
  const uint32_t surfaceBytes = st.surfaceElements * kSurfaceEntryBytes;
  const uint32_t vqElementBytes = st.codebookCount * 8;
  const uint32_t compressed = st.indexTableBytes + surfaceBytes + vqElementBytes;
  zycLog("Global image statistics:\n");
  zycLog("blocks: %dx%d.\n", int(blocksX), int(blocksY));
  zycLog("Image pixel count: %d.\n", int(pixelCount));
  zycLog("Image size in RGB: %d.\n", int(rgbBytes));
  zycLog("Elementary %dx%d compression block count: %d (%dx%d).\n", 8, 8, int(blockCount),
         int(blocksX), int(blocksY));
  zycLog(" - SLSQ block count: %d (%d%%).\n", int(slsqBlocks), percent(slsqBlocks, blockCount));
  zycLog(" - VQ block count: %d (%d%%).\n", int(vqBlocks), percent(vqBlocks, blockCount));
  zycLog("SLSQ blocks statistics:\n");
  zycLog("SLSQ index bit size: %d bits\n", int(st.surfaceBits));
  zycLog("SLSQ pixel tolerance: %.1f.\n", double(kSlsqTolerance));
  zycLog("SLSQ Minimum block number inside one multi-block group: %d.\n", int(kMinGroupBlocks));
  zycLog("SLSQ multi-block efficiency: %d elements stored %.1f:1.\n", int(st.surfaceElements),
         ratio(slsqBlocks, st.surfaceElements));
  zycLog("VQ blocks statistics:\n");
  zycLog("VQ Block size: %dx%d (%d VQ blocks per compression blocs)\n", 4, 4, 4);
  zycLog("VQ Block count: %d\n", int(vqBlocks * 4));
  zycLog("VQ codebook element count: %d (%d bits) average %.1f VQ block per codebook\n",
         int(st.codebookCount), int(st.vqBits), ratio(vqBlocks * 4.0, st.codebookCount));
  zycLog("VQ pixel tolerance: %.1f. (tolerance for the square full vector distance: %.1f)\n",
         kVqPixelTolerance, kVqVectorTolerance);
  zycLog("Biggest VQ error: %.1f\n", double(st.biggestVqError));
  zycLog("Pure DXT1/ETC compressed image size: %d (%.1f%%) ratio %.1f:1.\n", int(pureDxt),
         percentF(pureDxt, rgbBytes), ratio(rgbBytes, pureDxt));
  zycLog("Compressed image size: %d (%.1f%%) ratio %.1f:1.\n", int(compressed),
         percentF(compressed, rgbBytes), ratio(rgbBytes, compressed));
  zycLog(" - Index Table size: %d (%d%%).\n", int(st.indexTableBytes),
         percent(st.indexTableBytes, compressed));
  zycLog(" - SLSQ element size: %d (%d%%) local compression %.1f%% ratio %.1f:1.\n",
         int(surfaceBytes), percent(surfaceBytes, compressed),
         percentF(surfaceBytes, slsqBlocks * 192.0), ratio(slsqBlocks * 192.0, surfaceBytes));
  zycLog(" - VQ element size: %d (%d%%) local compression %.1f%% ratio %.1f:1.\n",
         int(vqElementBytes), percent(vqElementBytes, compressed),
         percentF(vqElementBytes, vqBlocks * 192.0), ratio(vqBlocks * 192.0, vqElementBytes));
  zycLog(" - RAW VQ element size: %d.\n", int(st.codebookCount * 48));
  zycLog("Final compressed image size: %d (%.1f%%) ratio %.1f:1.\n", int(st.totalBytes),
         percentF(st.totalBytes, rgbBytes), ratio(rgbBytes, st.totalBytes));
}

}  // namespace

VQSLSQCompressor::VQSLSQCompressor(bool sse)
    : useSse(sse) {
  scratch = static_cast<uint8_t*>(std::aligned_alloc(16, kScratchBytes));
}

VQSLSQCompressor::~VQSLSQCompressor() {
  clearChain();
  std::free(currentImage);
  std::free(scratch);
}

uint32_t VQSLSQCompressor::compress(const uint8_t* image, uint32_t width, uint32_t height,
                                    int32_t targetSize, std::vector<uint8_t>& result) {
  const double start = threadSeconds();
  stats = VQSLSQStatistics();

  // Powers for every position of the picture, wrapped as the decoder wraps them; a fresh
  // chain; the pixels as floats.
  const int powerRows = int(std::max<uint32_t>({uint32_t(SLSQ_MAX_RESOLUTION), width, height}));
  powers.assign(size_t(powerRows) * kSlsqPowers, 0.0);
  slsqFillPowers(powers.data(), powerRows);
  clearChain();
  pendingReset = 0;
  const uint32_t blockCount = width / 8 * (height / 8);
  std::vector<BlockRecord> records(blockCount);
  std::memset(records.data(), 0xFF, records.size() * sizeof(BlockRecord));
  const std::vector<float> pixels(image, image + size_t(width) * height * 3);

  // Surfaces.
  SurfacePhase surfacePhase(powers.data(), pixels.data(), width, height, records.data(), verbose);
  const std::vector<uint8_t> elements = surfacePhase.run(referenceGroupSearch);
  const uint32_t elementCount = uint32_t(elements.size() / kSurfaceEntryBytes);
  const double vqStart = threadSeconds();
  stats.slsqSeconds = vqStart - start;
  if (verbose) {
    zycLog("SLSQ calculation: 100%%.\n");
    zycLog("VQ Calculation...\r");
  }
  const uint32_t surfaceBits = bitLength(elementCount);
  uint32_t slsqBlocks = 0, vqBlocks = 0;
  for (const BlockRecord& r : records) {
    if (r.blockType == kTypeSurface) ++slsqBlocks;
    if (r.blockType == kTypeCodebook) ++vqBlocks;
  }

  // The codebook.
  const CodebookPlan plan = planCodebook(targetSize, elementCount, surfaceBits, slsqBlocks,
                                         vqBlocks);
  const int64_t b = plan.bits;
  vqCodebook = std::make_unique<VQCodebook>(uint32_t(plan.vectors), useSse);
  const Assignment assignment =
      trainAndAssign(pixels.data(), width, records, vqBlocks, *vqCodebook, verbose);
  if (verbose)
    zycLog("Error with %d bits codebook: %.1f (VQ Tolerance equ. %.1f).\n", int(b),
           double(assignment.biggest), std::sqrt(double(assignment.biggest) / 48.0));
  const std::vector<uint8_t> dxt = storeCodebook(*vqCodebook, uint32_t(b), assignment, records);
  const uint32_t codebookCount = uint32_t(dxt.size() / 8);
  const VqBitWriter bits = writeIndexTable(records, uint32_t(b), surfaceBits);

  // The table size rises above the decoded codebook before the header is written.
  const uint32_t codebookTableBytes = codebookCount * 48;
  if (tableLimit < codebookTableBytes + 480) tableLimit = codebookTableBytes + 480;

  // Assembly.
  const uint32_t indexTableBytes = bits.byteSize();
  const uint32_t surfaceOffset = kStillImageHeaderBytes + indexTableBytes;
  const uint32_t codebookOffset = surfaceOffset + uint32_t(elements.size());
  const uint32_t total = codebookOffset + codebookCount * 8;
  result.assign(total, 0);
  uint8_t* out = result.data();
  zycStillImageHeader head;
  head.tableBytes = tableLimit;
  head.surfaceBits = uint8_t(surfaceBits);
  head.vqBits = uint8_t(b);
  head.width = width;
  head.height = height;
  head.surfaceOffset = surfaceOffset;
  head.codebookCount = codebookCount;
  head.codebookOffset = codebookOffset;
  zycStoreStillImageHeader(head, out);
  bits.copyTo(out + kStillImageHeaderBytes);
  if (!elements.empty()) std::memcpy(out + surfaceOffset, elements.data(), elements.size());
  if (codebookCount) std::memcpy(out + codebookOffset, dxt.data(), dxt.size());

  std::free(currentImage);
  currentImage = static_cast<uint8_t*>(std::aligned_alloc(16, (total + 15) & ~15u));
  std::memcpy(currentImage, out, total);
  currentImageSize = total;

  // The chain restarts at this image: its codebook is the first table of the ring, which the
  // decoder fills from its start.
  tableBytes = codebookTableBytes;
  stillInChain = true;
  ringBytes = tableLimit;
  ringWritePos = codebookTableBytes;

  stats.blockCount = blockCount;
  stats.slsqBlocks = slsqBlocks;
  stats.vqBlocks = vqBlocks;
  stats.surfaceElements = elementCount;
  stats.surfaceBits = surfaceBits;
  stats.vqBits = uint32_t(b);
  stats.codebookSize = uint32_t(plan.vectors);
  stats.codebookCount = codebookCount;
  stats.trainingRounds = assignment.rounds;
  stats.biggestVqError = assignment.biggest;
  stats.indexTableBytes = indexTableBytes;
  stats.totalBytes = total;
  stats.vqSeconds = threadSeconds() - vqStart;
  if (verbose) logStatistics(stats, width, height);
  return total;
}

bool VQSLSQCompressor::decompress(const uint8_t* imageBlock, uint32_t size,
                                  std::vector<uint8_t>& pixels) {
  if (size < kStillImageHeaderBytes || !zycHasStillImageMagic(imageBlock)) return false;
  const zycStillImageHeader head = zycLoadStillImageHeader(imageBlock);
  const uint32_t width = head.width, height = head.height;
  auto decoder = std::make_unique<zycFrameDecoder>();
  myDecoder io;
  decoder->io = &io;
  decoder->Setup(width, height, 24, 0, 1);
  decoder->colourStream = imageBlock;
  pixels.assign(size_t(width) * height * 3, 0);
  decoder->DecodeImage(pixels.data());
  decoder->Release();
  return true;
}
