"""HTTPS front end: parsing, authentication, routing, queries, faults, logging."""

import base64
import hmac
import json
import re
import socket
import ssl
import sys
import threading
import time
import traceback
from email.utils import formatdate
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qsl, unquote, urlsplit

from . import errors, faults as faultlib, health as healthlib, model as modellib, query as querylib
from .query import select_properties as _select

CONTROL_PREFIX = "/__emulator"
MAX_BODY = 1 << 20
HANDSHAKE_TIMEOUT = 10
IDLE_TIMEOUT = 60
_EXPAND = re.compile(r"^[*.~](?:\(\$levels=\d+\))?$")
_TOKEN = re.compile(r"^[!#$%&'*+.^_`|~0-9A-Za-z-]+$")
_RESET_ACTION = "ComputerSystem.Reset"


class BadRequest(Exception):
    def __init__(self, status, key="GeneralError", args=()):
        super().__init__(status)
        self.status, self.key, self.args_ = status, key, args


class RequestLog:
    """JSON lines, one per request, flushed at once so readers never wait."""

    def __init__(self, path):
        self._lock = threading.Lock()
        self._file = open(path, "w", encoding="utf-8") if path else None
        self.count = 0

    def write(self, entry):
        with self._lock:
            self.count += 1
            if self._file:
                self._file.write(json.dumps(entry) + "\n")
                self._file.flush()

    def truncate(self):
        with self._lock:
            self.count = 0
            if self._file:
                self._file.seek(0)
                self._file.truncate()
                self._file.flush()

    def close(self):
        with self._lock:
            if self._file:
                self._file.close()
                self._file = None


class App:
    """State shared by all connections."""

    def __init__(self, model, user, password, cli_faults=(), request_log=None, query_mode=None, latency=None):
        self.model = model
        self.query_mode = query_mode or model.query_mode
        self.latency = model.latency if latency is None else latency
        self._flight_lock = threading.Lock()
        self.in_flight = self.max_in_flight = 0
        self.profile = model.profile
        self.registry = self.profile.get("base_registry", "Base.1.0")
        self.content_type = self.profile.get("content_type", "application/json")
        self.realm = self.profile.get("auth_realm", "Redfish")
        self.user = user.encode("utf-8")
        self.password = password.encode("utf-8")
        self.cli_faults = faultlib.FaultSet(cli_faults)
        self.runtime_faults = faultlib.FaultSet()
        self.log = RequestLog(request_log)
        self.port = None

    def take_faults(self, path, query):
        owner = self.model.sensors_owner(path)

        def applies(fault):
            if fault.kind == "sensors-404":
                return owner is not None and (fault.matches(owner, "") or fault.matches(path, query))
            return fault.matches(path, query)

        return self.cli_faults.take(applies) + self.runtime_faults.take(applies)

    def flight(self, delta):
        """Counts Redfish requests being answered; the peak is what a client's
        concurrency limit is checked against."""
        with self._flight_lock:
            self.in_flight += delta
            self.max_in_flight = max(self.max_in_flight, self.in_flight)

    def reset_log(self):
        with self._flight_lock:
            self.log.truncate()
            self.max_in_flight = self.in_flight

    def state(self):
        faults = ([dict(f, source="cli") for f in self.cli_faults.describe()]
                  + [dict(f, source="runtime") for f in self.runtime_faults.describe()])
        return {"profile": self.model.name, "port": self.port, "systems": self.model.power_summary(),
                "counts": self.model.counts, "faults": faults, "requests_logged": self.log.count,
                "in_flight": self.in_flight, "max_in_flight": self.max_in_flight}


