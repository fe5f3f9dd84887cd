"""Test helpers for `kestrel serve`: start the server, talk the Wyoming
protocol to it, and read the server's memory use."""

import json
import os
import re
import signal
import socket
import subprocess
import threading
import wave

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MODEL = os.path.join(ROOT, "models", "hey-kestrel.kmodel")
SAMPLE = os.path.join(ROOT, "samples", "hey-kestrel.wav")
FORMAT = {"rate": 16000, "width": 2, "channels": 1}


def read_sample():
    with wave.open(SAMPLE) as w:
        return w.readframes(w.getnframes())


def stream_bytes(audio, chunk_bytes=2048):
    """audio-start, the audio in chunks (1024 samples, as Home Assistant
    sends them), audio-stop: the bytes on the wire."""
    def event(event_type, data=None, payload=b""):
        header = {"type": event_type}
        if data is not None:
            header["data"] = data
        if payload:
            header["payload_length"] = len(payload)
        return json.dumps(header).encode() + b"\n" + payload

    parts = [event("audio-start", FORMAT)]
    parts += [event("audio-chunk", FORMAT, audio[at:at + chunk_bytes])
              for at in range(0, len(audio), chunk_bytes)]
    parts.append(event("audio-stop"))
    return b"".join(parts)


class Server:
    """A running `kestrel serve`; its log lines are collected as they come
    (an unread pipe would block the server)."""

    def __init__(self, kestrel, *args, uri="tcp://127.0.0.1:0"):
        self.proc = subprocess.Popen(
            [kestrel, "serve", "--model-str", MODEL, "--uri", uri, *args],
            stderr=subprocess.PIPE, text=True, errors="replace")
        self.lines = []
        self._listening = threading.Event()
        self._reader = threading.Thread(target=self._collect, daemon=True)
        self._reader.start()
        if not self._listening.wait(30):
            self.proc.kill()
            raise RuntimeError("server did not start: " + "".join(self.lines))
        self.address = re.search(r"listening on (\S+);", self.lines[0]).group(1)

    def _collect(self):
        for line in self.proc.stderr:
            self.lines.append(line)
            if "listening on" in line:
                self._listening.set()

    def connect(self):
        return Client(self.address)

    def rss_kib(self):
        with open(f"/proc/{self.proc.pid}/status") as status:
            return int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))

    def cpu_seconds(self):
        """User and system time the server has used so far."""
        with open(f"/proc/{self.proc.pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self, timeout=30):
        """SIGTERM; returns the exit status."""
        self.proc.send_signal(signal.SIGTERM)
        status = self.proc.wait(timeout)
        self._reader.join(5)
        self.proc.stderr.close()
        return status

    def log(self):
        return "".join(self.lines)


class Client:
    def __init__(self, address, timeout=60):
        if address.startswith("unix://"):
            self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            self.sock.connect(address[len("unix://"):])
        else:
            host, port = address[len("tcp://"):].rsplit(":", 1)
            self.sock = socket.create_connection((host.strip("[]"), int(port)))
        self.sock.settimeout(timeout)
        self.file = self.sock.makefile("rb")

    def send(self, event_type, data=None, payload=b"", extra=None):
        """`extra` goes as the bytes after the header (data_length)."""
        header = {"type": event_type}
        if data is not None:
            header["data"] = data
        tail = b""
        if extra is not None:
            tail = json.dumps(extra).encode()
            header["data_length"] = len(tail)
        if payload:
            header["payload_length"] = len(payload)
        self.sock.sendall(json.dumps(header).encode() + b"\n" + tail + payload)

    def stream(self, audio):
        self.sock.sendall(stream_bytes(audio))

    def receive(self):
        """The next event as {"type", "data"}, or None when the server closed."""
        line = self.file.readline()
        if not line:
            return None
        header = json.loads(line)
        data = header.get("data") or {}
        if header.get("data_length"):
            data.update(json.loads(self.file.read(header["data_length"])))
        if header.get("payload_length"):
            self.file.read(header["payload_length"])
        return {"type": header["type"], "data": data}

    def receive_until(self, last_type):
        """Events up to and including the first of `last_type`."""
        events = []
        while True:
            event = self.receive()
            if event is None:
                raise AssertionError(f"connection closed before {last_type}: {events}")
            events.append(event)
            if event["type"] == last_type:
                return events

    def close(self):
        self.file.close()
        self.sock.close()
