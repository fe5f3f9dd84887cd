"""python3 -m kestrel FILE.wav ... --model MODEL.kmodel: prints one line per
detection (file, seconds, hotword number, name, score), as `kestrel detect`
does; exits 1 when a file or model could not be processed."""
import argparse
import array
import sys
import wave

import kestrel


def read_wav(path):
    """The samples of a 16-bit PCM WAV file, channels mixed down, and its rate."""
    with wave.open(path, "rb") as w:
        if w.getsampwidth() != 2:
            raise ValueError(f"{path}: {8 * w.getsampwidth()}-bit samples; "
                             "this reader takes 16-bit PCM")
        channels, rate = w.getnchannels(), w.getframerate()
        samples = array.array("h", w.readframes(w.getnframes()))
    if sys.byteorder == "big":
        samples.byteswap()
    if channels > 1:
        samples = array.array("h", (sum(samples[i:i + channels]) // channels
                                    for i in range(0, len(samples), channels)))
    return samples.tobytes(), rate


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m kestrel", description=__doc__.split(":")[0])
    parser.add_argument("files", nargs="+", metavar="FILE.wav")
    parser.add_argument("--model", action="append", required=True,
                        help="a .kmodel file (repeat for several)")
    parser.add_argument("--name", action="append", help="a hotword's name (one per hotword)")
    parser.add_argument("--sensitivity", type=float, action="append",
                        help="one for all hotwords, or one per hotword")
    parser.add_argument("--version", action="version", version=f"kestrel {kestrel.__version__}")
    args = parser.parse_args(argv)
    failed = False
    detectors = {}
    for path in args.files:
        try:
            samples, rate = read_wav(path)
            if rate not in detectors:
                detectors[rate] = kestrel.Detector(args.model, sensitivity=args.sensitivity,
                                                   names=args.name, sample_rate=rate)
            detector = detectors[rate]
            for d in detector.process(samples) + detector.flush():
                print(f"{path}\t{d.seconds:.2f}\t{d.hotword}\t{d.name}\t{d.score:.3f}")
        except (OSError, ValueError, EOFError, wave.Error, kestrel.KestrelError) as e:
            print(f"python3 -m kestrel: {e}", file=sys.stderr)
            failed = True
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
