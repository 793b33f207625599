// The still-image coder of key frames: each 8x8 block of a picture is either a smooth patch,
// an index to a polynomial surface shared by a group of blocks anywhere in the picture, or a
// detailed patch, four indices into a codebook of 4x4 vectors stored as DXT1 blocks. The
// object also holds the state of the chain of P-frame tables that starts at each still image.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

struct VQCodebook;

// Figures of the last compress, for tests, benchmarks and the statistics lines.
struct VQSLSQStatistics {
  uint32_t blockCount = 0;
  uint32_t slsqBlocks = 0;        // Q
  uint32_t vqBlocks = 0;          // V
  uint32_t surfaceElements = 0;
  uint32_t surfaceBits = 0;
  uint32_t vqBits = 0;            // b
  uint32_t codebookSize = 0;      // n, vectors trained
  uint32_t codebookCount = 0;     // vectors used and stored
  uint32_t trainingRounds = 0;
  float biggestVqError = 0.0f;    // largest squared distance of the final assignment
  uint32_t indexTableBytes = 0;   // padded to a word
  uint32_t totalBytes = 0;
  double slsqSeconds = 0.0;       // processor time of the surface phase
  double vqSeconds = 0.0;         // processor time of the codebook phase and the writing
};

class VQSLSQCompressor {
 public:
  // `useSse` picks the fast kind of codebook; both give the same result.
  explicit VQSLSQCompressor(bool useSse);
  ~VQSLSQCompressor();
  VQSLSQCompressor(const VQSLSQCompressor&) = delete;
  VQSLSQCompressor& operator=(const VQSLSQCompressor&) = delete;

  // Compresses `image` (packed 3-byte pixels, width x height, rows top first; width and height
  // multiples of 8; surfaces take positions modulo 1024 as the decoder does) into one image block of about `targetSize` bytes, written
  // to `result`. Returns the size. The object keeps its own copy (imageBlock()), and the table
  // chain restarts at it: tableLimit rises to at least codebookCount * 48 + 480.
  uint32_t compress(const uint8_t* image, uint32_t width, uint32_t height, int32_t targetSize,
                    std::vector<uint8_t>& result);

  // Decodes an image block made by compress through the frame decoder's still image path into
  // width x height pixels of 3 bytes, in the channel order of the compressed picture. False if
  // the block is not a still image. Moves the process-wide block table write position as the
  // decoder does.
  static bool decompress(const uint8_t* imageBlock, uint32_t size, std::vector<uint8_t>& pixels);

  const uint8_t* imageBlock() const { return currentImage; }
  uint32_t imageBlockSize() const { return currentImageSize; }
  const VQSLSQStatistics& statistics() const { return stats; }

  // Size in bytes of the decoder's block table, written into each image; the encoders set it
  // per job before the first compress.
  uint32_t tableLimit = 230400;
  // Progress, training and statistics lines on the console.
  bool verbose = true;
  // Uses the straightforward group search that refits every group from its pixels. Gives the
  // same image block as the default search, only slower; kept as its reference.
  bool referenceGroupSearch = false;

  // ---- Table-block P-frames. Each 4x4 colour block of a frame becomes an index into the
  // decoder's block table, a ring of 48-byte entries that lives from frame to frame; a frame
  // adds the few new entries that the old ones can't serve.

  // Index width and new vector count of a table image for `oldCount` vectors in the ring,
  // `blockCount` blocks and `targetSize` bytes.
  struct TableBudget {
    uint32_t indexBits = 0;
    uint32_t newCount = 0;
  };
  static TableBudget tableBudget(uint32_t oldCount, uint32_t blockCount, int32_t targetSize);

  // Codes `blockCount` blocks of 48 bytes (16 pixels of three bytes, rows top first, in the
  // channel order the decoder's table path expects) into a table image of about `targetSize`
  // bytes, written to `result`; returns its size. `reset` opens a new chain (a key frame made
  // of blocks). The chain is not changed: tries may be repeated, and commitPFrame takes the
  // last one into the chain once it is written.
  uint32_t compressPFrame(const uint8_t* blocks, uint32_t blockCount, bool reset,
                          int32_t targetSize, std::vector<uint8_t>& result);
  void commitPFrame();

  // Figures of the last compressPFrame.
  struct PFrameStatistics {
    uint32_t blockCount = 0;
    uint32_t oldCount = 0;    // vectors of the ring the frame could use
    uint32_t newCount = 0;
    uint32_t indexBits = 0;
    uint32_t rounds = 0;
    uint32_t oldHits = 0;     // blocks served by old vectors in the end
    uint32_t totalBytes = 0;
    // Sum over the blocks of the squared distance to the vector each index means, as the
    // compressor sees the ring.
    double squaredError = 0.0;
  };
  const PFrameStatistics& pFrameStatistics() const { return pStats; }

  // The chain of P-frame tables that live in the decoder's block table after a still image or
  // a reset: the still image's codebook (oldest), then the table images kept, oldest first.
  static constexpr uint32_t kMaxTables = 1000;
  uint8_t pendingReset = 0;
  bool stillInChain = false;        // the still image's codebook is still in the ring
  const uint8_t* tableImages[kMaxTables] = {};  // owned copies
  uint32_t tableSizes[kMaxTables] = {};         // ring bytes of each: newCount x 48
  uint32_t tableCount = 0;
  uint32_t tableBytes = 0;      // ring bytes in use, the still image's codebook included
  uint64_t droppedBytes = 0;    // ring bytes fallen out at the old end
  // The ring as the decoder has it after the last committed frame: its size and the position
  // at which the next new entry goes. A frame whose ring has another size finds nothing old in
  // it (the decoder's table is then a new one, or its positions have moved).
  uint32_t ringBytes = 0;
  uint32_t ringWritePos = 0;

  private:
  uint8_t* currentImage = nullptr;  // 16-byte aligned copy of the last image block
  uint32_t currentImageSize = 0;
  uint8_t* scratch = nullptr;       // 131072 bytes
  bool useSse;
  std::vector<double> powers;  // powers[i * 5 + k] = (i mod 1024)^k, k < 5
  std::unique_ptr<VQCodebook> vqCodebook;
  VQSLSQStatistics stats;
  PFrameStatistics pStats;

  // The try that commitPFrame takes into the chain.
  std::vector<uint8_t> pendingImage;
  uint32_t pendingTableBytes = 0;
  int32_t pendingTargetSize = 0;
  uint32_t pendingBlockCount = 0;

  void clearChain();
  uint32_t stillCodebookBytes() const;
};
