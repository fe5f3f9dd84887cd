"""The Python package on the bundled model and sample: every input form, the
options and setters, errors, and the command-line entry point."""
import re
import subprocess
import sys
import wave
from pathlib import Path

import numpy as np
import pytest

import kestrel

ROOT = Path(__file__).resolve().parents[3]
MODEL = ROOT / "models" / "hey-kestrel.kmodel"
SAMPLE = ROOT / "samples" / "hey-kestrel.wav"


@pytest.fixture(scope="module")
def samples():
    with wave.open(str(SAMPLE), "rb") as w:
        return np.frombuffer(w.readframes(w.getnframes()), dtype="<i2").astype(np.int16)


def stream(detector, audio, chunk):
    found = []
    for at in range(0, len(audio), chunk):
        found += detector.process(audio[at:at + chunk])
    return found + detector.flush()


def test_detects_the_hotword_from_every_input_form(samples):
    detector = kestrel.Detector([str(MODEL)], names=["hey kestrel"])
    assert detector.num_hotwords == 1 and detector.names == ["hey kestrel"]
    found = stream(detector, samples, 1000)
    assert len(found) == 1
    d = found[0]
    assert (d.hotword, d.name) == (1, "hey kestrel")
    assert 1.0 < d.seconds < len(samples) / 16000 and d.seconds == d.sample / 16000
    assert 1.0 - detector.get_sensitivity(1) <= d.score <= 1.0
    # The same detection whatever the chunking and the sample type.
    assert stream(detector, samples, 4321) == found
    assert stream(detector, samples.astype(np.float32) / 32768, 999) == found
    assert stream(detector, samples.astype("<i2").tobytes(), 3000) == found
    # At 48 kHz (each sample three times): three times the position, within a block.
    at48k = stream(kestrel.Detector(MODEL, sample_rate=48000), np.repeat(samples, 3), 4800)
    assert len(at48k) == 1 and abs(at48k[0].sample - 3 * d.sample) <= 4800
    assert at48k[0].seconds == pytest.approx(d.seconds, abs=0.1)
    # And from the model's bytes.
    assert stream(kestrel.Detector(MODEL.read_bytes(), names=["hey kestrel"]), samples, 1600) == found


def test_sensitivity_options_and_setters(samples):
    with kestrel.Detector(MODEL, sensitivity=-1.0) as deaf:
        assert deaf.get_sensitivity(1) == -1.0
        assert stream(deaf, samples, 1600) == []
        deaf.set_sensitivity(1, 0.6)
        assert deaf.get_sensitivity(1) == pytest.approx(0.6)
        assert len(stream(deaf, samples, 1600)) == 1
        assert deaf.names == ["hey kestrel"]  # after the model file
    with pytest.raises(kestrel.KestrelError, match="closed"):
        deaf.process(samples)


def test_errors_carry_the_library_message(samples, tmp_path):
    with pytest.raises(kestrel.KestrelError, match="none.kmodel") as e:
        kestrel.Detector([str(tmp_path / "none.kmodel")])
    assert e.value.status == 3
    with pytest.raises(kestrel.KestrelError) as e:
        kestrel.Detector([b"<UniversalModel> garbage"])
    assert e.value.status == 2 and str(e.value)
    with pytest.raises(kestrel.KestrelError, match="2 names"):
        kestrel.Detector(MODEL, names=["a", "b"])
    with pytest.raises(kestrel.KestrelError, match="3"):
        kestrel.Detector(MODEL, sensitivity=[0.5, 0.5, 0.5])
    detector = kestrel.Detector(MODEL)
    with pytest.raises(kestrel.KestrelError, match="hotword 2"):
        detector.set_sensitivity(2, 0.5)
    with pytest.raises(TypeError, match="float64"):
        detector.process(samples.astype(np.float64))
    with pytest.raises(TypeError, match="list"):
        detector.process([1, 2, 3])
    with pytest.raises(ValueError, match="shape"):
        detector.process(samples.reshape(-1, 2))
    with pytest.raises(ValueError, match="3 bytes"):
        detector.process(b"abc")
    # Still usable after all that.
    assert len(stream(detector, samples, 1600)) == 1


def test_version_is_the_projects():
    cmake = (ROOT / "CMakeLists.txt").read_text()
    assert kestrel.__version__ == re.search(r"project\(kestrel VERSION ([0-9.]+)", cmake).group(1)


def test_command_line_entry_point(tmp_path):
    run = subprocess.run([sys.executable, "-m", "kestrel", str(SAMPLE), "--model", str(MODEL),
                          "--name", "hey kestrel"], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert re.fullmatch(r".*hey-kestrel\.wav\t\d+\.\d\d\t1\they kestrel\t\d\.\d+\n", run.stdout)
    run = subprocess.run([sys.executable, "-m", "kestrel", str(tmp_path / "no.wav"), "--model",
                          str(MODEL)], capture_output=True, text=True)
    assert run.returncode == 1 and "no.wav" in run.stderr
