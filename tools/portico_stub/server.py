"""Configuration endpoint and command line of tools/portico."""

import argparse
import json
import os
import shutil
import signal
import socket
import sys
import tempfile
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

from . import faults as faultmod
from .nginx import EndpointError, Nginx, endpoint_from_document, render, render_config_front

DOCUMENT_PATH = "/portico/config/json/bmcApi.json"
FAULTS_PATH = "/__portico/faults"
BIG_DOCUMENT_BYTES = 2048


class Portico:
    """State shared by the request threads: the document, nginx, faults, the log."""

    def __init__(self, args, faults):
        self.args = args
        self.nginx = Nginx(args.nginx, args.dir, args.listen, args.http_port, args.http1)
        self.faults = faultmod.FaultSet(faults)
        self.document = None  # bytes as last stored
        self.endpoint = None
        self.generation = 0
        self.reload_lock = threading.Lock()
        self.log_lock = threading.Lock()
        self.log = None
        if args.request_log:
            self.log = open(args.request_log, "w", buffering=1)

    def fault(self, kind):
        """The first fault of that kind still in force, its budget charged; or None."""
        return self.faults.take(lambda f: f.kind == kind, first=True)

    def log_request(self, entry):
        if self.log is None:
            return
        with self.log_lock:
            self.log.write(json.dumps(entry) + "\n")
            self.log.flush()

    def install(self, document, endpoint):
        """Routes to endpoint and waits until nginx serves it; returns an error text or None."""
        with self.reload_lock:
            generation = self.generation + 1
            problem = self.nginx.write(render(self.nginx.prefix, self.args.listen,
                                              self.args.http_port, generation, endpoint,
                                              self.args.http1))
            if problem:
                return "nginx refused the configuration: " + problem
            if self.nginx.proc is not None:  # running already: reload it
                if not self.nginx.alive():
                    return "nginx is not running"
                old_workers = self.nginx.reload()
                if not self.nginx.wait_generation(generation, self.args.reload_timeout,
                                                  old_workers):
                    return "nginx did not take the new configuration within %gs" % (
                        self.args.reload_timeout)
            self.generation = generation
            self.document = document
            self.endpoint = endpoint
            return None

    def big_document(self):
        try:
            doc = json.loads(self.document) if self.document else {}
        except ValueError:
            doc = {}
        if not isinstance(doc, dict):
            doc = {"document": doc}
        doc["padding"] = "p" * BIG_DOCUMENT_BYTES
        return json.dumps(doc, indent=2).encode()


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "portico"
    sys_version = ""

    def log_message(self, fmt, *args):  # the JSON request log replaces stderr chatter
        pass

    @property
    def portico(self):
        return self.server.portico

    def _read_body(self):
        if self.headers.get("Transfer-Encoding", "").lower() == "chunked":
            chunks = []
            while True:
                size = int(self.rfile.readline().split(b";")[0].strip() or b"0", 16)
                if size == 0:
                    while self.rfile.readline() not in (b"\r\n", b"\n", b""):
                        pass
                    return b"".join(chunks)
                chunks.append(self.rfile.read(size))
                self.rfile.readline()
        length = int(self.headers.get("Content-Length") or 0)
        return self.rfile.read(length) if length > 0 else b""

    def _send(self, status, body=b"", content_type="application/json", extra=None, log=True,
              request_body=b""):
        if log:
            self.portico.log_request({
                "t": time.time(), "method": self.command, "path": self.path,
                "headers": dict(self.headers.items()),
                "body": request_body.decode("utf-8", "replace"), "status": status})
        self.send_response(status)
        if body or status not in (204, 304):
            self.send_header("Content-Type", content_type)
        if status != 204:
            self.send_header("Content-Length", str(len(body)))
        for k, v in (extra or {}).items():
            self.send_header(k, v)
        self.end_headers()
        if body and self.command != "HEAD":
            self.wfile.write(body)

    def _error(self, status, text, request_body=b"", extra=None):
        self._send(status, (json.dumps({"error": text}) + "\n").encode(), extra=extra,
                   request_body=request_body)

    def _route(self):
        path = self.path.split("?", 1)[0]
        try:
            body = self._read_body()
        except (ValueError, OSError):
            self.close_connection = True
            return self._error(400, "unreadable request body")
        if path == FAULTS_PATH:
            return self._faults(body)
        if path != DOCUMENT_PATH:
            return self._error(404, "no such path", body)
        if self.command not in ("GET", "PUT"):
            return self._error(405, "only GET and PUT", body, extra={"Allow": "GET, PUT"})
        slow = self.portico.fault("slow")
        if slow:
            time.sleep(slow.value)
        if self.command == "GET":
            return self._get(body)
        return self._put(body)

    def _get(self, body):
        p = self.portico
        fault = p.fault("get")
        if fault and fault.value == 404:
            return self._error(404, "no route document", body)
        if fault:
            return self._error(503, "get fault", body)
        if p.fault("garbage"):
            return self._send(200, b"<html>this is not JSON", request_body=body)
        if p.fault("big"):
            return self._send(200, p.big_document(), request_body=body)
        if p.document is None:
            return self._error(404, "no route document", body)
        return self._send(200, p.document, request_body=body)

    def _put(self, body):
        p = self.portico
        fault = p.fault("put")
        if fault and fault.value == 503:
            return self._error(503, "put fault", body)
        try:
            doc = json.loads(body.decode("utf-8"))
        except (UnicodeDecodeError, ValueError) as e:
            return self._error(400, "body is not JSON: %s" % e, body)
        try:
            endpoint = endpoint_from_document(doc)
        except EndpointError as e:
            return self._error(400, str(e), body)
        problem = p.install(body, endpoint)
        if problem:
            return self._error(500, problem, body)
        if fault and fault.value == 200:
            return self._send(200, request_body=body)
        return self._send(204, request_body=body)

    def _faults(self, body):
        p = self.portico
        if self.command in ("PUT", "POST"):
            try:
                wanted = json.loads(body.decode("utf-8") or "[]")
                if isinstance(wanted, dict):
                    wanted = wanted.get("faults", [])
                if not isinstance(wanted, list):
                    raise faultmod.FaultError("want a JSON list of faults")
                p.faults.replace([faultmod.Fault(f) for f in wanted])
            except (UnicodeDecodeError, ValueError) as e:
                return self._send(400, (json.dumps({"error": str(e)}) + "\n").encode(), log=False)
        elif self.command == "DELETE":
            p.faults.replace([])
        elif self.command != "GET":
            return self._send(405, b"", extra={"Allow": "GET, PUT, POST, DELETE"}, log=False)
        self._send(200, (json.dumps({"faults": p.faults.describe()}) + "\n").encode(), log=False)

    do_GET = do_PUT = do_POST = do_DELETE = do_HEAD = do_PATCH = do_OPTIONS = _route


