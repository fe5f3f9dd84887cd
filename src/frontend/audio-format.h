// The audio the front end works on, and how it travels between stages.
//
// Audio is 16 kHz, one channel. A source stage hands it downstream as a Matrix
// whose elements, read row by row, are consecutive samples (the sources here
// emit one 1 x n row per Read). Samples keep the 16-bit integer scale
// (-32768..32767 as floats, not scaled to [-1, 1]), so features computed here
// and by training tools that use this front end agree without a scale factor.
#ifndef KESTREL_FRONTEND_AUDIO_FORMAT_H_
#define KESTREL_FRONTEND_AUDIO_FORMAT_H_

namespace kestrel {

constexpr int kSampleRate = 16000;

}  // namespace kestrel

#endif  // KESTREL_FRONTEND_AUDIO_FORMAT_H_
