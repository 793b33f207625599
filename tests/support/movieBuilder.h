// Hand-made frame payloads and whole movies for tests, written byte by byte from the format's
// rules and sharing no code with the library's writers, so the two can't share a mistake.
// Whole movies pack their sections with zlib and the LZMA sources (zyl_stream links both).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace movieBuilder {

using Bytes = std::vector<uint8_t>;

void put16(Bytes& out, uint32_t v);
void put32(Bytes& out, uint32_t v);
// An item: u32 length, then the body.
void putItem(Bytes& out, const Bytes& body);

// Writes values most significant bit first into little-endian 32-bit words.
class BitWriter {
 public:
  void Put(uint32_t value, int bits);
  Bytes Finish() const;  // padded to a whole word

 private:
  std::vector<uint32_t> words_;
  int used_ = 32;  // bits used in the last word
};

// A ZYL0 frame of a block tree: symbols and the data that each takes, collected in tree order.
// Build() writes the flags byte from what was added.
class TreeFrame {
 public:
  explicit TreeFrame(bool wideMotion = false) : wideMotion_(wideMotion) {}

  TreeFrame& Copy(uint32_t motionIndex);                                  // symbol 0
  TreeFrame& Split();                                                     // symbol 1
  TreeFrame& Colour(uint16_t color0, uint16_t color1, uint32_t indices);  // symbol 2, DXT1 path
  TreeFrame& TableBlock();                                // symbol 2, table path: no colour data
  TreeFrame& Fade(uint32_t motionIndex, uint32_t level);  // symbol 3
  TreeFrame& Sound(const Bytes& chunk);
  TreeFrame& Table(const Bytes& tableImage);  // makes this a table-format frame

  uint8_t Flags() const;
  Bytes TreeBody() const;          // flags byte and symbols
  std::vector<Bytes> Items() const;  // the item bodies, tree item first
  Bytes Build() const;               // all items with their length words
  size_t Symbols() const { return symbols_.size(); }

 private:
  bool wideMotion_;
  std::vector<uint8_t> symbols_;
  Bytes motion_;
  std::vector<uint32_t> colourWords_;
  std::vector<uint32_t> indexWords_;
  std::vector<uint8_t> fades_;
  Bytes sound_;
  bool hasSound_ = false;
  Bytes table_;
  bool hasTable_ = false;
};

// A still key frame image.
struct StillImage {
  uint32_t tableBytes = 48 * 64;
  uint8_t surfaceBits = 0;
  uint8_t vqBits = 0;
  uint16_t width = 16;
  uint16_t height = 16;
  std::vector<std::array<int16_t, 18>> surfaces;  // three channels of k0..k5
  std::vector<std::array<uint8_t, 8>> codebook;   // color0, color1, four index bytes
  BitWriter bits;

  void SurfaceBlock(uint32_t index);
  void CodebookBlock(uint32_t topLeft, uint32_t topRight, uint32_t bottomLeft,
                     uint32_t bottomRight);
  Bytes Build() const;
};

// A table-block image of a table-format frame.
struct TableImage {
  uint8_t marker = 0;
  uint8_t reset = 0;
  uint8_t indexBits = 8;
  uint32_t tableBytes = 48 * 8;
  uint32_t tableOrigin = 0;
  std::vector<uint32_t> indices;
  std::vector<std::array<uint8_t, 8>> newEntries;

  Bytes Build() const;
};

// An 8-byte DXT1 block as a still image codebook holds it.
std::array<uint8_t, 8> dxtBlock(uint16_t color0, uint16_t color1, uint32_t indices);

// A ZYL0 key frame held as a still image: flags 9 (25 with sound), the image, the sound.
Bytes imageFrame(const Bytes& image, const Bytes* sound = nullptr);

// A ZYL1 frame record from its streams (an empty first stream writes firstSize 0).
Bytes frameRecord(uint8_t recordFlags, const Bytes& first, const Bytes* sound, const Bytes* plane2,
                  const Bytes* plane3);

// ---------------------------------------------------------------------------------------------
// Whole movies: valid containers whose frames hold generated items (ZYL0) or records (ZYL1).

struct MovieOptions {
  uint32_t width = 40;  // rounded up to 48 by the decoder: 3 x 1 blocks of 16 at height 16
  uint32_t height = 16;
  uint32_t version = 0;
  uint8_t packing = 0;                      // 0 deflate, 1 LZMA (versions without tail words)
  std::vector<uint32_t> sections = {3, 2};  // frames per section
  bool sound = false;
  uint8_t seed = 0;  // varies the colours, so that different movies differ
  uint32_t frameDuration = 40000;
  bool planeFrames = false;     // ZYL1: P-frames as plane records (not decodable here)
  bool stillKeyFrames = false;  // ZYL0: key frames as still images instead of trees
  bool tableFrames = false;     // ZYL0: P-frames take their colour blocks from a block table
  bool wideMotion = false;      // ZYL0: u16 motion indices (header flag 8)
  // ZYL0: may change a frame's item bodies (tree item first) before they are packed.
  std::function<void(uint32_t frame, std::vector<Bytes>* items)> edit;
};

// The items of one ZYL0 frame, each a body without its length word.
std::vector<Bytes> Zyl0FrameItems(const MovieOptions& o, uint32_t frame, bool key);
Bytes Zyl0(const MovieOptions& o);
// Each section a still key frame followed by repeats, or by plane frames of filler bytes.
Bytes Zyl1(const MovieOptions& o);

bool WriteFile(const std::string& path, const Bytes& bytes);
Bytes ReadFile(const std::string& path);

}  // namespace movieBuilder
