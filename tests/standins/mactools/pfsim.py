# pfctl(8) and pf as macOS 26.5 has them, for mactools. Every message, stream
# and exit status is the one recorded in ../shared/mac-facts/pfctl.md (xnu's
# pf_ioctl.c and output captured on real Macs); where that record is silent,
# FreeBSD's pfctl.c, the closest published relative of Apple's, or the less
# convenient answer. Rules are parsed in the pf.conf grammar (a rule without
# "in" or "out" is both) and, in apply mode, carried out with nftables;
# "pfctl -k" is FreeBSD's pfctl_net_kill_states().
import ipaddress, json, os, re, socket, subprocess, time

FLUSH_WARNING = ("pfctl: Use of -f option, could result in flushing of rules\n"
                 "present in the main ruleset added by the system at startup.\n"
                 "See /etc/pf.conf for further details.\n\n")
# Not recorded past its first words ("and the usage text"): as pfctl.c's usage() prints it.
USAGE = ("usage: pfctl [-AdEeghMmNnOPqRrvz] [-a anchor] [-D macro=value] [-F modifier]\n"
         "\t[-f file] [-i interface] [-K host | network] [-k host | network ]\n"
         "\t[-o level] [-p device] [-s modifier ] [-t table -T command [address ...]]\n"
         "\t[-X token] [-x level]\n")
SHOW = ["queue", "rules", "Anchors", "Sources", "nat", "states", "info", "Interfaces", "labels",
        "timeouts", "memory", "Tables", "osfp", "References", "all"]  # pfctl_lookup_option(): first prefix match
FLUSH = ["nat", "queue", "rules", "Sources", "states", "info", "Tables", "osfp", "all"]
STOCK = ['scrub-anchor "com.apple/*" all fragment reassemble', 'anchor "com.apple/*" all']


class Failure(Exception):
    def __init__(self, err, code=1, out=""):
        super().__init__(err)
        self.err, self.code, self.out = err, code, out


def default_pf():  # disabled, as launchd's com.apple.pfctl leaves it after loading /etc/pf.conf
    return {"enabled": False, "references": [], "untokened": 0, "main": list(STOCK),
            "anchors": {"com.apple/250.ApplicationFirewall": []}}


# --- rules -----------------------------------------------------------------
# Where ../shared/tools/pfctl-check is built (scripts/setup), an anchor is
# loaded through it: FreeBSD's pfctl, the closest public relative of Apple's,
# with its grammar, optimiser and printer. Without it, the grammar below
# prints what pfctl prints for the rules the tests load (checked against it by
# tst_backend's pfctl-check table).
CHECK = os.path.join(os.path.dirname(os.path.abspath(__file__)), "pfctl-check")
ICMP6_TYPES = {"128": "echoreq", "129": "echorep", "133": "routersol", "134": "routeradv",
               "135": "neighbrsol", "136": "neighbradv"}


def tokens(text):
    return re.findall(r"[{}(),<>]|[^\s{}(),<>]+", text)


def items(words):  # one value or a { list }
    if words[0] != "{":
        return [words.pop(0)]
    words.pop(0)
    found = []
    while words and words[0] != "}":
        word = words.pop(0)
        if word != ",":
            found.append(word)
    if not words:
        raise ValueError("syntax error")
    words.pop(0)
    return found


def port_number(word, proto):
    if word.isdigit() and 0 < int(word) < 65536:
        return word
    try:
        return str(socket.getservbyname(word, proto or "tcp"))
    except OSError:
        raise ValueError("syntax error")


def host_list(words):
    if words[:1] == ["<"]:  # a table: <name>
        name = words[1]
        del words[:3]
        hosts = ["<" + name + ">"]
    else:
        hosts = items(words)
    for host in hosts:
        if host != "any" and not host.startswith("<"):
            ipaddress.ip_network(host, strict=False)
    ports = []
    if words[:1] == ["port"]:
        words.pop(0)
        if words[:1] == ["="]:
            words.pop(0)
        ports = items(words)
    return hosts, ports


