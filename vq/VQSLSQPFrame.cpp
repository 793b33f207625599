// Table-block P-frames: the chain that mirrors the decoder's block table, the budget of a table
// image, and the rounds that train a new table only on what the old tables can't serve.
#include <bit>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/byteIo.h"
#include "base/consoleLog.h"
#include "dxt/baseColourDxt.h"
#include "stream/imageFormat.h"
#include "stream/zycDecoder.h"
#include "vq/VQCodebook.h"
#include "vq/VQSLSQCompressor.h"
#include "vq/vqBitStream.h"

namespace {

constexpr const char* kPFrameName = "VQSLSQCompressor::compressPFrame";
// Ring bytes kept free above a frame's new entries.
constexpr uint32_t kRingSlack = 480;
// Components of a padding vector: far from every real block, so it is never the nearest.
constexpr float kFarComponent = 10000.0f;


// The part of the chain a try works on: drops only ever happen at the old end, so a copy is
// the still image flag, the first table kept and the byte counts.
struct ChainView {
  bool still = false;
  uint32_t first = 0;
  uint32_t used = 0;
  uint64_t dropped = 0;
};

int percent(uint64_t part, uint64_t whole) { return whole ? int(part * 100 / whole) : 0; }
double percentF(double part, double whole) { return whole > 0 ? part * 100.0 / whole : 0.0; }
double ratio(double whole, double part) { return part > 0 ? whole / part : 0.0; }

}  // namespace

void VQSLSQCompressor::clearChain() {
  for (uint32_t i = 0; i < tableCount; ++i) std::free(const_cast<uint8_t*>(tableImages[i]));
  std::fill(tableImages, tableImages + kMaxTables, nullptr);
  std::fill(tableSizes, tableSizes + kMaxTables, 0u);
  tableCount = 0;
  tableBytes = 0;
  droppedBytes = 0;
  stillInChain = false;
  ringBytes = 0;
  ringWritePos = 0;
}

uint32_t VQSLSQCompressor::stillCodebookBytes() const {
  if (!currentImage || currentImageSize < kStillImageHeaderBytes) return 0;
  return zycLoadStillImageHeader(currentImage).codebookCount * kBlockBytes;
}

VQSLSQCompressor::TableBudget VQSLSQCompressor::tableBudget(uint32_t oldCount,
                                                            uint32_t blockCount,
                                                            int32_t targetSize) {
  const uint32_t o = static_cast<uint32_t>(std::bit_width(oldCount));
  const int64_t target = targetSize;
  int64_t room = 0, indexBytes = 0;
  uint32_t w = o;
  for (uint32_t e = 0;; ++e) {
    w = e + o;
    room = (int64_t(1) << w) - int64_t(oldCount);
    const int64_t bits = (int64_t(w) * blockCount) >> 3;
    // The rounding of the index table to words as it has always been reckoned here: the two
    // low bits cleared, and 4 added when any of bits 2 to 4 are set.
    indexBytes = (bits & ~int64_t(3)) + ((bits & 28) ? 4 : 0);
    if (room * 48 / 6 + indexBytes + kTableImageHeaderBytes > target || w >= 31) break;
  }
  int64_t r = (target - indexBytes - kTableImageHeaderBytes) / 8;
  r = r > 0 ? (r & ~int64_t(3)) : 0;
  if (r == 0) r = 4;
  if (r < room) room = r;
  TableBudget budget;
  if (int64_t(blockCount) >= room) {
    budget.indexBits = w;
    budget.newCount = uint32_t(room);
    return budget;
  }
  budget.newCount = blockCount & ~3u;
  if (budget.newCount == 0) budget.newCount = 4;
  budget.indexBits = static_cast<uint32_t>(std::bit_width(uint64_t(budget.newCount) + oldCount));
  return budget;
}

namespace {

// New vectors a frame trains: the budget's count as a multiple of 4 (the codebook works four
// vectors at a time), at least 4. Where that passes the budget's count (a room of 1 to 3), the
// index width grows to hold every index, and the ring's capacity counts the trained vectors.
uint32_t trainedCount(uint32_t newCount) {
  const uint32_t n = newCount & ~3u;
  return n ? n : 4;
}

}  // namespace

