"""`kestrel serve` end to end: the whole wake flow of a Wyoming client, audio
it must refuse, every malformed event, and stopping on SIGTERM.

Usage: server-protocol-test.py KESTREL"""

import json
import os
import subprocess
import sys
import tempfile
import time
import unittest

from wyoming_test_client import FORMAT, MODEL, SAMPLE, Server, read_sample

KESTREL = sys.argv.pop(1) if __name__ == "__main__" else None
server = None


def setUpModule():
    global server
    server = Server(KESTREL)


def tearDownModule():
    status = server.stop()
    assert status == 0, f"exit status {status}\n{server.log()}"


def answers(client, audio, **detect):
    """The events for one stream of `audio`, after a detect event."""
    client.send("detect", detect)
    client.stream(audio)
    client.send("describe")  # its info marks the end of the stream's answers
    return client.receive_until("info")[:-1]


class WakeFlow(unittest.TestCase):
    def test_detects_the_sample_where_detect_does(self):
        result = subprocess.run(
            [KESTREL, "detect", "--json", "--model-str", MODEL, SAMPLE],
            capture_output=True, text=True, check=True)
        expected = [json.loads(line)["sample"] * 1000 // 16000
                    for line in result.stdout.splitlines()]
        self.assertEqual(len(expected), 1)

        client = server.connect()
        client.send("transcribe", {"x": 1}, payload=b"abc")  # not ours: ignored
        client.send("describe")
        info = client.receive()
        self.assertEqual(info["type"], "info")
        models = info["data"]["wake"][0]["models"]
        self.assertEqual([m["name"] for m in models], ["hey-kestrel"])
        self.assertEqual(models[0]["phrase"], "hey kestrel")

        audio = read_sample()
        self.assertEqual(answers(client, audio),
                         [{"type": "detection",
                           "data": {"name": "hey-kestrel", "timestamp": expected[0]}}])
        # The same connection serves another stream, from position 0 again.
        self.assertEqual(answers(client, audio, names=["hey-kestrel"])[0]["data"]["timestamp"],
                         expected[0])
        quiet = bytes(len(audio))
        self.assertEqual(answers(client, quiet), [{"type": "not-detected", "data": {}}])
        # A hotword the client did not ask for is not reported.
        self.assertEqual(answers(client, audio, names=["something else"]),
                         [{"type": "not-detected", "data": {}}])
        client.close()

    def test_reads_data_sent_after_the_header(self):
        client = server.connect()
        client.send("audio-start", {"rate": 8000}, extra={"rate": 16000, "width": 2,
                                                           "channels": 1})
        client.send("audio-chunk", {}, payload=read_sample(), extra=FORMAT)
        client.send("audio-stop")
        self.assertEqual(client.receive()["type"], "detection")
        client.close()

    def test_takes_other_rates_and_channels(self):
        # The sample as a 48 kHz stereo microphone would send it: found at the
        # same time, measured in the stream's own milliseconds.
        audio = subprocess.run(
            ["sox", SAMPLE, "-t", "raw", "-e", "signed", "-b", "16", "-r", "48000", "-c", "2",
             "-"], capture_output=True, check=True).stdout
        stereo = {"rate": 48000, "width": 2, "channels": 2}
        client = server.connect()
        client.send("audio-start", stereo)
        for at in range(0, len(audio), 4096):
            client.send("audio-chunk", stereo, payload=audio[at:at + 4096])
        client.send("audio-stop")
        found = client.receive()
        self.assertEqual(found["type"], "detection")
        native = answers(client, read_sample())[0]["data"]["timestamp"]
        self.assertLessEqual(abs(found["data"]["timestamp"] - native), 10)
        client.close()

    def test_refuses_other_audio_and_keeps_the_connection(self):
        client = server.connect()
        cases = [
            ({"rate": 96000, "width": 2, "channels": 1}, "unsupported-audio-format"),
            ({"rate": 16000, "width": 4, "channels": 1}, "unsupported-audio-format"),
            ({"rate": 16000, "width": 2, "channels": 0}, "unsupported-audio-format"),
            ({"rate": "16000", "width": 2, "channels": 1}, "bad-event"),
        ]
        for audio_format, code in cases:
            client.send("audio-start", audio_format)
            client.send("audio-chunk", audio_format, payload=read_sample())
            client.send("audio-stop")
            client.send("describe")
            events = client.receive_until("info")
            self.assertEqual([e["type"] for e in events], ["error", "info"], audio_format)
            self.assertEqual(events[0]["data"]["code"], code)
        # Half a sample, and a chunk unlike its stream.
        client.send("audio-start", FORMAT)
        client.send("audio-chunk", FORMAT, payload=b"\x01\x02\x03")
        self.assertEqual(client.receive()["data"]["code"], "bad-event")
        client.send("audio-start", FORMAT)
        client.send("audio-chunk", dict(FORMAT, rate=8000), payload=b"\0\0")
        self.assertEqual(client.receive()["data"]["code"], "unsupported-audio-format")
        self.assertEqual(answers(client, read_sample())[0]["type"], "detection")
        client.close()


