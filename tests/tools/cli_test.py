"""The tovra command-line tool against the reader simulator, as a user or a script runs it.

Environment (set by CTest):
  TOVRA_TOOL         the tool
  TOVRA_TOOL_RUNNER  optional program that runs it (wine for tovra.exe)
  TOVRA_SIM          the simulator program; when it is the tool itself, "sim" is added
  TOVRA_READERSIM    tovra-readersim, whose options `tovra sim` shares

Run one group with:  python3 -B cli_test.py TransceiveTests
"""

import json
import os
import pty
import queue
import re
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

TOOL = os.environ.get("TOVRA_TOOL", "tovra")
RUNNER = shlex.split(os.environ.get("TOVRA_TOOL_RUNNER", ""))
SIM = os.environ.get("TOVRA_SIM", TOOL)
UNDER_WINE = bool(RUNNER)
# Generous bounds: sanitizers and wine are slow, and a wait ends as soon as its condition holds.
WAIT = 60


def tool(*args):
    return RUNNER + [TOOL, *args]


def sim(*args):
    return [SIM, *(("sim",) if SIM == TOOL else ()), *args]


def free_port():
    """A port nobody listens on: the system picks it, then it is let go again."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Workdir:
    """Every program runs in a folder of its own, removed at the end."""

    def __init__(self):
        self._dir = tempfile.TemporaryDirectory(prefix="tovra-cli-")
        self.path = self._dir.name

    def write(self, name, text):
        path = os.path.join(self.path, name)
        with open(path, "w", encoding="ascii") as f:
            f.write(text)
        return path

    def close(self):
        self._dir.cleanup()


class Background:
    """A program running alongside a test, its output read line by line as it comes."""

    def __init__(self, command, cwd, env=None):
        self.proc = subprocess.Popen(command, cwd=cwd, env=env, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.lines = []
        self._queue = queue.Queue()
        self.stderr = ""
        self._readers = [threading.Thread(target=self._read_out, daemon=True),
                         threading.Thread(target=self._read_err, daemon=True)]
        for reader in self._readers:
            reader.start()

    def _read_out(self):
        for line in self.proc.stdout:
            self._queue.put(line.rstrip("\n"))
        self._queue.put(None)

    def _read_err(self):
        self.stderr = self.proc.stderr.read()

    def expect(self, pattern, timeout=WAIT):
        """The first line from now on that matches, as a match object; fails the test otherwise."""
        deadline = time.monotonic() + timeout
        while True:
            try:
                line = self._queue.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                raise AssertionError(f"no line matching {pattern!r} within {timeout} s; got {self.lines}")
            if line is None:
                raise AssertionError(f"output ended before {pattern!r}; got {self.lines}, stderr {self.stderr}")
            self.lines.append(line)
            match = re.search(pattern, line)
            if match:
                return match

    def finish(self, timeout=WAIT):
        """Waits for the program to end by itself; its exit status."""
        status = self.proc.wait(timeout)
        for reader in self._readers:
            reader.join(timeout)
        self.proc.stdout.close()
        self.proc.stderr.close()
        while True:
            line = self._queue.get_nowait() if not self._queue.empty() else None
            if line is None:
                return status
            self.lines.append(line)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.finish()


class ToolTestCase(unittest.TestCase):
    """Runs the tool in its own folder; background programs are ended with the test."""

    def setUp(self):
        self.work = Workdir()
        self.addCleanup(self.work.close)
        self.env = dict(os.environ)

    def start(self, command, env=None):
        program = Background(command, self.work.path, env or self.env)
        self.addCleanup(program.stop)
        return program

    def run_tool(self, *args, env=None, timeout=WAIT, stderr=subprocess.PIPE):
        return subprocess.run(tool(*args), cwd=self.work.path, env=env or self.env, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=stderr, text=True, timeout=timeout)

    def assert_fails_with(self, result, text):
        """A failure: exit status 1 and the library's explanation on standard error."""
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn(text, result.stderr)

    def start_tcp_sim(self, *options):
        """A simulated reader listening on a port the system chose; the port."""
        program = self.start(sim("--port", "0", *options))
        return program, int(program.expect(r"listening on 127\.0\.0\.1:(\d+)").group(1))


