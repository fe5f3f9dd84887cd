"""`kestrel serve` under load: many clients on loopback, each streaming its
own audio as fast as it can, three rounds over. Every client must get exactly
the detections `kestrel detect` finds in its audio, and the server's memory
after the last round must not exceed what it held after an earlier one: a
leak grows every round, while the allocator's arenas settle at a size that
varies a little from round to round. Prints the
throughput and the memory each connection costs.

Usage: server-load-test.py KESTREL CLIENTS SECONDS [--no-memory-check]
(sanitizer builds skip the memory check: their allocator holds freed memory
back on purpose)."""

import json
import random
import struct
import subprocess
import sys
import threading
import time

from wyoming_test_client import FORMAT, MODEL, Server, read_sample, stream_bytes

VARIANTS = 8  # distinct audio streams; variant k holds the hotword k times
# RSS after a round settles anywhere in a band of about 5 MiB (which arenas
# the connection threads happened to use); one detector leaked per
# connection would add 32 x 1.9 MiB a round.
MEMORY_SLACK_KIB = 4096
MAX_ROUNDS = 5


def make_audio(variant, seconds):
    """`seconds` of low noise with the sample laid over it `variant` times."""
    rng = random.Random(variant)
    noise = struct.pack("<16000h", *(rng.randint(-300, 300) for _ in range(16000)))
    audio = bytearray(noise * seconds)
    sample = read_sample()
    step = len(audio) // (variant + 1) // 2 * 2
    for k in range(variant):
        at = step * (k + 1) - len(sample) // 2 // 2 * 2
        audio[at:at + len(sample)] = sample
    return bytes(audio)


def detect_offline(kestrel, audio):
    result = subprocess.run([kestrel, "detect", "--json", "--model-str", MODEL, "-"],
                            input=audio, capture_output=True, check=True)
    return [{"type": "detection",
             "data": {"name": "hey-kestrel", "timestamp": json.loads(line)["sample"] // 16}}
            for line in result.stdout.splitlines()]


def run_round(server, streams, expected, clients):
    failures = []

    def client_main(index):
        variant = index % VARIANTS
        try:
            client = server.connect()
            client.send("detect", {"names": ["hey-kestrel"]})
            client.sock.sendall(streams[variant])
            client.send("describe")
            answers = client.receive_until("info")[:-1]
            client.close()
            if answers != expected[variant]:
                failures.append(f"client {index}: got {answers}, expected {expected[variant]}")
        except Exception as e:  # reported, so one bad client fails the test
            failures.append(f"client {index}: {e!r}")

    threads = [threading.Thread(target=client_main, args=(i,)) for i in range(clients)]
    start, start_cpu = time.monotonic(), server.cpu_seconds()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return time.monotonic() - start, server.cpu_seconds() - start_cpu, failures


def settled_rss(server):
    """RSS once the ended connections' threads are gone and their memory
    returned: it stops changing (on a busy machine that takes a while)."""
    time.sleep(0.5)
    last = server.rss_kib()
    for _ in range(20):
        time.sleep(0.25)
        now = server.rss_kib()
        if abs(now - last) < 64:
            return now
        last = now
    return last


def main():
    kestrel, clients, seconds = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    memory_check = "--no-memory-check" not in sys.argv
    audio = [make_audio(v, seconds) for v in range(VARIANTS)]
    expected = [detect_offline(kestrel, a) for a in audio]
    for v, e in enumerate(expected):
        if len(e) != v:
            sys.exit(f"variant {v}: detect finds {len(e)} hotwords, not {v}; fix the test audio")
    expected[0] = [{"type": "not-detected", "data": {}}]
    streams = [stream_bytes(a) for a in audio]

    server = Server(kestrel)
    ok = True
    rss_after = []
    # Rounds after the first two are judged against them. A leak grows every
    # round; a round that happens to settle high (on a busy machine the
    # threads' arenas are returned late) is followed by another, up to
    # MAX_ROUNDS, and passes once one round settles within the slack.
    round_number = 0
    while True:
        round_number += 1
        wall, cpu, failures = run_round(server, streams, expected, clients)
        for failure in failures[:10]:
            print(failure)
        ok = ok and not failures
        rss_after.append(settled_rss(server))
        print(f"round {round_number}: {clients} clients x {seconds} s of audio in {wall:.1f} s:"
              f" {clients * seconds / wall:.0f} audio seconds per second"
              f" ({clients * seconds / cpu:.0f} per second of server CPU time);"
              f" server RSS afterwards {rss_after[-1]} KiB")
        if round_number < 3:
            continue
        if not memory_check or rss_after[-1] <= max(rss_after[:2]) + MEMORY_SLACK_KIB:
            break
        if round_number == MAX_ROUNDS:
            print(f"memory grew from {rss_after[0]} and {rss_after[1]} to"
                  f" {', '.join(map(str, rss_after[2:]))} KiB over the rounds")
            ok = False
            break

    # Memory per connection: open ones, each with its detector made.
    before = settled_rss(server)
    idle = [server.connect() for _ in range(clients)]
    for client in idle:
        client.send("audio-start", FORMAT)
        client.send("audio-chunk", FORMAT, payload=bytes(32000))
        client.send("describe")
        client.receive_until("info")
    during = server.rss_kib()
    for client in idle:
        client.close()
    print(f"memory per open connection: {(during - before) / clients:.0f} KiB")

    status = server.stop()
    if status != 0:
        print(f"server exit status {status}\n{server.log()}")
        ok = False
    connection_lines = server.log().count(" events, ")
    if connection_lines != (round_number + 1) * clients:
        print(f"{connection_lines} connection log lines for {(round_number + 1) * clients}"
              " connections")
        ok = False
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
