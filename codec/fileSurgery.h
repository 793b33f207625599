// Editing finished movies without recoding them, section by section: joining two ZYL0 movies,
// and replacing a key-frame-aligned run of frames by the frames of another movie of the same
// length. File names are UTF-16; the results are codec status codes:
//   0 done; 2 a file could not be opened, file2 has a wrong magic, or the temporary file could
//   not be made; 3 Append: file1 could not be opened or has a wrong magic, ReplaceSection: the
//   rename failed; 4 a frame range that does not fit; 5 headers not compatible; 7
//   ReplaceSection: file1 has a wrong magic.
// A write, seek, flush or close that fails gives 3 and leaves both files as they were: Append
// cuts file1 back to its old size and header, ReplaceSection removes its temporary file. When a
// file could not be opened or written, errno holds the system's reason on return; after any
// other refusal it is 0.
#pragma once

#include <cstdint>

// Appends the ZYL0 movie file2 behind the ZYL0 movie file1, in place.
int32_t Append(const char16_t* file1, const char16_t* file2);

// Replaces frames frameStart to frameStart + frameCount - 1 of file1 by all frames of file2.
// Both ends of the range must be section boundaries of file1. The new movie is written to
// "<file1 without its last four characters>tmp.zyl" and, once it is complete, flushed and
// closed, renamed over file1. A file that already has the temporary name is left alone and
// the call refused with 2 (errno EEXIST).
// mode 0: ZYL0 files; mode 1: ZYL1 files; any other mode returns 6.
int32_t ReplaceSection(const char16_t* file1, const char16_t* file2, uint32_t frameStart,
                       uint32_t frameCount, uint32_t mode);

// The two forms, for callers that know the format.
int32_t ReplaceSectionZyl0(const char16_t* file1, const char16_t* file2, uint32_t frameStart,
                           uint32_t frameCount);
int32_t ReplaceSectionZyl1(const char16_t* file1, const char16_t* file2, uint32_t frameStart,
                           uint32_t frameCount);