def json_lines(text):
    return [json.loads(line) for line in text.splitlines()]


def tcp(port):
    return f"tcp:IPAddress=127.0.0.1:Port={port}"


class HelpTests(ToolTestCase):
    def test_every_sub_command_has_help(self):
        for command in ["", "version", "transceive", "listen", "detect", "ports", "discover", "sim"]:
            with self.subTest(command=command):
                result = self.run_tool(*command.split(), "--help")
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertIn("Usage:", result.stdout)

    def test_command_lines_that_make_no_sense_exit_2(self):
        for args in [[], ["frobnicate"], ["transceive"], ["discover", "wifi"], ["--log", "nonsense", "version"],
                     ["sim", "--request", "6500"], ["sim", "--pty", "9600:8E1", "--port", "1"],
                     ["sim", "--fault", "bogus"], ["listen", "tcp:Port=1", "--rules", "no-such-file"]]:
            with self.subTest(args=args):
                result = self.run_tool(*args)
                self.assertEqual(result.returncode, 2, result.stdout + result.stderr)
                self.assertEqual(result.stdout, "")

    def test_version_is_the_library_s(self):
        self.assertRegex(self.run_tool("version").stdout, r"^\d+\.\d+\.\d+\n$")
        self.assertRegex(json_lines(self.run_tool("--json", "version").stdout)[0]["version"], r"^\d+\.\d+\.\d+$")


