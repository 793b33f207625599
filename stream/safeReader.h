// A reader for movie files of unknown origin. It reads the whole file, walks the container
// with every position checked, unpacks the sections, splits the frames, and checks each frame
// against its items before the trusting frame decoder sees it. Faults are texts that name the
// file, the frame, the section and the byte, such as
//   "movie.zyl: frame 12 (section 2 at byte 40960): motion index 37 reads outside the picture
//    (block 16 at 32,0)".
// Nothing outside a buffer is read, whatever the file holds.
//
// The frame decoder keeps one process-wide block table position; like an encode job, one
// reader decodes at a time in a process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "stream/container.h"
#include "stream/framePayload.h"
#include "stream/zylFormat.h"

// Bounds for what a file may ask of memory.
struct zycSafeReaderLimits {
  uint32_t maxWidth = 16384;
  uint32_t maxHeight = 16384;
  uint64_t maxPixels = uint64_t(1) << 26;          // of the rounded picture
  uint64_t maxUnpackedBytes = uint64_t(1) << 30;   // all sections together
  uint32_t maxTableBytes = 1u << 28;               // a block table ring
};

struct zycSafeSection {
  uint64_t offset = 0;         // file position of the section header
  uint32_t frames = 0;
  uint32_t firstFrame = 0;
  uint32_t packedBytes = 0;    // behind the section header
  uint64_t unpackedBytes = 0;  // ZYL0: after inflating; ZYL1: the same as packedBytes
  uint8_t keyType = 0;         // ZYL1
};

struct zycSafeFrame {
  uint32_t section = 0;
  bool key = false;     // first frame of its section
  uint8_t flags = 0;    // ZYL0: the flags byte; ZYL1: the record flags
  uint8_t kind = 0;     // ZYL1: frame kind
  uint64_t offset = 0;  // ZYL0: in the unpacked section; ZYL1: file position of the record
  uint32_t bytes = 0;   // the whole frame, length words or record head included
  // Body sizes of the items (ZYL0) or streams (ZYL1: `image` or `plane[0]` is the first
  // stream); 0 for what the frame does not hold.
  uint32_t treeBytes = 0, motionBytes = 0, colourBytes = 0, imageBytes = 0, soundBytes = 0,
           fadeBytes = 0, tableBytes = 0;
  uint32_t planeBytes[3] = {};
};

enum class zycSafeStatus : uint8_t {
  decoded,      // the picture holds the frame
  undecodable,  // a frame that builds on one that was not decoded (a repeat, a ZYL1 P-frame)
  damaged,      // the frame fails its checks; the picture is unchanged; see frameError()
  end,          // no frame left
};

struct zycFrameDecoder;
class myDecoder;
class zycZyl1Decoder;

class zycSafeReader {
 public:
  zycSafeReader();
  ~zycSafeReader();
  zycSafeReader(const zycSafeReader&) = delete;
  zycSafeReader& operator=(const zycSafeReader&) = delete;

  void SetLimits(const zycSafeReaderLimits& limits) { limits_ = limits; }

  // Reads and walks the file. False with error() when anything in the container is wrong:
  // the sections and frames found up to the fault stay listed. A ZYL0 deflate movie cut short
  // inside a section also lists the whole frames of what is left of that section.
  bool Open(const std::string& path);
  // The same on bytes in memory; `name` stands for the file in messages.
  bool OpenMemory(const uint8_t* data, size_t size, const std::string& name);
  // The first fault found by Open.
  const std::string& error() const;
  // Every fault found by Open, in file order.
  const std::vector<std::string>& problems() const { return problems_; }
  // Things worth telling that are not faults: bytes behind the movie's end that a job stopped
  // while writing a frame leaves behind (the movie before them is whole).
  const std::vector<std::string>& notes() const { return notes_; }

  const zycStreamHeader& header() const { return header_; }
  bool isZyl1() const { return header_.magic == kMagicZyl1; }
  const std::vector<zycSafeSection>& sections() const { return sections_; }
  const std::vector<zycSafeFrame>& frames() const { return frames_; }

