# pfctl(8) and pf as macOS 26.5 has them, for mactools. Every message, stream
# and exit status is the one recorded in ../shared/mac-facts/pfctl.md (Apple's
# pfctl.c and xnu's pf_ioctl.c, and output captured on real Macs); where that
# record is silent, the less convenient answer. Rules are parsed in the pf.conf
# grammar the tests need (a rule without "in" or "out" is both) and, in apply
# mode, carried out with nftables; "pfctl -k" is pfctl.c's pfctl_kill_states().
import ipaddress, os, re, subprocess, time

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
def tokens(text):
    return re.findall(r"[{}(),]|[^\s{}(),]+", text)


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


def host_list(words):
    hosts = items(words)
    for host in hosts:
        if host != "any":
            ipaddress.ip_network(host, strict=False)
    ports = []
    if words[:1] == ["port"]:
        words.pop(0)
        if words[:1] == ["="]:
            words.pop(0)
        ports = items(words)
        if not all(p.isdigit() and 0 < int(p) < 65536 for p in ports):
            raise ValueError("syntax error")
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
            lists["proto"] = items(words)
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
            lists["type"] = items(words)
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
    return expanded


def normalised(r):  # as "pfctl -s rules" prints a rule: lists expanded, defaults spelt out
    words = [r["action"]] + ([r["how"]] if r["action"] == "block" else []) + ([r["dir"]] if r["dir"] else [])
    words += (["quick"] if r["quick"] else []) + ([f"on {r['on']}"] if r["on"] else [])
    words += ([r["af"]] if r["af"] else []) + ([f"proto {r['proto']}"] if r["proto"] else [])
    if r["from"] == r["to"] == "any" and not r["fport"] and not r["tport"]:
        words.append("all")
    else:
        for side, port in (("from", "fport"), ("to", "tport")):
            words += [side, r[side]] + ([f"port = {r[port]}"] if r[port] else [])
    words += [f"user = {r['user']}"] if r["user"] else []
    words += [f"icmp6-type {r['type']}" if r["af"] == "inet6" else f"icmp-type {r['type']}"] if r["type"] else []
    if r["state"]:
        if r["proto"] in ("", "tcp"):
            words.append(f"flags {r['flags'] or 'S/SA'}")
        words.append("keep state" + (" (if-bound)" if r["ifbound"] else ""))
    elif r["action"] == "pass":
        words.append("no state")
    return " ".join(words)


def load_rules(text):
    rules = []
    for number, line in enumerate(text.splitlines(), 1):
        line = line.split("#")[0].strip()
        if not line:
            continue
        anchor = re.fullmatch(r'(anchor|scrub-anchor|nat-anchor|rdr-anchor) ("[^"]+")( all)?(.*)', line)
        try:
            if anchor:  # an anchor call, kept as it was written ("all" spelt out)
                rules.append(f"{anchor[1]} {anchor[2]} all{anchor[4]}")
                continue
            rules += [normalised(r) for r in parse_rule(line)]
        except (ValueError, IndexError):
            raise Failure(FLUSH_WARNING + f"stdin:{number}: syntax error\n"
                          "pfctl: Syntax error in config file: pf rules not loaded\n")
    return rules


