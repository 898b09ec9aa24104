#!/bin/sh
# The counts that keep the library's shape honest: the largest files of LIBSRC
# and the longest functions (Universal Ctags' function extents, in lines).
# Usage: docs/code_shape.sh [how many of each, default 5]
cd "$(dirname "$0")/../LIBSRC" || exit 1
top=${1:-5}
echo "largest files (lines):"
wc -l -- *.cpp *.h | grep -v ' total$' | sort -rn | head -n "$top"
echo "longest functions (lines):"
ctags --c++-kinds=f --fields=+ne --sort=no -o - *.cpp *.h 2>/dev/null |
    awk -F'\t' '{ line = ""; end = ""
                  for (i = 4; i <= NF; ++i) { if ($i ~ /^line:/) line = substr($i, 6); if ($i ~ /^end:/) end = substr($i, 5) }
                  if (line != "" && end != "") if ($1 !~ /^__anon/) printf "%6d %s:%s %s\n", end - line + 1, $2, line, $1 }' |
    sort -rn | head -n "$top"
