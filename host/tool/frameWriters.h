// The decode command's outputs: Y4M (4:4:4 or 4:2:0), raw RGB, numbered PNG files and WAV.
// Pictures come in as 32-bit B, G, R, X pixels with a row stride and leave cropped. Every file
// is written beside its name and renamed into place once it is complete and closed; a write
// that fails gives an error with the system's reason and leaves no file behind.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "host/tool/outputFiles.h"

struct PictureView {
  const uint8_t* pixels;  // B, G, R, X
  uint32_t stride;        // bytes a row
  uint32_t width;         // the part to write
  uint32_t height;
};

class FrameWriter {
 public:
  virtual ~FrameWriter() = default;
  // Writes one picture; false with error() set.
  virtual bool Write(const PictureView& picture) = 0;
  // Flushes and closes; false with error() set.
  virtual bool Finish() = 0;
  const std::string& error() const { return error_; }

 protected:
  std::string error_;
};

enum class Y4mChroma { k444, k420 };

// OUT "-" writes to the tool's standard output.
std::unique_ptr<FrameWriter> MakeY4mWriter(const std::string& path, Y4mChroma chroma,
                                           uint32_t width, uint32_t height, uint32_t rateNum,
                                           uint32_t rateDen, std::string* error);
std::unique_ptr<FrameWriter> MakeRgbWriter(const std::string& path, std::string* error);
// `pattern` holds one printf conversion for the frame number, such as "frame%04d.png"; with
// `single` it is the name of the one picture written.
std::unique_ptr<FrameWriter> MakePngWriter(const std::string& pattern, std::string* error,
                                           bool single = false);
// True when `pattern` has exactly one %d-style conversion (with an optional 0 flag and width)
// and nothing else but "%%".
bool IsFramePattern(const std::string& pattern);

// BT.601 limited range, as Y4M players expect.
void RgbToYuv601(uint8_t r, uint8_t g, uint8_t b, uint8_t* y, uint8_t* u, uint8_t* v);

// A 16-bit PCM WAV file, "-" for the tool's standard output. Its sizes are written first as
// `expectedBytes` of samples and set right at the end where the file can seek. A file is
// written beside its name and renamed into place by Finish; a writer dropped before that
// leaves no file.
class WavWriter {
 public:
  bool Open(const std::string& path, uint32_t channels, uint32_t rate,
            uint64_t expectedBytes = 0);
  bool Write(const int16_t* samples, size_t count);
  bool Finish();
  const std::string& error() const { return error_; }
  ~WavWriter();

 private:
  StagedFile staged_;
  FILE* file_ = nullptr;  // the staged file's stream, or the tool's standard output
  bool toolOut_ = false;
  std::string path_;
  uint64_t dataBytes_ = 0;
  std::string error_;
};