class TransceiveTests(ToolTestCase):
    def setUp(self):
        super().setUp()
        # 66: data 0102 with status 01; 67: never answered.
        self.sim, self.port = self.start_tcp_sim("--reply", "66=0102/01", "--silent", "67")

    def test_response_and_status_text(self):
        result = self.run_tool("transceive", tcp(self.port), "66 00")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout, "66 01 01 02  [01 No transponder in reader field]\n")

    def test_arguments_join_into_one_request_until_a_comma(self):
        # The simulator echoes: command, status 00, then the request's bytes after the command.
        result = self.run_tool("transceive", tcp(self.port), "65", "00 11", ",", "65AB,6522", "33")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout.splitlines(),
                         ["65 00 00 11  [00 Ok]", "65 00 AB  [00 Ok]", "65 00 22 33  [00 Ok]"])

    def test_requests_that_are_not_hex_bytes_are_not_sent(self):
        for bad in ["650", "65,", "6x00", "65,,66"]:
            with self.subTest(bad=bad):
                result = self.run_tool("transceive", tcp(self.port), bad)
                self.assertEqual(result.returncode, 2, result.stderr)
        self.assertEqual(self.run_tool("transceive", tcp(self.port), "6501").returncode, 0)
        self.sim.expect("connection closed by peer")
        self.assertEqual([line for line in self.sim.lines if "connection open" in line], ["connection open"],
                         "only the good request connected")

    def test_json_and_latency_summary(self):
        result = self.run_tool("--json", "transceive", tcp(self.port), "6500,6801", "--repeat", "25")
        self.assertEqual(result.returncode, 0, result.stderr)
        first, second, summary = json_lines(result.stdout)
        self.assertEqual((first["request"], first["response"], first["status"], first["statusText"]),
                         ("6500", "650000", 0, "Ok"))
        self.assertEqual((second["request"], second["response"]), ("6801", "680001"))
        self.assertEqual(summary["count"], 50)
        self.assertLessEqual(summary["p50Ms"], summary["p99Ms"])
        self.assertLessEqual(summary["p99Ms"], summary["maxMs"])
        self.assertNotIn("round", result.stderr, "no progress line where nobody watches")

    @unittest.skipIf(UNDER_WINE, "a pseudo-terminal is a Linux terminal")
    def test_progress_line_on_a_terminal(self):
        controller, terminal = pty.openpty()
        try:
            result = self.run_tool("transceive", tcp(self.port), "6500", "--repeat", "40", stderr=terminal)
            os.close(terminal)
            terminal = None
            shown = b""
            while True:
                try:
                    chunk = os.read(controller, 4096)
                except OSError:  # all read
                    break
                if not chunk:
                    break
                shown += chunk
        finally:
            if terminal is not None:
                os.close(terminal)
            os.close(controller)
        self.assertEqual(result.returncode, 0)
        self.assertIn(b"round 40 of 40", shown)
        self.assertIn("40 exchanges: p50", result.stdout)

    def test_timeout_fails_with_the_library_s_text(self):
        result = self.run_tool("transceive", tcp(self.port), "6700", "--timeout", "300")
        self.assert_fails_with(result, "Receive timeout")
        self.assertRegex(result.stderr, r"^tovra: transceive 6700: .*-5015")
        result = self.run_tool("--json", "transceive", tcp(self.port), "6500,6700", "--timeout", "300")
        answered, failed = json_lines(result.stdout)
        self.assertEqual(answered["response"], "650000")
        self.assertEqual(failed["error"], -5015)
        self.assertIn("Receive timeout", failed["errorText"])

    def test_refused_connection(self):
        result = self.run_tool("transceive", tcp(free_port()), "6500")
        self.assert_fails_with(result, "Connect failed")
        self.assertRegex(result.stderr, r"^tovra: connect: ")

    def test_long_responses_and_misbehaving_readers(self):
        data = bytes(range(256)) * 4
        self.sim.stop()
        _, port = self.start_tcp_sim("--reply", "66=" + data.hex(), "--reply", "68=00/FE", "--fault", "bad-crc",
                                     "--fault-count", "1")
        # The response with a bad CRC is dropped: the exchange times out, nothing is printed.
        dropped = self.run_tool("transceive", tcp(port), "6600", "--timeout", "300")
        self.assert_fails_with(dropped, "Receive timeout")
        self.assertEqual(dropped.stdout, "")
        whole = self.run_tool("--json", "transceive", tcp(port), "6600,6800")
        self.assertEqual(whole.returncode, 0, whole.stderr)
        long, unknown = json_lines(whole.stdout)
        self.assertEqual(long["response"], "6600" + data.hex().upper())
        # A status byte the table does not know still gets a text, not a crash.
        self.assertEqual(unknown["status"], 0xFE)
        self.assertTrue(unknown["statusText"])

    def test_two_port_module(self):
        result = self.run_tool("--json", "transceive", tcp(self.port), "6500", "--module-kind", "0")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(json_lines(result.stdout)[0]["response"], "650000")


@unittest.skipUnless(sys.platform.startswith("linux") and not UNDER_WINE, "pseudo-terminals are Linux only")
class SerialTests(ToolTestCase):
    PORT = 200  # a number mapped to the simulator's terminal; no /dev/ttyS of that number exists

    def setUp(self):
        super().setUp()
        self.sim = self.start(sim("--pty", "57600:8N1"))
        self.env[f"ZKCOM_COM{self.PORT}"] = self.sim.expect(r"^/dev/").string
        self.device = f"COM{self.PORT}"

    def test_transceive_over_a_serial_line(self):
        result = self.run_tool("transceive", f"com:Device={self.device}:Baud=57600:Frame=8N1", "6500")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout, "65 00 00  [00 Ok]\n")

    def test_detect_shows_each_candidate_and_the_connector_found(self):
        result = self.run_tool("detect", f"com:Device={self.device}")
        self.assertEqual(result.returncode, 0, result.stderr)
        connector = f"COM:Device={self.device}:BusAddress=255:Baud=57600:Frame=8N1"
        self.assertEqual(result.stdout, connector + "\n")
        probes = [line for line in result.stderr.splitlines() if line.startswith("probing ")]
        self.assertEqual(probes[-1], "probing " + connector)
        self.assertEqual(len(probes), 5, "38400 in three frames, then 57600 8E1 and 8N1")
        # What it printed is a connector that reaches the reader.
        self.assertEqual(self.run_tool("transceive", connector, "6501").stdout, "65 00 01  [00 Ok]\n")

    def test_detect_failure(self):
        self.sim.stop()
        result = self.run_tool("detect", f"com:Device={self.device}:DetectMode=1")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, r"tovra: detect: .*error")

    def test_ports_lists_the_present_ones(self):
        result = self.run_tool("--json", "ports", "--first", str(self.PORT - 1), "--last", str(self.PORT + 1))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(json_lines(result.stdout), [{"port": self.PORT, "connector": f"com:Device={self.device}"}])