MALFORMED = {
    "header line over 64 KiB": b'{"type": "describe", "pad": "' + b"x" * 65536 + b'"}\n',
    "header line over 64 KiB without a newline": b"x" * 70000,
    "data_length over 1 MiB": b'{"type": "describe", "data_length": 1048577}\n',
    "payload_length over 16 MiB": b'{"type": "audio-chunk", "payload_length": 16777217}\n',
    "negative data_length": b'{"type": "describe", "data_length": -1}\n',
    "negative payload_length": b'{"type": "describe", "payload_length": -5}\n',
    "fractional length": b'{"type": "describe", "payload_length": 2.5}\n',
    "invalid JSON": b'{"type": describe}\n',
    "invalid UTF-8": b'{"type": "\xff\xfe"}\n',
    "no type": b'{"data": {}}\n',
    "not an object": b"[1, 2]\n",
    "data not an object": b'{"type": "detect", "data": [1]}\n',
    "invalid extra data": b'{"type": "describe", "data_length": 5}\nnope!',
    "nesting too deep": b'{"type": "x", "data": {"a": ' + b"[" * 100 + b"]" * 100 + b"}}\n",
}


class MalformedEvents(unittest.TestCase):
    def assert_still_serving(self):
        client = server.connect()
        client.send("describe")
        self.assertEqual(client.receive()["type"], "info")
        client.close()

    def test_each_gets_an_error_and_a_closed_connection(self):
        for name, data in MALFORMED.items():
            with self.subTest(name):
                client = server.connect()
                client.sock.sendall(data)
                error = client.receive()
                self.assertEqual(error["type"], "error")
                self.assertEqual(error["data"]["code"], "malformed-event")
                self.assertIsNone(client.receive())
                client.close()
                self.assert_still_serving()

    def test_limits_are_inclusive(self):
        line = b'{"type": "describe", "pad": "'
        line += b"x" * (65536 - len(line) - 2) + b'"}'
        self.assertEqual(len(line), 65536)
        client = server.connect()
        client.sock.sendall(line)
        time.sleep(0.3)  # the newline in a later read: the line alone fills the limit
        client.sock.sendall(b"\n")
        self.assertEqual(client.receive()["type"], "info")
        client.send("audio-start", FORMAT)
        client.send("audio-chunk", FORMAT, payload=bytes(16 * 1024 * 1024))
        client.send("audio-stop")
        self.assertEqual(client.receive()["type"], "not-detected")
        client.close()

    def test_client_vanishing_mid_event_costs_only_its_connection(self):
        for data in [b'{"type": "audio-chunk", "payload_length": 1000}\n' + b"\0" * 10,
                     b'{"type": "describe", "data_length": 100}\n{"a"',
                     b'{"type": "desc']:
            client = server.connect()
            client.sock.sendall(data)
            client.close()
            self.assert_still_serving()
        deadline = time.time() + 10
        while server.log().count("gone in the middle of an event") < 3 and time.time() < deadline:
            time.sleep(0.05)
        self.assertEqual(server.log().count("gone in the middle of an event"), 3)


class CommandLine(unittest.TestCase):
    def test_malformed_uri_is_a_usage_error_and_a_busy_one_a_failure(self):
        def serve(uri):
            return subprocess.run([KESTREL, "serve", "--model-str=" + MODEL, "--uri=" + uri],
                                  capture_output=True, text=True, timeout=30)
        for uri in ["http://localhost:1", "tcp://localhost", "tcp://:99999", "unix://"]:
            result = serve(uri)
            self.assertEqual(result.returncode, 2, uri)
            self.assertIn("--uri " + uri, result.stderr)
        busy = serve(server.address)
        self.assertEqual(busy.returncode, 1)
        self.assertIn("cannot bind", busy.stderr)


class Stopping(unittest.TestCase):
    def test_sigterm_closes_clients_and_exits_0(self):
        path = os.path.join(tempfile.mkdtemp(), "kestrel.sock")
        unix_server = Server(KESTREL, uri="unix://" + path)
        client = unix_server.connect()
        client.send("audio-start", FORMAT)
        client.send("describe")
        self.assertEqual(client.receive()["type"], "info")
        self.assertEqual(unix_server.stop(), 0)
        self.assertIsNone(client.receive())
        client.close()
        self.assertFalse(os.path.exists(path))
        self.assertIn("closed", unix_server.log())


if __name__ == "__main__":
    unittest.main()