def parse_rule(text):
    """A filter rule as one dict per expansion of its { lists }, or ValueError."""
    words = tokens(text)
    rule = {"action": words.pop(0) if words[:1] in (["pass"], ["block"]) else None}
    if not rule["action"]:
        raise ValueError("syntax error")
    rule["how"] = words.pop(0) if rule["action"] == "block" and words[:1] in (["drop"], ["return"]) else "drop"
    rule["dir"] = words.pop(0) if words[:1] in (["in"], ["out"]) else ""
    rule["quick"] = words[:1] == ["quick"] and bool(words.pop(0))
    lists = {"on": [""], "af": [""], "proto": [""], "from": ["any"], "fport": [""], "to": ["any"],
             "tport": [""], "type": [""]}
    rule.update(user="", flags="", state="keep" if rule["action"] == "pass" else "", ifbound=False)
    while words:
        word = words.pop(0)
        if word == "on":
            lists["on"] = items(words)
        elif word in ("inet", "inet6"):
            lists["af"] = [word]
        elif word == "proto":
            lists["proto"] = ["ipv6-icmp" if p in ("icmp6", "58") else p for p in items(words)]
        elif word == "all":
            pass
        elif word in ("from", "to"):
            hosts, ports = host_list(words)
            lists[word], lists[word[0] + "port"] = hosts, ports or [""]
        elif word == "user":
            if words[:1] == ["="]:
                words.pop(0)
            rule["user"] = "0" if words[0] == "root" else words[0]
            words.pop(0)
        elif word == "flags":
            rule["flags"] = words.pop(0)
        elif word in ("icmp-type", "icmp6-type"):
            lists["type"] = [ICMP6_TYPES.get(t, t) for t in items(words)]
        elif word == "keep" and words[:1] == ["state"]:
            words.pop(0)
            if words[:3] == ["(", "if-bound", ")"]:
                del words[:3]
                rule["ifbound"] = True
        elif word == "no" and words[:1] == ["state"]:
            words.pop(0)
            rule["state"] = ""
        else:
            raise ValueError("syntax error")
    expanded = [rule]
    for key, values in lists.items():
        expanded = [dict(r, **{key: value}) for r in expanded for value in values]
    for r in expanded:
        for port in ("fport", "tport"):
            r[port] = port_number(r[port], r["proto"]) if r[port] else ""
        families = {("inet6" if ":" in h else "inet") for h in (r["from"], r["to"]) if h not in ("any",) and not h.startswith("<")}
        if len(families) > 1 or (r["af"] and families and families != {r["af"]}):
            raise ValueError("syntax error")
        r["af"] = r["af"] or next(iter(families), "")
    return expanded


def host_text(host):  # print_addr(): a network by its first address, a host without its length
    if host == "any" or host.startswith("<"):
        return host
    net = ipaddress.ip_network(host, strict=False)
    return str(net.network_address) if net.prefixlen == net.max_prefixlen else str(net)


def port_text(port, proto):  # print_port(): by the service's name where it has one
    try:
        return socket.getservbyport(int(port), proto)
    except OSError:
        return port


def normalised(r):  # print_rule(): lists expanded, defaults spelt out
    words = [r["action"]] + ([r["how"]] if r["action"] == "block" else []) + ([r["dir"]] if r["dir"] else [])
    words += (["quick"] if r["quick"] else []) + ([f"on {r['on']}"] if r["on"] else [])
    words += ([r["af"]] if r["af"] else []) + ([f"proto {r['proto']}"] if r["proto"] else [])
    if r["from"] == r["to"] == "any" and not r["fport"] and not r["tport"]:
        words.append("all")
    else:
        for side, port in (("from", "fport"), ("to", "tport")):
            words += [side, host_text(r[side])] + ([f"port = {port_text(r[port], r['proto'])}"] if r[port] else [])
    words += [f"user = {r['user']}"] if r["user"] else []
    words += [f"icmp6-type {r['type']}" if r["af"] == "inet6" else f"icmp-type {r['type']}"] if r["type"] else []
    if r["state"]:
        if r["proto"] in ("", "tcp"):
            words.append(f"flags {r['flags'] or 'S/SA'}")
        words.append("keep state" + (" (if-bound)" if r["ifbound"] else ""))
    elif r["action"] == "pass":
        words.append("no state")
    return " ".join(words)


