#!/bin/sh
# A user's own wake word end to end: `kestrel train --phrase "hey computer"
# --quick` from nothing (its synthesizers installed by the project's script),
# then the model must find "hey computer" said by Festival's ked voice, which
# no training or tuning clip uses, over pink noise, and stay quiet on sentences
# that say "computer" without "hey". About 5 minutes on 2 cores.
#
# Usage: custom-wake-word-test.sh KESTREL_PROGRAM WORK_DIR
set -eu
kestrel=$1
work=$2
root=$(cd "$(dirname "$0")/.." && pwd)

if ! "$root/training/install-deps.sh"; then
    echo "custom wake word test skipped: the speech synthesizers could not be installed"
    exit 77
fi
rm -rf "$work"
mkdir -p "$work"
model=$work/hey-computer.kmodel
"$kestrel" train --phrase "hey computer" --quick --seed 1 --out "$model" --work "$work/train"

# say WAV TEXT: the ked voice at 16 kHz, a second of silence either side, and
# pink noise about 15 dB below the speech. sox -R seeds its noise and dither
# the same every run: a quick model misses some noisy takes of a clip, and a
# failure here must reproduce.
say() {
    printf '%s\n' "$2" | text2wave -eval '(voice_ked_diphone)' -o "$work/raw.wav"
    sox -R "$work/raw.wav" -r 16000 -c 1 -b 16 "$work/clean.wav" pad 1 1 norm -3
    sox -R -n -r 16000 -c 1 -b 16 "$work/noise.wav" synth "$(soxi -D "$work/clean.wav")" \
        pinknoise vol 0.1
    sox -R -m "$work/clean.wav" "$work/noise.wav" "$1"
}

# detections WAV: how many times the model fires on it.
detections() {
    "$kestrel" detect --model-str "$model" "$1" | wc -l
}

failed=0
n=0
for text in "hey computer" "okay. hey computer, what time is it" "hey computer, play some music"; do
    n=$((n + 1))
    say "$work/positive-$n.wav" "$text"
    found=$(detections "$work/positive-$n.wav")
    echo "\"$text\": $found detection(s)"
    [ "$found" -ge 1 ] || failed=1
done
for text in "my computer is broken again" "the computer in the office needs a new keyboard" \
            "I left the computer on all night, and it is still running"; do
    n=$((n + 1))
    say "$work/negative-$n.wav" "$text"
    found=$(detections "$work/negative-$n.wav")
    echo "\"$text\": $found detection(s)"
    [ "$found" -eq 0 ] || failed=1
done
[ "$failed" -eq 0 ] && echo "custom wake word test passed"
exit "$failed"
