# route(8) and "netstat -rn" of macOS 12 to 15 (network_cmds route.tproj and
# netstat.tproj), for mactools: clients of the stand-in kernel (rtkernel.py),
# as the real ones are of the real one. route writes one message on the
# routing socket and prints the answer; a refusal is printed, and route still
# exits 0; argument errors exit 64 (EX_USAGE) or 68 (EX_NOHOST). Not served:
# "route -n monitor", which nothing here runs (the service listens on a
# routing socket of its own).
import errno, ipaddress, os, socket, struct

import rtkernel as k


class Failure(Exception):
    def __init__(self, err, code=1, out=""):
        super().__init__(err)
        self.err, self.code, self.out = err, code, out


def address(text):
    try:
        return ipaddress.ip_address(text)
    except ValueError:
        return None


def parse(words):
    words = [w for w in words if w not in ("-n", "-q")]
    usage = Failure("usage: route [-dnqtv] command [[modifiers] args]\n", 64)
    if not words or words[0] not in ("add", "delete", "get"):
        raise usage
    command, family, kind, interface, positional = words.pop(0), "inet", "", "", []
    while words:
        word = words.pop(0)
        if word in ("-inet", "-inet6"):
            family = word[1:]
        elif word in ("-net", "-host"):
            kind = word
        elif word == "-interface" and words:
            interface = words.pop(0)
        elif word.startswith("-"):
            raise Failure(f"route: {word}: unknown modifier\n", 64)
        else:
            positional.append(word)
    if not positional:
        raise usage
    destination = positional.pop(0)
    if destination == "default" and command != "get":
        raise usage
    kind = kind or ("-net" if "/" in destination or destination == "default" else "-host")
    parsed = address(destination.partition("/")[0]) if destination != "default" else True
    if not parsed or (parsed is not True and (parsed.version == 6) != (family == "inet6")):
        raise Failure(f"route: bad address: {destination}\n", 68)
    gateway = ""
    if command == "add" and not interface:
        gateway = positional.pop(0) if positional else ""
        if not gateway:
            raise usage
        if not address(gateway):
            raise Failure(f"route: bad address: {gateway}\n", 68)
    return dict(command=command, family=family, type=kind, destination=destination, gateway=gateway,
                interface=interface)


REASONS = {errno.ESRCH: "not in table", errno.EBUSY: "entry in use", errno.ENOBUFS: "routing table overflow",
           errno.EEXIST: "File exists", errno.ENETUNREACH: "Network is unreachable"}


def said(c, reason=""):  # newroute(): "add net 10.0.0.0/8: gateway utun3", and the reason of a refusal
    gateway = c["interface"] or c["gateway"]
    line = f"{c['command']} {c['type'][1:]} {c['destination']}" + (f": gateway {gateway}" if gateway else "")
    return line + (f": {reason}" if reason else "") + "\n"


def write(c):
    """The message route(8) writes for an add or a delete; the kernel's error number."""
    net = ipaddress.ip_network(c["destination"], strict=False)
    route = dict(family=c["family"], type=c["type"], destination=str(net),
                 gateway=c["gateway"] or c["interface"], interface=c["interface"] or "en0")
    flags = k.UP | k.STATIC | (k.GATEWAY if c["gateway"] else 0) | (k.HOST if c["type"] == "-host" else 0)
    data = k.route_message(k.ADD if c["command"] == "add" else k.DELETE, route, os.getpid(), 1, flags=flags)
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as connection:
        connection.connect(os.path.join(os.environ.get("MACSIM_KERNEL_DIR", k.SERVICE), "write.sock"))
        connection.send(data)
        return struct.unpack("<i", connection.recv(4))[0]


def get(c):  # print_getmsg()
    found = k.ask({"op": "get", "destination": c["destination"]}).get("route")
    if not found:
        raise Failure("route: writing to routing socket: not in table\n", 0)
    net = k.network(found["destination"], found["family"])
    host = found["type"] == "-host"
    zero = "::" if net.version == 6 else "default"
    text = f"   route to: {c['destination']}\ndestination: {zero if net.prefixlen == 0 else net.network_address}\n"
    if not host:
        text += f"       mask: {zero if net.prefixlen == 0 else net.netmask}\n"
    if k.is_address(found["gateway"]):
        text += f"    gateway: {found['gateway']}\n"
    flags = ("GATEWAY," if k.is_address(found["gateway"]) else "") + ("HOST," if host else "")
    return (text + f"  interface: {found['interface']}\n      flags: <UP,{flags}DONE,STATIC,PRCLONING>\n"
            " recvpipe  sendpipe  ssthresh  rtt,msec    rttvar  hopcount      mtu     expire\n"
            "       0         0         0         0         0         0      1500         0\n")


def route(words):
    c = parse(words)
    if c["command"] == "get":
        return get(c)
    error = write(c)
    if error:
        reason = REASONS.get(error, os.strerror(error))
        raise Failure(f"route: writing to routing socket: {reason}\n", 0, said(c, reason))
    return said(c)



# --- netstat -rn -f inet|inet6: networks by their classful abbreviation
# ("0/1", "128.0/1", "10", "192.168.1") ------------------------------------
def destination(r):
    if r["destination"] == "default":
        return "default"
    net = ipaddress.ip_network(r["destination"], strict=False)
    if r["type"] == "-host":
        return str(net.network_address)
    if net.version == 6:
        return str(net)
    value, prefix = int(net.network_address), net.prefixlen
    natural = 8 if value < 0x80000000 else 16 if value < 0xC0000000 else 24  # forgemask()
    count = next((count for count, width in ((1, 8), (2, 16), (3, 24))
                  if width >= natural and value & ((1 << (32 - width)) - 1) == 0), 4)
    text = ".".join(str(value >> shift & 255) for shift in (24, 16, 8, 0)[:count])
    return text if prefix == natural else f"{text}/{prefix}"  # domask()


def netstat(words):
    if words not in (["-rn", "-f", "inet"], ["-rn", "-f", "inet6"]):
        raise Failure("usage: netstat [-AaLlnW] [-f address_family | -p protocol]\n", 64)
    family = words[2]
    width = 39 if family == "inet6" else 18
    out = f"Routing tables\n\n{'Internet6' if family == 'inet6' else 'Internet'}:\n"
    out += f"{'Destination':<{width}} {'Gateway':<{width}} {'Flags':<19} {'Netif':>5} Expire\n"
    for r in k.ask({"op": "routes"})["routes"]:
        if r["family"] == family:
            flags = "U" + ("G" if k.is_address(r["gateway"]) else "") + ("H" if r["type"] == "-host" else "") + "S"
            out += f"{destination(r):<{width}} {r['gateway']:<{width}} {flags:<19} {r['interface']:>5}\n"
    return out


def main(tool, args):
    """route or netstat: standard output, standard error, exit code."""
    try:
        if tool == "netstat":
            return netstat(args), "", 0
        return route(args), "", 0
    except Failure as failure:
        return failure.out, failure.err, failure.code
    except OSError as error:  # no kernel to ask
        return "", f"{tool}: socket: {error.strerror}\n", 1
