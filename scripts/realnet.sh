# A real WireGuard tunnel inside scripts/sandbox, shared by scripts/demo and
# its system test. Sourced, not run; expects BIN (the build's bin directory)
# and ROOT (the project).
#
#   this namespace ("client")            namespace tarvex-server
#   veth-c 192.168.77.2/24  <-------->   veth-s 192.168.77.1/24 (the gateway)
#          fd78::2/64                           fd78::1/64
#   default via 192.168.77.1             lo: 198.18.0.1, fd77::1 (WireGuard endpoint)
#   default via fd78::1                      198.18.0.53 (tarvex.com)
#                                            198.18.0.80 (a site beyond the gateway)
#                                            198.18.1.80, 2001:db8:80::80 (two more)
#   utunN 10.77.0.2 (by the daemon)      wg-srv 10.77.0.1/24 (kernel or wireguard-go)
#
# realnet_second_uplink then plays the Mac joining another network: the
# default route goes by a second link, and realnet_drop_first_uplink takes
# the first one away.
#   veth-c2 192.168.78.2/24 <-------->   veth-s2 192.168.78.1/24 (the new gateway)
#
# The endpoint is not on the shared link: the client reaches it through the
# gateway, so without the daemon's endpoint route a full tunnel would loop.

SERVER_NS=tarvex-server
SERVER_TUNNEL_IP=10.77.0.1
ENDPOINT=198.18.0.1
ENDPOINT6=fd77::1
CONTROL_PLANE=198.18.0.53
SITE=198.18.0.80
SITE_PUBLIC_LAN=198.18.1.80 # in the range a hostile LAN claims as its own
SITE6=2001:db8:80::80       # a global IPv6 address
LAN_HOST=192.168.77.1 # the gateway, and the LAN's DNS resolver
export MACSIM_STATE_DIR=/var/lib/tarvex-sim

in_server() { ip netns exec "$SERVER_NS" "$@"; }

realnet_network() {
  ip netns add "$SERVER_NS"
  ip link add veth-c type veth peer name veth-s netns "$SERVER_NS"
  ip addr add 192.168.77.2/24 dev veth-c
  ip link set veth-c up
  ip route add default via 192.168.77.1
  ip addr add fd78::2/64 dev veth-c nodad
  ip -6 route add default via fd78::1
  in_server ip link set lo up
  in_server ip addr add 192.168.77.1/24 dev veth-s
  in_server ip addr add fd78::1/64 dev veth-s nodad
  in_server ip link set veth-s up
  in_server ip addr add "$ENDPOINT/32" dev lo
  in_server ip addr add "$ENDPOINT6/128" dev lo
  in_server ip addr add "$CONTROL_PLANE/32" dev lo
  in_server ip addr add "$SITE/32" dev lo
  in_server ip addr add "$SITE_PUBLIC_LAN/32" dev lo
  in_server ip addr add "$SITE6/128" dev lo
  in_server python3 "$ROOT/scripts/realnet-probe" serve "$LAN_HOST" "$CONTROL_PLANE" &
}

