#include "host/tool/frameWriters.h"

#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/tool/outputFiles.h"
#include "host/tool/toolCommon.h"

namespace {

std::string Reason(int error) { return std::string(" (") + std::strerror(error) + ")"; }

// A file written beside its final name and renamed into place by Close, or the tool's standard
// output for "-". A file that was not closed well is removed: no output is left that looks
// whole and is not.
struct OutFile {
  FILE* file = nullptr;
  bool toStdout = false;
  std::string name;
  StagedFile staged;

  bool Open(const std::string& path, std::string* error) {
    name = path == "-" ? "standard output" : path;
    if (path == "-") {
      file = ToolOut();
      toStdout = true;
      return true;
    }
    if (!staged.Create(path, true)) {
      *error = staged.error();
      return false;
    }
    file = staged.file();
    return true;
  }
  bool Close(std::string* error) {
    if (!file) return true;
    file = nullptr;
    if (toStdout) {
      if (std::fflush(ToolOut()) == 0) return true;
      *error = name + ": write failed" + Reason(errno);
      return false;
    }
    if (staged.Commit()) return true;
    *error = staged.error();
    return false;
  }
  std::string WriteFailed() const { return name + ": write failed" + Reason(errno); }
};

class Y4mWriter final : public FrameWriter {
 public:
  Y4mWriter(Y4mChroma chroma, uint32_t width, uint32_t height)
      : chroma_(chroma), width_(width), height_(height) {}

  bool Start(const std::string& path, uint32_t rateNum, uint32_t rateDen) {
    if (!out_.Open(path, &error_)) return false;
    if (std::fprintf(out_.file, "YUV4MPEG2 W%u H%u F%u:%u Ip A1:1 %s XCOLORRANGE=LIMITED\n", width_,
                     height_, rateNum, rateDen,
                     chroma_ == Y4mChroma::k444 ? "C444" : "C420jpeg") < 0) {
      error_ = out_.WriteFailed();
      return false;
    }
    return true;
  }

  bool Write(const PictureView& picture) override {
    const size_t pixels = size_t(width_) * height_;
    y_.resize(pixels);
    u_.resize(pixels);
    v_.resize(pixels);
    for (uint32_t row = 0; row < height_; ++row) {
      const uint8_t* in = picture.pixels + size_t(row) * picture.stride;
      for (uint32_t x = 0; x < width_; ++x, in += 4) {
        const size_t at = size_t(row) * width_ + x;
        RgbToYuv601(in[2], in[1], in[0], &y_[at], &u_[at], &v_[at]);
      }
    }
    bool ok = std::fputs("FRAME\n", out_.file) >= 0 &&
              std::fwrite(y_.data(), 1, pixels, out_.file) == pixels;
    if (chroma_ == Y4mChroma::k444) {
      ok = ok && std::fwrite(u_.data(), 1, pixels, out_.file) == pixels &&
           std::fwrite(v_.data(), 1, pixels, out_.file) == pixels;
    } else {
      // Each chroma sample is the rounded mean of the 2 x 2 pixels it covers (fewer at an odd
      // edge).
      const uint32_t cw = (width_ + 1) / 2, ch = (height_ + 1) / 2;
      std::vector<uint8_t> planes[2] = {std::vector<uint8_t>(size_t(cw) * ch),
                                        std::vector<uint8_t>(size_t(cw) * ch)};
      const std::vector<uint8_t>* full[2] = {&u_, &v_};
      for (int p = 0; p < 2; ++p) {
        for (uint32_t cy = 0; cy < ch; ++cy) {
          for (uint32_t cx = 0; cx < cw; ++cx) {
            uint32_t sum = 0, count = 0;
            for (uint32_t dy = 0; dy < 2 && cy * 2 + dy < height_; ++dy) {
              for (uint32_t dx = 0; dx < 2 && cx * 2 + dx < width_; ++dx) {
                sum += (*full[p])[size_t(cy * 2 + dy) * width_ + cx * 2 + dx];
                ++count;
              }
            }
            planes[p][size_t(cy) * cw + cx] = uint8_t((sum + count / 2) / count);
          }
        }
        ok = ok && std::fwrite(planes[p].data(), 1, planes[p].size(), out_.file) ==
                       planes[p].size();
      }
    }
    if (!ok) error_ = out_.WriteFailed();
    return ok;
  }