def syntax_error(number):
    return Failure(FLUSH_WARNING + f"stdin:{number}: syntax error\n"
                   "pfctl: Syntax error in config file: pf rules not loaded\n")


# pfctl-check spends some 10 ms on each table entry here (it opens and
# closes an AF_PACKET socket to ask whether the name is an interface group,
# and Linux waits out a grace period on each close), which the real pfctl
# does not: a long table goes through it as its first entries, and the rest
# are read as print_addr() prints them, a bad one a syntax error.
CHECKED_ENTRIES = 16


def load_rules(text, anchor="", optimise=True):
    """The rules and tables as "pfctl -s rules" will print them, or Failure."""
    if anchor and os.access(CHECK, os.X_OK):
        long_tables = {}

        def sample(m):
            entries = m[3].replace(",", " ").split()
            if len(entries) <= CHECKED_ENTRIES:
                return m[0]
            long_tables[m[2]] = entries
            return f"{m[1]}{{ {' '.join(entries[:CHECKED_ENTRIES])} }}"
        checked = re.sub(r"^(table <([^>]+)>[^{\n]*)\{([^}\n]*)\}", lambda m: sample(m), text, flags=re.M)
        done = subprocess.run([CHECK] + ([] if optimise else ["-o", "none"]) + ["-a", anchor, "-nvf", "-"],
                              input=checked, capture_output=True, text=True)
        if done.returncode:
            raise Failure(FLUSH_WARNING + done.stderr.replace("pfctl-check:", "pfctl:") +
                          "pfctl: Syntax error in config file: pf rules not loaded\n")
        printed = done.stdout.splitlines()
        tables = {m[1]: m[2].split() for m in (re.fullmatch(r"table <([^>]+)>[^{]*\{ ?(.*?) ?\}", line)
                                               for line in printed) if m}
        for name, entries in long_tables.items():
            try:
                tables[name] = [host_text(h) for h in entries]
            except ValueError:
                raise syntax_error(1 + text[:text.index(f"<{name}>")].count("\n"))
        return [line for line in printed if not line.startswith("table ")], tables
    rules, tables = [], {}
    for number, line in enumerate(text.splitlines(), 1):
        line = line.split("#")[0].strip()
        if not line:
            continue
        anchor_call = re.fullmatch(r'(anchor|scrub-anchor|nat-anchor|rdr-anchor) ("[^"]+")( all)?(.*)', line)
        table = re.fullmatch(r"table <([^>]+)> (const )?\{(.*)\}", line)
        try:
            if anchor_call:  # an anchor call, kept as it was written ("all" spelt out)
                rules.append(f"{anchor_call[1]} {anchor_call[2]} all{anchor_call[4]}")
            elif table:
                tables[table[1]] = [host_text(h) for h in table[3].replace(",", " ").split()]
            else:
                rules += [normalised(r) for r in parse_rule(line)]
        except (ValueError, IndexError):
            raise syntax_error(number)
    return rules, tables


def in_force(pf):  # the main ruleset's "anchor "com.apple/*"" reaches one level down, in name order
    if not pf["enabled"] or 'anchor "com.apple/*" all' not in pf["main"]:
        return []
    return [(name, rule) for name, rules in sorted(pf["anchors"].items())
            if re.fullmatch(r"com\.apple/[^/]+", name) for rule in rules]


# --- pfctl -----------------------------------------------------------------
def age(seconds):
    seconds = int(seconds)
    return f"{seconds // 86400} days {seconds // 3600 % 24:02}:{seconds // 60 % 60:02}:{seconds % 60:02}"


def references(pf):
    return len(pf["references"]) + pf["untokened"]


def since_file(state_dir):  # kept beside the host, so that enabling and disabling again leaves it as it was
    return os.path.join(state_dir, "pf-since")


