#include "codec/paramTable.h"

#include <cstddef>

namespace {

using S = zycParamScale;
using R = zycParamReject;
using Z = zycEncoder;
using M = zycMpmcEncoder;
using K = zycCodec;

constexpr zycParamField<Z> kNoZ{};
constexpr zycParamField<M> kNoM{};
constexpr zycParamField<K> kNoK{};

//  tag                   Z field                  M field                    K field
//  scale             reject     setOnly anyMode floatSlots
const zycParamEntry kParams[] = {
    {zylTag('H', 'X', 'T', 'C'), kNoZ, kNoM, &K::headerVersion, S::None, R::Never, true, true, false},
    {zylTag('F', 'X', 'T', 'C'), kNoZ, kNoM, &K::fxtc, S::None, R::Never, true, true, false},
    {zylTag('G', 'X', 'T', 'C'), kNoZ, kNoM, &K::gxtc, S::None, R::Never, true, true, false},
    {zylTag('D', 'X', 'T', 'C'), &Z::dxtBackEnd, kNoM, kNoK, S::None, R::Above6, false, false, false},
    {zylTag('E', 'X', 'T', 'C'), &Z::embedRequest, &M::embedRequest, kNoK, S::None, R::Never, true, false, false},
    {zylTag('I', 'X', 'T', 'C'), &Z::headerA, kNoM, kNoK, S::None, R::Never, true, false, false},
    {zylTag('J', 'X', 'T', 'C'), &Z::headerB, kNoM, kNoK, S::None, R::Never, true, false, false},
    {zylTag('Y', 'U', 'V', '\0'), &Z::yuvCoding, kNoM, kNoK, S::None, R::Never, false, false, false},
    {zylTag('S', 'N', 'D', '\0'), kNoZ, kNoM, &K::soundEnabled, S::None, R::Never, false, false, false},
    {zylTag('R', 'A', 'T', 'I'), &Z::ratio, &M::compressionRatio, kNoK, S::None, R::Never, false, false, false},
    {zylTag('M', 'O', 'T', 'I'), &Z::motionShift, kNoM, kNoK, S::None, R::Never, false, false, false},
    {zylTag('F', 'A', 'C', 'T'), &Z::noFade, kNoM, kNoK, S::Negated, R::Never, false, false, false},
    {zylTag('T', 'H', 'R', 'D'), &Z::threads, kNoM, kNoK, S::None, R::Never, false, false, false},
    {zylTag('c', 'M', 'I', 'N'), &Z::errorMin, kNoM, kNoK, S::None, R::Never, false, false, false},
    {zylTag('c', 'M', 'A', 'X'), &Z::errorLimit, kNoM, kNoK, S::None, R::Never, false, false, false},
    {zylTag('i', 'R', 'A', 'T'), &Z::iRat, kNoM, kNoK, S::Hundredths, R::Never, false, false, false},
    {zylTag('i', 'D', 'M', 'P'), &Z::iDmp, kNoM, kNoK, S::Thousandths, R::Never, false, false, false},
    {zylTag('i', 'R', 'N', 'G'), &Z::iRng, kNoM, kNoK, S::Thousandths, R::Never, false, false, false},
    {zylTag('i', 'F', 'M', 'T'), &Z::iFrameFormat, &M::iFrameFormat, kNoK, S::None, R::Never, false, false, false},
    {zylTag('j', 'F', 'M', 'T'), &Z::pFrameFormat, kNoM, kNoK, S::None, R::Never, false, false, false},
    {zylTag('k', 'F', 'M', 'T'), &Z::vqRatioMin, kNoM, kNoK, S::ToFloat, R::Never, false, false, true},
    {zylTag('l', 'F', 'M', 'T'), &Z::vqRatioMaxKey, kNoM, kNoK, S::ToFloat, R::Never, false, false, true},
    {zylTag('m', 'F', 'M', 'T'), &Z::vqRatioMaxP, kNoM, kNoK, S::ToFloat, R::Never, false, false, true},
    {zylTag('n', 'F', 'M', 'T'), &Z::packing, kNoM, kNoK, S::None, R::Above1, false, false, false},
    {zylTag('o', 'F', 'M', 'T'), &Z::soundLeadBase, &M::soundBitRate, kNoK, S::None, R::Never, false, false, false},
    {zylTag('p', 'F', 'M', 'T'), &Z::soundFlags, &M::soundFlags, kNoK, S::None, R::Above63, false, false, false},
    {zylTag('q', 'F', 'M', 'T'), &Z::keyFrameOnSoundBlock, &M::keyFrameOnSoundBlock, kNoK, S::None, R::Never, false, false, false},
    {zylTag('r', 'F', 'M', 'T'), &Z::forceLastKey, &M::lastFrameIsKey, kNoK, S::None, R::Never, false, false, false},
    {zylTag('s', 'F', 'M', 'T'), &Z::headerS, &M::paramS, kNoK, S::None, R::Never, false, false, false},
    {zylTag('t', 'F', 'M', 'T'), &Z::headerT, &M::paramT, kNoK, S::None, R::Never, false, false, false},
    {zylTag('u', 'F', 'M', 'T'), &Z::vqLimit, &M::vqSectionLimit, kNoK, S::None, R::Never, false, false, false},
    {zylTag('v', 'F', 'M', 'T'), &Z::lzmaDictionary, kNoM, kNoK, S::None, R::Never, false, false, false},
    {zylTag('w', 'F', 'M', 'T'), &Z::verbose, &M::verbose, kNoK, S::Boolean, R::Never, false, false, false},
    {zylTag('x', 'F', 'M', 'T'), kNoZ, &M::iFrameWeight, kNoK, S::Hundredths, R::Never, false, false, false},
    {zylTag('y', 'F', 'M', 'T'), kNoZ, &M::iFrameCreditMax, kNoK, S::None, R::Never, false, false, false},
    {zylTag('z', 'F', 'M', 'T'), kNoZ, &M::iFrameCreditMin, kNoK, S::None, R::Never, false, false, false},
    {zylTag('{', 'F', 'M', 'T'), kNoZ, &M::iFrameCreditCap, kNoK, S::None, R::Never, false, false, false},
};

constexpr int kParamCount = int(sizeof(kParams) / sizeof(kParams[0]));

// The scaled value as the stored type sees it.
double ScaledIn(zycParamScale scale, int32_t value) {
  switch (scale) {
    case S::Hundredths: return value / 100.0;
    case S::Thousandths: return value / 1000.0;
    case S::Negated: return value ? 0 : 1;
    case S::Boolean: return value ? 1 : 0;
    case S::None:
    case S::ToFloat: break;
  }
  return value;
}

int32_t ScaledOut(zycParamScale scale, double stored) {
  switch (scale) {
    case S::Hundredths: return int32_t(stored * 100.0);
    case S::Thousandths: return int32_t(stored * 1000.0);
    case S::Negated: return stored != 0 ? 0 : 1;
    case S::Boolean: return stored != 0 ? 1 : 0;
    case S::None:
    case S::ToFloat: break;
  }
  return int32_t(stored);
}

}  // namespace

