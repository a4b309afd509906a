# The routing socket and routing table of macOS's kernel, for mactools: one
# long-running process holding the table in memory, serving in its directory
# (RouteKernel on Linux; /run/routing-socket unless MACSIM_KERNEL_DIR says):
#   write.sock   one routing message a packet, carried out as xnu's
#                route_output() does (../shared/mac-facts/routing-socket.md,
#                sections 2, 4 and 5), answered by the error number, and sent
#                as the kernel's reply to every listener
#   listen.sock  every message, as every routing socket of protocol 0 gets it,
#                with the usual noise of a Mac every MACSIM_ROUTE_NOISE seconds
#   sysctl.sock  "NET_RT_DUMP2": the table as rt_msghdr2 records (section 6);
#                "if_nameindex": the interfaces, "index name" a line
#   control.sock the tools' own: the table as JSON, a new one put in place
#                (its difference announced), listeners dropped
# Each message is logged to calls.log as the route(8) command it stands for
# ("rtsock add -net 0.0.0.0/1 -interface utun2", a dump as "sysctl
# NET_RT_DUMP2"), and the faults file applies to it: fail: answers ENOBUFS
# ("routing table overflow"), kill-before:N and kill-after:N kill the writer.
# Interfaces are the simulated host's (host.json); a route through one that is
# gone, or whose owner is gone, goes with it without a message (section 7).
# With MACSIM_APPLY the table is this network namespace's: read from ip(8),
# each change carried out by one "ip -batch" process, and the namespace's own
# changes (ip monitor) taken in and announced.
import errno, ipaddress, json, os, select, signal, socket, struct, subprocess, time

SERVICE = "/run/routing-socket"
HEADER = struct.Struct("<HBBH2xiiiiiiI56x")  # rt_msghdr, 92 bytes
VERSION, ADD, DELETE, CHANGE, GET, NEWADDR, IFINFO, GET2 = 5, 1, 2, 3, 4, 0xc, 0xe, 0x14
UP, GATEWAY, HOST, DONE, STATIC, PRCLONING, WASCLONED = 0x1, 0x2, 0x4, 0x40, 0x800, 0x10000, 0x20000
DST, GW, MASK, IFP = 0x1, 0x2, 0x4, 0x10
AF_INET, AF_LINK, AF_INET6 = 2, 18, 30
FAULT_ERRNO = errno.ENOBUFS
APPLY = bool(os.environ.get("MACSIM_APPLY"))


def roundup(length):
    return (length + 3) & ~3 if length else 4


def if_index(name):  # the stand-in's indexes: lo0 1, en0 6, the others by name; in apply mode the namespace's
    if APPLY:
        try:
            return socket.if_nametoindex(name)
        except OSError:
            pass
    return {"lo0": 1, "en0": 6}.get(name) or 10 + sum(map(ord, name)) % 40


def network(destination, family):
    if destination == "default":
        return ipaddress.ip_network("::/0" if family == "inet6" else "0.0.0.0/0")
    return ipaddress.ip_network(destination, strict=False)


def is_address(text):
    try:
        ipaddress.ip_address(text.partition("%")[0])
        return True
    except ValueError:
        return False


def key(route):
    return route["family"], str(network(route["destination"], route["family"]))


# --- messages ------------------------------------------------------------
def sockaddr(address):  # a link-local address's scope in its bytes 2-3, as the kernel keeps it
    ip, _, scope = address.partition("%")
    ip = ipaddress.ip_address(ip)
    if ip.version == 6:
        packed = bytearray(ip.packed)
        if scope and ip.is_link_local:
            packed[2:4] = if_index(scope).to_bytes(2, "big")
        return bytes([28, AF_INET6]) + bytes(6) + bytes(packed) + bytes(4)
    return bytes([16, AF_INET]) + bytes(2) + ip.packed + bytes(8)


def sockaddr_dl(name):  # an interface's own: 8 bytes, its name, at least 20 in all
    data = name.encode()
    length = max(20, roundup(8 + len(data)))
    return (bytes([length, AF_LINK]) + struct.pack("<HBBBB", if_index(name), 1, len(data), 0, 0) + data).ljust(length, b"\0")


def mask(net):  # as the kernel writes one: trailing zero bytes trimmed, the default's empty
    if net.prefixlen == 0:
        return b""
    start = 8 if net.version == 6 else 4
    packed = net.netmask.packed.rstrip(b"\0")
    return bytes([start + len(packed), 0xff]) + b"\xff" * (start - 2) + packed