  bool Finish() override { return out_.Close(&error_); }

 private:
  Y4mChroma chroma_;
  uint32_t width_, height_;
  OutFile out_;
  std::vector<uint8_t> y_, u_, v_;
};

class RgbWriter final : public FrameWriter {
 public:
  bool Start(const std::string& path) { return out_.Open(path, &error_); }

  bool Write(const PictureView& picture) override {
    row_.resize(size_t(picture.width) * 3);
    for (uint32_t y = 0; y < picture.height; ++y) {
      const uint8_t* in = picture.pixels + size_t(y) * picture.stride;
      for (uint32_t x = 0; x < picture.width; ++x) {
        row_[x * 3 + 0] = in[x * 4 + 2];
        row_[x * 3 + 1] = in[x * 4 + 1];
        row_[x * 3 + 2] = in[x * 4 + 0];
      }
      if (std::fwrite(row_.data(), 1, row_.size(), out_.file) != row_.size()) {
        error_ = out_.WriteFailed();
        return false;
      }
    }
    return true;
  }

  bool Finish() override { return out_.Close(&error_); }

 private:
  OutFile out_;
  std::vector<uint8_t> row_;
};

class PngWriter final : public FrameWriter {
 public:
  PngWriter(const std::string& pattern, bool single) : pattern_(pattern), single_(single) {}

  bool Write(const PictureView& picture) override {
    char name[4096];
    if (single_) {
      std::snprintf(name, sizeof(name), "%s", pattern_.c_str());
    } else {
      std::snprintf(name, sizeof(name), pattern_.c_str(), index_++);
    }
    StagedFile staged;
    if (!staged.Create(name, true)) {
      error_ = staged.error();
      return false;
    }
    errno = 0;
    if (!WritePng(staged.file(), picture)) {
      error_ = std::string(name) + ": write failed" + Reason(errno != 0 ? errno : EIO);
      return false;  // the staged file goes
    }
    if (!staged.Commit()) {
      error_ = staged.error();
      return false;
    }
    return true;
  }

  bool Finish() override { return true; }

 private:
  bool WritePng(FILE* file, const PictureView& picture) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
      png_destroy_write_struct(&png, nullptr);
      return false;
    }
    row_.resize(size_t(picture.width) * 3);
    if (setjmp(png_jmpbuf(png))) {
      png_destroy_write_struct(&png, &info);
      return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, picture.width, picture.height, 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (uint32_t y = 0; y < picture.height; ++y) {
      const uint8_t* in = picture.pixels + size_t(y) * picture.stride;
      for (uint32_t x = 0; x < picture.width; ++x) {
        row_[x * 3 + 0] = in[x * 4 + 2];
        row_[x * 3 + 1] = in[x * 4 + 1];
        row_[x * 3 + 2] = in[x * 4 + 0];
      }
      png_write_row(png, row_.data());
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
  }

  std::string pattern_;
  bool single_;
  int index_ = 0;
  std::vector<uint8_t> row_;
};

}  // namespace

void RgbToYuv601(uint8_t r, uint8_t g, uint8_t b, uint8_t* y, uint8_t* u, uint8_t* v) {
  *y = uint8_t(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
  *u = uint8_t(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128);
  *v = uint8_t(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128);
}

bool IsFramePattern(const std::string& pattern) {
  int conversions = 0;
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] != '%') continue;
    ++i;
    if (i < pattern.size() && pattern[i] == '%') continue;
    if (i < pattern.size() && pattern[i] == '0') ++i;
    size_t digits = 0;
    while (i < pattern.size() && pattern[i] >= '0' && pattern[i] <= '9' && digits < 2) {
      ++i;
      ++digits;
    }
    if (i >= pattern.size() || pattern[i] != 'd') return false;
    ++conversions;
  }
  return conversions == 1;
}

