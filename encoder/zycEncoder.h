// zycEncoder: the ZYL0 encoder object. Its parameter fields are written directly by the codec's
// parameter table; Begin, Next and End code a movie (the encode job drives them through the
// zycJobEncoder seam). State: per encoder (the ADPCM coder's state too, cleared by Begin), plus
// the process-wide timers and the decoder's block table write position.
#pragma once

#include <cstdint>

#include "seam/zycJobEncoder.h"

class zycEncoder : public zycJobEncoder {
 public:
  zycEncoder();
  ~zycEncoder() override;
  zycEncoder(const zycEncoder&) = delete;
  zycEncoder& operator=(const zycEncoder&) = delete;

  // zycJobEncoder
  void SetJobRange(uint32_t firstFrame, uint32_t frameTotal) override;
  int32_t Begin(zycStreamHeader& header, const zylFrameImage& image, zycFileHolder* output,
                FILE** extraOutputs, zylAudioSupplierFn audioSupplier, void* audioUser,
                zylProgress* progress, const zylKeyframeRange* keyframePlan) override;
  int32_t Next(const zylFrameImage& image, zylProgress* progress) override;
  void End() override;
  const uint8_t* Reconstructed() const override;
  uint32_t Pitch() const override;
  uint32_t SoundFlags() const override { return soundFlags; }

  // ---- Parameter fields, in order, with their defaults (the codec writes them directly).
  uint32_t ratio = 100;                    // "RATI"
  uint32_t motionShift = 0;                // "MOTI"
  uint32_t yuvCoding = 0;                  // "YUV\0"
  uint32_t embedded = 0;                   // set by Begin: sound goes through the extra files
  uint32_t noFade = 0;                     // "FACT", stored negated
  uint32_t errorMin = 0;                   // "cMIN"
  uint32_t errorLimit = 100000;            // "cMAX"
  double iRat = double(0.2f);              // "iRAT" / 100
  float iDmp = 1.0f;                       // "iDMP" / 1000
  float iRng = 3.0f;                       // "iRNG" / 1000
  uint32_t iFrameFormat = 0;               // "iFMT": 0 block tree, 1 still image
  uint32_t pFrameFormat = 0;               // "jFMT": 0 DXT1 colour item, 1 table blocks
  float vqRatioMin = 5.0f;                 // "kFMT"
  float vqRatioMaxKey = 6.0f;              // "lFMT"
  float vqRatioMaxP = 12.0f;               // "mFMT"
  uint32_t vqLimit = 0;                    // "uFMT" (no default of its own)
  uint32_t packing = 0;                    // "nFMT": 0 zlib, 1 LZMA
  uint32_t lzmaDictionary = 65536;         // "vFMT"
  uint32_t headerS = 0;                    // "sFMT"
  uint32_t headerT = 0;                    // "tFMT"
  uint32_t headerA = 0;                    // "IXTC"
  uint32_t headerB = 0;                    // "JXTC"
  uint32_t dxtBackEnd = 0;                 // "DXTC"
  uint32_t soundFlags = 32;                // "pFMT"
  uint32_t embedRequest = 0;               // "EXTC"
  uint32_t soundLeadBase = 16000;          // "oFMT"
  uint32_t forceLastKey = 0;               // "rFMT"
  uint32_t keyFrameOnSoundBlock = 0;       // "qFMT", stored for the codec; not used here
  uint32_t threads = 0;                    // "THRD": threads a frame's work is shared by;
                                           // 0 as many as the machine has cores
  uint32_t firstFrame = 0;                 // set by the job
  uint32_t frameTotal = 0;                 // set by the job
  const zylKeyframeRange* keyframePlan = nullptr;

  // ---- Fixed members.
  uint32_t blockMax = 16;
  uint32_t blockMin = 4;
  bool motionByte = true;
  bool verbose = true;                     // "wFMT"
  bool dataFileWanted = false;
  FILE* dataFile = nullptr;
  bool allowSimd = true;                   // false: the plain search kernels only
  bool useSums = true;                     // false: compare every candidate in full

  // What the last frame did, for tests and statistics.
  struct FrameInfo {
    bool keyFrame = false;
    int32_t wantedSize = 0;
    int32_t size = 0;
    uint32_t errorMax = 0;
    uint32_t errorNext = 0;
    uint32_t passes = 0;
    double changed = 0.0;
    // Table frames: the blocks coded through the block table, its new entries, index width.
    uint32_t tableBlocks = 0;
    uint32_t tableNew = 0;
    uint32_t tableIndexBits = 0;
  };
  const FrameInfo& LastFrame() const;
  int32_t CompressionSize() const;
  int32_t Credit() const;
  uint32_t PaddedWidth() const;
  uint32_t PaddedHeight() const;
  // The padded source picture (B, G, R, alpha) as the last Begin or Next took it.
  const uint8_t* SourceFrame() const;

 private:
  // Who codes the frame. Begin's first key frame has no stepping phase in its rate loop, and no
  // "- Next()" timer, data file lines or pass count.
  enum class Caller { kBegin, kNext };
  enum class Search { kMotion, kOff };  // kOff: DXT1 errors only, the tree of a key frame
  enum class Levels { kBuild, kKeep };  // kKeep: the levels of this picture are already made

  // Begin, in its order.
  bool CheckSettings(const zycStreamHeader& header);
  void Allocate(const zycStreamHeader& header);
  void WriteHeader(zycStreamHeader& header, FILE** extraOutputs,
                   zylAudioSupplierFn audioSupplier, void* audioUser);
  void OpenBudget();
  void FirstFrame(const zylFrameImage& image, zylProgress* progress);

  void OpenSection(zylProgress* progress);
  uint32_t BuildMotionVector(Search search, Levels levels);
  FrameInfo CodeTree(Caller caller, bool key, int32_t wantedSize, bool hasSound);
  int32_t TryTree(bool key, uint32_t threshold, uint32_t& errorNext, bool hasSound);
  int32_t WriteTree(bool hasSound);
  int32_t CommitFrame(int32_t size);
  int32_t WriteStill(int32_t wantedSize, bool hasSound);
  void FinishBlockFrame(FrameInfo& frame, bool hasSound);
  int32_t WriteTable(bool key, int32_t budget, bool hasSound);
  bool FadesSearched() const;
  int32_t PackSound();
  void FinishFrame(Caller caller, const FrameInfo& info, bool hasSound, zylProgress* progress);
  void ReportTreeFrame(Caller caller, const FrameInfo& info);
  void NoteTable();
  void FillProgress(zylProgress* progress, bool hasSound);
  void Rebuild();
  void BuildReferences();
  void PatchFile();

  struct State;      // everything Begin makes; defined with the encoder's code
  State* state_ = nullptr;
};
