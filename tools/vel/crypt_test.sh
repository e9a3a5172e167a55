#!/bin/sh
# Checks `vel crypt` end to end: output names on stdout, exit statuses 0, 1
# and 2, pass phrases from a file and from standard input, byte-exact round
# trips. Usage: crypt_test.sh VEL TMPDIR
set -u
VEL=$1
DIR=$(mktemp -d "$2/vel_crypt_cli_XXXXXX") || exit 1
trap 'rm -rf "$DIR"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

head -c 20000 /dev/urandom > "$DIR/report.doc"
printf 'secr\351t\377' > "$DIR/pass"

out=$("$VEL" crypt encrypt "$DIR/report.doc" --keep-name --pass-file "$DIR/pass") || fail "encrypt status $?"
[ "$out" = "$DIR/report.~doc" ] || fail "encrypt printed '$out'"
[ "$(wc -c < "$DIR/report.~doc")" -eq 20032 ] || fail "encrypted size"

# Standard input (not a terminal) gives the same raw bytes.
out=$("$VEL" crypt decrypt "$DIR/report.~doc" --ext plain < "$DIR/pass") || fail "decrypt status $?"
[ "$out" = "$DIR/report.plain" ] || fail "decrypt printed '$out'"
cmp -s "$DIR/report.doc" "$DIR/report.plain" || fail "round trip differs"

# A wrong pass phrase: nothing on stdout, status 1.
out=$(printf 'wrong' | "$VEL" crypt decrypt "$DIR/report.~doc" --ext bad); st=$?
[ $st -eq 1 ] || fail "wrong pass phrase status $st"
[ -z "$out" ] || fail "wrong pass phrase printed '$out'"

# A missing source when encrypting: status 1, the message on stderr.
err=$("$VEL" crypt encrypt "$DIR/none.doc" --pass-file "$DIR/pass" 2>&1 >/dev/null); st=$?
[ $st -eq 1 ] || fail "missing source status $st"
case $err in *"does not exists."*) ;; *) fail "missing source message '$err'" ;; esac

# A failure: status 2 with the message.
printf 'x' > "$DIR/short.enc"
err=$("$VEL" crypt decrypt "$DIR/short.enc" --ext out --pass-file "$DIR/pass" 2>&1 >/dev/null); st=$?
[ $st -eq 2 ] || fail "short file status $st"
case $err in *"Read beyond end of file"*) ;; *) fail "short file message '$err'" ;; esac
mkdir "$DIR/EncryptedFile.~doc"
err=$("$VEL" crypt encrypt "$DIR/report.doc" --pass-file "$DIR/pass" 2>&1 >/dev/null); st=$?
[ $st -eq 2 ] || fail "unwritable output status $st"
case $err in *"Encryption was unsuccessful...Reason: File access denied"*) ;; *) fail "failure message '$err'" ;; esac
[ "$(printf '%s\n' "$err" | grep -c .)" -eq 1 ] || fail "failure reported more than once"
# The cipher lives in a module loaded beside the library: a copy of the
# library without it gives a clear failure, not a crash.
LIB=$(ldd "$VEL" | sed -n 's/.*libvelclasses\.so\.[0-9]* => \(.*\) (.*/\1/p')
if [ -n "$LIB" ]; then
  mkdir "$DIR/lib" && cp -L "$LIB" "$DIR/lib/" || fail "copying $LIB"
  err=$(LD_LIBRARY_PATH="$DIR/lib" "$VEL" crypt encrypt "$DIR/report.doc" --keep-name \
        --pass-file "$DIR/pass" 2>&1 >/dev/null); st=$?
  [ $st -eq 2 ] || fail "missing module status $st"
  case $err in *"CAST-256 is not available: libvelclasses-cast256.so."*) ;;
    *) fail "missing module message '$err'" ;; esac
fi
echo "vel crypt: all checks passed"