# Kills the tunnel program's wireguard-go while connected, with a TCP
# connection to the control-plane host open, then asks what still gets
# through, capturing what the Mac sends on the uplink meanwhile. Prints
# site=, lan=, dns= (a query to the LAN's resolver), dhcp=, held= (whether
# that connection still carries data), each yes or no, and leaked=, the
# packets the Mac sent for anything but the endpoint, DHCP, IPv6 neighbour
# discovery and the LAN, leaving them in /tmp/leaked.txt. What arrives
# unasked is the network's doing, not a leak.
realnet_leak_check() {
  rm -f /tmp/hold.go
  "$ROOT/scripts/realnet-probe" hold "$CONTROL_PLANE" 443 /tmp/hold.go > /tmp/hold.out &
  local holder=$!
  for _ in $(seq 100); do grep -q open /tmp/hold.out && break; sleep 0.05; done
  pkill -KILL -f "wireguard-go -f utun"
  # The service notices, undoes the routes and, with a block, puts it back
  # without the tunnel; then it says so.
  for _ in $(seq 200); do "$BIN/tarvexctl" status | grep -q "status: error" && break; sleep 0.05; done
  # Immediate mode: otherwise the capture ring hands packets over in blocks,
  # and those of the last block are lost when the capture is stopped.
  tcpdump -i veth-c -Q out -n -U --immediate-mode -w /tmp/leak.pcap 'ip or ip6' 2> /tmp/leak.err &
  local capture=$! reached
  for _ in $(seq 200); do grep -q "listening on" /tmp/leak.err && break; sleep 0.05; done
  touch /tmp/hold.go
  reached=$(realnet_reach)
  wait "$holder"
  sleep 0.3
  kill "$capture"
  wait "$capture"
  tcpdump -r /tmp/leak.pcap -n -v "not (udp and host $ENDPOINT and port 51820)
    and not (udp port 67 or udp port 68) and not (icmp6 and ip6[40] >= 133 and ip6[40] <= 136)
    and not dst net 192.168.77.0/24" > /tmp/leaked.txt 2> /dev/null
  echo "$reached held=$(tail -n 1 /tmp/hold.out) leaked=$(grep -c '^[0-9]' /tmp/leaked.txt)"
}

# What answers now: the site beyond the gateway, a host on the LAN, the LAN's
# resolver, a DHCP server.
realnet_reach() {
  local site=no lan=no
  ping -c 3 -i 0.3 -W 1 "$SITE" > /dev/null 2>&1 && site=yes
  ping -c 1 -W 1 "$LAN_HOST" > /dev/null 2>&1 && lan=yes
  echo "site=$site lan=$lan dns=$("$ROOT/scripts/realnet-probe" dns "$LAN_HOST")" \
    "dhcp=$("$ROOT/scripts/realnet-probe" dhcp)"
}

realnet_second_uplink() {
  ip link add veth-c2 type veth peer name veth-s2 netns "$SERVER_NS"
  ip addr add 192.168.78.2/24 dev veth-c2
  ip link set veth-c2 up
  in_server ip addr add 192.168.78.1/24 dev veth-s2
  in_server ip link set veth-s2 up
  ip route replace default via 192.168.78.1 dev veth-c2
}

realnet_drop_first_uplink() {
  ip link del veth-c
}

# The endpoint goes by the second uplink's gateway.
realnet_endpoint_moved() {
  ip route get "$ENDPOINT" | grep -q "via 192.168.78.1 dev veth-c2"
}

# The server listens on another port; on the DNS port, the network's own
# resolver (realnet-probe serve) makes way meanwhile.
realnet_server_port() {
  pkill -f "realnet-probe serve" || true
  # Its socket may outlive the signal by a moment: the port is free once it has gone.
  for _ in $(seq 100); do pgrep -f "realnet-probe serve" > /dev/null || break; sleep 0.05; done
  for _ in $(seq 20); do in_server wg set wg-srv listen-port "$1" 2> /dev/null && break; sleep 0.1; done
  [ "$1" = 53 ] || { in_server python3 "$ROOT/scripts/realnet-probe" serve "$LAN_HOST" "$CONTROL_PLANE" & }
}

realnet_server() {
  umask 077
  wg genkey > /tmp/server.key
  wg pubkey < /tmp/server.key > /tmp/server.pub
  wg genkey > /tmp/client.key
  wg pubkey < /tmp/client.key > /tmp/client.pub
  wg genpsk > /tmp/psk
  umask 022
  # The kernel's WireGuard when this kernel has it, else wireguard-go; wg
  # configures either the same way.
  if in_server ip link add wg-srv type wireguard 2> /dev/null; then
    SERVER_KIND="kernel WireGuard"
  else
    SERVER_KIND=wireguard-go
    in_server env WG_PROCESS_FOREGROUND=1 wireguard-go wg-srv > /tmp/server-wg.log 2>&1 &
    for _ in $(seq 100); do [ -S /var/run/wireguard/wg-srv.sock ] && break; sleep 0.05; done
  fi
  in_server wg set wg-srv private-key /tmp/server.key listen-port 51820 \
    peer "$(cat /tmp/client.pub)" preshared-key /tmp/psk allowed-ips 10.77.0.2/32
  in_server ip addr add "$SERVER_TUNNEL_IP/24" dev wg-srv
  in_server ip link set wg-srv up
}