const zycParamEntry* FindParam(uint32_t tag) {
  for (const zycParamEntry& entry : kParams) {
    if (entry.tag == tag) return &entry;
  }
  return nullptr;
}

const zycParamEntry* ParamTable(int* count) {
  *count = kParamCount;
  return kParams;
}

bool ParamRejects(const zycParamEntry& entry, int32_t value) {
  // The limits are compared without sign: a negative value is far above any of them.
  switch (entry.reject) {
    case R::Above6: return uint32_t(value) > 6;
    case R::Above1: return uint32_t(value) > 1;
    case R::Above63: return uint32_t(value) > 63;
    case R::Never: break;
  }
  return false;
}

template <typename Owner>
void StoreParam(Owner& owner, const zycParamField<Owner>& field, zycParamScale scale, int32_t value) {
  if (field.u32) {
    // Integer fields take the value's bits; only the logical scales change it.
    owner.*field.u32 = (scale == S::Negated || scale == S::Boolean)
                           ? uint32_t(ScaledIn(scale, value))
                           : uint32_t(value);
  } else if (field.f32) {
    owner.*field.f32 = scale == S::ToFloat ? float(value) : float(ScaledIn(scale, value));
  } else if (field.f64) {
    owner.*field.f64 = ScaledIn(scale, value);
  } else if (field.flag) {
    owner.*field.flag = value != 0;
  }
}

template <typename Owner>
int32_t LoadParam(const Owner& owner, const zycParamField<Owner>& field, zycParamScale scale) {
  if (field.u32) {
    uint32_t stored = owner.*field.u32;
    if (scale == S::Negated || scale == S::Boolean) return ScaledOut(scale, stored);
    return int32_t(stored);
  }
  if (field.f32) return ScaledOut(scale, double(owner.*field.f32));
  if (field.f64) return ScaledOut(scale, owner.*field.f64);
  if (field.flag) return owner.*field.flag ? 1 : 0;
  return -1;
}

template void StoreParam<zycEncoder>(zycEncoder&, const zycParamField<zycEncoder>&, zycParamScale, int32_t);
template void StoreParam<zycMpmcEncoder>(zycMpmcEncoder&, const zycParamField<zycMpmcEncoder>&, zycParamScale, int32_t);
template void StoreParam<zycCodec>(zycCodec&, const zycParamField<zycCodec>&, zycParamScale, int32_t);
template int32_t LoadParam<zycEncoder>(const zycEncoder&, const zycParamField<zycEncoder>&, zycParamScale);
template int32_t LoadParam<zycMpmcEncoder>(const zycMpmcEncoder&, const zycParamField<zycMpmcEncoder>&, zycParamScale);
template int32_t LoadParam<zycCodec>(const zycCodec&, const zycParamField<zycCodec>&, zycParamScale);
