#include "host/tool/encodeOptions.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "stream/zylFormat.h"

namespace {

// A plain decimal number without sign or exponent; `end` is where it stops.
bool ParseDecimal(const std::string& text, size_t* end, double* value) {
  size_t at = 0;
  bool digits = false, point = false;
  while (at < text.size()) {
    const char c = text[at];
    if (c >= '0' && c <= '9') {
      digits = true;
    } else if (c == '.' && !point) {
      point = true;
    } else {
      break;
    }
    ++at;
  }
  if (!digits) return false;
  *value = std::strtod(text.substr(0, at).c_str(), nullptr);
  *end = at;
  return std::isfinite(*value);
}

}  // namespace

bool ParseTime(const std::string& text, double* seconds) {
  double total = 0;
  size_t start = 0;
  int fields = 0;
  for (;;) {
    const size_t colon = text.find(':', start);
    const std::string field = text.substr(start, colon == std::string::npos ? colon : colon - start);
    size_t end = 0;
    double value = 0;
    if (!ParseDecimal(field, &end, &value) || end != field.size()) return false;
    // Hours and minutes are whole; minutes and seconds behind a colon stay below 60.
    if (colon != std::string::npos && field.find('.') != std::string::npos) return false;
    if (fields > 0 && value >= 60) return false;
    total = total * 60 + value;
    if (++fields > 3) return false;
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  *seconds = total;
  return true;
}

bool ParseAmount(const std::string& text, const char* unit, double* value) {
  size_t end = 0;
  double number = 0;
  if (!ParseDecimal(text, &end, &number)) return false;
  std::string rest = text.substr(end);
  double scale = 1;
  if (!rest.empty() && (rest[0] == 'k' || rest[0] == 'K')) {
    scale = 1e3;
  } else if (!rest.empty() && rest[0] == 'M') {
    scale = 1e6;
  } else if (!rest.empty() && rest[0] == 'G') {
    scale = 1e9;
  }
  if (scale != 1) rest.erase(0, 1);
  if (!rest.empty() && rest != unit) return false;
  *value = number * scale;
  return *value > 0;
}

bool ParseSize(const std::string& text, uint32_t* width, uint32_t* height) {
  const size_t x = text.find('x');
  if (x == std::string::npos) return false;
  size_t end = 0;
  double w = 0, h = 0;
  const std::string first = text.substr(0, x), second = text.substr(x + 1);
  if (!ParseDecimal(first, &end, &w) || end != first.size() || first.find('.') != std::string::npos)
    return false;
  if (!ParseDecimal(second, &end, &h) || end != second.size() ||
      second.find('.') != std::string::npos)
    return false;
  if (w < 1 || h < 1 || w > 16384 || h > 16384) return false;
  *width = uint32_t(w);
  *height = uint32_t(h);
  return true;
}

bool ParseKeyInterval(const std::string& text, KeyInterval* interval) {
  size_t end = 0;
  double value = 0;
  if (!ParseDecimal(text, &end, &value) || value <= 0) return false;
  const std::string rest = text.substr(end);
  if (rest == "s") {
    *interval = {0, value};
    return true;
  }
  if (!rest.empty() || text.find('.') != std::string::npos) return false;
  *interval = {value, 0};
  return true;
}

namespace {

// 16-bit sound bytes of a frame, as the encoder rounds them.
double SoundPcm(const RateInputs& in) {
  if (in.soundRate == 0 || in.frameRate <= 0) return 0;
  return std::ceil(in.soundRate / in.frameRate) * in.soundChannels * 2;
}

double RawBytes(const RateInputs& in) {
  return double(in.paddedWidth) * in.paddedHeight * 3 + SoundPcm(in);
}

int32_t ClampRatio(double ratio) {
  return ratio < 1 ? 1 : ratio > 0x7FFFFFFF ? 0x7FFFFFFF : int32_t(ratio);
}

}  // namespace

double FrameBudget(const RateInputs& in, int32_t ratio) {
  return RawBytes(in) / std::max(ratio, 1);
}

double PictureBudget(const RateInputs& in, int32_t ratio) {
  return FrameBudget(in, ratio) - SoundPcm(in) / 8;  // two bits of every 16
}

int32_t RatioForPictureBudget(const RateInputs& in, double bytes) {
  return ClampRatio(std::floor(RawBytes(in) / (bytes + SoundPcm(in) / 8)));
}

int32_t RatioForBytes(const RateInputs& in, double bytes) {
  if (in.frames == 0 || in.frameRate <= 0) return 1;
  const double perFrame = (bytes - double(kHeaderSizeZyl0)) / in.frames;
  if (perFrame <= 0) return 0x7FFFFFFF;
  return ClampRatio(std::round(RawBytes(in) / perFrame));
}
