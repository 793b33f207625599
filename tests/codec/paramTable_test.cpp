#include "codec/paramTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "codec/zycCodec.h"

namespace {

uint32_t Tag(const char* name) { return zylTag(name[0], name[1], name[2], name[3]); }

struct CodecDeleter {
  void operator()(zycCodec* codec) const { codec->Destroy(); }
};
using CodecPtr = std::unique_ptr<zycCodec, CodecDeleter>;

CodecPtr MakeCodec() { return CodecPtr(static_cast<zycCodec*>(zycCreateCodec(nullptr, 0))); }

// What GetParam answers right after construction, in mode 0 and in mode 1.
struct DefaultRow {
  const char* tag;
  int32_t mode0;
  int32_t mode1;
};

const DefaultRow kDefaults[] = {
    {"HXTC", -1, -1},   {"FXTC", -1, -1},     {"GXTC", -1, -1},   {"DXTC", 0, -1},
    {"EXTC", -1, -1},   {"IXTC", -1, -1},     {"JXTC", -1, -1},   {"YUV\0", 0, -1},
    {"SND\0", 1, 1},    {"RATI", 100, 100},   {"MOTI", 0, -1},    {"FACT", 1, -1},
    {"cMIN", 0, -1},    {"cMAX", 100000, -1}, {"iRAT", 20, -1},   {"iDMP", 1000, -1},
    {"iRNG", 3000, -1}, {"iFMT", 0, 0},       {"jFMT", 0, -1},    {"kFMT", 5, -1},
    {"lFMT", 6, -1},    {"mFMT", 12, -1},     {"nFMT", 0, -1},    {"oFMT", 16000, 16000},
    {"pFMT", 32, 32},   {"qFMT", 0, 0},       {"rFMT", 0, 0},     {"sFMT", 0, 0},
    {"tFMT", 0, 0},     {"uFMT", 0, 0},       {"vFMT", 65536, -1}, {"wFMT", 1, 1},
    {"xFMT", 18, 18},   {"yFMT", 2500, 2500}, {"zFMT", 1000, 1000}, {"{FMT", 7500, 7500},
    {"ABCD", -1, -1},   {"dxtc", -1, -1},
};

TEST(ParamTable, DefaultsAsReadInBothModes) {
  for (const DefaultRow& row : kDefaults) {
    CodecPtr codec = MakeCodec();
    EXPECT_EQ(codec->GetParam(Tag(row.tag)), row.mode0) << row.tag << " in mode 0";
    codec->SetCodecMode(1);
    EXPECT_EQ(codec->GetParam(Tag(row.tag)), row.mode1) << row.tag << " in mode 1";
    codec->SetCodecMode(2);
    EXPECT_EQ(codec->GetParam(Tag(row.tag)), -1) << row.tag << " in mode 2";
  }
}

// A value set in one mode and what GetParam answers afterwards in modes 0 and 1.
struct SetRow {
  const char* tag;
  uint32_t modeSet;
  int32_t value;
  int32_t mode0;
  int32_t mode1;
};

const SetRow kSets[] = {
    // Tags of the ZYL0 encoder only: written in mode 0, ignored in mode 1.
    {"DXTC", 0, 5, 5, -1},        {"DXTC", 1, 5, 0, -1},       {"YUV\0", 0, 1, 1, -1},
    {"MOTI", 0, 2, 2, -1},        {"MOTI", 1, 2, 0, -1},       {"cMIN", 0, 400, 400, -1},
    {"cMAX", 0, 9000, 9000, -1},  {"jFMT", 0, 1, 1, -1},       {"nFMT", 0, 1, 1, -1},
    {"vFMT", 0, 1 << 20, 1 << 20, -1}, {"iDMP", 0, 2500, 2500, -1}, {"iRNG", 0, 500, 500, -1},
    {"iRAT", 0, 25, 25, -1},      {"kFMT", 0, 9, 9, -1},       {"lFMT", 0, -3, -3, -1},
    {"mFMT", 1, 20, 12, -1},
    // Shared tags: mode 0 reaches both encoders, mode 1 only the ZYL1 encoder.
    {"RATI", 0, 50, 50, 50},      {"RATI", 1, 50, 100, 50},    {"iFMT", 0, 1, 1, 1},
    {"iFMT", 1, 1, 0, 1},         {"oFMT", 0, 8000, 8000, 8000}, {"oFMT", 1, 8000, 16000, 8000},
    {"pFMT", 0, 3, 3, 3},         {"pFMT", 1, 3, 32, 3},       {"qFMT", 0, 1, 1, 1},
    {"rFMT", 1, 1, 0, 1},         {"sFMT", 0, 77, 77, 77},     {"tFMT", 1, 88, 0, 88},
    {"uFMT", 0, 96000, 96000, 96000},
    {"wFMT", 0, 7, 1, 1},         {"wFMT", 0, 0, 0, 0},        {"wFMT", 1, 0, 1, 0},
    // Tags of the ZYL1 encoder only: readable in mode 0 through the fall-through.
    {"xFMT", 0, 25, 25, 25},      {"xFMT", 1, 30, 30, 30},     {"yFMT", 0, 3000, 3000, 3000},
    {"zFMT", 1, 500, 500, 500},   {"{FMT", 0, 9000, 9000, 9000},
    // Codec tags.
    {"SND\0", 0, 0, 0, 0},        {"SND\0", 1, 0, 0, 0},
    // Refused in mode 0, taken without a check in mode 1.
    {"DXTC", 0, 7, 0, -1},        {"DXTC", 0, -1, 0, -1},      {"DXTC", 0, 6, 6, -1},
    {"nFMT", 0, 2, 0, -1},        {"nFMT", 0, -1, 0, -1},      {"pFMT", 0, 64, 32, 32},
    {"pFMT", 0, 63, 63, 63},      {"pFMT", 1, 64, 32, 64},     {"pFMT", 1, 1000, 32, 1000},
    // FACT is stored negated, and reads back as 0 or 1.
    {"FACT", 0, 5, 1, -1},        {"FACT", 0, 0, 0, -1},       {"FACT", 0, -7, 1, -1},
};

TEST(ParamTable, SetInOneModeReadInBoth) {
  for (const SetRow& row : kSets) {
    CodecPtr codec = MakeCodec();
    codec->SetCodecMode(row.modeSet);
    codec->SetParam(Tag(row.tag), row.value);
    codec->SetCodecMode(0);
    EXPECT_EQ(codec->GetParam(Tag(row.tag)), row.mode0)
        << row.tag << " = " << row.value << " set in mode " << row.modeSet << ", read in mode 0";
    codec->SetCodecMode(1);
    EXPECT_EQ(codec->GetParam(Tag(row.tag)), row.mode1)
        << row.tag << " = " << row.value << " set in mode " << row.modeSet << ", read in mode 1";
  }
}

TEST(ParamTable, SetOnlyTagsAreStoredButAnswerMinusOne) {
  CodecPtr codec = MakeCodec();
  codec->SetParam(Tag("EXTC"), 1);
  codec->SetParam(Tag("IXTC"), 0x11223344);
  codec->SetParam(Tag("JXTC"), 0x55667788);
  EXPECT_EQ(codec->GetParam(Tag("EXTC")), -1);
  EXPECT_EQ(codec->GetParam(Tag("IXTC")), -1);
  EXPECT_EQ(codec->encoder.embedRequest, 1u);
  EXPECT_EQ(codec->mpmcEncoder.embedRequest, 1u);
  EXPECT_EQ(codec->encoder.headerA, 0x11223344u);
  EXPECT_EQ(codec->encoder.headerB, 0x55667788u);
}

TEST(ParamTable, HeaderWordsAreStoredInEveryMode) {
  CodecPtr codec = MakeCodec();
  EXPECT_EQ(codec->headerVersion, 0u);
  EXPECT_EQ(codec->fxtc, 0u);
  EXPECT_EQ(codec->gxtc, 1u);
  codec->SetCodecMode(7);
  codec->SetParam(Tag("HXTC"), 3);
  codec->SetParam(Tag("FXTC"), 4);
  codec->SetParam(Tag("GXTC"), 5);
  EXPECT_EQ(codec->headerVersion, 3u);
  EXPECT_EQ(codec->fxtc, 4u);
  EXPECT_EQ(codec->gxtc, 5u);
  EXPECT_EQ(codec->GetParam(Tag("HXTC")), -1);
  // Other tags do nothing in an unknown mode.
  codec->SetParam(Tag("RATI"), 10);
  codec->SetParam(Tag("SND\0"), 0);
  EXPECT_EQ(codec->encoder.ratio, 100u);
  EXPECT_EQ(codec->mpmcEncoder.compressionRatio, 100u);
  EXPECT_EQ(codec->soundEnabled, 1u);
}

TEST(ParamTable, ScaledValuesAreStoredInTheirUnits) {
  CodecPtr codec = MakeCodec();
  EXPECT_EQ(codec->encoder.iRat, double(0.2f));
  codec->SetParam(Tag("iRAT"), 33);
  EXPECT_EQ(codec->encoder.iRat, 33 / 100.0);
  EXPECT_EQ(codec->GetParam(Tag("iRAT")), int32_t((33 / 100.0) * 100.0));
  codec->SetParam(Tag("iDMP"), 1234);
  EXPECT_EQ(codec->encoder.iDmp, float(1234 / 1000.0));
  EXPECT_EQ(codec->GetParam(Tag("iDMP")), int32_t(double(float(1.234)) * 1000.0));
  codec->SetParam(Tag("xFMT"), 25);
  EXPECT_EQ(codec->mpmcEncoder.iFrameWeight, 0.25f);
  codec->SetParam(Tag("kFMT"), 7);
  EXPECT_EQ(codec->encoder.vqRatioMin, 7.0f);
  codec->SetParam(Tag("FACT"), 0);
  EXPECT_EQ(codec->encoder.noFade, 1u);
  codec->SetParam(Tag("FACT"), 9);
  EXPECT_EQ(codec->encoder.noFade, 0u);
  codec->SetParam(Tag("wFMT"), 0);
  EXPECT_FALSE(codec->encoder.verbose);
  EXPECT_FALSE(codec->mpmcEncoder.verbose);
  codec->SetParam(Tag("uFMT"), 100);  // rounded to a multiple of 48 only when a job begins
  EXPECT_EQ(codec->encoder.vqLimit, 100u);
  EXPECT_EQ(codec->mpmcEncoder.vqSectionLimit, 100u);
}

TEST(ParamTable, DxtcReadsWhatTheEncoderFieldHolds) {
  CodecPtr codec = MakeCodec();
  codec->encoder.dxtBackEnd = 3;  // as the encoder sets it when no display device exists
  EXPECT_EQ(codec->GetParam(Tag("DXTC")), 3);
}

// Only kFMT, lFMT and mFMT have a float form, and only in mode 0.
TEST(ParamTable, FloatFormOfThreeTagsInModeZero) {
  CodecPtr codec = MakeCodec();
  EXPECT_EQ(codec->GetParamF(Tag("kFMT")), 5.0f);
  EXPECT_EQ(codec->GetParamF(Tag("mFMT")), 12.0f);
  EXPECT_EQ(codec->GetParamF(Tag("iRAT")), -1.0f);
  EXPECT_EQ(codec->GetParamF(Tag("ABCD")), -1.0f);
  codec->SetParamF(Tag("lFMT"), 6.75f);
  EXPECT_EQ(codec->GetParamF(Tag("lFMT")), 6.75f);  // kept at float precision
  EXPECT_EQ(codec->GetParam(Tag("lFMT")), 6);       // the integer path truncates
  codec->SetParamF(Tag("mFMT"), -2.5f);
  EXPECT_EQ(codec->GetParam(Tag("mFMT")), -2);      // toward zero
  codec->SetParamF(Tag("iRAT"), 50.0f);              // not a float tag: nothing happens
  EXPECT_EQ(codec->GetParam(Tag("iRAT")), 20);
  codec->SetCodecMode(1);
  EXPECT_EQ(codec->GetParamF(Tag("kFMT")), -1.0f);
  codec->SetParamF(Tag("kFMT"), 9.5f);
  codec->SetCodecMode(0);
  EXPECT_EQ(codec->GetParamF(Tag("kFMT")), 5.0f);
}

}  // namespace
