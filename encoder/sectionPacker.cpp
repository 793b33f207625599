#include "encoder/sectionPacker.h"

#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/byteIo.h"
#include "base/consoleLog.h"
#include "stream/zylFormat.h"
#include "lzmaResume.h"

// zlib's allocations go through a pool of freed blocks by size, so that the copy of a deflate
// state on every trial reuses memory instead of asking the system for fresh pages.
struct zycZlibPool {
  struct Free {
    size_t bytes;
    void* block;
  };
  std::vector<Free> free;

  ~zycZlibPool() {
    for (Free& f : free) std::free(f.block);
  }
  static voidpf Alloc(voidpf opaque, uInt items, uInt size) {
    zycZlibPool* pool = static_cast<zycZlibPool*>(opaque);
    size_t bytes = size_t(items) * size + sizeof(size_t);
    for (size_t i = 0; i < pool->free.size(); ++i) {
      if (pool->free[i].bytes == bytes) {
        void* block = pool->free[i].block;
        pool->free[i] = pool->free.back();
        pool->free.pop_back();
        return static_cast<size_t*>(block) + 1;
      }
    }
    size_t* block = static_cast<size_t*>(std::malloc(bytes));
    if (!block) return Z_NULL;
    *block = bytes;
    return block + 1;
  }
  static void Release(voidpf opaque, voidpf address) {
    zycZlibPool* pool = static_cast<zycZlibPool*>(opaque);
    size_t* block = static_cast<size_t*>(address) - 1;
    pool->free.push_back({*block, block});
  }
};

zycSectionPacker::zycSectionPacker() = default;
zycSectionPacker::~zycSectionPacker() { Close(); }

