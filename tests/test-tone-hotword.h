// Test fixture: a hotword that needs no training. Its "word" is a whistle, a
// 500 Hz tone followed by a 2 kHz tone; a hand-built network scores unit 1 on
// the mel bin that 500 Hz lights up and unit 2 on the 2 kHz bin (each against
// bins on either side, so broadband noise scores low), unit 0 being filler.
// The model's hotword is the unit sequence 1, 2 with the naive search.
#ifndef KESTREL_TESTS_TEST_TONE_HOTWORD_H_
#define KESTREL_TESTS_TEST_TONE_HOTWORD_H_

#include <sstream>
#include <string>
#include <vector>

#include "frontend/filterbank-stream.h"
#include "frontend/pcm-source-stream.h"
#include "test-audio.h"

namespace kestrel {

constexpr double kWhistleFirstHz = 500.0;
constexpr double kWhistleSecondHz = 2000.0;
constexpr double kWhistleToneSeconds = 0.3;
// The network's Splice holds this many frames back until the stream ends.
constexpr int kToneModelHeldFrames = 30;

// The mel bin where a clean tone of `hz` is loudest, as this front end sees it.
inline int LoudestBin(double hz) {
  std::vector<int16_t> tone(4000, 0);
  AddTone(&tone, hz, 8000, 0, tone.size());
  PcmSourceStream source(tone.size());
  FilterbankStream filterbank;
  filterbank.Connect(&source);
  source.Push(tone.data(), tone.size());
  Matrix features;
  filterbank.Read(&features, nullptr);
  int best = 0;
  for (int j = 1; j < features.NumCols(); ++j) {
    if (features(10, j) > features(10, best)) best = j;
  }
  return best;
}

// Writes the model file. Splice [ 0 held ] delays every output by the held
// frames without changing it (only the offset-0 block has weights).
inline void WriteToneModel(const std::string& path, float sensitivity = 0.5f) {
  const int bins[2] = {LoudestBin(kWhistleFirstHz), LoudestBin(kWhistleSecondHz)};
  std::ostringstream os;
  os << "<UniversalModel> <KwInfo> <SmoothWindow> 3 <SlideWindow> 100 <NumKws> 1\n"
     << "<Kw> [ 1 2 ] <Sensitivity> " << sensitivity << "\n</KwInfo>\n"
     << "<Nnet>\n<Splice> 80 40 [ 0 " << kToneModelHeldFrames << " ]\n"
     << "<AffineTransform> 3 80\n [\n";
  for (int unit = 0; unit < 3; ++unit) {
    for (int c = 0; c < 80; ++c) {
      float w = 0.0f;
      if (unit > 0 && c == bins[unit - 1]) w = 1.0f;
      if (unit > 0 && (c == bins[unit - 1] - 4 || c == bins[unit - 1] + 4)) w = -0.5f;
      os << " " << w;
    }
    os << (unit == 2 ? " ]\n" : "\n");
  }
  os << " [ 0 -4.5 -4.5 ]\n<Softmax> 3 3\n</Nnet>\n";
  WriteBytes(path, os.str());
}

// `seconds` of white noise with a whistle starting at each of `starts`.
inline std::vector<int16_t> WhistleAudio(double seconds, const std::vector<double>& starts,
                                         unsigned seed = 1, int rate = 16000) {
  std::vector<int16_t> audio = Noise(static_cast<size_t>(seconds * rate), 500, seed);
  const size_t tone = static_cast<size_t>(kWhistleToneSeconds * rate);
  for (double start : starts) {
    const size_t first = static_cast<size_t>(start * rate);
    AddTone(&audio, kWhistleFirstHz, 6000, first, tone, rate);
    AddTone(&audio, kWhistleSecondHz, 6000, first + tone, tone, rate);
  }
  return audio;
}

}  // namespace kestrel

#endif  // KESTREL_TESTS_TEST_TONE_HOTWORD_H_