uint32_t VQSLSQCompressor::compressPFrame(const uint8_t* blocks, uint32_t blockCount,
                                          bool reset, int32_t targetSize,
                                          std::vector<uint8_t>& result) {
  pStats = PFrameStatistics();
  // The chain as this try sees it.
  ChainView chain;
  uint32_t writePos = ringWritePos;
  uint32_t ring = ringBytes;
  if (!reset) {
    chain.still = stillInChain;
    chain.first = 0;
    chain.used = tableBytes;
    chain.dropped = droppedBytes;
  } else {
    chain.first = tableCount;  // a new chain: nothing old
    writePos = 0;
  }
  const uint32_t stillBytes = stillCodebookBytes();
  auto oldCountOf = [&](const ChainView& c) {
    uint32_t count = c.still ? stillBytes / kBlockBytes : 0;
    for (uint32_t i = c.first; i < tableCount; ++i) count += tableSizes[i] / kBlockBytes;
    return count;
  };

  // Budget, ring capacity, drops at the old end.
  const TableBudget budget = tableBudget(oldCountOf(chain), blockCount, targetSize);
  const uint32_t trained = trainedCount(budget.newCount);
  const uint32_t capacity = std::max(tableLimit, trained * kBlockBytes + kRingSlack);
  if (reset) {
    ring = capacity;
  } else if (ring != capacity) {
    // The decoder's ring changes size with this frame: nothing old can be found in it, and the
    // new entries go where its write position stands.
    chain.still = false;
    chain.first = tableCount;
    chain.used = 0;
    chain.dropped = writePos;
  }
  if (chain.used + uint64_t(trained) * kBlockBytes > capacity && chain.still) {
    chain.used -= stillBytes;
    chain.dropped += stillBytes;
    chain.still = false;
  }
  while (chain.used + uint64_t(trained) * kBlockBytes > capacity && chain.first < tableCount) {
    chain.used -= tableSizes[chain.first];
    chain.dropped += tableSizes[chain.first];
    ++chain.first;
  }
  // The chain must stay below its count of tables: the oldest falls out as if the ring were full.
  while (tableCount - chain.first >= kMaxTables - 1) {
    chain.used -= tableSizes[chain.first];
    chain.dropped += tableSizes[chain.first];
    ++chain.first;
  }

  if (verbose) {
    zycLog("---------------------------------------------------------------\n");
    zycLog("Block VQ Calculation...\n");
  }

  // The old vectors as the decoder holds them: still image codebook, then tables oldest first.
  std::vector<uint8_t> oldBytes;
  if (chain.still && stillBytes) {
    const uint8_t* codebook = currentImage + zycLoadStillImageHeader(currentImage).codebookOffset;
    const uint32_t count = stillBytes / kBlockBytes;
    oldBytes.resize(size_t(count) * kBlockBytes);
    for (uint32_t k = 0; k < count; ++k)
      zycExpandTableBlock(codebook + kImageBlockBytes * size_t(k),
                          &oldBytes[size_t(k) * kBlockBytes]);
  }
  for (uint32_t i = chain.first; i < tableCount; ++i) {
    const zycTableImageHeader head = zycLoadTableImageHeader(tableImages[i]);
    const uint32_t count = head.newCount;
    const uint8_t* entries = tableImages[i] + head.newOffset;
    const size_t at = oldBytes.size();
    oldBytes.resize(at + size_t(count) * kBlockBytes);
    for (uint32_t k = 0; k < count; ++k)
      zycExpandTableBlock(entries + kImageBlockBytes * size_t(k),
                          &oldBytes[at + size_t(k) * kBlockBytes]);
  }
  const uint32_t oldCount = uint32_t(oldBytes.size() / kBlockBytes);

  std::vector<float> vectors(size_t(blockCount) * kVqComponents);
  for (size_t i = 0; i < vectors.size(); ++i) vectors[i] = float(blocks[i]);

  // Nearest old vector of every block, once: the factor scales all old distances alike, so the
  // nearest stays the nearest in every round (two raw distances that differ only in their last
  // bit could round to one scaled value; such a pair is not told apart). The old vectors stand
  // in reverse order in the codebook, so that its tie rule (the lower number) keeps the newest
  // of equally near old vectors, as a search that takes any old vector not farther would.
  std::vector<uint32_t> oldIndex(blockCount, 0);
  std::vector<float> oldDistance(blockCount, 0.0f);
  if (oldCount) {
    const uint32_t padded = (oldCount + 3) & ~3u;
    VQCodebook old(padded, useSse);
    float row[kVqComponents];
    for (uint32_t k = 0; k < oldCount; ++k) {
      const uint8_t* from = &oldBytes[size_t(oldCount - 1 - k) * kBlockBytes];
      for (uint32_t c = 0; c < kVqComponents; ++c) row[c] = float(from[c]);
      old.setVector(k, row);
    }
    std::fill(row, row + kVqComponents, kFarComponent);
    for (uint32_t k = oldCount; k < padded; ++k) old.setVector(k, row);
    for (uint32_t b = 0; b < blockCount; ++b) {
      const uint32_t k = old.nearest(&vectors[size_t(b) * kVqComponents], &oldDistance[b]);
      oldIndex[b] = oldCount - 1 - k;
    }
  }

  // Rounds: the factor makes old vectors look worse at first, so that the new table is trained
  // on what really needs it, and lets them back step by step.
  std::vector<uint8_t> matched(blockCount, 0);
  std::vector<uint32_t> index(blockCount, 0);
  std::vector<float> chosenDistance(blockCount, 0.0f);
  std::vector<float> training;
  std::vector<uint8_t> newDxt;       // the new entries as DXT1 blocks
  std::unique_ptr<VQCodebook> newBook;  // the new entries as the decoder expands them
  uint32_t newCount = 0;
  uint32_t trainedOn = 0xFFFFFFFFu;  // matched blocks when the new table was last trained
  uint32_t matchedCount = 0;
  double factor = 2.0;
  uint32_t hits = 0, previousHits = 0, rounds = 0;
  bool stop = false, lastRound = false;
  for (;;) {
    ++rounds;
    if (matchedCount != trainedOn) {
      // The new table depends only on the blocks not matched: train it again only when that
      // set has changed.
      trainedOn = matchedCount;
      std::vector<uint32_t> members;
      for (uint32_t b = 0; b < blockCount; ++b)
        if (!matched[b]) members.push_back(b);
      training.resize(members.size() * kVqComponents);
      for (size_t m = 0; m < members.size(); ++m)
        std::memcpy(&training[m * kVqComponents], &vectors[size_t(members[m]) * kVqComponents],
                    kVqComponents * sizeof(float));
      VQCodebook codebook(trained, useSse);
      codebook.train(training.data(), uint32_t(members.size()), verbose);

      // Assignment, compaction to the used vectors truncated to bytes, colour sort.
      std::vector<uint8_t> used(trained, 0);
      for (size_t m = 0; m < members.size(); ++m) {
        float d;
        used[codebook.nearest(&training[m * kVqComponents], &d)] = 1;
      }
      std::vector<uint8_t> compact;
      newCount = 0;
      for (uint32_t i = 0; i < trained; ++i) {
        if (!used[i]) continue;
        ++newCount;
        const float* row = codebook.vectors + size_t(i) * kVqComponents;
        for (uint32_t c = 0; c < kVqComponents; ++c)
          compact.push_back(uint8_t(std::clamp(row[c], 0.0f, 255.0f)));
      }
      ZYC_ASSERT(newCount <= trained, kPFrameName, "Internal error.\n");
      std::vector<float> keys(newCount);
      for (uint32_t i = 0; i < newCount; ++i) keys[i] = vqColourKey(&compact[size_t(i) * 48]);
      std::vector<uint32_t> order(newCount);
      vqSortAscending(keys.data(), newCount, order.data());
      std::vector<uint8_t> sorted(compact.size());
      for (uint32_t k = 0; k < newCount; ++k)
        std::memcpy(&sorted[size_t(k) * 48], &compact[size_t(order[k]) * 48], 48);

      // DXT1 and back: from here on the new table is what the decoder will have.
      newDxt.assign(size_t(newCount) * 8, 0);
      if (newCount) zycCompressDxtn(3, 4, int(4 * newCount), sorted.data(), newDxt.data());
      newBook.reset();
      if (newCount) {
        const uint32_t padded = (newCount + 3) & ~3u;
        newBook = std::make_unique<VQCodebook>(padded, useSse);
        uint8_t expanded[kBlockBytes];
        float row[kVqComponents];
        for (uint32_t k = 0; k < newCount; ++k) {
          zycExpandTableBlock(&newDxt[size_t(k) * 8], expanded);
          for (uint32_t c = 0; c < kVqComponents; ++c) row[c] = float(expanded[c]);
          newBook->setVector(k, row);
        }
        std::fill(row, row + kVqComponents, kFarComponent);
        for (uint32_t k = newCount; k < padded; ++k) newBook->setVector(k, row);
      }
    }

    // Every block against all tables: an old vector wins unless a new one is strictly nearer.
    hits = 0;
    const float scale = float(factor);
    for (uint32_t b = 0; b < blockCount; ++b) {
      const float* v = &vectors[size_t(b) * kVqComponents];
      bool haveBest = oldCount != 0;
      float best = haveBest ? oldDistance[b] * scale : 0.0f;
      uint32_t bestIndex = oldIndex[b];
      bool bestOld = haveBest;
      float newDistance = 0.0f;
      if (newCount) {
        // The codebook's tie rule, the lower number, is the rule among new vectors too.
        float d;
        const uint32_t k = newBook->nearest(v, &d);
        if (!haveBest || d < best) {
          newDistance = d;
          bestIndex = oldCount + k;
          bestOld = false;
        }
      }
      index[b] = bestIndex;
      chosenDistance[b] = bestOld ? oldDistance[b] : newDistance;
      if (bestOld) {
        ++hits;
        if (!matched[b]) {
          matched[b] = 1;
          ++matchedCount;
        }
      }
    }

    if (reset) {
      if (verbose) zycLog("Full PBlock-made IFrame compression...\n");
      break;
    }
    // With no old vector every round would repeat the first one.
    if (oldCount == 0) break;
    if (lastRound) break;
    if (stop) lastRound = true;
    if (hits == previousHits && factor < 1.005) stop = true;
    if (factor < 1.0000005) stop = true;
    factor = stop ? 1.0 : factor - (factor - 1.0) * 0.8;
    previousHits = hits;
  }

  // Index width: the budget's, widened where the trained count went past it.
  uint32_t indexBits = budget.indexBits;
  while ((uint64_t(1) << indexBits) < uint64_t(oldCount) + newCount) ++indexBits;
  VqBitWriter bits;
  for (uint32_t b = 0; b < blockCount; ++b) bits.put(index[b], indexBits);

  // Where index 0 stands in the ring.
  uint64_t origin = chain.dropped;
  if (origin > capacity) origin -= (origin - 1) / capacity * capacity;

  const uint32_t indexBytes = bits.byteSize();
  zycTableImageHeader head;
  head.reset = reset ? 1 : 0;
  head.indexBits = uint8_t(indexBits);
  head.tableBytes = capacity;
  head.tableOrigin = uint32_t(origin);
  head.blockCount = blockCount;
  head.newCount = newCount;
  head.newOffset = kTableImageHeaderBytes + indexBytes;
  const uint32_t newOffset = head.newOffset;
  const uint32_t total = newOffset + newCount * kImageBlockBytes;
  result.assign(total, 0);
  uint8_t* out = result.data();
  zycStoreTableImageHeader(head, out);
  bits.copyTo(out + kTableImageHeaderBytes);
  if (newCount) std::memcpy(out + newOffset, newDxt.data(), newDxt.size());

  pendingReset = reset ? 1 : 0;
  pendingTargetSize = targetSize;
  pendingBlockCount = blockCount;
  pendingTableBytes = newCount * kBlockBytes;
  pendingImage = result;

  uint32_t finalHits = 0;
  for (uint32_t b = 0; b < blockCount; ++b) finalHits += index[b] < oldCount;
  pStats.blockCount = blockCount;
  pStats.oldCount = oldCount;
  pStats.newCount = newCount;
  pStats.indexBits = indexBits;
  pStats.rounds = rounds;
  pStats.oldHits = finalHits;
  pStats.totalBytes = total;
  for (uint32_t b = 0; b < blockCount; ++b) pStats.squaredError += chosenDistance[b];

  if (verbose) {
    const uint32_t raw = blockCount * kBlockBytes;
    const uint32_t elementBytes = newCount * 8;
    zycLog("Blocks compressed: %d, target size: %d (target ratio %.1f:1)\n", int(blockCount),
           int(targetSize), ratio(raw, targetSize));
    zycLog("VQ Compressed blocks actual size: %d (%.1f%%) ratio %.1f:1.\n", int(total),
           percentF(total, raw), ratio(raw, total));
    zycLog("VQ codebook element count: %d (%d bits) average %.1f VQ block per codebook (average "
           "%.1f VQ block per codebook removing inter-codebook hits)\n",
           int(newCount), int(indexBits), ratio(blockCount, newCount),
           ratio(double(blockCount) - finalHits, newCount));
    zycLog(" - Index Table size: %d (%d%%).\n", int(indexBytes), percent(indexBytes, total));
    zycLog(" - VQ element size: %d (%d%%)\n", int(elementBytes), percent(elementBytes, total));
  }
  return total;
}