def _rename_maker(obj, name):
    if isinstance(obj, dict):
        return {k: (name if k in ("Manufacturer", "Vendor") and isinstance(v, str) else _rename_maker(v, name))
                for k, v in obj.items()}
    if isinstance(obj, list):
        return [_rename_maker(v, name) for v in obj]
    return obj


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    timeout = IDLE_TIMEOUT
    app = None  # set by make_server

    def log_message(self, fmt, *args):  # quiet: the request log is the record
        pass

    # -- request intake ---------------------------------------------------

    def handle_one_request(self):
        self.command, self.path, self.request_version = None, "", "HTTP/1.1"
        self.requestline = ""
        self.headers = None
        self.body = b""
        self.received = None
        try:
            line = self.rfile.readline(65537)
            self.received = time.time()
            if not line:
                self.close_connection = True
                return
            if len(line) > 65536:
                self.close_connection = True
                self.send_error(414)
                return
            self.raw_requestline = line
            if not self.parse_request():
                return
            self.dispatch()
        except (OSError, ssl.SSLError):  # timeouts, resets, TLS failures
            self.close_connection = True
        except Exception:  # a bug here must cost one request, not the emulator
            traceback.print_exc(file=sys.stderr)
            self.close_connection = True
            try:
                self.respond(500, errors.status_error_body(self.app.registry, 500, self.path or ""))
            except Exception:
                pass

    def send_error(self, code, message=None, explain=None):
        """Protocol-level failure detected by the base class: Redfish body, then close."""
        self.close_connection = True
        body = errors.status_error_body(self.app.registry, code, self.path or "")
        self.respond(code, body, log=True)

    def read_body(self):
        te = self.headers.get("Transfer-Encoding")
        if te is not None:
            if te.strip().lower() != "chunked":
                raise BadRequest(400)
            return self._read_chunked()
        lengths = self.headers.get_all("Content-Length") or []
        if not lengths:
            return b""
        if len(set(v.strip() for v in lengths)) != 1 or not lengths[0].strip().isdigit():
            raise BadRequest(400)
        n = int(lengths[0])
        if n > MAX_BODY:
            raise BadRequest(413)
        data = self.rfile.read(n)
        if len(data) != n:
            raise BadRequest(400)
        return data

    def _read_chunked(self):
        data = bytearray()
        while True:
            line = self.rfile.readline(1024)
            try:
                size = int(line.split(b";")[0].strip(), 16)
            except ValueError:
                raise BadRequest(400) from None
            if size == 0:
                while self.rfile.readline(1024) not in (b"\r\n", b"\n", b""):
                    pass
                return bytes(data)
            if len(data) + size > MAX_BODY:
                raise BadRequest(413)
            chunk = self.rfile.read(size)
            if len(chunk) != size:
                raise BadRequest(400)
            data += chunk
            self.rfile.readline(1024)

    # -- response ---------------------------------------------------------

    def respond(self, status, body=None, headers=(), content_type=None, log=True,
                body_limit=None, declared_length=None):
        """Serialise and send a whole response with a single sendall()."""
        if isinstance(body, (dict, list)):
            payload = json.dumps(body, separators=(",", ":")).encode("utf-8")
            content_type = content_type or self.app.content_type
        else:
            payload = body or b""
        if log and self.command is not None:
            self.log_request_entry(status)
        lines = ["HTTP/1.1 %d %s" % (status, self.responses.get(status, ("Unknown",))[0]),
                 "Date: " + formatdate(usegmt=True), "OData-Version: 4.0", "Cache-Control: no-cache"]
        if payload and content_type:
            lines.append("Content-Type: " + content_type)
        lines.extend("%s: %s" % h for h in headers)
        if status != 204 and status != 304:
            lines.append("Content-Length: %d" % (len(payload) if declared_length is None else declared_length))
        if body_limit is not None or declared_length is not None:
            self.close_connection = True
        if self.close_connection:
            lines.append("Connection: close")
        elif self.request_version == "HTTP/1.0":
            lines.append("Connection: keep-alive")
        head = ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")
        if self.command == "HEAD" or status in (204, 304):
            payload = b""
        elif body_limit is not None:
            payload = payload[:body_limit]
        self.connection.sendall(head + payload)
        if body_limit is not None or declared_length is not None:
            self._hang_up()

    def redfish_error(self, status, key, args=(), headers=()):
        self.respond(status, errors.error_body(self.app.registry, key, args), headers=headers)

    def _hang_up(self):
        self.close_connection = True
        try:
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def log_request_entry(self, status):
        headers = {}
        if self.headers is not None:
            for name, value in self.headers.items():
                headers[name] = headers[name] + ", " + value if name in headers else value
        self.app.log.write({
            "t": self.received or time.time(),
            "method": self.command,
            "path": self.path,
            "headers": headers,
            "body": self.body.decode("utf-8", "replace"),
            "status": status,
        })

    # -- dispatch ---------------------------------------------------------

    def dispatch(self):
        if not _TOKEN.match(self.command or ""):
            self.close_connection = True
            self.respond(400, errors.status_error_body(self.app.registry, 400, ""))
            return
        target = self.path
        if target.startswith(("http://", "https://")):
            parts = urlsplit(target)
            target = parts.path + ("?" + parts.query if parts.query else "")
        raw_path, _, raw_query = target.partition("?")
        if not raw_path.startswith("/"):
            self.close_connection = True
            self.redfish_error(400, "GeneralError")
            return
        path = unquote(raw_path).rstrip("/") or "/"
        query = unquote(raw_query)
        try:
            self.body = self.read_body()
        except BadRequest as e:
            self.close_connection = True
            self.respond(e.status, errors.status_error_body(self.app.registry, e.status, path))
            return
        if path == CONTROL_PREFIX or path.startswith(CONTROL_PREFIX + "/"):
            self.control(path[len(CONTROL_PREFIX):])
            return
        self.app.flight(+1)
        try:
            self.serve(path, raw_query, query)
        finally:
            self.app.flight(-1)

    def serve(self, path, raw_query, query):
        hits = self.app.take_faults(path, query)
        kinds = {}
        for fault in hits:
            kinds.setdefault(fault.kind, fault)
        delay = self.app.latency + sum(f.value for f in hits if f.kind == "delay")
        if delay:
            time.sleep(delay)
        if "drop" in kinds:
            self.log_request_entry(0)
            self._hang_up()
            return
        if "retry-after" in kinds:
            seconds = kinds["retry-after"].value
            self.redfish_error(503, "ServiceTemporarilyUnavailable", [seconds],
                               headers=[("Retry-After", str(seconds))])
            return
        if "status" in kinds:
            fault = kinds["status"]
            if fault.body is not None:
                self.respond(fault.value, fault.body, content_type="application/json")
            else:
                extra = [("WWW-Authenticate", 'Basic realm="%s"' % self.app.realm)] if fault.value == 401 else []
                self.respond(fault.value, errors.status_error_body(self.app.registry, fault.value, path),
                             headers=extra)
            return
        send = {}
        if "truncate" in kinds:
            send["body_limit"] = kinds["truncate"].value
        elif "bad-length" in kinds:
            send["declared_length"] = kinds["bad-length"].value
        try:
            status, body, headers, content_type = self.route(path, raw_query, kinds)
        except (BadRequest, querylib.QueryError) as e:
            status, body, headers, content_type = e.status, errors.error_body(
                self.app.registry, e.key, e.args_), [], None
        self.respond(status, body, headers=headers, content_type=content_type, **send)

    def public(self, path):
        if self.command in ("GET", "HEAD"):
            return path in ("/redfish", modellib.ROOT, modellib.ROOT + "/odata", modellib.ROOT + "/$metadata")
        return self.command == "POST" and path == modellib.SESSIONS

    def authorized(self):
        token = self.headers.get("X-Auth-Token")
        if token and self.app.model.token_valid(token):
            return True
        scheme, _, cred = (self.headers.get("Authorization") or "").strip().partition(" ")
        if scheme.lower() != "basic":
            return False
        try:
            user, sep, password = base64.b64decode(cred.strip(), validate=True).partition(b":")
        except ValueError:
            return False
        return bool(sep) and hmac.compare_digest(user, self.app.user) and hmac.compare_digest(
            password, self.app.password)

    def route(self, path, raw_query, kinds):
        """Returns (status, body, extra headers, content type)."""
        m = self.app.model
        if not self.public(path) and not self.authorized():
            return (401, errors.error_body(self.app.registry, "AccessDenied", [path]),
                    [("WWW-Authenticate", 'Basic realm="%s"' % self.app.realm)], None)
        if "sensors-404" in kinds:
            return 404, errors.error_body(self.app.registry, "ResourceMissingAtURI", [path]), [], None
        method = self.command
        if path == "/redfish":
            return self.readonly(method, m.versions())
        if path == modellib.ROOT + "/$metadata":
            if method not in ("GET", "HEAD"):
                return self.not_allowed("GET, HEAD")
            return 200, self.metadata(), [], "application/xml"
        if path == modellib.ROOT + "/odata":
            return self.readonly(method, self.service_document())
        reset_index = m.system_for_reset_target(path)
        if reset_index is not None:
            if method != "POST":
                return self.not_allowed("POST")
            return self.reset(reset_index)
        if path == modellib.SESSIONS and method == "POST":
            return self.login()
        if not m.exists(path):
            return 404, errors.error_body(self.app.registry, "ResourceMissingAtURI", [path]), [], None
        if method == "DELETE" and path.startswith(modellib.SESSIONS + "/"):
            m.delete_session(path)
            return 204, None, [], None
        if method not in ("GET", "HEAD"):
            allow = "GET, HEAD, POST" if path == modellib.SESSIONS else (
                "GET, HEAD, DELETE" if path.startswith(modellib.SESSIONS + "/") else "GET, HEAD")
            return self.not_allowed(allow)
        status = m.error_status(path)
        if status is not None:  # a captured error answer
            return status, m.render(path), [], None
        if m.is_tree:
            body = m.answer(path, raw_query, self.app.query_mode)
        elif self.app.query_mode is not None:
            querylib.choose(querylib.split_query(raw_query), self.app.query_mode, {})
            body = m.render(path)
        else:
            body = self.query(path, raw_query)
        if "unknown-manufacturer" in kinds:
            body = _rename_maker(body, kinds["unknown-manufacturer"].value)
        return 200, body, [], None

    def readonly(self, method, body):
        if method not in ("GET", "HEAD"):
            return self.not_allowed("GET, HEAD")
        return 200, body, [], None

    def not_allowed(self, allow):
        return 405, errors.error_body(self.app.registry, "OperationNotAllowed"), [("Allow", allow)], None

    def query(self, path, raw_query):
        select = expand = None
        for key, value in parse_qsl(raw_query, keep_blank_values=True):
            if key == "$select":
                select = value
            elif key == "$expand":
                expand = value
        if expand is not None and not _EXPAND.match(expand):
            raise BadRequest(400, "QueryParameterValueFormatError", [expand, "$expand"])
        # '~' expands only Links; collection Members and a resource's other
        # links are subordinate, so only '*' and '.' inline them.
        inline = expand is not None and expand[0] in "*."
        if self.app.model.is_collection(path):
            body = self.app.model.render(path, expand=inline)
        else:
            body = self.app.model.render(path)
            if inline:
                body = self.app.model.inline_subordinates(body)
        if select is not None:
            props = [p.strip() for p in select.split(",") if p.strip()]
            if not props:
                raise BadRequest(400, "QueryParameterValueFormatError", [select, "$select"])
            body = _select(body, props)
        return body

    def reset(self, index):
        try:
            request = json.loads(self.body.decode("utf-8"))
        except (UnicodeDecodeError, ValueError):
            raise BadRequest(400, "MalformedJSON") from None
        if not isinstance(request, dict):
            raise BadRequest(400, "MalformedJSON")
        if "ResetType" not in request:
            raise BadRequest(400, "ActionParameterMissing", [_RESET_ACTION, "ResetType"])
        reset_type = request["ResetType"]
        if not isinstance(reset_type, str):
            raise BadRequest(400, "ActionParameterValueTypeError",
                             [json.dumps(reset_type), "ResetType", _RESET_ACTION])
        if reset_type not in self.app.model.allowable_for(index):
            raise BadRequest(400, "ActionParameterValueNotInList", [reset_type, "ResetType", _RESET_ACTION])
        outcome, before = self.app.model.reset(index, reset_type)
        spec = self.app.profile["reset"]["success" if outcome == "done" else "no_op"]
        body = spec.get("body")
        if body is not None:
            body = modellib.substitute(body, {"{STATE}": before.upper(), "{state}": before.lower(),
                                              "{State}": before})
        return spec["status"], body, [], None

    def login(self):
        try:
            request = json.loads(self.body.decode("utf-8"))
        except (UnicodeDecodeError, ValueError):
            raise BadRequest(400, "MalformedJSON") from None
        if not isinstance(request, dict) or not isinstance(request.get("UserName"), str) \
                or not isinstance(request.get("Password"), str):
            raise BadRequest(400, "ActionParameterMissing", ["Session", "UserName/Password"])
        ok = hmac.compare_digest(request["UserName"].encode("utf-8"), self.app.user) and hmac.compare_digest(
            request["Password"].encode("utf-8"), self.app.password)
        if not ok:
            return 401, errors.error_body(self.app.registry, "AccessDenied", [modellib.SESSIONS]), [], None
        token, body = self.app.model.create_session(request["UserName"])
        return 201, body, [("X-Auth-Token", token), ("Location", body["@odata.id"])], None

    def service_document(self):
        names = [("Service", "/redfish/v1/"), ("Systems", modellib.SYSTEMS), ("Chassis", modellib.CHASSIS),
                 ("Managers", modellib.MANAGERS), ("SessionService", modellib.SESSION_SERVICE),
                 ("Sessions", modellib.SESSIONS)]
        return {"@odata.context": "/redfish/v1/$metadata",
                "value": [{"name": n, "kind": "Singleton", "url": u} for n, u in names]}

    def metadata(self):
        refs = {}
        for odata_type in self.app.model.odata_types():
            parts = odata_type.lstrip("#").split(".")
            ns = refs.setdefault(parts[0], {parts[0]})
            if len(parts) > 2:
                ns.add(".".join(parts[:-1]))
        out = ['<?xml version="1.0" encoding="UTF-8"?>',
               '<edmx:Edmx xmlns:edmx="http://docs.oasis-open.org/odata/ns/edmx" Version="4.0">']
        for name in sorted(refs):
            out.append('  <edmx:Reference Uri="http://redfish.dmtf.org/schemas/v1/%s_v1.xml">' % name)
            out.extend('    <edmx:Include Namespace="%s"/>' % ns for ns in sorted(refs[name]))
            out.append("  </edmx:Reference>")
        root_type = self.app.model.resources[modellib.ROOT].body["@odata.type"].lstrip("#")
        out += ["  <edmx:DataServices>",
                '    <Schema xmlns="http://docs.oasis-open.org/odata/ns/edm" Namespace="Service">',
                '      <EntityContainer Name="Service" Extends="%s"/>'
                % (root_type.rsplit(".", 1)[0] + ".ServiceContainer"),
                "    </Schema>", "  </edmx:DataServices>", "</edmx:Edmx>", ""]
        return "\n".join(out).encode("utf-8")

    # -- control endpoint -------------------------------------------------

    def control(self, sub):
        method = self.command
        try:
            request = json.loads(self.body.decode("utf-8")) if self.body else None
        except (UnicodeDecodeError, ValueError):
            return self.control_reply(400, {"error": "request body is not JSON"})
        app = self.app
        if sub == "/state":
            if method not in ("GET", "HEAD"):
                return self.control_reply(405, {"error": "use GET"}, [("Allow", "GET, HEAD")])
            return self.control_reply(200, app.state())
        if sub == "/faults":
            if method == "GET":
                return self.control_reply(200, app.state()["faults"])
            if method == "DELETE":
                app.runtime_faults.replace([])
                return self.control_reply(200, {"faults": []})
            if method == "POST":
                if not isinstance(request, list):
                    return self.control_reply(400, {"error": "want a JSON list of fault specs"})
                try:
                    parsed = faultlib.parse_all(request)
                except faultlib.FaultSpecError as e:
                    return self.control_reply(400, {"error": str(e)})
                app.runtime_faults.replace(parsed)
                return self.control_reply(200, {"faults": app.runtime_faults.describe()})
            return self.control_reply(405, {"error": "use GET, POST or DELETE"}, [("Allow", "GET, POST, DELETE")])
        if sub == "/power":
            if method != "POST":
                return self.control_reply(405, {"error": "use POST"}, [("Allow", "POST")])
            if not isinstance(request, dict) or request.get("PowerState") not in modellib.POWER_STATES:
                return self.control_reply(400, {"error": 'want {"system": index or Id, "PowerState": "On"|"Off"}'})
            index = app.model.find_system(request.get("system", 0))
            if index is None:
                return self.control_reply(404, {"error": "no such system"})
            app.model.set_power(index, request["PowerState"])
            return self.control_reply(200, {"systems": app.model.power_summary()})
        if sub == "/health":
            return self.control_health(method, request)
        if sub == "/reset-log":
            if method != "POST":
                return self.control_reply(405, {"error": "use POST"}, [("Allow", "POST")])
            app.reset_log()
            return self.control_reply(200, {"requests_logged": 0})
        return self.control_reply(404, {"error": "unknown control path"})

    def control_health(self, method, request):
        health = self.app.model.health
        if health is None:
            return self.control_reply(404, {"error": "this emulator models no health"})
        if method == "GET":
            return self.control_reply(200, health.state())
        if method == "DELETE":
            health.reset()
            return self.control_reply(200, health.state())
        if method == "POST":
            try:
                health.configure(request)
            except healthlib.HealthError as e:
                return self.control_reply(400, {"error": str(e)})
            return self.control_reply(200, health.state())
        return self.control_reply(405, {"error": "use GET, POST or DELETE"}, [("Allow", "GET, POST, DELETE")])

    def control_reply(self, status, body, headers=()):
        self.respond(status, body, headers=headers, content_type="application/json", log=False)


