// kestrel listen: hotwords from a microphone (an ALSA capture device), as
// they are spoken.
#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "alsa-capture.h"
#include "args.h"
#include "commands.h"
#include "detection-output.h"
#include "facade/hotword-detector.h"
#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) { g_interrupted = 1; }

// Ctrl-C (SIGINT) and SIGTERM end the listening loop instead of the
// process, so that the audio already captured is still analysed. No
// SA_RESTART: the wait for audio returns at once.
void CatchInterrupts() {
  struct sigaction action = {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

int RunListen(int argc, char** argv) {
  DetectorArgs args;
  std::string device = "default";
  int seconds = 0;
  bool json = false;
  ArgParser parser(
      "kestrel listen --model-str=MODELS [--device NAME] [--seconds N] [--json] [options]",
      "Listens to an ALSA capture device and prints each detection as it happens,\n"
      "in the form of `kestrel detect` with the device name as the file. The\n"
      "device is asked for 16 kHz mono 16-bit audio; whatever rate (8 to 48 kHz),\n"
      "channels and sample format it offers instead are resampled and mixed down.\n"
      "Runs until Ctrl-C, --seconds of audio, or the end of the device's audio.\n\n"
      "Exit status: 0 when listening ended as asked, 1 when the device or a model\n"
      "failed (detections up to then are printed), 2 for a bad command line.");
  AddDetectorOptions(&parser, &args);
  parser.AddString("device", &device, "ALSA capture device (see arecord -L)");
  parser.AddInt("seconds", &seconds, "stop after this much audio; 0: no limit");
  parser.AddFlag("json", &json, "print JSON lines: file (the device), time,\nsample, hotword, name, score");

  std::vector<std::string> positional;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &positional, &status)) return status;
  if (!positional.empty()) return UsageError("listen", "unexpected argument \"" + positional[0] + "\"");
  if (seconds < 0) return UsageError("listen", "--seconds must not be negative");

  std::unique_ptr<AlsaCapture> capture;
  std::unique_ptr<HotwordDetector> detector;
  try {
    HotwordDetectorOptions options;
    std::string error;
    if (!MakeDetectorOptions(args, &options, &error)) return UsageError("listen", error);
    capture = std::make_unique<AlsaCapture>(device);
    options.sample_rate = capture->SampleRate();
    detector = std::make_unique<HotwordDetector>(options);
  } catch (const CaptureError& e) {
    return Failure(e.what());
  } catch (const KestrelError& e) {
    return Failure("cannot load " + args.model_str + ": " + e.what());
  }
  std::cerr << "kestrel: listening to " << device << " (" << capture->SampleRate() << " Hz, "
            << capture->NumChannels() << (capture->NumChannels() == 1 ? " channel, " : " channels, ")
            << capture->FormatName() << "); Ctrl-C stops\n";

  CatchInterrupts();
  const int64 limit = static_cast<int64>(seconds) * capture->SampleRate();
  const size_t period = static_cast<size_t>(capture->SampleRate() / 20);  // 50 ms
  int64 heard = 0;
  std::vector<float> samples;
  auto print = [&](const std::vector<Detection>& detections) {
    for (const Detection& d : detections) std::cout << DetectionLine(device, d, json) << "\n";
    std::cout << std::flush;  // as they happen, also into a pipe
  };
  try {
    while (!g_interrupted && (limit == 0 || heard < limit)) {
      const size_t want = limit == 0 ? period : static_cast<size_t>(std::min<int64>(period, limit - heard));
      const bool more = capture->Read(want, &samples);
      print(detector->Process(samples.data(), samples.size()));
      heard += static_cast<int64>(samples.size());
      if (!more && !g_interrupted) break;  // the device has no more audio
    }
  } catch (const CaptureError& e) {
    status = Failure(std::string(e.what()) + "; stopped after " +
                     std::to_string(heard / capture->SampleRate()) + " s of audio");
  } catch (const KestrelError& e) {
    status = Failure(device + ": " + e.what());
  }
  try {
    print(detector->Flush());  // what was heard before the end still counts
  } catch (const KestrelError& e) {
    status = Failure(device + ": " + e.what());
  }
  if (g_interrupted) std::cerr << "kestrel: interrupted; stopped listening\n";
  return status;
}

}  // namespace kestrel
