#!/bin/sh
# Runs a short storm with planted faults and passes when the stress program
# fails, and for both reasons: a scene showed another scene's stamp, and a
# control scene was off its input.
#   expect_planted.sh STRESS_PROGRAM FAILURE_DIR
mkdir -p "$2"
out=$("$1" 12 --plant --failures "$2")
status=$?
echo "$out"
[ "$status" -eq 1 ] || { echo "expected exit status 1, got $status"; exit 1; }
echo "$out" | grep -q "shows the stamp of another scene" || { echo "no isolation failure reported"; exit 1; }
echo "$out" | grep -q "control scene [0-9]*: fetch [0-9]* is off by" || { echo "no control failure reported"; exit 1; }
ls "$2"/isolation-scene*.png "$2"/control-scene*-fetch*.png > /dev/null || { echo "no failing picture written"; exit 1; }