class Server(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, address, portico):
        self.address_family = socket.AF_INET6 if ":" in address[0] else socket.AF_INET
        super().__init__(address, Handler)
        self.portico = portico


H2_PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
PREFACE_WAIT = 10.0


def _opens_with_preface(sock):
    """True when the client's first bytes are the HTTP/2 preface; reads nothing."""
    sock.settimeout(PREFACE_WAIT)
    try:
        while True:
            seen = sock.recv(len(H2_PREFACE), socket.MSG_PEEK)
            if not seen or not H2_PREFACE.startswith(seen):
                return False
            if len(seen) == len(H2_PREFACE):
                return True
            time.sleep(0.01)  # a preface split across segments: wait for the rest
    except OSError:
        return False
    finally:
        sock.settimeout(None)


def _pump(src, dst):
    try:
        while True:
            data = src.recv(65536)
            if not data:
                break
            dst.sendall(data)
    except OSError:
        pass
    finally:
        try:
            dst.shutdown(socket.SHUT_WR)
        except OSError:
            pass


class ConfigPort(Server):
    """The configuration port, speaking both protocols as a real proxy's codec
    detection does: HTTP/1.1 is answered here, and a connection that opens with
    the HTTP/2 preface is handed whole to the HTTP/2 listener on h2_socket."""

    def __init__(self, address, portico, h2_socket):
        super().__init__(address, portico)
        self.h2_socket = h2_socket

    def finish_request(self, request, client_address):
        if not _opens_with_preface(request):
            return super().finish_request(request, client_address)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as upstream:
            try:
                upstream.connect(self.h2_socket)
            except OSError:
                return None
            back = threading.Thread(target=_pump, args=(upstream, request), daemon=True)
            back.start()
            _pump(request, upstream)
            back.join()
        return None


