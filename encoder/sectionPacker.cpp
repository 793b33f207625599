#include "encoder/sectionPacker.h"

#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/byteIo.h"
#include "base/consoleLog.h"
#include "stream/zylFormat.h"
#include "lzmaLib.h"

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
    // Both grow as the section does; a start of two frames' room keeps a short section small.
    lzmaInput_.assign(size_t(bufferBytes) * 2, 0);
    lzmaOutput_.assign(size_t(bufferBytes) * 2, 0);
    lzmaInputSize_ = 0;
    lzmaMark_ = 0;
    lzmaDirty_ = true;
  }
}

void zycSectionPacker::Restart() {
  if (!open_) return;
  if (packing_ == kPackingDeflate) {
    EndStream(zip_);
    InitStream();
  } else {
    lzmaInputSize_ = 0;
    lzmaMark_ = 0;
    lzmaDirty_ = true;
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

size_t zycSectionPacker::Compress() {
  if (lzmaOutput_.size() < size_t(lzmaInputSize_) + lzmaInputSize_ / 2 + 65536) {
    lzmaOutput_.resize(size_t(lzmaInputSize_) + lzmaInputSize_ / 2 + 65536);
  }
  size_t outSize = lzmaOutput_.size();
  size_t propsSize = 5;
  int r = LzmaCompress(lzmaOutput_.data(), &outSize, lzmaInput_.data(), lzmaInputSize_,
                       lzmaProperties_, &propsSize, 1, lzmaDictionary_, 2, 0, 2, 8, 1);
  if (r != 0) {
    switch (r) {
      case 2: zycLog("Memory allocation error\n"); break;
      case 5: zycLog("Incorrect paramater\n"); break;
      case 7: zycLog("Output buffer overflow\n"); break;
      case 12: zycLog("Errors in multithreading functions (only for Mt version)\n"); break;
      default: zycLog("Unknown LZMA error.\n"); break;
    }
  }
  lzmaCachedSize_ = uint32_t(outSize);
  lzmaDirty_ = false;
  return outSize;
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
    size_t packed = lzmaDirty_ ? Compress() : lzmaCachedSize_;
    if (!file_) return int32_t(packed + kLzmaHeadBytes);  // no output open: the bytes go nowhere
    uint8_t size8[8];
    zycStore64(size8, lzmaInputSize_);
    if (sectionPackedSize == 0) {
      Check(std::fwrite(lzmaProperties_, 1, kLzmaPropertyBytes, file_) == kLzmaPropertyBytes);
      lzmaSizePosition_ = std::ftell(file_);
      Check(lzmaSizePosition_ >= 0 && std::fwrite(size8, 1, 8, file_) == 8);
    } else {
      Check(std::fseek(file_, lzmaSizePosition_, SEEK_SET) == 0 &&
            std::fwrite(size8, 1, 8, file_) == 8);
    }
    Check(std::fwrite(lzmaOutput_.data(), 1, packed, file_) == packed);
    // A section packed afresh may come out shorter than before: cut what stood behind it.
    const long end = std::ftell(file_);
    Check(end >= 0 && std::fflush(file_) == 0 && std::fseek(file_, 0, SEEK_END) == 0);
    if (std::ftell(file_) > end && ftruncate(fileno(file_), end) != 0) {
      Check(false);
      zycLog("Could not shorten the LZMA section\n");
    }
    Check(std::fseek(file_, end, SEEK_SET) == 0);
    if (writeError == 0) {
      committedAt_ = lzmaSizePosition_;
      committed_.assign(size8, size8 + 8);
      committed_.insert(committed_.end(), lzmaOutput_.data(), lzmaOutput_.data() + packed);
    }
    return int32_t(packed + kLzmaHeadBytes);
  }
  if (step == Step::kEstimate && lzmaInputSize_) return int32_t(Compress() + kLzmaHeadBytes);
  return int32_t(count * 0.8999999761581421);
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
  lzmaInput_.clear();
  lzmaInput_.shrink_to_fit();
  lzmaOutput_.clear();
  lzmaOutput_.shrink_to_fit();
  open_ = false;
}