std::unique_ptr<FrameWriter> MakeY4mWriter(const std::string& path, Y4mChroma chroma,
                                           uint32_t width, uint32_t height, uint32_t rateNum,
                                           uint32_t rateDen, std::string* error) {
  auto writer = std::make_unique<Y4mWriter>(chroma, width, height);
  if (!writer->Start(path, rateNum, rateDen)) {
    *error = writer->error();
    return nullptr;
  }
  return writer;
}

std::unique_ptr<FrameWriter> MakeRgbWriter(const std::string& path, std::string* error) {
  auto writer = std::make_unique<RgbWriter>();
  if (!writer->Start(path)) {
    *error = writer->error();
    return nullptr;
  }
  return writer;
}

std::unique_ptr<FrameWriter> MakePngWriter(const std::string& pattern, std::string* error,
                                           bool single) {
  if (!single && !IsFramePattern(pattern)) {
    *error = "'" + pattern + "' needs one frame number conversion, like frame%04d.png";
    return nullptr;
  }
  return std::make_unique<PngWriter>(pattern, single);
}

// ---------------------------------------------------------------------------------------------

namespace {

void Put32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = uint8_t(value >> (8 * i));
}
void Put16(uint8_t* at, uint32_t value) {
  at[0] = uint8_t(value);
  at[1] = uint8_t(value >> 8);
}

}  // namespace

bool WavWriter::Open(const std::string& path, uint32_t channels, uint32_t rate,
                     uint64_t expectedBytes) {
  path_ = path == "-" ? "standard output" : path;
  toolOut_ = path == "-";
  if (toolOut_) {
    file_ = ToolOut();
  } else if (!staged_.Create(path, true)) {
    error_ = staged_.error();
    return false;
  } else {
    file_ = staged_.file();
  }
  uint8_t header[44] = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E',
                        'f', 'm', 't', ' ', 16, 0, 0, 0};
  Put16(header + 20, 1);
  Put16(header + 22, channels);
  Put32(header + 24, rate);
  Put32(header + 28, rate * channels * 2);
  Put16(header + 32, channels * 2);
  Put16(header + 34, 16);
  std::memcpy(header + 36, "data", 4);
  // Sizes known up front make a file that a pipe can carry whole; Finish corrects them in a
  // file it can seek.
  const uint64_t data = std::min<uint64_t>(expectedBytes, 0xFFFFFFFFull - 36);
  Put32(header + 4, uint32_t(36 + data));
  Put32(header + 40, uint32_t(data));
  if (std::fwrite(header, 1, 44, file_) != 44) {
    error_ = path + ": write failed" + Reason(errno);
    return false;
  }
  return true;
}

bool WavWriter::Write(const int16_t* samples, size_t count) {
  uint8_t buffer[4096];
  size_t done = 0;
  while (done < count) {
    const size_t n = std::min<size_t>(count - done, sizeof(buffer) / 2);
    for (size_t i = 0; i < n; ++i) Put16(buffer + 2 * i, uint16_t(samples[done + i]));
    if (std::fwrite(buffer, 2, n, file_) != n) {
      error_ = path_ + ": write failed (" + std::strerror(errno) + ")";
      return false;
    }
    done += n;
  }
  dataBytes_ += count * 2;
  return true;
}

bool WavWriter::Finish() {
  if (!file_) return false;
  if (toolOut_) {
    const bool flushed = std::fflush(file_) == 0;
    file_ = nullptr;
    if (!flushed) error_ = path_ + ": write failed" + Reason(errno);
    return flushed;
  }
  uint8_t size[4];
  Put32(size, uint32_t(36 + dataBytes_));
  bool ok = std::fseek(file_, 4, SEEK_SET) == 0 && std::fwrite(size, 1, 4, file_) == 4;
  Put32(size, uint32_t(dataBytes_));
  ok = ok && std::fseek(file_, 40, SEEK_SET) == 0 && std::fwrite(size, 1, 4, file_) == 4;
  file_ = nullptr;
  if (!ok) {
    error_ = path_ + ": write failed" + Reason(errno);
    return false;  // the staged file goes with the writer
  }
  if (!staged_.Commit()) {
    error_ = staged_.error();
    return false;
  }
  return true;
}

WavWriter::~WavWriter() = default;
