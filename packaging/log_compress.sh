#!/bin/sh
# Keeps a compressed copy of a log that is about to be truncated, and a bounded number of them.
#
#   log_compress.sh LOG
#
# The library runs this when its log has reached its size limit, waits for it, and truncates the log whatever
# happened here. CORVO_LOG_KEEP says how many copies are kept (default 5).
set -eu

log=${1:?usage: log_compress.sh LOG}
keep=${CORVO_LOG_KEEP:-5}
[ -f "$log" ] || exit 1

# LOG.1.gz is the newest. A copy is complete before it gets its name.
tmp=$(mktemp "$log.XXXXXX")
trap 'rm -f "$tmp"' EXIT
gzip -c -- "$log" > "$tmp"

# The oldest goes, and what an earlier, larger number of copies has left.
i=$keep
while [ -f "$log.$i.gz" ]; do
    rm -f "$log.$i.gz"
    i=$((i + 1))
done
i=$keep
while [ "$i" -gt 1 ]; do
    older=$((i - 1))
    [ ! -f "$log.$older.gz" ] || mv -f "$log.$older.gz" "$log.$i.gz"
    i=$older
done
chmod 0640 "$tmp"
mv -f "$tmp" "$log.1.gz"
trap - EXIT
