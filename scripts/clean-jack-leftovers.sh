#!/usr/bin/env bash
# A JACK server that was killed (the tests kill some on purpose) leaves its shared memory in
# /dev/shm and keeps its place in JACK's registry of servers, which holds eight: after enough
# such runs no new JACK server starts ("Too many servers already active"). While no JACK server
# runs on the machine at all, these leftovers belong to nobody and are removed.
set -euo pipefail
for comm in /proc/[0-9]*/comm; do
    if [ "$(cat "$comm" 2>/dev/null)" = jackd ]; then
        echo "clean-jack-leftovers: a JACK server runs; leaving /dev/shm as it is"
        exit 0
    fi
done
shopt -s nullglob
leftovers=(/dev/shm/jack-* /dev/shm/jack_*)
if [ ${#leftovers[@]} -gt 0 ]; then
    rm -rf -- "${leftovers[@]}"
    echo "clean-jack-leftovers: removed ${#leftovers[@]} JACK leftovers from /dev/shm"
fi
