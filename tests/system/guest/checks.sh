# Sourced by the machine's scripts: checks that are counted, waiting, and nbdd and nbdctl twice over.
# shellcheck shell=sh

passed=0
failed=0

# Says how a check went; its output only if it failed.
check() { # name, command…
  check_name=$1
  shift
  if "$@" >/tmp/output 2>&1; then
    passed=$((passed + 1))
    echo "ok - $check_name"
  else
    failed=$((failed + 1))
    echo "FAILED - $check_name: $*"
    sed 's/^/    /' /tmp/output | tail -n 20
  fi
}

# That a command fails, and that what it says matches.
refused() { # pattern, command…
  pattern=$1
  shift
  if "$@" >/tmp/refused 2>&1; then
    echo "it succeeded"
    cat /tmp/refused
    return 1
  fi
  cat /tmp/refused
  grep -q "$pattern" /tmp/refused
}

says() { # pattern, command…
  pattern=$1
  shift
  "$@" >/tmp/said 2>&1
  cat /tmp/said
  grep -Eq "$pattern" /tmp/said
}

not() { ! "$@"; }

# Until a command succeeds; a minute and more is a hang.
await() { # command…
  for _ in $(seq 300); do
    if "$@"; then return 0; fi
    usleep 200000
  done
  echo "never: $*"
  "$@"
}

# Says what explains a failure, the totals, and switches the machine off.
finish() {
  if [ "$failed" -gt 0 ]; then
    echo "--- the kernel's last words"
    dmesg | tail -n 60
    for log in /srv/*/log; do
      echo "--- $log"
      tail -n 40 "$log"
    done
  fi
  echo "machine: $passed passed, $failed failed"
  sync
  poweroff -f
}

# A service's environment, its control and its life; $1 is "server" or "client".
in_place_of() { # who, command…
  who=$1
  shift
  NBDD_RUNTIME_DIR=/srv/$who/run NBDD_STATE_DIR=/srv/$who/state NBDD_CONFIG=/srv/$who/nbdd.toml "$@"
}
ctl() { # who, words…
  who=$1
  shift
  in_place_of "$who" nbdctl "$@"
}
start() { # who
  mkdir -p "/srv/$1/run"
  rm -f "/srv/$1/run/org.talvek.NBD"
  # A process of its own from the start, so that its number is nbdd's.
  (in_place_of "$1" exec nbdd >>"/srv/$1/log" 2>&1) &
  echo $! >"/srv/$1/pid"
  await test -S "/srv/$1/run/org.talvek.NBD"
}
end() { # who, signal
  pid=$(cat "/srv/$1/pid")
  kill "-$2" "$pid"
  wait "$pid" 2>/dev/null
  true
}

# Disables an import unless it is in use, which is refused then.
disable_unused() { # control socket, ID
  PYTHONHOME=/usr python3 -S /guest/disable_unused.py "$1" "$2"
}

# Processes that wait where no signal reaches them.
uninterruptible() {
  for status in /proc/[0-9]*/status; do
    # Kernel threads that are idle may look so too; they have no memory.
    if grep -q '^State:.D' "$status" 2>/dev/null && grep -q '^VmSize' "$status" 2>/dev/null; then
      head -n 3 "$status"
      return 0
    fi
  done
  return 1
}