def message(kind, flags, addrs, index=0, pid=0, seq=0, error=0):
    bits, body = 0, b""
    for bit, data in sorted(addrs.items()):
        bits |= bit
        body += data + bytes(roundup(len(data)) - len(data))
    return HEADER.pack(HEADER.size + len(body), VERSION, kind, index, flags, bits, pid, seq, error, 0, 0) + body


def route_message(kind, route, pid=0, seq=0, error=0, flags=0):
    net = network(route["destination"], route["family"])
    host = route["type"] == "-host"
    addrs = {DST: sockaddr(str(net.network_address))}
    addrs[GW] = sockaddr(route["gateway"]) if is_address(route["gateway"]) else sockaddr_dl(route["interface"])
    if not host:
        addrs[MASK] = mask(net)
    return message(kind, flags or route.get("flags", UP | STATIC | (HOST if host else 0)), addrs,
                   if_index(route["interface"]), pid, seq, error)


def parse(data):
    """A written message as route_output() takes it, or an errno."""
    if len(data) < HEADER.size:
        return errno.EINVAL
    length, version, kind, index, flags, bits, _, seq, _, _, _ = HEADER.unpack_from(data)
    if length != len(data):
        return errno.EINVAL
    if version != VERSION:
        return errno.EPROTONOSUPPORT
    if kind not in (ADD, DELETE, CHANGE, GET, 8):
        return errno.EOPNOTSUPP
    addrs, offset = {}, HEADER.size
    for bit in (1 << b for b in range(8)):
        if not bits & bit or offset >= length:
            continue
        size = data[offset]
        if size == 1 or size > 128:
            return errno.EINVAL
        if size == 0:  # read as an all-zero AF_INET sockaddr, and the parsing stops
            addrs[bit] = (AF_INET, bytes(16))
            break
        addrs[bit] = (data[offset + 1], data[offset:offset + size].ljust(16, b"\0"))
        offset += roundup(size)
    if DST not in addrs or (kind == ADD and GW not in addrs):
        return errno.EINVAL
    for bit in (DST, GW):
        family, raw = addrs.get(bit, (0, b""))
        if family >= 41 or (family == AF_INET and raw[0] < 8) or (family == AF_INET6 and raw[0] < 28):
            return errno.EINVAL
    family, raw = addrs[DST]
    if family not in (AF_INET, AF_INET6):
        return errno.ESRCH
    v6 = family == AF_INET6
    destination = ipaddress.ip_address(raw[8:24] if v6 else raw[4:8])
    prefix = 128 if v6 else 32
    if MASK in addrs and not flags & HOST:
        raw_mask = addrs[MASK][1][8 if v6 else 4:24 if v6 else 8].ljust(16 if v6 else 4, b"\0")
        prefix = bin(int.from_bytes(raw_mask, "big")).count("1")
    gateway, gateway_link = None, None
    if GW in addrs:
        gfamily, graw = addrs[GW]
        if gfamily == AF_LINK:
            gateway_link = struct.unpack_from("<H", graw, 2)[0]
        elif gfamily == AF_INET6:
            packed = bytearray(graw[8:24])
            scope = int.from_bytes(packed[2:4], "big") if packed[0] == 0xfe and packed[1] & 0xc0 == 0x80 else 0
            packed[2:4] = b"\0\0" if scope else packed[2:4]
            gateway = str(ipaddress.ip_address(bytes(packed))) + (f"%#{scope}" if scope else "")
        elif gfamily == AF_INET:
            gateway = str(ipaddress.ip_address(graw[4:8]))
    return dict(kind=kind, flags=flags, seq=seq, family="inet6" if v6 else "inet", host=bool(flags & HOST),
                destination=destination, prefix=prefix, gateway=gateway, link=gateway_link, index=index,
                masked=MASK in addrs)


def command(m):  # the route(8) command a message stands for, in calls.log
    words = ["rtsock", {ADD: "add", DELETE: "delete", GET: "get", CHANGE: "change"}.get(m["kind"], "lock")]
    words += ["-inet6"] if m["family"] == "inet6" else []
    if m["kind"] == GET and not m["masked"] and int(m["destination"]) == 0:
        return words + ["default"]
    words += ["-host", str(m["destination"])] if m["host"] else ["-net", f"{m['destination']}/{m['prefix']}"]
    if m["link"] is not None:
        words += ["-interface", m["link_name"]]
    elif m["gateway"]:
        words.append(m["gateway"])
    return words