def set_since(state_dir):
    open(since_file(state_dir), "w").write(str(time.time()))


def options(words):
    """pfctl's getopt(): the options that take a value, each kept (-k may come twice), in order."""
    found, words = [], list(words)
    while words:
        word = words.pop(0)
        if word in ("-a", "-o", "-k", "-s", "-f", "-F", "-X", "-t", "-T") and words:
            found.append((word, words.pop(0)))
        elif word in ("-E", "-e", "-d"):
            found.append((word, ""))
        else:
            raise Failure(USAGE)
    return found


def kill_states(state_dir, hosts):
    """pfctl_net_kill_states(): the states from the first host to the second. Kept as the serial
    of the kill: a state made before it, between those hosts, is gone (apply mode)."""
    for host in hosts:
        ipaddress.ip_network(host, strict=False)
    kills = load_kills(state_dir)
    kills["serial"] += 1
    if hosts in (["0.0.0.0/0"], ["::/0"]):
        kills["full"] = kills["serial"]
        kills["targeted"] = []
    else:
        kills["targeted"].append(hosts + [kills["serial"]])
    with open(os.path.join(state_dir, "pf-kills.json"), "w") as file:
        json.dump(kills, file)
    return "", f"killed 0 states from 1 sources and {len(hosts) - 1} destinations\n"


def load_kills(state_dir):
    try:
        return json.load(open(os.path.join(state_dir, "pf-kills.json")))
    except (OSError, ValueError):
        return {"serial": 1, "full": 1, "targeted": []}


