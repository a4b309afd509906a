# Shared by the shell system tests. Sourced, not run: skips unless root in
# scripts/sandbox, and counts checks.
if [ "$(id -u)" -ne 0 ] || [ ! -e /.tarvex-sandbox ]; then
  echo "SKIP   : $(basename "$0") needs root inside scripts/sandbox"
  exit 0
fi
trap 'exit 130' INT TERM
passed=0 failed=0
check() { # check NAME COMMAND...
  local name=$1
  shift
  if "$@" > /dev/null 2>&1; then
    echo "PASS   : $name"
    passed=$((passed + 1))
  else
    echo "FAIL!  : $name"
    failed=$((failed + 1))
    return 1
  fi
}
finish() {
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}