void VQSLSQCompressor::commitPFrame() {
  if (pendingImage.empty()) return;
  if (pendingReset) {
    clearChain();
    stillInChain = false;
  }
  // The same budget and drops as the try.
  uint32_t oldCount = stillInChain ? stillCodebookBytes() / kBlockBytes : 0;
  for (uint32_t i = 0; i < tableCount; ++i) oldCount += tableSizes[i] / kBlockBytes;
  const TableBudget budget = tableBudget(oldCount, pendingBlockCount, pendingTargetSize);
  const uint32_t trained = trainedCount(budget.newCount);
  const uint32_t capacity = std::max(tableLimit, trained * kBlockBytes + kRingSlack);
  const uint32_t stillBytes = stillCodebookBytes();
  uint32_t drop = 0;
  if (pendingReset) {
    ringBytes = capacity;
    ringWritePos = 0;
  } else if (ringBytes != capacity) {
    stillInChain = false;
    drop = tableCount;
    tableBytes = 0;
    droppedBytes = ringWritePos;
  }
  if (uint64_t(tableBytes) + uint64_t(trained) * kBlockBytes > capacity && stillInChain) {
    tableBytes -= stillBytes;
    droppedBytes += stillBytes;
    stillInChain = false;
  }
  while (uint64_t(tableBytes) + uint64_t(trained) * kBlockBytes > capacity && drop < tableCount) {
    tableBytes -= tableSizes[drop];
    droppedBytes += tableSizes[drop];
    ++drop;
  }
  while (tableCount - drop >= kMaxTables - 1) {
    tableBytes -= tableSizes[drop];
    droppedBytes += tableSizes[drop];
    ++drop;
  }
  if (drop) {
    for (uint32_t i = 0; i < drop; ++i) std::free(const_cast<uint8_t*>(tableImages[i]));
    std::copy(tableImages + drop, tableImages + tableCount, tableImages);
    std::copy(tableSizes + drop, tableSizes + tableCount, tableSizes);
    tableCount -= drop;
    std::fill(tableImages + tableCount, tableImages + kMaxTables, nullptr);
  }
  if (tableLimit < capacity) tableLimit = capacity;

  ZYC_ASSERT(tableCount < kMaxTables, kPFrameName, "too many tables\n");
  uint8_t* copy = static_cast<uint8_t*>(std::malloc(pendingImage.size()));
  std::memcpy(copy, pendingImage.data(), pendingImage.size());
  tableImages[tableCount] = copy;
  tableSizes[tableCount] = pendingTableBytes;
  ++tableCount;
  tableBytes += pendingTableBytes;
  // The decoder's write position moves as its ring fills and wraps.
  ringBytes = capacity;
  ringWritePos += pendingTableBytes;
  if (ringWritePos > capacity) ringWritePos -= capacity;
  pendingImage.clear();
}