def pfctl(host, words, stdin, state_dir):
    """What pfctl prints on standard output and standard error; Failure otherwise."""
    pf = host.setdefault("pf", default_pf())
    given = options(words)
    anchor = next((value for option, value in given if option == "-a"), "")
    level = next((value for option, value in given if option == "-o"), "basic")
    table = next((value for option, value in given if option == "-t"), "")
    commands = [(option, value) for option, value in given if option not in ("-a", "-o", "-t")]
    if anchor.startswith("_"):  # refused, as recorded; the words are pfctl.c's
        raise Failure("pfctl: anchor names beginning with '_' cannot be modified from the command line\n")
    kills = [value for option, value in commands if option == "-k"]
    if kills and len(kills) == len(commands) and len(kills) <= 2:
        return kill_states(state_dir, kills)
    if len(commands) != 1:
        raise Failure(USAGE)
    option, value = commands[0]
    tables = pf.get("tables", {}).get(anchor, {})
    if option == "-T" and value == "show" and table:
        if table not in tables:  # not recorded: the less convenient answer
            raise Failure("pfctl: Table does not exist.\n")
        return "".join(f"   {address}\n" for address in tables[table]), ""
    if option == "-s":
        shown = next((m for m in SHOW if m.startswith(value)), None) if value else None
        if not shown:
            raise Failure(f"pfctl: Unknown show modifier '{value}'\n" + USAGE)
        if shown == "rules":
            if anchor and anchor not in pf["anchors"]:  # not recorded: the less convenient answer
                raise Failure("pfctl: DIOCGETRULES: Invalid argument\n")
            return "".join(r + "\n" for r in (pf["anchors"][anchor] if anchor else pf["main"])), ""
        if shown == "info":
            try:
                since = age(time.time() - float(open(since_file(state_dir)).read()))
            except (OSError, ValueError):
                since = age(0)
            status = "Enabled" if pf["enabled"] else "Disabled"
            return f"Status: {status} for {since}           Debug: Urgent\n\n", ""
        if shown == "References":
            if not pf["references"]:
                return "No pf starter references held\n", ""
            rows = [("PID", "Process Name", "TOKEN", "TIMESTAMP")] + [
                (str(r["pid"]), "pfctl", r["token"], age(time.time() - r["time"])) for r in reversed(pf["references"])]
            return "TOKENS:\n" + "".join(f"{a:<8} {b:<28} {c:<24} {d}\n" for a, b, c, d in rows), ""
        return "", ""
    if option == "-f" and value == "-":
        rules, loaded = load_rules(stdin, anchor, level != "none")
        if anchor:
            pf["anchors"][anchor] = rules
        else:
            pf["main"] = rules
        set_tables(pf, anchor, loaded)
        return "", FLUSH_WARNING
    if option == "-F":
        flushed = next((m for m in FLUSH if m.startswith(value)), None) if value else None
        if not flushed:
            raise Failure(f"pfctl: Unknown flush modifier '{value}'\n" + USAGE)
        if flushed in ("rules", "all"):  # an anchor left empty goes (pf_remove_if_empty_ruleset)
            if anchor:
                pf["anchors"].pop(anchor, None)
            else:
                pf["main"] = []
        deleted = len(tables) if flushed in ("Tables", "all") else 0
        if deleted:
            set_tables(pf, anchor, {})
        return "", f"rules cleared\nnat cleared\ndummynet cleared\n{deleted} tables deleted.\n"
    if option == "-E":  # a reference of its own, whether or not pf was on
        token = str(int.from_bytes(os.urandom(8), "big"))
        pf["references"].append({"token": token, "pid": os.getpid(), "time": time.time()})
        if not pf["enabled"]:
            pf["enabled"] = True
            set_since(state_dir)
        return "", f"pf enabled\nToken : {token}\n"
    if option == "-e":  # an untokened reference only while none is held (xnu DIOCSTART)
        if not pf["untokened"]:
            pf["untokened"] = 1
        if pf["enabled"]:
            raise Failure("pfctl: pf already enabled\n")
        pf["enabled"] = True
        set_since(state_dir)
        return "", "pf enabled\n"
    if option == "-d":  # every program's tokens go with it
        if not pf["enabled"]:
            raise Failure("pfctl: pf not enabled\n")
        pf.update(enabled=False, references=[], untokened=0)
        set_since(state_dir)
        return "", "pf disabled\n"
    if option == "-X":
        try:
            token = str(int(value, 0))
        except ValueError:
            raise Failure(f"pfctl: Invalid token value '{value}'\n" + USAGE)
        if not pf["enabled"]:
            raise Failure("pfctl: pf not enabled\n")
        held = [r for r in pf["references"] if r["token"] == token]
        if not held:
            raise Failure("pfctl: pf: token invalid\n")
        pf["references"].remove(held[0])
        if references(pf):
            return "", (f"disable request successful. {references(pf)} more pf enable reference(s) remaining, "
                        "pf still enabled.\n")
        pf["enabled"] = False
        set_since(state_dir)
        return "", "pf disabled\n"
    raise Failure(USAGE)


def set_tables(pf, anchor, tables):  # kept only while there are some, so that an untouched pf stays as it was
    every = pf.setdefault("tables", {})
    if tables:
        every[anchor] = tables
    else:
        every.pop(anchor, None)
    if not every:
        del pf["tables"]


# --- apply mode: the rules in force as nftables rules of this namespace -------
ICMP6 = {"routersol": "nd-router-solicit", "routeradv": "nd-router-advert", "neighbrsol": "nd-neighbor-solicit",
         "neighbradv": "nd-neighbor-advert", "echoreq": "echo-request", "echorep": "echo-reply"}


def nft_host(host, anchor, family, sets):
    """A host, a range, or a table as a named set of its family."""
    if not host.startswith("<"):
        return host
    name = f"t{len(sets)}"
    addresses = [a for a in sets["tables"].get(anchor, {}).get(host[1:-1], []) if (":" in a) == (family == "inet6")]
    sets[name] = (family, addresses)
    return "@" + name