def in_force(pf):  # the main ruleset's "anchor "com.apple/*"" reaches one level down, in name order
    if not pf["enabled"] or 'anchor "com.apple/*" all' not in pf["main"]:
        return []
    return [rule for name, rules in sorted(pf["anchors"].items())
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


def pfctl(host, words, stdin, state_dir):
    """What pfctl prints on standard output and standard error; Failure otherwise."""
    pf = host.setdefault("pf", default_pf())
    anchor = ""
    if words[:1] == ["-a"] and len(words) > 1:
        anchor, words = words[1], words[2:]
        if anchor.startswith("_"):  # refused, as recorded; the words are pfctl.c's
            raise Failure(f"pfctl: anchor names beginning with '_' cannot be modified from the command line\n")
    option, value = (words + ["", ""])[:2]
    if len(words) == 2 and option == "-s":
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
    if len(words) == 2 and option == "-f" and value == "-":
        rules = load_rules(stdin)
        if anchor:
            pf["anchors"][anchor] = rules
        else:
            pf["main"] = rules
        return "", FLUSH_WARNING
    if len(words) == 2 and option == "-F":
        flushed = next((m for m in FLUSH if m.startswith(value)), None) if value else None
        if not flushed:
            raise Failure(f"pfctl: Unknown flush modifier '{value}'\n" + USAGE)
        if flushed in ("rules", "all"):  # an anchor left empty goes (pf_remove_if_empty_ruleset)
            if anchor:
                pf["anchors"].pop(anchor, None)
            else:
                pf["main"] = []
        return "", "rules cleared\nnat cleared\ndummynet cleared\n0 tables deleted.\n"
    if words == ["-E"]:  # a reference of its own, whether or not pf was on
        token = str(int.from_bytes(os.urandom(8), "big"))
        pf["references"].append({"token": token, "pid": os.getpid(), "time": time.time()})
        if not pf["enabled"]:
            pf["enabled"] = True
            set_since(state_dir)
        return "", f"pf enabled\nToken : {token}\n"
    if words == ["-e"]:
        pf["untokened"] += 1
        if pf["enabled"]:
            raise Failure("pfctl: pf already enabled\n")
        pf["enabled"] = True
        set_since(state_dir)
        return "", "pf enabled\n"
    if words == ["-d"]:  # every program's tokens go with it
        if not pf["enabled"]:
            raise Failure("pfctl: pf not enabled\n")
        pf.update(enabled=False, references=[], untokened=0)
        set_since(state_dir)
        return "", "pf disabled\n"
    if len(words) == 2 and option == "-X":
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
    if len(words) == 2 and option == "-k":  # every state from that network: here, a new generation
        ipaddress.ip_network(value, strict=False)
        with open(os.path.join(state_dir, "pf-generation"), "a") as generation:
            generation.write("x")
        return "", "killed 0 states from 1 sources and 0 destinations\n"
    raise Failure(USAGE)


# --- apply mode: the rules in force as nftables rules of this namespace -------
ICMP6 = {"133": "nd-router-solicit", "134": "nd-router-advert", "135": "nd-neighbor-solicit",
         "136": "nd-neighbor-advert"}


def nft_matches(r, chain):
    """The nft match of a normalised rule in the input or output chain, or None."""
    if r["dir"] not in ("", chain) or (r["user"] and chain == "in"):
        return None
    parts = []
    if r["on"]:
        parts.append(f"{'iifname' if chain == 'in' else 'oifname'} {r['on'].replace('lo0', 'lo')}")
    family = r["af"] or next((("inet6" if ":" in h else "inet") for h in (r["from"], r["to"]) if h != "any"), "")
    if family:
        parts.append(f"meta nfproto {'ipv6' if family == 'inet6' else 'ipv4'}")
    for side, port, word in (("from", "fport", "saddr"), ("to", "tport", "daddr")):
        if r[side] != "any":
            parts.append(f"{'ip6' if ':' in r[side] else 'ip'} {word} {r[side]}")
        if r[port]:
            parts.append(f"{r['proto']} {'sport' if side == 'from' else 'dport'} {r[port]}")
    if r["proto"] and not r["fport"] and not r["tport"]:
        parts.append(f"meta l4proto {'ipv6-icmp' if r['proto'] == 'icmp6' else r['proto']}")
    if r["type"]:
        parts.append(f"icmpv6 type {ICMP6.get(r['type'], r['type'])}" if family == "inet6"
                     else f"icmp type {r['type']}")
    if r["user"]:
        parts.append(f"meta skuid {r['user']}")
    return " ".join(parts)


def apply_pf(pf, state_dir):
    """pf keeps state for what a pass rule let through, floating unless (if-bound), and looks
    a packet up in its states before its rules; a killed state is a mark of an older generation."""
    # In one transaction, as pf commits a ruleset: no packet ever meets no rules.
    script = "table inet tarvex_pf {}\ndelete table inet tarvex_pf\n"
    rules = [r for text in in_force(pf) for r in parse_rule(text)]
    if not rules:
        subprocess.run(["nft", "-f", "-"], input=script, text=True, check=True)
        return
    try:
        generation = os.path.getsize(os.path.join(state_dir, "pf-generation"))
    except OSError:
        generation = 0
    chains = {"in": [], "out": []}
    for chain, lines in chains.items():
        for index, r in enumerate(rules):
            mark = (generation << 12) + index + 1
            if r["action"] == "pass" and r["state"]:  # its states first
                bound = f"{'iifname' if chain == 'in' else 'oifname'} {r['on']} " if r["ifbound"] and r["on"] else ""
                lines.insert(0, f"ct mark {mark} {bound}accept")
        for index, r in enumerate(rules):
            match = nft_matches(r, chain)
            if match is None or not r["quick"]:
                continue
            mark = (generation << 12) + index + 1
            if r["action"] == "block":
                verdict = "reject" if r["how"] == "return" and chain == "out" else "drop"
                if verdict == "reject":
                    lines.append(f"{match} meta l4proto tcp reject with tcp reset")
                lines.append(f"{match} {verdict}")
                continue
            verdict = f"ct mark set {mark} accept" if r["state"] else "accept"
            if r["state"] and r["proto"] in ("", "tcp") and (r["flags"] or "S/SA") == "S/SA":
                lines.append(f"{match} meta l4proto != tcp {verdict}")  # flags S/SA: TCP only on a SYN
                lines.append(f"{match} tcp flags & (syn | ack) == syn {verdict}")
            else:
                lines.append(f"{match} {verdict}")
    script += "table inet tarvex_pf {\n" + "".join(
        f"chain {chain} {{ type filter hook {'input' if chain == 'in' else 'output'} priority 0; policy accept;\n"
        + "".join(f"{line}\n" for line in lines) + "}\n" for chain, lines in chains.items()) + "}\n"
    subprocess.run(["nft", "-f", "-"], input=script, text=True, check=True)