class DiscoveryTests(ToolTestCase):
    def test_udp_discovery_finds_the_simulator(self):
        program, port = self.start_tcp_sim("--udp", "0")
        udp = program.expect(r"udp: answering discovery on 127\.0\.0\.1:(\d+)").group(1)
        result = self.run_tool("--json", "discover", "udp", "--target", f"address=127.0.0.1:port={udp}",
                               "--interval", "200", "--count", "1", "--seconds", str(WAIT))
        self.assertEqual(result.returncode, 0, result.stderr)
        found = json_lines(result.stdout)
        self.assertEqual(found[0]["event"], "found")
        line = found[0]["line"]
        self.assertIn(f":Port={port}", line)
        # The line, made a connector, reaches the reader it announces.
        reached = self.run_tool("transceive", "tcp" + line[len("UDP"):], "6500")
        self.assertEqual(reached.stdout, "65 00 00  [00 Ok]\n", reached.stderr)

    def test_usb_and_ble_without_device_libraries(self):
        for kind in ["usb", "ble"]:
            with self.subTest(kind=kind):
                result = self.run_tool("discover", kind, "--seconds", "1")
                self.assert_fails_with(result, "Cannot load plugin")


class ListenTests(ToolTestCase):
    def start_listen(self, *options):
        """`tovra --json listen` on a port that was free a moment ago; tries again if it was taken since."""
        for _ in range(5):
            port = free_port()
            program = self.start(tool("--json", "listen", tcp(port), *options))
            try:
                program.expect(r'"event":"listening"')
                return program, port
            except AssertionError:
                program.stop()
        self.fail("could not listen: " + program.stderr)

    def test_reader_requests_answered_by_rules_and_fallback(self):
        rules = self.work.write("rules.txt", "# reader requests\n65 01 = 65 00 AA\n\n66 = 6600BB  # any 66\n")
        listen, port = self.start_listen("--rules", rules, "--answer", "7700", "--count", "3",
                                         "--seconds", str(WAIT))
        reader = self.start(sim("--connect", f"127.0.0.1:{port}", "--request", "6501", "--request", "66CC",
                                "--request", "6702"))
        self.assertEqual(reader.expect(r"^request 6501 ").string, "request 6501 answered 6500AA")
        self.assertEqual(reader.expect(r"^request 66CC ").string, "request 66CC answered 6600BB")
        self.assertEqual(reader.expect(r"^request 6702 ").string, "request 6702 answered 7700")
        # After the third request the listener stops by itself, and the reader's connection ends.
        self.assertEqual(listen.finish(), 0, listen.stderr)
        self.assertEqual(reader.finish(), 0)
        events = [json.loads(line) for line in listen.lines]
        self.assertEqual([e["event"] for e in events], ["listening", "connected", "request", "request", "request"])
        self.assertIn("TCP:PeerAddress=127.0.0.1", events[1]["connection"])
        self.assertEqual([(e["request"], e["response"]) for e in events[2:]],
                         [("6501", "6500AA"), ("66CC", "6600BB"), ("6702", "7700")])

    def test_request_without_answer(self):
        listen, port = self.start_listen("--count", "1", "--seconds", str(WAIT))
        reader = self.start(sim("--connect", f"127.0.0.1:{port}", "--request", "6501"))
        self.assertEqual(reader.expect(r"^request ").string, "request 6501 unanswered")
        self.assertEqual(listen.finish(), 0)
        self.assertIsNone(json.loads(listen.lines[-1])["response"])

    def test_reader_leaving_and_a_clean_stop_on_sigterm(self):
        listen, port = self.start_listen("--answer", "00")
        reader = self.start(sim("--connect", f"127.0.0.1:{port}", "--request", "01"))
        reader.expect("request 01 answered 00")
        reader.stop()
        listen.expect(r'"event":"disconnected"')
        listen.proc.send_signal(signal.SIGTERM)
        self.assertEqual(listen.finish(), 0, listen.stderr)

    def test_rule_files_with_catch_all_and_windows_line_ends(self):
        rules = self.work.write("rules.txt", "6501 = 01\r\n = 02 # every other request\r\n6502 = 03\r\n")
        listen, port = self.start_listen("--rules", rules, "--count", "2", "--seconds", str(WAIT))
        reader = self.start(sim("--connect", f"127.0.0.1:{port}", "--request", "6501", "--request", "6502"))
        self.assertEqual(reader.expect(r"^request 6501 ").string, "request 6501 answered 01")
        self.assertEqual(reader.expect(r"^request 6502 ").string, "request 6502 answered 02",
                         "the first matching rule wins")
        self.assertEqual(listen.finish(), 0, listen.stderr)

    def test_seconds_end_the_wait(self):
        listen, _ = self.start_listen("--seconds", "1")
        self.assertEqual(listen.finish(), 0, listen.stderr)

    def test_rule_file_errors_name_the_line(self):
        rules = self.work.write("rules.txt", "65 = 00\n65 01 6500\n")
        result = self.run_tool("listen", tcp(free_port()), "--rules", rules)
        self.assertEqual(result.returncode, 2)
        self.assertIn("line 2", result.stderr)

    def test_a_listener_that_cannot_start(self):
        result = self.run_tool("listen", "usb:DeviceId=1")
        self.assert_fails_with(result, "Invalid listener type")