class EmulatorServer(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 128

    def __init__(self, address, ssl_context, app):
        self.ssl_context = ssl_context
        if ":" in address[0]:
            self.address_family = socket.AF_INET6
        handler = type("BoundHandler", (Handler,), {"app": app})
        super().__init__(address, handler)

    def finish_request(self, request, client_address):
        # TLS handshake here, in the connection's own thread, so one slow client cannot stall accept().
        try:
            request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            request.settimeout(HANDSHAKE_TIMEOUT)
            tls = self.ssl_context.wrap_socket(request, server_side=True)
        except (OSError, ssl.SSLError):
            return
        try:
            tls.settimeout(IDLE_TIMEOUT)
            self.RequestHandlerClass(tls, client_address, self)
        finally:
            try:
                tls.close()
            except OSError:
                pass

    def handle_error(self, request, client_address):
        # A broken connection must not take the emulator down; say what happened and go on.
        exc = sys.exc_info()[1]
        if not isinstance(exc, (OSError, ssl.SSLError)):
            print("bmc-emulator: error serving %s: %r" % (client_address[0], exc), file=sys.stderr)


def make_ssl_context(cert_file, key_file):
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.minimum_version = ssl.TLSVersion.TLSv1_2
    ctx.load_cert_chain(cert_file, key_file)
    # Only HTTP/1.x is spoken here; say so to clients that offer h2.
    ctx.set_alpn_protocols(["http/1.1"])
    return ctx
