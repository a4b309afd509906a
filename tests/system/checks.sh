# Shared by the shell system tests. Sourced, not run: skips unless root in
# scripts/sandbox, and counts checks.
if [ "$(id -u)" -ne 0 ] || [ ! -e /.tarvex-sandbox ]; then
  echo "SKIP   : $(basename "$0") needs root inside scripts/sandbox"
  exit 0
fi
trap 'exit 130' INT TERM
passed=0 failed=0
check() { # check NAME COMMAND...; a failure shows what the command said
  local name=$1 said=/tmp/check-said.$$
  shift
  if "$@" > "$said" 2>&1; then
    echo "PASS   : $name"
    passed=$((passed + 1))
  else
    echo "FAIL!  : $name"
    tail -n 5 "$said" | sed 's/^/         /'
    failed=$((failed + 1))
    return 1
  fi
}
finish() {
  rm -f "/tmp/check-said.$$"
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}

export MACSIM_STATE_DIR=/var/lib/tarvex-sim
# The stand-ins at the macOS tools' paths, on a fresh simulated host.
standin_tools() {
  "$BIN/mactools" link
  "$BIN/mactools" reset
}
# A simulated host as JSON, its routes in order, apart from which process owns
# a utun and which tokens pf handed out (only how many).
normal_host() {
  python3 -c 'import json, sys
host = json.load(sys.stdin)
host["routes"].sort(key=lambda r: (r["family"], r["destination"]))
for interface in host["interfaces"].values():
    interface.pop("owner", None)
pf = host.get("pf", {})
pf["references"] = len(pf.get("references", []))
print(json.dumps(host, indent=1, sort_keys=True))'
}
# The simulated host, routes from its kernel, and /etc/hosts.
host_state() {
  "$BIN/mactools" state | normal_host
  cat /etc/hosts
}
answers() {
  for _ in $(seq 200); do "$BIN/tarvexctl" status > /dev/null 2>&1 && return 0; sleep 0.05; done
  return 1
}
# The daemon as the bundle holds it, in /opt/tarvex; returns once it answers.
start_daemon() {
  mkdir -p /opt/tarvex && cp "$BIN/TarvexVpnService" /opt/tarvex/
  (cd / && exec /opt/tarvex/TarvexVpnService > /tmp/service.log 2>&1) &
  answers
}
# A full-tunnel connection string to the simulated server.
test_string() {
  . "$ROOT/scripts/realnet.sh"
  vpn_string <<'JSON'
{"containers":[{"container":"office-awg","awg":{"last_config":{
   "client_ip":"10.8.1.2/32","client_priv_key":"ZVoO6oBGlRDVRhz2TrciUtBetVKg5gtm+L/V+7S4Tno=",
   "server_pub_key":"jGYfq/MqYAM+o/7X1TmLrBSrwA+43aECWlUk9pbHyjE=",
   "hostName":"203.0.113.5","port":51820,"allowed_ips":["0.0.0.0/0","::/0"]}}}],
 "defaultContainer":"office-awg","dns1":"1.1.1.1","hostName":"203.0.113.5"}
JSON
}