class LogTests(ToolTestCase):
    def test_library_log_goes_to_standard_error_only(self):
        _, port = self.start_tcp_sim()
        result = self.run_tool("--log", "reader,logerror", "transceive", tcp(port), "6500")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout, "65 00 00  [00 Ok]\n")
        self.assertRegex(result.stderr, r"TOVRA RH=\d+ .*1port connect: tcp:IPAddress=127\.0\.0\.1")
        quiet = self.run_tool("transceive", tcp(port), "6500")
        self.assertEqual(quiet.stderr, "")


@unittest.skipUnless(os.environ.get("TOVRA_READERSIM"), "needs tovra-readersim")
class SimOptionsTests(ToolTestCase):
    def readersim(self, *args):
        return subprocess.run([os.environ["TOVRA_READERSIM"], *args], cwd=self.work.path, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=WAIT)

    @staticmethod
    def options(help_text):
        return sorted(set(re.findall(r"^\s+(--[a-z0-9-]+)", help_text, re.MULTILINE)))

    def test_tovra_sim_and_tovra_readersim_take_the_same_options(self):
        shared = self.options(self.readersim("--help").stdout)
        self.assertIn("--request", shared)
        self.assertEqual(self.options(self.run_tool("sim", "--help").stdout), shared)

    def test_both_refuse_the_same_command_lines_with_status_2(self):
        for args in [["--request", "6500"], ["--udp", "0", "--connect", "127.0.0.1:1"], ["--udp-any"],
                     ["--connect", "127.0.0.1"], ["--reply", "66=123"], ["--fault", "flood=x"], ["--port", "65536"],
                     ["--fault-count", "0"], ["--request", "", "--connect", "127.0.0.1:1"], ["--bogus"]]:
            with self.subTest(args=args):
                self.assertEqual(self.readersim(*args).returncode, 2)
                self.assertEqual(self.run_tool("sim", *args).returncode, 2)

    def test_requests_to_a_host_that_is_gone(self):
        result = self.readersim("--connect", f"127.0.0.1:{free_port()}", "--request", "6500")
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot connect", result.stderr)


if __name__ == "__main__":
    unittest.main()