# The daemon as the application bundle would hold it, the simulated macOS
# tools at their real paths acting on this namespace, and the launcher as
# its tunnel program.
realnet_client() {
  mkdir -p /opt/tarvex "$MACSIM_STATE_DIR"
  cp "$BIN/TarvexVpnService" /opt/tarvex/
  cp "$ROOT/tests/standins/wg-launcher/amneziawg-go" /opt/tarvex/
  MACSIM_APPLY=1 "$BIN/mactools" reset  # the kernel stand-in acts on this namespace
  "$BIN/mactools" link
  printf '%s\ttarvex.com\n' "$CONTROL_PLANE" >> /etc/hosts
}

# The vpn:// string for the JSON document on standard input, encoded as the
# product's server side does: qCompress (a big-endian length, then zlib), then
# URL-safe Base64 without padding; a "last_config" object becomes JSON text.
vpn_string() {
  python3 -c '
import base64, json, struct, sys, zlib
document = json.load(sys.stdin)
for container in document.get("containers", []):
    for protocol in container.values():
        if isinstance(protocol, dict) and isinstance(protocol.get("last_config"), dict):
            protocol["last_config"] = json.dumps(protocol["last_config"], separators=(",", ":"))
text = json.dumps(document, separators=(",", ":")).encode()
packed = struct.pack(">I", len(text)) + zlib.compress(text)
print("vpn://" + base64.urlsafe_b64encode(packed).decode().rstrip("="))'
}

# The connection string for the server; its endpoint may be given (the IPv6
# one, or a name), its port, and its allowed ranges.
realnet_connection_string() {
  local endpoint=${1:-$ENDPOINT} port=${2:-51820} allowed=${3:-'"0.0.0.0/0","::/0"'}
  cat <<JSON | vpn_string
{"containers":[{"container":"office-wireguard","wireguard":{"last_config":{
   "client_ip":"10.77.0.2/32","client_priv_key":"$(cat /tmp/client.key)",
   "server_pub_key":"$(cat /tmp/server.pub)","psk_key":"$(cat /tmp/psk)",
   "hostName":"$endpoint","port":$port,"mtu":"1420","persistent_keep_alive":"25",
   "allowed_ips":[$allowed]},"port":"$port","transport_proto":"udp"}}],
 "defaultContainer":"office-wireguard","description":"Tarvex demo server",
 "dns1":"$SERVER_TUNNEL_IP","dns2":"","hostName":"$endpoint"}
JSON
}

realnet_start_daemon() {
  (cd / && MACSIM_APPLY=1 exec /opt/tarvex/TarvexVpnService > /tmp/service.log 2>&1) &
  DAEMON_PID=$!
  for _ in $(seq 200); do
    "$BIN/tarvexctl" status > /dev/null 2>&1 && return 0
    sleep 0.05
  done
  echo "the service did not come up" >&2
  return 1
}

realnet_stop_daemon() {
  kill -TERM "$DAEMON_PID"
  wait "$DAEMON_PID"
}

# Everything the daemon may change, in one text to compare before and after.
realnet_snapshot() {
  echo "# ip -4 route"; ip -4 route show
  echo "# ip -6 route"; ip -6 route show
  echo "# links"; ip -o link show | awk '{print $2}'
  echo "# DNS and pf (simulated)"; sed -n '/"services"/,$p' "$MACSIM_STATE_DIR/host.json"
}

realnet_handshake() {
  in_server wg show wg-srv latest-handshakes | awk '{print $2}'
}