void zycSectionPacker::InitStream() {
  std::memset(zip_, 0, sizeof(z_stream));
  zip_->zalloc = zycZlibPool::Alloc;
  zip_->zfree = zycZlibPool::Release;
  zip_->opaque = pool_;
  zip_->next_out = zipBuffer_.data();
  zip_->avail_out = uInt(zipBuffer_.size());
  deflateInit2(zip_, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
  zipPending_ = 0;
}

void zycSectionPacker::EndStream(z_stream* stream) {
  // A stream that was sync-flushed but never finished ends with Z_DATA_ERROR; its memory is
  // freed all the same.
  deflateEnd(stream);
}

bool zycSectionPacker::Check(bool ok) {
  if (!ok && writeError == 0) writeError = errno != 0 ? errno : EIO;
  return ok;
}

void zycSectionPacker::Open(uint32_t packing, uint32_t bufferBytes, uint32_t lzmaDictionary,
                            FILE* file) {
  Close();
  packing_ = packing;
  file_ = file;
  open_ = true;
  sectionPackedSize = 0;
  writeError = 0;
  committed_.clear();
  if (packing_ == kPackingDeflate) {
    pool_ = new zycZlibPool;
    zipBuffer_.assign(bufferBytes, 0);
    zip_ = new z_stream;
    InitStream();
  } else {
    lzmaDictionary_ = lzmaDictionary;
    lzma_ = zycLzmaResumeCreate(lzmaDictionary, lzmaHead_);
    if (!lzma_) zycLog("Memory allocation error\n");
    // The input grows as the section does; a start of two frames' room keeps a short section
    // small.
    lzmaInput_.assign(size_t(bufferBytes) * 2, 0);
    lzmaTail_.reserve(size_t(bufferBytes) * 3);
    RestartLzma();
  }
}

void zycSectionPacker::RestartLzma() {
  if (lzma_) zycLzmaResumeRestart(lzma_);
  lzmaInputSize_ = 0;
  lzmaMark_ = 0;
  lzmaDirty_ = true;
  lzmaStable_ = 0;
  lzmaHeadWritten_ = false;
  committed_.clear();
}

void zycSectionPacker::Restart() {
  if (!open_) return;
  if (packing_ == kPackingDeflate) {
    EndStream(zip_);
    InitStream();
  } else {
    RestartLzma();
  }
  sectionPackedSize = 0;
}

void zycSectionPacker::Save() {
  if (packing_ == kPackingDeflate) {
    if (backup_) {
      EndStream(backup_);
      delete backup_;
    }
    backup_ = new z_stream;
    std::memset(backup_, 0, sizeof(z_stream));
    deflateCopy(backup_, zip_);
  } else {
    lzmaMark_ = lzmaInputSize_;
  }
}

void zycSectionPacker::Restore() {
  if (packing_ == kPackingDeflate) {
    if (!backup_) return;
    EndStream(zip_);
    delete zip_;
    zip_ = backup_;
    backup_ = nullptr;
    zipPending_ = 0;
    zip_->next_out = zipBuffer_.data();
    zip_->avail_out = uInt(zipBuffer_.size());
  } else {
    if (lzmaInputSize_ != lzmaMark_) lzmaDirty_ = true;
    lzmaInputSize_ = lzmaMark_;
  }
}

uint32_t zycSectionPacker::Pack(const void* data, uint32_t count, Step step) {
  const uLong before = zip_->total_out;
  zip_->next_in = static_cast<Bytef*>(const_cast<void*>(data));
  zip_->avail_in = count;
  if (count) deflate(zip_, Z_SYNC_FLUSH);
  const uint32_t grown = uint32_t(zip_->total_out - before);
  zipPending_ += grown;
  if (step == Step::kCommit && zipPending_) {
    if (file_) Check(std::fwrite(zipBuffer_.data(), 1, zipPending_, file_) == zipPending_);
    zip_->next_out = zipBuffer_.data();
    zip_->avail_out = uInt(zipBuffer_.size());
    zipPending_ = 0;
  }
  return grown;
}

namespace {

size_t AppendTo(void* user, const void* data, size_t size) {
  std::vector<uint8_t>& out = *static_cast<std::vector<uint8_t>*>(user);
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  out.insert(out.end(), bytes, bytes + size);
  return size;
}

}  // namespace

size_t zycSectionPacker::Compress() {
  lzmaTail_.clear();
  size_t packed = 0;
  int r = 2;
  if (lzma_) {
    lzmaTailFrom_ = zycLzmaResumeSentBytes(lzma_);
    r = zycLzmaResumePack(lzma_, lzmaInput_.data(), lzmaInputSize_, AppendTo, &lzmaTail_, &packed);
  }
  if (r != 0) {
    switch (r) {
      case 2: zycLog("Memory allocation error\n"); break;
      case 5: zycLog("Incorrect paramater\n"); break;
      case 7: zycLog("Output buffer overflow\n"); break;
      case 12: zycLog("Errors in multithreading functions (only for Mt version)\n"); break;
      default: zycLog("Unknown LZMA error.\n"); break;
    }
  }
  lzmaCachedSize_ = uint32_t(packed);
  lzmaDirty_ = false;
  return packed;
}

int32_t zycSectionPacker::PackLzma(const void* data, uint32_t count, Step step) {
  if (count) {
    if (lzmaInput_.size() < size_t(lzmaInputSize_) + count) {
      lzmaInput_.resize((size_t(lzmaInputSize_) + count) * 2);
    }
    std::memcpy(lzmaInput_.data() + lzmaInputSize_, data, count);
    lzmaInputSize_ += count;
    lzmaDirty_ = true;
  }
  if (step == Step::kCommit && lzmaInputSize_) {
    const size_t packed = lzmaDirty_ ? Compress() : lzmaCachedSize_;
    if (file_) WriteLzma(packed);
    // The committed bytes are final: the resumed state moves on through what of them no
    // later byte can change, and the next packing starts from there.
    if (lzma_) zycLzmaResumeAdvance(lzma_, lzmaInput_.data(), lzmaInputSize_);
    lzmaDirty_ = true;
    if (file_ && writeError == 0) {
      // Only the bytes after the stable ones can change in a later commit of the section.
      const size_t stable = lzma_ ? zycLzmaResumeStableBytes(lzma_) : 0;
      if (stable > lzmaStable_) lzmaStable_ = stable;
      committedAt_ = lzmaSizePosition_ + 8 + long(lzmaStable_);
      const size_t skip = std::min(lzmaStable_ - lzmaTailFrom_, lzmaTail_.size());
      committed_.assign(lzmaTail_.begin() + long(skip), lzmaTail_.end());
    }
    return int32_t(packed + kLzmaHeadBytes);
  }
  if (step == Step::kEstimate && lzmaInputSize_) return int32_t(Compress() + kLzmaHeadBytes);
  return int32_t(count * 0.8999999761581421);
}

void zycSectionPacker::WriteLzma(size_t packed) {
  zycStore64(lzmaHead_ + 5, lzmaInputSize_);
  // Packed bytes before `from` stand on the file already, as the earlier commits left them.
  size_t from = 0;
  if (!lzmaHeadWritten_) {
    Check(std::fwrite(lzmaHead_, 1, kLzmaPropertyBytes, file_) == kLzmaPropertyBytes);
    lzmaSizePosition_ = std::ftell(file_);
    Check(lzmaSizePosition_ >= 0 && std::fwrite(lzmaHead_ + 5, 1, 8, file_) == 8);
    lzmaHeadWritten_ = true;
  } else {
    from = std::max(lzmaStable_, lzmaTailFrom_);
    Check(std::fseek(file_, lzmaSizePosition_, SEEK_SET) == 0 &&
          std::fwrite(lzmaHead_ + 5, 1, 8, file_) == 8 &&
          std::fseek(file_, lzmaSizePosition_ + 8 + long(from), SEEK_SET) == 0);
  }
  // After an error of the SDK the packed size may be short of what was there: nothing new.
  const size_t last = std::min(packed, lzmaTailFrom_ + lzmaTail_.size());
  if (last > from) {
    const size_t count = last - from;
    Check(std::fwrite(lzmaTail_.data() + (from - lzmaTailFrom_), 1, count, file_) == count);
  }
  // A section packed again may come out shorter than before: cut what stood behind it.
  const long end = std::ftell(file_);
  Check(end >= 0 && std::fflush(file_) == 0 && std::fseek(file_, 0, SEEK_END) == 0);
  if (std::ftell(file_) > end && ftruncate(fileno(file_), end) != 0) {
    Check(false);
    zycLog("Could not shorten the LZMA section\n");
  }
  Check(std::fseek(file_, end, SEEK_SET) == 0);
}

int32_t zycSectionPacker::PackItem(const void* data, uint32_t count) {
  uint8_t length[4];
  zycStore32(length, count);
  if (packing_ == kPackingDeflate) {
    uint32_t sum = Pack(length, 4, Step::kAppend);
    return int32_t(sum + Pack(data, count, Step::kAppend));
  }
  int32_t sum = PackLzma(length, 4, Step::kAppend);
  return sum + PackLzma(data, count, Step::kAppend);
}

int32_t zycSectionPacker::FinishSize(int32_t roughSum) {
  if (packing_ == kPackingDeflate) return roughSum;
  return PackLzma(nullptr, 0, Step::kEstimate) - int32_t(sectionPackedSize);
}

void zycSectionPacker::Commit() {
  if (packing_ == kPackingDeflate) {
    Pack(nullptr, 0, Step::kCommit);
  } else {
    PackLzma(nullptr, 0, Step::kCommit);
  }
}

void zycSectionPacker::Close() {
  if (backup_) {
    EndStream(backup_);
    delete backup_;
    backup_ = nullptr;
  }
  if (zip_) {
    EndStream(zip_);
    delete zip_;
    zip_ = nullptr;
  }
  delete pool_;
  pool_ = nullptr;
  zipBuffer_.clear();
  zipBuffer_.shrink_to_fit();
  zycLzmaResumeDestroy(lzma_);
  lzma_ = nullptr;
  lzmaInput_.clear();
  lzmaInput_.shrink_to_fit();
  lzmaTail_.clear();
  lzmaTail_.shrink_to_fit();
  open_ = false;
}