# --- the kernel -------------------------------------------------------------
class Table(dict):
    """The routes by (family, network), with the connected ones and those by
    each gateway at hand: a gateway's way is looked up for every route added,
    and the table may hold 100,000 of them."""
    def __init__(self, routes=()):
        super().__init__()
        self.connected, self.by_gateway = {}, {}
        for route in routes:
            self[key(route)] = route

    def __setitem__(self, k, route):
        if k in self:
            del self[k]
        super().__setitem__(k, route)
        if route["gateway"].startswith("link#"):
            self.connected[k] = route
        self.by_gateway.setdefault((k[0], route["gateway"].partition("%")[0]), {})[k] = route

    def __delitem__(self, k):
        route = self[k]
        super().__delitem__(k)
        self.connected.pop(k, None)
        self.by_gateway.get((k[0], route["gateway"].partition("%")[0]), {}).pop(k, None)


class Kernel:
    def __init__(self, state, service, table, apply):
        self.state, self.service, self.apply = state, service, apply
        self.table = Table(table)
        self.writers, self.listeners, self.interfaces, self.stamp, self.known = {}, [], {}, None, set()
        self.faults, self.faults_stamp = [], None
        self.batch = subprocess.Popen(["ip", "-force", "-batch", "-"], stdin=subprocess.PIPE, text=True) if apply else None
        self.watch = subprocess.Popen(["ip", "-o", "monitor", "route"], stdout=subprocess.PIPE) if apply else None
        self.partial, self.devices, self.pruned = b"", {}, False
        self.servers = {name: self.serve(name, socket.SOCK_STREAM if name == "control" else socket.SOCK_SEQPACKET)
                        for name in ("write", "listen", "sysctl", "control")}

    def serve(self, name, kind):
        path = os.path.join(self.service, name + ".sock")
        if os.path.exists(path):
            os.remove(path)
        server = socket.socket(socket.AF_UNIX, kind)
        server.bind(path)
        os.chmod(path, 0o666)
        server.listen(64)
        return server

    # The simulated host's interfaces; a route through one that went, or whose
    # owner is gone, goes with it.
    def host_interfaces(self):
        if self.apply:
            live = {name: {"up": True, "inet": "x", "inet6": ["x"]} for _, name in socket.if_nameindex()}
        else:
            path = os.path.join(self.state, "host.json")
            stamp = os.stat(path).st_mtime_ns
            if stamp != self.stamp:
                self.stamp, self.interfaces = stamp, json.load(open(path)).get("interfaces", {})
            # The tools take a dead owner's interface out of host.json; gone it is already.
            live = {n: i for n, i in self.interfaces.items() if not i.get("owner") or alive(i["owner"])}
        went = self.known - set(live)
        if went:
            self.broadcast(*(message(IFINFO, 0, {}, if_index(n)) for n in went))
        if set(live) != self.known or not self.pruned:  # a walk of the table only when it can matter
            for k in [k for k, r in self.table.items() if r["interface"] not in live]:
                del self.table[k]
            self.pruned = True
        self.known = set(live)
        return live

    def broadcast(self, *messages):
        for listener in list(self.listeners):
            for data in messages:
                try:
                    listener.send(data, socket.MSG_DONTWAIT)
                except BlockingIOError:
                    pass  # a full buffer: the message is freed, and the reader told nothing
                except OSError:
                    self.listeners.remove(listener)
                    break

    def log(self, words, pid):
        """calls.log and the faults: the answer a fault imposes, or None."""
        path = os.path.join(self.state, "faults")
        stamp = os.stat(path).st_mtime_ns if os.path.exists(path) else None
        if stamp != self.faults_stamp:
            self.faults_stamp = stamp
            self.faults = [r for r in open(path).read().split("\n") if r] if stamp else []
        self.faults += [r for r in os.environ.get("MACSIM_FAULTS", "").split(";") if r and r not in self.faults]
        line = " ".join(words)
        with open(os.path.join(self.state, "calls.log"), "a") as calls:  # one write, appended whole
            calls.write(json.dumps(words) + "\n")
        kills = [r for r in self.faults if r.startswith("kill-")]
        number = sum(1 for _ in open(os.path.join(self.state, "calls.log"))) if kills else 0
        for when in ("before", "after"):
            if f"kill-{when}:{number}" in kills:
                return "kill-" + when
        if any(r.startswith("fail:") and line.startswith(r.partition(":")[2].strip()) for r in self.faults):
            return "fail"
        return None

    def route_output(self, data, pid):
        m = parse(data)
        if isinstance(m, int):
            return m, data
        interfaces = self.host_interfaces()
        names = {if_index(n): n for n in interfaces} | {1: "lo0"}
        m["link_name"] = names.get(m["link"], f"link#{m['link']}") if m["link"] is not None else None
        if m["gateway"] and "%#" in m["gateway"]:  # the scope's index, by its name
            address, _, index = m["gateway"].partition("%#")
            m["gateway"] = f"{address}%{names.get(int(index), index)}"
        fault = self.log(command(m), pid)
        if fault == "kill-before":
            os.kill(pid, signal.SIGKILL)
        if fault == "fail":
            return FAULT_ERRNO, data
        error, reply = self.carry_out(m, pid, interfaces)
        if fault == "kill-after":
            os.kill(pid, signal.SIGKILL)
        return error, reply

    def carry_out(self, m, pid, interfaces):
        net = ipaddress.ip_network(f"{m['destination']}/{m['prefix']}", strict=False)
        found = self.table.get((m["family"], str(net)))
        if m["host"] and not found:  # a host delete takes the network of that address
            found = next((r for k, r in self.table.items() if k[0] == m["family"] and
                          network(r["destination"], r["family"]).network_address == m["destination"]), None)
        if m["kind"] == GET:
            if not m["masked"] and not found:
                candidates = [r for k, r in self.table.items() if k[0] == m["family"] and
                              m["destination"] in network(r["destination"], r["family"])]
                found = max(candidates, key=lambda r: network(r["destination"], r["family"]).prefixlen, default=None)
            if not found:
                return errno.ESRCH, None
            return 0, route_message(GET, found, pid, m["seq"], flags=UP | DONE | found.get("flags", 0))
        if m["kind"] == DELETE:
            if not found:
                return errno.ESRCH, None
            del self.table[key(found)]
            self.mirror("del", found)
            return 0, route_message(DELETE, found, pid, m["seq"], flags=found.get("flags", UP) | DONE)
        if m["kind"] != ADD:
            return errno.EOPNOTSUPP, None
        if (m["family"], str(net)) in self.table:
            return errno.EEXIST, None
        if m["link"] is not None:
            name = m["link_name"]
            address = interfaces.get(name, {}).get("inet6" if m["family"] == "inet6" else "inet")
            if not address:  # no interface by that index, or none of the family's addresses on it
                return errno.ENETUNREACH, None
            gateway, interface = name, name
        else:  # the interface of the gateway's own network, else the way to it (section 4)
            way = self.neighbour(m["family"], m["gateway"]) or self.lookup(
                m["family"], ipaddress.ip_address(m["gateway"].partition("%")[0]))
            if not way:
                return errno.ENETUNREACH, None
            gateway, interface = m["gateway"], way["interface"]
        flags = m["flags"] | UP | (0 if m["host"] else PRCLONING)
        route = dict(family=m["family"], type="-host" if m["host"] else "-net", gateway=gateway, interface=interface,
                     destination=str(net.network_address) if m["host"] else str(net), flags=flags)
        self.table[key(route)] = route
        self.mirror("add", route)
        return 0, None

    def neighbour(self, family, gateway):  # a connected network holding it, or a route by it, the default first
        address = ipaddress.ip_address(gateway.partition("%")[0])
        connected = next((r for k, r in self.table.connected.items() if k[0] == family
                          and address in network(r["destination"], family)), None)
        default = self.table.get((family, "::/0" if family == "inet6" else "0.0.0.0/0"))
        if connected or (default and default["gateway"].partition("%")[0] == str(address)):
            return connected or default
        return next(iter(self.table.by_gateway.get((family, str(address)), {}).values()), None)

    def lookup(self, family, address):
        routes = [r for k, r in self.table.items() if k[0] == family and address in network(r["destination"], r["family"])]
        return max(routes, key=lambda r: network(r["destination"], r["family"]).prefixlen, default=None)

    def mirror(self, verb, route):  # apply mode: this namespace's table follows, one batch line a change
        if not self.batch:
            return
        destination = str(network(route["destination"], route["family"]))
        line = f"route {verb} {destination}"  # ip takes the family from the address
        if verb == "add":
            line += f" dev {route['gateway']}" if not is_address(route["gateway"]) else f" via {route['gateway']}"
        device = route["interface"]
        if self.devices.setdefault(device, if_index(device)) != if_index(device):  # ip caches a name's index
            self.devices[device] = if_index(device)
            self.batch.stdin.close()
            self.batch.wait()
            self.batch = subprocess.Popen(["ip", "-force", "-batch", "-"], stdin=subprocess.PIPE, text=True)
        self.batch.stdin.write(line + "\n")
        self.batch.stdin.flush()

    def dump(self):
        self.host_interfaces()
        records = b""
        for route in self.table.values():
            data = bytearray(route_message(GET2, route, flags=route.get("flags", UP | STATIC)))
            struct.pack_into("<iii", data, 16, 0, 0, 0)  # rt_msghdr2: refcnt, parentflags, reserved
            records += bytes(data)
        return records

    def control(self, request):
        if request["op"] == "routes":
            self.host_interfaces()
            return {"routes": [{k: v for k, v in r.items() if k != "flags"} for r in self.table.values()]}
        if request["op"] == "write":  # a new table, as a change of network makes it; announced
            new = {key(r): r for r in request["routes"]}
            gone = [r for k, r in self.table.items() if k not in new or new[k] != {x: y for x, y in r.items() if x != "flags"}]
            came = [r for k, r in new.items() if k not in self.table or r != {x: y for x, y in self.table[k].items() if x != "flags"}]
            self.table, self.pruned = Table(new.values()), False
            self.broadcast(*(route_message(DELETE, r, flags=UP | DONE | STATIC) for r in gone),
                           *(route_message(ADD, r, flags=UP | DONE | STATIC) for r in came))
            for interface in {r["interface"] for r in gone + came}:
                self.broadcast(message(IFINFO, UP | 0x40, {}, if_index(interface)))
        if request["op"] == "get":  # route(8)'s look-up: its reply goes to every routing socket
            family = "inet6" if ":" in request["destination"] else "inet"
            target = ipaddress.ip_address("0.0.0.0" if request["destination"] == "default" else request["destination"])
            found = self.lookup(family, target)
            self.broadcast(route_message(GET, found, 1, flags=UP | DONE) if found else
                           message(GET, UP, {DST: sockaddr(str(target))}, pid=1, error=errno.ESRCH))
            return {"route": {k: v for k, v in found.items() if k != "flags"} if found else None}
        if request["op"] == "drop":  # listeners lose their socket
            for listener in self.listeners:
                listener.close()
            self.listeners = []
        return {}

    def run(self):
        every = float(os.environ.get("MACSIM_ROUTE_NOISE", "1"))
        next_noise = time.monotonic() + every
        while True:
            sources = list(self.servers.values()) + list(self.writers) + self.listeners
            if self.watch:
                sources.append(self.watch.stdout)
            ready, _, _ = select.select(sources, [], [], 0.05)
            for source in ready:
                try:
                    self.handle(source)
                except OSError:  # a peer gone in the middle (a killed service): its socket goes too
                    if source in self.listeners or source in self.writers:
                        self.writers.pop(source, None)
                        self.listeners = [s for s in self.listeners if s is not source]
                        source.close()
            if every > 0 and time.monotonic() >= next_noise:
                if self.listeners:
                    self.broadcast(*noise())
                next_noise = time.monotonic() + every

    def handle(self, source):
        if source is self.servers["write"]:
            connection, _ = source.accept()
            pid = struct.unpack("3i", connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[0]
            self.writers[connection] = pid
        elif source is self.servers["listen"]:
            self.listeners.append(source.accept()[0])
        elif source is self.servers["sysctl"] or source is self.servers["control"]:
            connection, _ = source.accept()
            with connection:
                question = connection.recv(65536)
                while source is self.servers["control"] and (more := connection.recv(1 << 20)):
                    question += more
                if source is self.servers["control"]:
                    connection.sendall(json.dumps(self.control(json.loads(question))).encode())
                elif question == b"NET_RT_DUMP2":
                    self.log(["sysctl", "NET_RT_DUMP2"], 0)
                    records = self.dump()
                    for offset in range(0, len(records), 60000):
                        connection.send(records[offset:offset + 60000])
                else:  # the host's interfaces, and those its routes name
                    names = set(self.host_interfaces()) | {r["interface"] for r in self.table.values()}
                    connection.send("".join(f"{if_index(n)} {n}\n" for n in sorted(names)).encode())
        elif source in self.writers:
            data = source.recv(65536)
            if not data:
                del self.writers[source]
                source.close()
                return
            pid = self.writers[source]
            error, reply = self.route_output(data, pid)
            if reply is None or error:  # the request as written, with its flags and error
                reply = bytearray(data)
                if len(reply) >= HEADER.size:
                    struct.pack_into("<ii", reply, 16, pid, struct.unpack_from("<i", reply, 20)[0])
                    struct.pack_into("<i", reply, 24, error)
                    if not error:
                        struct.pack_into("<i", reply, 8, struct.unpack_from("<i", reply, 8)[0] | DONE)
            source.send(struct.pack("<i", error))
            self.broadcast(bytes(reply))
        elif source in self.listeners:
            if not source.recv(65536):
                self.listeners.remove(source)
                source.close()
        else:
            self.take_in(os.read(source.fileno(), 65536))

    def take_in(self, data):  # apply mode: what the namespace's own changes did
        self.partial += data
        lines, _, self.partial = self.partial.rpartition(b"\n")
        for line in lines.decode().splitlines():
            deleted = line.startswith("Deleted ")
            route = namespace_route(line.removeprefix("Deleted "), "inet6" if ":" in line.split()[1 if deleted else 0] else "inet")
            if not route:
                continue
            old = self.table.get(key(route))
            same = old is not None and (old["gateway"], old["interface"]) == (route["gateway"], route["interface"])
            if deleted and old:
                del self.table[key(route)]
            elif not deleted and not same:  # new, or replaced (ip monitor shows no delete): announced as both
                if old:
                    self.broadcast(route_message(DELETE, old, flags=UP | DONE | STATIC))
                self.table[key(route)] = route
            else:
                continue  # our own change, coming back
            self.broadcast(route_message(DELETE if deleted else ADD, route, flags=UP | DONE | STATIC))


def namespace_route(line, family):
    words = line.split()
    if "dev" not in words or words[0] in ("local", "broadcast", "multicast", "unreachable"):
        return None
    destination = words[0]
    host = destination != "default" and "/" not in destination
    device = words[words.index("dev") + 1]
    gateway = (words[words.index("via") + 1] if "via" in words else
               f"link#{socket.if_nametoindex(device)}" if "kernel" in words else device)
    return dict(family=family, destination=destination, type="-host" if host else "-net", gateway=gateway,
                interface=words[words.index("dev") + 1])


def namespace_table():
    routes = []
    for family, flag in (("inet", "-4"), ("inet6", "-6")):
        listing = subprocess.run(["ip", flag, "route", "show"], capture_output=True, text=True).stdout
        routes += [r for r in (namespace_route(line, family) for line in listing.splitlines()) if r]
    return routes


def alive(pid):  # a zombie has closed its utun already, reaped or not
    try:
        return open(f"/proc/{pid}/stat").read().rpartition(")")[2].split()[0] != "Z"
    except OSError:
        return False


def noise():  # what a Mac's routing socket carries many times a minute, none of it about the way out
    lan = {DST: sockaddr("192.168.1.77"), GW: sockaddr_dl("en0")}
    return [message(NEWADDR, 0, {}, 6), message(IFINFO, UP | 0x40, {}, 6), message(IFINFO, UP | 0x40, {}, if_index("awdl0")),
            message(ADD, UP | HOST | DONE | 0x400 | WASCLONED, lan, 6),
            message(7, 0, {DST: sockaddr("17.253.144.10")}),
            message(GET, UP | GATEWAY | DONE, {DST: sockaddr("17.57.146.20"), GW: sockaddr("192.168.1.1")}, 6, pid=1, seq=7),
            message(DELETE, HOST | DONE | 0x400 | WASCLONED, lan, 6)]


def main(state, table):
    service = os.environ.get("MACSIM_KERNEL_DIR", SERVICE)
    os.makedirs(service, exist_ok=True)
    Kernel(state, service, namespace_table() if APPLY else table, APPLY).run()


def ask(request):
    """The running kernel's answer to one of the tools' requests."""
    service = os.environ.get("MACSIM_KERNEL_DIR", SERVICE)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.connect(os.path.join(service, "control.sock"))
        connection.sendall(json.dumps(request).encode())
        connection.shutdown(socket.SHUT_WR)
        answer = b""
        while chunk := connection.recv(1 << 20):
            answer += chunk
    return json.loads(answer)