# What a hostile network can take around the tunnel, each attack made the way
# it is made, with the uplink captured: one line per attack, "N answered" or
# "N silent", N the packets for its target that left outside the tunnel. The
# connection is IPv4-only; OPTIONS are tarvexctl connect's.
#   IPv6         a global IPv6 address, beside the IPv4 tunnel (RFC 7359)
#   LocalNet     the LAN claims a public /24 holding a site (TunnelCrack)
#   TunnelVision a route for the site through the gateway, as DHCP's option
#                121 installs it, after connecting (CVE-2024-3661)
#   LAN resolver a query straight to the LAN's DNS resolver
#   ServerIP     the server's name answered with the site's address, which the
#                gateway also serves the tunnel on (TunnelCrack)
realnet_hostile() {
  local string cell
  string=$(realnet_connection_string "$ENDPOINT" 51820 '"0.0.0.0/0"')
  "$BIN/tarvexctl" connect "$string" "$@" > /dev/null || return 1
  ip addr add 198.18.1.2/24 dev veth-c # LocalNet: a public range "on the link"
  in_server ip route add 198.18.1.0/24 dev veth-s
  ip route add "$SITE/32" via 192.168.77.1 # TunnelVision
  hostile_cell "ip6 and dst host $SITE6" ping -6 -c 2 -i 0.2 -W 1 "$SITE6"
  echo "IPv6 $cell"
  hostile_cell "dst host $SITE_PUBLIC_LAN" ping -c 2 -i 0.2 -W 1 "$SITE_PUBLIC_LAN"
  echo "LocalNet $cell"
  hostile_cell "dst host $SITE" ping -c 2 -i 0.2 -W 1 "$SITE"
  echo "TunnelVision $cell"
  hostile_cell "dst host $LAN_HOST and port 53" probe_says_yes dns "$LAN_HOST"
  echo "LAN-resolver $cell"
  ip route del "$SITE/32" via 192.168.77.1
  ip addr del 198.18.1.2/24 dev veth-c
  in_server ip route del 198.18.1.0/24 dev veth-s
  "$BIN/tarvexctl" disconnect > /dev/null # a block in force would not look the name up
  printf '%s\tvpn.example\n' "$SITE" >> /etc/hosts
  string=$(realnet_connection_string vpn.example 51820 '"0.0.0.0/0"')
  "$BIN/tarvexctl" connect "$string" "$@" > /dev/null || return 1
  hostile_cell "dst host $SITE and not udp port 51820" ping -c 2 -i 0.2 -W 1 "$SITE"
  echo "ServerIP $cell"
  sed -i '/\tvpn.example$/d' /etc/hosts
  "$BIN/tarvexctl" disconnect > /dev/null
}

probe_says_yes() { [ "$("$ROOT/scripts/realnet-probe" "$@")" = yes ]; }

# hostile_cell FILTER COMMAND...: sets cell to "N answered" or "N silent".
hostile_cell() {
  local filter=$1 capture answered=silent
  shift
  tcpdump -i veth-c -Q out -n -U --immediate-mode -w /tmp/hostile.pcap "$filter" 2> /tmp/hostile.err &
  capture=$!
  for _ in $(seq 200); do grep -q "listening on" /tmp/hostile.err && break; sleep 0.05; done
  "$@" > /dev/null 2>&1 && answered=answered
  sleep 0.3
  kill "$capture"
  wait "$capture" || true
  cell="$(tcpdump -r /tmp/hostile.pcap -n 2> /dev/null | grep -c . || true) $answered"
}

# realnet_hostile for each way of connecting, as a table; the cells are left
# in HOSTILE[attack,column].
declare -A HOSTILE
HOSTILE_ATTACKS=(IPv6 LocalNet TunnelVision LAN-resolver ServerIP)
HOSTILE_COLUMNS=(default --no-leak-protection --kill-switch "--kill-switch --allow-lan")
realnet_hostile_matrix() {
  local column attack cell
  for column in "${HOSTILE_COLUMNS[@]}"; do
    # shellcheck disable=SC2086
    realnet_hostile ${column#default} > /tmp/hostile.txt 2> /dev/null || true
    while read -r attack cell; do HOSTILE[$attack,$column]=$cell; done < /tmp/hostile.txt
  done
  printf '%-13s' "attack"; printf '| %-21s' "${HOSTILE_COLUMNS[@]}"; echo
  for attack in "${HOSTILE_ATTACKS[@]}"; do
    printf '%-13s' "$attack"
    for column in "${HOSTILE_COLUMNS[@]}"; do printf '| %-21s' "${HOSTILE[$attack,$column]:-failed}"; done
    echo
  done
}
