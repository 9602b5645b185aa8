"""A client of a running agent's introspection socket (Kiv::AttrServer).

    agent = mroute.agent.connect("mfib-demo-agent")
    agent.ls("/")                       # [Row(name, kind, type, writable), ...]
    agent.get("/mfibVornDir/vornColl/default")   # {"vrfName": "default", "vornPtr": {...}}
    agent.get("/kernelMfib4/vifIntf")  # {"1": "Ethernet1", ...}
    agent.get("/kernelMfib4/vifIntf/1", raw=True)  # {"_type": "Wirly::IntfId", "intfId": "Ethernet1"}
    agent.get("/mfibDir/pim/dirColl/red/vornUrl")  # "mfib/red/pim"
    agent.set("/bitMapperConfig/bitMapMinIndex", "10")
    agent.invoke("/mfibDirSm/handleMountPoint", "'pim'", "'red'")

The socket is $KIV_INTROSPECT_DIR/<agent>.sock, else /run/kiv/<agent>.sock for
root and $XDG_RUNTIME_DIR/kiv/<agent>.sock for other users. A socket served
by another user than this one or root raises AgentError: it is not asked.
Each call is one request on its own connection: "verb TAB format TAB path TAB
argument NEWLINE"; the agent answers "ok" or "error" on the first line, then
the body, and closes. Answers come as the agent's typed JSON (kivctl --json):
values in their plain forms (strings for names and addresses, numbers,
booleans, None, dicts for compound values such as a route key's {"source",
"group"}), an entity as its name or key, a collection as a dict keyed by
each key's plain text; with raw=True as the value text form's JSON
(kivctl --raw --json: "_type" and the fields, "_entity" and "_name"). limit
bounds each collection (a dict cut short carries "..." with how many were
left out). A refusal raises
AgentError with the agent's message; no agent to talk to raises OSError.
"""

import collections
import json
import os
import socket
import struct

Row = collections.namedtuple("Row", "name kind type writable")


class AgentError(Exception):
    """The agent refused the request; str() is its message."""


def socket_path(agent):
    """Where an agent called `agent` listens."""
    directory = os.environ.get("KIV_INTROSPECT_DIR")
    if not directory:
        if os.geteuid() == 0:
            directory = "/run/kiv"
        elif os.environ.get("XDG_RUNTIME_DIR", "").startswith("/"):
            directory = os.path.join(os.environ["XDG_RUNTIME_DIR"], "kiv")
        else:
            raise AgentError("neither KIV_INTROSPECT_DIR nor XDG_RUNTIME_DIR is set (/run/kiv is root's): "
                             "set one of them")
    return os.path.join(directory, agent + ".sock")


def connect(agent=None, path=None, timeout=5.0):
    """A client of the agent named `agent`, or of the socket at `path`."""
    if (agent is None) == (path is None):
        raise ValueError("give exactly one of agent and path")
    return Agent(path if path is not None else socket_path(agent), timeout)


def _check_server(s, path):
    """Refuses a socket that another user serves: it could answer anything."""
    pid, uid, _ = struct.unpack("3i", s.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i")))
    if uid not in (0, os.geteuid()):
        raise AgentError("introspection socket %s is served by uid %d (pid %d), not by this user or root: "
                         "not talking to it" % (path, uid, pid))


class Agent:
    def __init__(self, path, timeout=5.0):
        self.path = path
        self.timeout = timeout

    def request(self, verb, path, argument="", fmt="text"):
        """The raw body of the answer; AgentError on a refusal."""
        for field in (verb, fmt, path):
            if "\n" in field or "\t" in field:
                raise ValueError("request fields may not hold newlines or tabs: %r" % field)
        if "\n" in argument:
            raise ValueError("the argument may not hold a newline")
        line = "\t".join((verb, fmt, path, argument)) + "\n"
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(self.timeout)
            s.connect(self.path)
            _check_server(s, self.path)
            s.sendall(line.encode())
            chunks = []
            while True:
                data = s.recv(65536)
                if not data:
                    break
                chunks.append(data)
        reply = b"".join(chunks).decode()
        status, sep, body = reply.partition("\n")
        if not sep:
            raise AgentError("the agent closed the connection without an answer")
        if status == "ok":
            return body
        raise AgentError(body.rstrip("\n"))

    def ls(self, path="/", raw=False, limit=0):
        """An entity's attributes, or a Dir's entries, as Rows; a collection's
        entries as a dict of key to typed value."""
        answer = json.loads(self.request("ls", path, fmt=_fmt(raw, limit)))
        if isinstance(answer, dict):
            return answer
        return [Row(r["name"], r["kind"], r["type"], r["writable"]) for r in answer]

    def get(self, path, raw=False, limit=0):
        """One value, typed as the agent's JSON answer types it (see the
        module's text); for an entity or a collection, a dict of name (or key)
        to typed value."""
        answer = json.loads(self.request("get", path, fmt=_fmt(raw, limit)))
        if isinstance(answer, dict) and "attributes" in answer and "type" in answer:
            return answer["attributes"]
        return answer

    def entity_type(self, path):
        """The type name of the entity at path."""
        return json.loads(self.request("get", path, fmt="json"))["type"]

    def set(self, path, value):
        """Writes an attribute or a collection entry (value text form)."""
        self.request("set", path, value)

    def delete(self, path):
        """Removes a collection entry."""
        self.request("del", path)

    def invoke(self, path, *args, raw=False):
        """Runs an operation; each argument is a text form (or a value whose
        repr() is). Returns the result, typed as get() types it, or None."""
        body = self.request("invoke", path, ", ".join(_text(a) for a in args), fmt=_fmt(raw, 0))
        return json.loads(body) if body else None


def _fmt(raw, limit):
    return ("rawjson" if raw else "json") + ",limit=%d" % limit


def _text(value):
    if isinstance(value, bool):
        return "True" if value else "False"
    if value is None:
        return "None"
    if isinstance(value, (str, int, float)):
        return str(value)
    return repr(value)
