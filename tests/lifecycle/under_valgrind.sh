#!/bin/sh
# Runs the lifecycle test under valgrind memcheck: any invalid access, use of
# uninitialised memory or leak fails it.
set -eu
command -v valgrind >/dev/null || { echo "FAIL: valgrind is not installed (apt-get install valgrind)" >&2; exit 1; }
exec valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,indirect \
    --errors-for-leak-kinds=definite,indirect "$1"
