#include "base/fileIo.h"

std::string zycUtf8(const char16_t* name) {
  std::string out;
  if (!name) return out;
  for (const char16_t* p = name; *p; ++p) {
    uint32_t c = *p;
    if (c >= 0xD800 && c < 0xDC00 && p[1] >= 0xDC00 && p[1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (uint32_t(p[1]) - 0xDC00);
      ++p;
    }
    if (c < 0x80) {
      out += char(c);
    } else if (c < 0x800) {
      out += char(0xC0 | c >> 6);
      out += char(0x80 | (c & 63));
    } else if (c < 0x10000) {
      out += char(0xE0 | c >> 12);
      out += char(0x80 | (c >> 6 & 63));
      out += char(0x80 | (c & 63));
    } else {
      out += char(0xF0 | c >> 18);
      out += char(0x80 | (c >> 12 & 63));
      out += char(0x80 | (c >> 6 & 63));
      out += char(0x80 | (c & 63));
    }
  }
  return out;
}

std::u16string zycUtf16(const std::string& name) {
  std::u16string out;
  size_t i = 0;
  while (i < name.size()) {
    uint32_t c = uint8_t(name[i]);
    int extra = c < 0x80 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
    if (extra) c &= 0x3F >> extra;
    ++i;
    for (int k = 0; k < extra && i < name.size(); ++k, ++i) c = c << 6 | (uint8_t(name[i]) & 63);
    if (c >= 0x10000) {
      c -= 0x10000;
      out += char16_t(0xD800 + (c >> 10));
      out += char16_t(0xDC00 + (c & 0x3FF));
    } else {
      out += char16_t(c);
    }
  }
  return out;
}

FILE* zycOpenFile(const char16_t* name, const char* mode) {
  std::string m;
  for (const char* p = mode; *p; ++p)
    if (*p != 'c') m += *p;
  std::string path = zycUtf8(name);
  return std::fopen(path.c_str(), m.c_str());
}