def nft_matches(r, chain, anchor, sets):
    """The nft match of a normalised rule in the input or output chain, or None."""
    if r["dir"] not in ("", chain) or (r["user"] and chain == "in"):
        return None
    parts = []
    if r["on"]:
        parts.append(f"{'iifname' if chain == 'in' else 'oifname'} {r['on'].replace('lo0', 'lo')}")
    family = r["af"]
    if family:
        parts.append(f"meta nfproto {'ipv6' if family == 'inet6' else 'ipv4'}")
    for side, port, word in (("from", "fport", "saddr"), ("to", "tport", "daddr")):
        if r[side] != "any":
            parts.append(f"{'ip6' if family == 'inet6' else 'ip'} {word} {nft_host(r[side], anchor, family, sets)}")
        if r[port]:
            parts.append(f"{r['proto']} {'sport' if side == 'from' else 'dport'} {r[port]}")
    if r["proto"] and not r["fport"] and not r["tport"]:
        parts.append(f"meta l4proto {r['proto']}")
    if r["type"]:
        parts.append(f"icmpv6 type {ICMP6.get(r['type'], r['type'])}" if family == "inet6"
                     else f"icmp type {r['type']}")
    if r["user"]:
        parts.append(f"meta skuid {r['user']}")
    return " ".join(parts)


def apply_pf(pf, state_dir):
    """pf keeps state for what a pass rule let through, floating unless (if-bound), and looks a
    packet up in its states before its rules. A state is a conntrack mark: the serial of the last
    kill when it was made, and whether it floats or which interface binds it. "pfctl -k" of
    everything ends every state made before it; of a source and a destination, those between them."""
    # In one transaction, as pf commits a ruleset: no packet ever meets no rules.
    script = "table inet tarvex_pf {}\ndelete table inet tarvex_pf\n"
    rules = [(anchor, r) for anchor, text in in_force(pf) for r in parse_rule(text)]
    if not rules:
        subprocess.run(["nft", "-f", "-"], input=script, text=True, check=True)
        return
    kills = load_kills(state_dir)
    bound = sorted({r["on"] for _, r in rules if r["ifbound"] and r["on"]})
    kind = lambda r: 2 + bound.index(r["on"]) if r["ifbound"] and r["on"] else 1
    sets = {"tables": pf.get("tables", {})}
    chains = {"in": [], "out": []}
    for chain, lines in chains.items():
        word = "iifname" if chain == "in" else "oifname"
        for source, destination, serial in kills["targeted"]:
            family = "ip6" if ":" in source else "ip"
            lines.append(f"ct original {family} saddr {source} ct original {family} daddr {destination} "
                         f"ct mark < {serial << 12} ct mark set 0")
        lines.append(f"ct mark >= {kills['full'] << 12} ct mark & 0xfff == 1 accept")
        for index, name in enumerate(bound):
            lines.append(f"ct mark >= {kills['full'] << 12} ct mark & 0xfff == {index + 2} {word} {name} accept")
        for anchor, r in rules:
            match = nft_matches(r, chain, anchor, sets)
            if match is None or not r["quick"]:
                continue
            if r["action"] == "block":
                verdict = "reject" if r["how"] == "return" and chain == "out" else "drop"
                if verdict == "reject":
                    lines.append(f"{match} meta l4proto tcp reject with tcp reset")
                lines.append(f"{match} {verdict}")
                continue
            verdict = f"ct mark set {(kills['serial'] << 12) | kind(r)} accept" if r["state"] else "accept"
            if r["state"] and r["proto"] in ("", "tcp") and (r["flags"] or "S/SA") == "S/SA":
                lines.append(f"{match} meta l4proto != tcp {verdict}")  # flags S/SA: TCP only on a SYN
                lines.append(f"{match} tcp flags & (syn | ack) == syn {verdict}")
            else:
                lines.append(f"{match} {verdict}")
    del sets["tables"]
    script += "table inet tarvex_pf {\n" + "".join(
        f"set {name} {{ type {'ipv6_addr' if family == 'inet6' else 'ipv4_addr'}; flags interval; "
        + (f"elements = {{ {', '.join(addresses)} }} " if addresses else "") + "}\n"
        for name, (family, addresses) in sets.items()) + "".join(
        f"chain {chain} {{ type filter hook {'input' if chain == 'in' else 'output'} priority 0; policy accept;\n"
        + "".join(f"{line}\n" for line in lines) + "}\n" for chain, lines in chains.items()) + "}\n"
    subprocess.run(["nft", "-f", "-"], input=script, text=True, check=True)
