#!/usr/bin/env bash
# api-names.sh MAP: prints the names that a version script makes global, sorted, one per line. Called by
# one-object.sh and by the test of what the libraries export.
set -euo pipefail
sed -n '/global:/,/local:/p' "$1" | grep -oE '[a-z_0-9]+;' | tr -d ';' | LC_ALL=C sort
