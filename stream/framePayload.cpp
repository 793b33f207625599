// Walkers over one frame's bytes, with every position checked against the bytes given.
#include "stream/framePayload.h"

#include "base/byteIo.h"
#include "stream/container.h"
#include "stream/zycDecoder.h"
#include "stream/zylFormat.h"

const char* zycPayloadErrorText(zycPayloadError error) {
  switch (error) {
    case zycPayloadError::none:
      return "no fault";
    case zycPayloadError::lengthCut:
      return "item length cut off";
    case zycPayloadError::bodyCut:
      return "item body cut off";
    case zycPayloadError::emptyTree:
      return "tree item without flags byte";
    case zycPayloadError::flagsBit0Clear:
      return "frame flags without bit 0";
    case zycPayloadError::flagsBit7Set:
      return "frame flags with bit 7";
    case zycPayloadError::imageAndTree:
      return "image frame with tree symbols";
    case zycPayloadError::colourLengthOdd:
      return "colour item not a multiple of 8 bytes";
    case zycPayloadError::recordCut:
      return "frame record cut off";
    case zycPayloadError::recordSizeCut:
      return "frame record size beyond the data";
    case zycPayloadError::recordFlagsBad:
      return "unknown frame record flags";
    case zycPayloadError::entriesCut:
      return "stream entries beyond the record";
    case zycPayloadError::streamCut:
      return "stream beyond the record";
    case zycPayloadError::recordTail:
      return "bytes behind the last stream";
    case zycPayloadError::streamOverlap:
      return "stream misplaced";
  }
  return "unknown fault";
}

namespace {

struct ItemWalk {
  const uint8_t* frame;
  size_t length;
  size_t pos = 0;
  zycFrameItems* items;

  bool fail(zycPayloadError error, size_t offset) {
    items->error = error;
    items->errorOffset = uint32_t(offset);
    return false;
  }

  bool take(zycFrameItem* item) {
    if (length - pos < 4) return fail(zycPayloadError::lengthCut, pos);
    uint32_t size = zycLoad32(frame + pos);
    if (length - pos - 4 < size) return fail(zycPayloadError::bodyCut, pos);
    item->present = true;
    item->offset = uint32_t(pos + 4);
    item->size = size;
    pos += 4 + size_t(size);
    return true;
  }
};

}  // namespace

bool zycSplitFrame(const uint8_t* frame, size_t length, zycFrameItems* items) {
  *items = zycFrameItems();
  ItemWalk walk{frame, length, 0, items};
  if (!walk.take(&items->tree)) return false;
  if (items->tree.size == 0) return walk.fail(zycPayloadError::emptyTree, 0);
  const uint8_t flags = frame[items->tree.offset];
  items->flags = flags;
  if (!(flags & kFrameFlagAlways)) return walk.fail(zycPayloadError::flagsBit0Clear, 4);
  if (flags & 0x80) return walk.fail(zycPayloadError::flagsBit7Set, 4);

  if (flags & kFrameFlagImage) {
    if (items->tree.size != 1) return walk.fail(zycPayloadError::imageAndTree, 0);
    if (!walk.take(&items->image)) return false;
    if ((flags & kFrameFlagSound) && !walk.take(&items->sound)) return false;
  } else if (flags & kFrameFlagTable) {
    // The fade levels of such a frame are never stored, whatever bit 5 says.
    if ((flags & kFrameFlagMotion) && !walk.take(&items->motion)) return false;
    if ((flags & kFrameFlagSound) && !walk.take(&items->sound)) return false;
    if (!walk.take(&items->table)) return false;
  } else {
    if ((flags & kFrameFlagMotion) && !walk.take(&items->motion)) return false;
    if (flags & kFrameFlagColour) {
      size_t at = walk.pos;
      if (!walk.take(&items->colour)) return false;
      if (items->colour.size % 8 != 0) return walk.fail(zycPayloadError::colourLengthOdd, at);
    }
    if ((flags & kFrameFlagSound) && !walk.take(&items->sound)) return false;
    if ((flags & kFrameFlagFade) && !walk.take(&items->fade)) return false;
  }
  items->frameBytes = uint32_t(walk.pos);
  return true;
}

