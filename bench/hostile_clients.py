#!/usr/bin/env python3
"""Measures what misbehaving local clients can make vorlend spend.

Starts vorlen-refserver and vorlend from a build folder on private temporary folders (loopback and Unix
sockets only), runs each scenario against a fresh daemon, prints one line of figures per scenario, and
stops everything it started. Every loop is bounded in count and time.

  bench/hostile_clients.py [--build build/default] [scenario ...]

Scenarios: postclose, nonreaders, bomb, identifiers, idleconns, unconfigured.
"""
import argparse
import os
import plistlib
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

TICKS = os.sysconf("SC_CLK_TCK")


def frame(message):
    payload = plistlib.dumps(message, fmt=plistlib.FMT_BINARY)
    return struct.pack(">I", len(payload)) + payload


def configuration(identifier, agent="Bench/1.0"):
    return {"$class": "VORSessionConfiguration", "identifier": identifier, "userAgent": agent}


def search(query_id, text):
    return {"$class": "VORSearchRequest", "queryId": query_id, "queryString": text}


def call(op, args, serial=None):
    m = {"op": op, "args": args}
    if serial is not None:
        m["serial"] = serial
    return frame(m)


def read_frame(sock, timeout=20.0):
    sock.settimeout(timeout)
    header = b""
    while len(header) < 4:
        chunk = sock.recv(4 - len(header))
        if not chunk:
            return None
        header += chunk
    (n,) = struct.unpack(">I", header)
    body = b""
    while len(body) < n:
        chunk = sock.recv(n - len(body))
        if not chunk:
            return None
        body += chunk
    return plistlib.loads(body)


def wait_reply(sock, serial, timeout=20.0):
    end = time.time() + timeout
    while time.time() < end:
        m = read_frame(sock, max(0.1, end - time.time()))
        if m is None:
            return None
        if m.get("reply") == serial:
            return m
    return None


class Daemon:
    def __init__(self, build, root, env_extra=None):
        self.build, self.root = build, root
        self.env = dict(os.environ)
        self.env.update({
            "XDG_RUNTIME_DIR": os.path.join(root, "run"), "XDG_CONFIG_HOME": os.path.join(root, "config"),
            "XDG_CACHE_HOME": os.path.join(root, "cache"), "TMPDIR": root, "HOME": root,
            "VORLEND_SOCKET": os.path.join(root, "vorlend.sock"), "VORLEND_LOG_LEVEL": "info",
        })
        self.env.pop("JOURNAL_STREAM", None)
        self.env.update(env_extra or {})
        os.makedirs(self.env["XDG_RUNTIME_DIR"], exist_ok=True)
        self.socket_path = self.env["VORLEND_SOCKET"]
        self.log_path = os.path.join(root, "vorlend.log")

    def start(self):
        self.log = open(self.log_path, "ab")
        self.proc = subprocess.Popen([os.path.join(self.build, "vorlend")], env=self.env, stderr=self.log,
                                     stdout=subprocess.DEVNULL)
        for _ in range(200):
            if os.path.exists(self.socket_path):
                try:
                    s = self.connect()
                    s.close()
                    return
                except OSError:
                    pass
            time.sleep(0.05)
        raise RuntimeError("vorlend did not start")

    def connect(self):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect(self.socket_path)
        return s

    def cpu_seconds(self):
        with open(f"/proc/{self.proc.pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / TICKS

    def rss_mb(self):
        with open(f"/proc/{self.proc.pid}/status") as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1]) / 1024
        return 0.0

    def log_size(self):
        return os.path.getsize(self.log_path)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(20)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.log.close()


def configured(daemon, identifier):
    s = daemon.connect()
    s.sendall(call("configure:reply:", [configuration(identifier)], 1))
    if wait_reply(s, 1) is None:
        raise RuntimeError("configure:reply: got no answer")
    return s