  // The picture that NextFrame fills: 32-bit pixels (B, G, R, X), `pictureWidth()` a row.
  // ZYL0 pictures have the sizes rounded up to multiples of 16; ZYL1 pictures to multiples of 8.
  uint32_t pictureWidth() const { return pictureWidth_; }
  uint32_t pictureHeight() const { return pictureHeight_; }
  const std::vector<uint8_t>& picture() const { return picture_; }

  // Paints the block tree instead of decoding (ZYL0 tree frames).
  void SetTreeView(bool on) { treeView_ = on; }

  // Decodes the next frame (the first after Open or Rewind).
  zycSafeStatus NextFrame();
  // The frame NextFrame handled last, its number, and why it was not decoded.
  uint32_t frameNumber() const { return current_; }
  const std::string& frameError() const { return frameError_; }
  // The sound bytes of the frame handled last (the item body or the sound stream).
  const uint8_t* sound() const { return soundData_; }
  uint32_t soundBytes() const { return soundBytes_; }
  // Back to the first frame, with a cleared picture and block table.
  void Rewind();

  // Walks and decodes everything from the first frame and lists every fault: those of Open,
  // then those of the frames. Frames that this build can't decode are not faults; their count
  // is undecodableFrames().
  std::vector<std::string> CheckAll();
  uint32_t undecodableFrames() const { return undecodable_; }

 private:
  bool Walk();
  bool WalkZyl0();
  bool WalkZyl1();
  bool Unpack(const zycSectionEntry& entry, uint32_t index, std::vector<uint8_t>* out);
  void SalvageCut(zycSectionEntry entry);
  void Problem(const std::string& text);
  void CheckTail(size_t walkedTo);
  std::string FramePlace(uint32_t frame) const;
  bool CheckZyl0Frame(const zycSafeFrame& frame, const zycFrameItems& items,
                      const uint8_t* bytes, std::string* why);
  bool CheckStillImage(const uint8_t* image, uint32_t size, uint32_t wantWidth,
                       uint32_t wantHeight, std::string* why);
  bool CheckTableImage(const uint8_t* image, uint32_t size, uint32_t colourBlocks,
                       std::string* why);
  void ResetDecoder();

  zycSafeReaderLimits limits_;
  std::string name_;
  std::vector<uint8_t> file_;
  zycStreamHeader header_;
  std::vector<std::string> problems_;
  std::vector<std::string> notes_;
  std::vector<zycSafeSection> sections_;
  std::vector<zycSafeFrame> frames_;
  std::vector<std::vector<uint8_t>> unpacked_;  // ZYL0 sections
  std::vector<zycFrameItems> items_;            // ZYL0, one per frame
  std::vector<zycFrameRecord> records_;         // ZYL1, one per frame

  std::unique_ptr<myDecoder> io_;
  std::unique_ptr<zycFrameDecoder> decoder_;
  std::unique_ptr<zycZyl1Decoder> zyl1_;  // ZYL1 frames
  int8_t largeMotion_[4096][2];
  bool largeMotionReady_ = false;
  uint32_t pictureWidth_ = 0, pictureHeight_ = 0;
  std::vector<uint8_t> picture_, previous_, scratch_;
  bool decoderReady_ = false;
  bool pictureValid_ = false;  // the picture holds the frame before the next one
  bool treeView_ = false;
  uint32_t next_ = 0, current_ = 0;
  std::string frameError_;
  const uint8_t* soundData_ = nullptr;
  uint32_t soundBytes_ = 0;
  uint32_t undecodable_ = 0;
};

// Where a section that a stopped job or a full disk cut short can end with whole frames: for
// each count of frames from its start that lie whole in the `available` bytes behind its
// header, the bytes they take there. A ZYL0 deflate section ends each frame with a sync flush,
// so its cuts fall on the flushes that end frames; a ZYL1 section's fall on record ends. A ZYL0
// LZMA section is packed as one stream and has none. At most `maxUnpacked` bytes are unpacked.
struct zycSectionPrefix {
  uint32_t frames = 0;
  uint32_t bytes = 0;
};
std::vector<zycSectionPrefix> zycWholeFramePrefixes(const zycStreamHeader& header,
                                                    const uint8_t* data, size_t available,
                                                    uint64_t maxUnpacked);
