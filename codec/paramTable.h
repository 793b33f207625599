// The parameter table: every four-character tag, the fields it reaches in the ZYL0 encoder (Z),
// the ZYL1 encoder (M) and the codec itself (K), how the integer of SetParam/GetParam maps to
// the stored value, and which values SetParam refuses. The codec's parameter slots are a walk
// over this table; there is no per-tag code.
#pragma once

#include <cstdint>

#include "codec/zycCodec.h"

enum class zycParamScale : uint8_t {
  None,        // stored as given
  Hundredths,  // stored value/100.0; read back as trunc(stored*100.0)
  Thousandths, // stored value/1000.0; read back as trunc(stored*1000.0)
  ToFloat,     // integer converted to float; read back truncated
  Negated,     // stored as the logical not, in both directions
  Boolean,     // non-zero becomes 1
};

// A value SetParam refuses in mode 0 (the call ends without touching any field).
enum class zycParamReject : uint8_t {
  Never,
  Above6,   // "DXTC": 0..6
  Above1,   // "nFMT": 0..1
  Above63,  // "pFMT"
};

// One field of an owner: exactly one of the member pointers is set, or none.
template <typename Owner>
struct zycParamField {
  uint32_t Owner::*u32 = nullptr;
  float Owner::*f32 = nullptr;
  double Owner::*f64 = nullptr;
  bool Owner::*flag = nullptr;

  constexpr zycParamField() = default;
  constexpr zycParamField(uint32_t Owner::*field) : u32(field) {}
  constexpr zycParamField(float Owner::*field) : f32(field) {}
  constexpr zycParamField(double Owner::*field) : f64(field) {}
  constexpr zycParamField(bool Owner::*field) : flag(field) {}

  constexpr bool exists() const { return u32 || f32 || f64 || flag; }
};

struct zycParamEntry {
  uint32_t tag;
  zycParamField<zycEncoder> z;
  zycParamField<zycMpmcEncoder> m;
  zycParamField<zycCodec> k;
  zycParamScale scale;
  zycParamReject reject;
  bool setOnly;      // GetParam answers -1
  bool anyMode;      // stored at once in every mode, nothing else happens
  bool floatSlots;   // also reached by GetParamF / SetParamF
};

// The entry of a tag, or null for a tag the codec does not know.
const zycParamEntry* FindParam(uint32_t tag);
// All entries, in the order of the tag table.
const zycParamEntry* ParamTable(int* count);

// Writes an integer through the entry's scale into one field.
template <typename Owner>
void StoreParam(Owner& owner, const zycParamField<Owner>& field, zycParamScale scale, int32_t value);
// Reads one field back as an integer through the entry's scale.
template <typename Owner>
int32_t LoadParam(const Owner& owner, const zycParamField<Owner>& field, zycParamScale scale);

// True when SetParam in mode 0 refuses `value` for this entry.
bool ParamRejects(const zycParamEntry& entry, int32_t value);
