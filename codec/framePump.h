// The frame pump: brings pictures and sound from the host's media source to the encoders.
//
// The host's streams run free on their own threads and block in the grabber callbacks until the
// pump sets a "go" event; the callback copies its sample and sets "done". Seeking is by time.
// These operations run on the encode job's thread; nothing here reports words.
#pragma once

#include <cstdint>

#include "codec/zylCodec.h"

// Positions both streams at `frame`. False when a stream can't seek or a seek failed.
bool SeekToFrame(zylSource* source, uint32_t frame);

// Lets one picture through and converts it into `image` (32-bit, top row first), reallocating
// the image when the source's size changed. False when the stream has ended or no picture came
// within 300 ms.
bool GrabFrame(zylSource* source, zylFrameImage& image);

// Fills `bytes` bytes of `buffer` with the next 16-bit PCM of the source, zeros behind the end
// of the sound. True while the sound has not ended.
bool ReadAudio(zylSource* source, uint8_t* buffer, uint32_t bytes);

// The audio supplier handed to the encoders' Begin: `user` is the codec. Resizes its audio
// buffer to `bytes`, fills it by ReadAudio and returns the buffer.
const uint8_t* zylAudioSupplier(uint32_t bytes, void* user);

// How long GrabFrame waits for a picture, in milliseconds.
constexpr uint32_t kGrabTimeoutMs = 300;
// How long a seek and each round of ReadAudio wait for a sample, in milliseconds.
constexpr uint32_t kSampleWaitMs = 50;
