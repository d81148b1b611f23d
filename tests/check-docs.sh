#!/bin/sh
# The README gets a newcomer started in at most 160 lines and leads to
# every document in docs/; every link between the documents leads to a file.
set -eu
cd "$(dirname "$0")/.."
status=0
complain() { echo "$1"; status=1; }

lines=$(wc -l < README.md)
echo "README.md: $lines lines"
[ "$lines" -le 160 ] || complain "README.md has more than 160 lines: the rest belongs in docs/"
for doc in docs/*.md; do
  grep -q "($doc)" README.md || complain "README.md does not link $doc"
done
for file in README.md docs/*.md; do
  for link in $(grep -o '([A-Za-z0-9_./-]*\.md)' "$file" | tr -d '()'); do
    [ -f "$(dirname "$file")/$link" ] || complain "$file links $link, which does not exist"
  done
done
exit "$status"
