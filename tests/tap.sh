# Counting and reporting shared by the shell tests: source it, call the
# checks, end with `finish`, which prints the "N passed, N failed" line and
# gives the exit status.

passed=0
failed=0
pass() { passed=$((passed + 1)); echo "ok - $1"; }
fail() { failed=$((failed + 1)); echo "FAILED - $1"; }

# expect_output NAME EXPECTED-FILE ACTUAL-FILE
expect_output() {
  if cmp -s "$2" "$3"; then pass "$1"; else
    fail "$1"
    diff -u "$2" "$3" | sed 's/^/    /'
  fi
}

# expect_status NAME WANTED GOT
expect_status() {
  if [ "$2" -eq "$3" ]; then pass "$1"; else fail "$1 (exit status $3, wanted $2)"; fi
}

finish() {
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}
