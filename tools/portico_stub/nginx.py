"""The nginx half of the stand-in: renders its configuration, runs it in the
foreground as a child, reloads it and waits until the reload has taken hold."""

import ipaddress
import os
import re
import shutil
import signal
import subprocess
import time

_HOSTNAME = re.compile(r"^[A-Za-z0-9](?:[A-Za-z0-9.-]{0,252})$")


class EndpointError(ValueError):
    pass


def endpoint_from_document(doc):
    """(address, port) of the first cluster endpoint of a route document."""
    try:
        sock = doc["proxy_configuration"]["clusters"][0]["endpoints"][0]["socket_address"]
        address, port = sock["address"], sock["port_value"]
    except (KeyError, IndexError, TypeError):
        raise EndpointError("no /proxy_configuration/clusters/0/endpoints/0/socket_address "
                            "with address and port_value") from None
    if isinstance(port, str) and port.isdigit():
        port = int(port)
    if isinstance(port, bool) or not isinstance(port, int) or not 0 < port < 65536:
        raise EndpointError("port_value must be a port number, got %r" % (port,))
    if not isinstance(address, str):
        raise EndpointError("address must be a string")
    try:
        address = str(ipaddress.ip_address(address))
    except ValueError:
        # Only plain host names: the value ends up inside the nginx configuration.
        if not _HOSTNAME.match(address):
            raise EndpointError("address %r is neither an IP address nor a host name"
                                % address) from None
    return address, port


def _hostport(address, port):
    host = "[%s]" % address if ":" in address else address
    return host if port == 443 else "%s:%d" % (host, port)


def render(prefix, listen, http_port, generation, endpoint, http1=False):
    """nginx.conf text. endpoint is (address, port) or None while no document exists.
    http1: the HTTP port speaks HTTP/1.1 only, as a proxy without HTTP/2 would."""
    user = "user root root;\n" if os.geteuid() == 0 else ""
    if endpoint is None:
        upstream = ""
        bmc = """        location /bmc/ {
            default_type application/json;
            return 503 '{"error": "no route document"}\\n';
        }
"""
    else:
        address, port = endpoint
        target = "[%s]:%d" % (address, port) if ":" in address else "%s:%d" % (address, port)
        upstream = """    upstream bmc_endpoint {
        server %s;
        keepalive 16;
    }
""" % target
        bmc = """        location /bmc/ {
            proxy_pass https://bmc_endpoint/;
            proxy_set_header Host "%s";
            proxy_set_header Connection "";
            proxy_http_version 1.1;
            proxy_ssl_verify off;
            proxy_ssl_session_reuse on;
            proxy_connect_timeout 5s;
        }
""" % _hostport(address, port)
    return """# Written by tools/portico; replaced on every route document.
%(user)sdaemon off;
master_process on;
worker_processes 1;
# Bounds how long a reload waits for requests still running on old workers.
worker_shutdown_timeout 5s;
pid %(p)s/nginx.pid;
error_log %(p)s/error.log info;

events {
    worker_connections 256;
}

http {
    default_type application/octet-stream;
    client_body_temp_path %(p)s/tmp/body;
    proxy_temp_path %(p)s/tmp/proxy;
    fastcgi_temp_path %(p)s/tmp/fastcgi;
    uwsgi_temp_path %(p)s/tmp/uwsgi;
    scgi_temp_path %(p)s/tmp/scgi;
    log_format portico escape=json '{"time": "$time_iso8601", "protocol": "$server_protocol", '
        '"method": "$request_method", "uri": "$request_uri", "status": $status, '
        '"upstream": "$upstream_addr", "upstream_status": "$upstream_status", '
        '"request_time": $request_time, "generation": %(gen)d}';
    access_log %(p)s/access.log portico;

%(upstream)s    server {
        listen %(listen)s:%(port)d%(http2)s;

        location = /__portico/generation {
            default_type text/plain;
            return 200 "%(gen)d";
        }
%(bmc)s
        location / {
            return 404;
        }
    }
}
""" % {"user": user, "p": prefix, "gen": generation, "upstream": upstream, "bmc": bmc,
       "listen": "[%s]" % listen if ":" in listen else listen, "port": http_port,
       "http2": "" if http1 else " http2"}