void zycSetFrameStreams(zycFrameDecoder& decoder, const zycFrameItems& items, uint8_t* frame) {
  auto body = [frame](const zycFrameItem& item) -> uint8_t* {
    return item.present ? frame + item.offset : nullptr;
  };
  decoder.treeStream = frame + items.tree.offset + 1;
  decoder.motionStream = body(items.motion);
  if (items.image.present) {
    decoder.colourStream = body(items.image);
    decoder.indexStream = nullptr;
  } else {
    decoder.colourStream = body(items.colour);
    decoder.indexStream =
        items.colour.present ? frame + items.colour.offset + items.colour.size / 2 : nullptr;
  }
  decoder.fadeStream = body(items.fade);
  decoder.tableStream = body(items.table);
}

namespace {

bool recordFail(zycFrameRecord* record, zycPayloadError error, size_t offset) {
  record->error = error;
  record->errorOffset = uint32_t(offset);
  return false;
}

}  // namespace

bool zycSplitRecord(const uint8_t* data, size_t length, zycFrameRecord* record) {
  *record = zycFrameRecord();
  if (length < 8) return recordFail(record, zycPayloadError::recordCut, 0);
  uint8_t flags;
  uint32_t behind;
  zycLoadRecordHead(data, &flags, &behind);
  record->recordFlags = flags;
  if (behind < 4) return recordFail(record, zycPayloadError::recordCut, 1);
  if (length - 4 < behind) return recordFail(record, zycPayloadError::recordSizeCut, 1);
  record->recordBytes = behind + 4;

  const bool planes = (flags & kRecordFlagPlanes) == kRecordFlagPlanes;
  if ((flags & 0xF0) || ((flags & kRecordFlagPlanes) && !planes) ||
      (planes && (flags & kRecordFlagRepeat)))
    return recordFail(record, zycPayloadError::recordFlagsBad, 0);
  const bool sound = flags & kRecordFlagSound;
  const uint32_t entries = (sound ? 1 : 0) + (planes ? 2 : 0);

  // Offsets below count from the byte behind the first word.
  const uint8_t* body = data + 4;
  const uint32_t firstStart = zycRecordTableBytes(entries);
  if (firstStart > behind) return recordFail(record, zycPayloadError::entriesCut, 8);
  const uint32_t firstSize = zycLoad32(body);
  if (firstSize > behind - firstStart) return recordFail(record, zycPayloadError::streamCut, 4);
  record->first.present = firstSize != 0;
  record->first.offset = 4 + firstStart;
  record->first.size = firstSize;

  zycRecordStream* order[3] = {};
  int count = 0;
  if (sound) order[count++] = &record->sound;
  if (planes) {
    order[count++] = &record->plane2;
    order[count++] = &record->plane3;
  }
  uint32_t end = firstStart + firstSize;
  for (int i = 0; i < count; ++i) {
    const uint8_t* entry = body + 4 + 6 * i;
    uint32_t offset, size;
    zycLoadRecordEntry(entry, &offset, &size);
    const size_t entryAt = 8 + 6 * size_t(i);
    if (offset < end || (offset - firstStart) % 4 != 0)
      return recordFail(record, zycPayloadError::streamOverlap, entryAt);
    if (offset > behind || size > behind - offset)
      return recordFail(record, zycPayloadError::streamCut, entryAt);
    order[i]->present = true;
    order[i]->offset = 4 + offset;
    order[i]->size = size;
    end = offset + size;
  }
  if (end != behind) return recordFail(record, zycPayloadError::recordTail, 4 + size_t(end));
  return true;
}