def _parser():
    p = argparse.ArgumentParser(
        prog="portico",
        description="Stand-in for the local reverse proxy: HTTP/2 cleartext on the HTTP port "
        "routes /bmc/ to the endpoint of the route document; the configuration port serves "
        "and accepts that document over HTTP/1.1 or HTTP/2 cleartext (prior knowledge).")
    p.add_argument("--listen", default="127.0.0.1", help="address of both listeners")
    p.add_argument("--http-port", type=int, default=80)
    p.add_argument("--config-port", type=int, default=549)
    p.add_argument("--http1", action="store_true",
                   help="the HTTP port speaks HTTP/1.1 only, not HTTP/2 cleartext")
    p.add_argument("--document", metavar="FILE", help="route document to start with")
    p.add_argument("--fault", action="append", default=[], metavar="FAULT",
                   help="get=503, get=404, put=503, put=200, garbage, slow=SECONDS, big; optional @N; "
                   "repeatable")
    p.add_argument("--request-log", metavar="PATH",
                   help="JSON lines of the configuration requests (emptied at start)")
    p.add_argument("--dir", help="nginx prefix directory (default: a temporary one, removed "
                   "at exit)")
    p.add_argument("--nginx", help="nginx binary (default: from PATH or /usr/sbin/nginx)")
    p.add_argument("--reload-timeout", type=float, default=10.0,
                   help="seconds a PUT waits for nginx to serve the new route")
    return p


def _wait_accepting(host, port, deadline):
    while time.monotonic() < deadline:
        try:
            with socket.create_connection((host, port), timeout=0.5):
                return True
        except OSError:
            time.sleep(0.05)
    return False


def _wait_unix(path, deadline):
    while time.monotonic() < deadline:
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            try:
                s.connect(path)
                return True
            except OSError:
                time.sleep(0.05)
    return False


def main(argv=None):
    args = _parser().parse_args(argv)
    try:
        faults = [faultmod.Fault(f) for f in args.fault]
    except faultmod.FaultError as e:
        print("portico: %s" % e, file=sys.stderr)
        return 2
    temporary = args.dir is None
    if temporary:
        args.dir = tempfile.mkdtemp(prefix="portico-")
    os.makedirs(args.dir, exist_ok=True)
    args.dir = os.path.abspath(args.dir)

    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    portico = None
    server = None
    config_port = None
    front = None
    status = 0
    try:
        portico = Portico(args, faults)
        document, endpoint = None, None
        if args.document:
            with open(args.document, "rb") as f:
                document = f.read()
            try:
                endpoint = endpoint_from_document(json.loads(document))
            except (ValueError, EndpointError) as e:
                print("portico: %s: %s" % (args.document, e), file=sys.stderr)
                return 2
        problem = portico.install(document, endpoint)
        if problem:
            print("portico: %s" % problem, file=sys.stderr)
            return 1
        # The document server answers HTTP/1.1 on an internal port, behind an
        # HTTP/2 cleartext nginx on a Unix socket; the configuration port
        # answers HTTP/1.1 itself and passes HTTP/2 connections to that nginx.
        server = Server(("127.0.0.1", 0), portico)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        front = Nginx(args.nginx, os.path.join(args.dir, "config-front"), args.listen,
                      args.config_port)
        h2_socket = os.path.join(front.prefix, "h2.sock")
        problem = front.write(render_config_front(front.prefix, h2_socket,
                                                  server.server_address[1]))
        if problem:
            print("portico: configuration port: %s" % problem, file=sys.stderr)
            return 1
        front.start()
        config_port = ConfigPort((args.listen, args.config_port), portico, h2_socket)
        threading.Thread(target=config_port.serve_forever, daemon=True).start()
        portico.nginx.start()
        deadline = time.monotonic() + 10
        if not (_wait_accepting(args.listen, args.http_port, deadline)
                and _wait_unix(h2_socket, deadline)
                and portico.nginx.wait_generation(portico.generation, 10)):
            print("portico: nginx did not start; see %s/error.log" % args.dir, file=sys.stderr)
            return 1
        print("ready", flush=True)
        while not stop.wait(0.2):
            if not (portico.nginx.alive() and front.alive()):
                print("portico: nginx exited; see %s/error.log" % args.dir, file=sys.stderr)
                status = 1
                break
        return status
    finally:
        if front is not None:
            front.stop()
        if portico is not None:
            portico.nginx.stop()
        if config_port is not None:
            config_port.shutdown()
            config_port.server_close()
        if server is not None:
            server.shutdown()
            server.server_close()
        if temporary:
            shutil.rmtree(args.dir, ignore_errors=True)
