#!/bin/sh
# Starts the compiler for the mutation check: the one file that is broken is compiled quickly, and with no warning being an
# error (a broken program may well leave something unused); the others as always.
for argument; do
  if [ "$argument" = "${KELTOP_MUTATED:-}" ]; then
    exec "$@" -O0 -w
  fi
done
if command -v ccache >/dev/null; then
  exec ccache "$@"
fi
exec "$@"