def render_config_front(prefix, socket_path, backend_port):
    """nginx.conf text of the configuration port's HTTP/2 half: HTTP/2 cleartext
    on a Unix socket, in front of the document server. The port itself hands it
    the connections that open with the HTTP/2 preface. Never reloaded, so a PUT
    in flight is not cut by the route's reload."""
    user = "user root root;\n" if os.geteuid() == 0 else ""
    return """# Written by tools/portico: the configuration port.
%(user)sdaemon off;
master_process on;
worker_processes 1;
pid %(p)s/nginx.pid;
error_log %(p)s/error.log info;

events {
    worker_connections 64;
}

http {
    client_body_temp_path %(p)s/tmp/body;
    proxy_temp_path %(p)s/tmp/proxy;
    fastcgi_temp_path %(p)s/tmp/fastcgi;
    uwsgi_temp_path %(p)s/tmp/uwsgi;
    scgi_temp_path %(p)s/tmp/scgi;
    access_log %(p)s/access.log;

    server {
        listen unix:%(socket)s http2;
        client_max_body_size 1m;
        location / {
            proxy_pass http://127.0.0.1:%(backend)d;
            proxy_read_timeout 300s;
        }
    }
}
""" % {"user": user, "p": prefix, "socket": socket_path, "backend": backend_port}


class Nginx:
    def __init__(self, binary, prefix, listen, http_port, http1=False):
        self.binary = binary or shutil.which("nginx") or "/usr/sbin/nginx"
        self.http1 = http1
        self.prefix = os.path.abspath(prefix)
        self.listen = listen
        self.http_port = http_port
        self.conf = os.path.join(self.prefix, "nginx.conf")
        self.proc = None
        os.makedirs(os.path.join(self.prefix, "tmp"), exist_ok=True)

    def _args(self, *extra):
        return [self.binary, "-p", self.prefix, "-c", self.conf,
                "-e", os.path.join(self.prefix, "error.log")] + list(extra)

    def write(self, text):
        """Installs a configuration after nginx -t accepts it; returns nginx's complaint or None."""
        candidate = self.conf + ".new"
        with open(candidate, "w") as f:
            f.write(text)
        check = subprocess.run([self.binary, "-t", "-q", "-p", self.prefix, "-c", candidate,
                                "-e", os.path.join(self.prefix, "error.log")],
                               capture_output=True, text=True)
        if check.returncode != 0:
            os.unlink(candidate)
            return (check.stderr or check.stdout).strip() or "nginx -t failed"
        os.replace(candidate, self.conf)
        return None

    def start(self):
        argv = self._args()
        setpriv = shutil.which("setpriv")
        if setpriv:  # should portico be killed outright, nginx must not outlive it
            argv = [setpriv, "--pdeathsig", "TERM", "--"] + argv
        self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                     start_new_session=True)

    def alive(self):
        return self.proc is not None and self.proc.poll() is None

    def workers(self):
        """Process ids of the master's children, its workers."""
        found = set()
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open("/proc/%s/stat" % entry) as f:
                    stat = f.read()
            except OSError:
                continue
            if int(stat.rsplit(")", 1)[1].split()[1]) == self.proc.pid:
                found.add(int(entry))
        return found

    def reload(self):
        """Asks for a reload; returns the workers that still run the old configuration."""
        old = self.workers()
        self.proc.send_signal(signal.SIGHUP)
        return old

    def generation(self, timeout=1.0):
        """The generation the listener answers, or None."""
        url = "http://%s:%d/__portico/generation" % (
            "[%s]" % self.listen if ":" in self.listen else self.listen, self.http_port)
        try:
            r = subprocess.run(["curl", "-s", "--http1.1" if self.http1 else "--http2-prior-knowledge",
                                "--max-time", str(timeout), url],
                               capture_output=True, text=True, timeout=timeout + 2)
        except subprocess.TimeoutExpired:
            return None
        return int(r.stdout) if r.returncode == 0 and r.stdout.isdigit() else None

    def wait_generation(self, generation, timeout, old_workers=()):
        """True once the listener answers with that generation and the old workers are gone.

        Old workers keep accepting for a moment after a reload, so one answer
        from a new worker does not yet mean every new connection gets one.
        """
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if not self.alive():
                return False
            if not (set(old_workers) & self.workers()) and self.generation() == generation:
                return True
            time.sleep(0.05)
        return False

    def stop(self, timeout=5.0):
        if self.proc is None:
            return
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()