def ping_ms(daemon, identifier="com.bench.good"):
    """Round trips of listSessions: on a fresh, configured, well-behaved connection: p50 in ms."""
    s = configured(daemon, identifier)
    times = []
    for i in range(20):
        t = time.perf_counter()
        s.sendall(call("listSessions:", [], 100 + i))
        if wait_reply(s, 100 + i, 10) is None:
            s.close()
            return float("inf")
        times.append((time.perf_counter() - t) * 1000)
    s.close()
    times.sort()
    return times[len(times) // 2]


def cpu_until_idle(daemon, limit=60.0, quiet=1.0):
    """CPU seconds the daemon spends until it has used under 2% of a core for `quiet` seconds."""
    start_cpu, start = daemon.cpu_seconds(), time.time()
    last_cpu, quiet_since = start_cpu, time.time()
    while time.time() - start < limit:
        time.sleep(0.25)
        now_cpu = daemon.cpu_seconds()
        if now_cpu - last_cpu > 0.005:
            quiet_since = time.time()
        last_cpu = now_cpu
        if time.time() - quiet_since >= quiet:
            break
    return daemon.cpu_seconds() - start_cpu, time.time() - start - quiet


def scenario_postclose(daemon):
    s = configured(daemon, "com.bench.closer")
    s.sendall(b"".join(call("request:reply:", [search(i + 1, f"abc{i}")], i + 10) for i in range(2000)))
    s.close()
    cpu, busy = cpu_until_idle(daemon)
    return f"2,000 calls then close: {cpu:.2f} s of daemon CPU afterwards, busy for {busy:.1f} s"


def scenario_nonreaders(daemon):
    p50_before = ping_ms(daemon)
    rss_before = daemon.rss_mb()
    clients = []
    for n in range(20):
        s = configured(daemon, f"com.bench.nonreader{n}")
        s.setblocking(False)
        clients.append(s)
    end, peak = time.time() + 10, rss_before
    request = b"".join(call("bag:", [], 1000 + i) for i in range(50))
    while time.time() < end:
        for s in clients:
            try:
                s.send(request)
            except (BlockingIOError, OSError):
                pass
        peak = max(peak, daemon.rss_mb())
        time.sleep(0.01)
    p50_during = ping_ms(daemon, "com.bench.good2")
    for s in clients:
        s.close()
    cpu, busy = cpu_until_idle(daemon)
    time.sleep(1.0)
    return (f"20 non-readers for 10 s: p50 {p50_before:.2f} ms before, {p50_during:.2f} ms during; RSS "
            f"{rss_before:.0f} MB -> peak {peak:.0f} MB -> {daemon.rss_mb():.0f} MB after; {cpu:.2f} s CPU and "
            f"{busy:.1f} s busy after they were cut off")


def reference_bomb(refs):
    # An array of `refs` one-byte references to one 60-byte string, wrapped as a call's argument list.
    out = bytearray(b"bplist00")
    offsets = []
    # 0: {"op": 1, "args": 3}; 1: "op"; 2: "echo"; 3: array of refs to 5; 4: "args"; 5: the string
    offsets.append(len(out)); out += bytes([0xD2, 1, 4, 2, 3])
    offsets.append(len(out)); out += bytes([0x52]) + b"op"
    offsets.append(len(out)); out += bytes([0x54]) + b"echo"
    offsets.append(len(out)); out += bytes([0xAF, 0x12]) + struct.pack(">I", refs) + bytes([5]) * refs
    offsets.append(len(out)); out += bytes([0x54]) + b"args"
    offsets.append(len(out)); out += bytes([0x5F, 0x10, 60]) + b"x" * 60
    table = len(out)
    for o in offsets:
        out += struct.pack(">I", o)
    out += bytes(6) + bytes([4, 1]) + struct.pack(">QQQ", len(offsets), 0, table)
    return struct.pack(">I", len(out)) + bytes(out)


def scenario_bomb(daemon):
    rss_before, peak = daemon.rss_mb(), daemon.rss_mb()
    times = []
    for _ in range(3):
        s = daemon.connect()
        t = time.perf_counter()
        # A call behind the bomb: its answer (or the end of the connection) says the daemon is done with it.
        s.sendall(reference_bomb(1_000_000) + call("listSessions:", [], 7))
        s.setblocking(False)
        while time.perf_counter() - t < 120:
            peak = max(peak, daemon.rss_mb())
            try:
                if s.recv(65536) != b"":
                    break  # the answer came
                break  # closed
            except BlockingIOError:
                time.sleep(0.02)
            except OSError:
                break
        times.append(time.perf_counter() - t)
        s.close()
    return (f"1 MB reference bomb x3: {max(times):.2f} s per frame at most, RSS {rss_before:.0f} MB -> peak "
            f"{peak:.0f} MB")


def scenario_identifiers(daemon):
    rss_before = daemon.rss_mb()
    for n in range(20000):
        s = configured(daemon, f"com.bench.id{n}")
        s.close()
    cpu_until_idle(daemon)
    rss_after = daemon.rss_mb()
    c = configured(daemon, "com.bench.lister")
    c.sendall(call("listSessions:", [], 5))
    reply = wait_reply(c, 5)
    size = len(plistlib.dumps(reply, fmt=plistlib.FMT_BINARY)) if reply else 0
    c.close()
    return (f"20,000 identifiers: RSS {rss_before:.0f} MB -> {rss_after:.0f} MB "
            f"({(rss_after - rss_before) * 1024 / 20000:.1f} KB each); listSessions: reply {size / 1024:.0f} KB")


def in_other_process(work):
    """Runs `work()` in a child process; True when it returned without raising."""
    pid = os.fork()
    if pid == 0:
        try:
            work()
            os._exit(0)
        except BaseException:
            os._exit(1)
    _, status = os.waitpid(pid, 0)
    return os.WEXITSTATUS(status) == 0


def scenario_idleconns(daemon):
    held, refused = [], 0
    for _ in range(256):
        try:
            s = daemon.connect()
            held.append(s)
        except OSError:
            refused += 1
    time.sleep(1.0)
    # Another process's client.
    ok = sum(in_other_process(lambda: ping_ms(daemon, "com.bench.other")) for _ in range(5))
    # Connections the daemon closed read as end-of-file.
    closed = 0
    for s in held:
        s.setblocking(False)
        try:
            if s.recv(1) == b"":
                closed += 1
        except BlockingIOError:
            pass
        except OSError:
            closed += 1
        s.close()
    return (f"one process opens 256 idle connections: {len(held) - closed} kept, {closed} closed by the daemon; "
            f"another process's client answered {ok}/5")


def scenario_unconfigured(daemon):
    s = daemon.connect()
    size_before = daemon.log_size()
    end, sent, serial = time.time() + 5, 0, 1
    s.setblocking(False)
    batch = b"".join(call("listSessions:", [], i) for i in range(100))
    while time.time() < end:
        try:
            s.send(batch)
            sent += 100
        except BlockingIOError:
            time.sleep(0.001)
        except OSError:
            break
        try:
            while s.recv(65536):
                pass
        except (BlockingIOError, OSError):
            pass
    s.close()
    time.sleep(0.5)
    grown = daemon.log_size() - size_before
    return f"unconfigured listSessions: flood for 5 s: {sent} calls sent, log grew {grown / 1024:.1f} KB"


SCENARIOS = {
    "postclose": scenario_postclose,
    "nonreaders": scenario_nonreaders,
    "bomb": scenario_bomb,
    "identifiers": scenario_identifiers,
    "idleconns": scenario_idleconns,
    "unconfigured": scenario_unconfigured,
}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/default")
    parser.add_argument("scenarios", nargs="*", default=list(SCENARIOS))
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    for name in args.scenarios:
        root = tempfile.mkdtemp(prefix="vorlend-hostile-")
        os.chmod(root, 0o700)
        ref_out = os.path.join(root, "refserver.out")
        with open(ref_out, "w") as out:
            ref = subprocess.Popen([os.path.join(build, "vorlen-refserver"), "--port", "0"], stdout=out,
                                   stderr=subprocess.DEVNULL)
        daemon = None
        try:
            base = ""
            for _ in range(200):
                with open(ref_out) as f:
                    base = f.readline().strip()
                if base:
                    break
                time.sleep(0.05)
            config = os.path.join(root, "config", "vorlend")
            os.makedirs(config, mode=0o700)
            with open(os.path.join(config, "com.velmo.vorlend.plist"), "wb") as f:
                plistlib.dump({"VORBagURL": base + "/bag"}, f, fmt=plistlib.FMT_BINARY)
            daemon = Daemon(build, root)
            daemon.start()
            time.sleep(1.0)  # the bag fetch at start-up
            print(f"{name}: {SCENARIOS[name](daemon)}", flush=True)
        finally:
            if daemon:
                daemon.stop()
            ref.terminate()
            ref.wait()
            shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
