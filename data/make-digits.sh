#!/bin/sh
# Remakes data/digits/: the spoken digits zero..nine in four espeak-ng voices,
# 16 kHz mono 16-bit FLAC, leading and trailing silence trimmed to 0.1 s.
# Needs espeak-ng and sox (Debian packages espeak-ng, sox). The recordings in
# the repository were made with espeak-ng 1.51 and sox 14.4.2 (Debian 12).
set -eu
cd "$(dirname "$0")"
out=digits
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
voices="en-us en-gb+f3 en-gb-scotland+m3 en-029+f2"
words="zero one two three four five six seven eight nine"
for voice in $voices; do
  dir=$out/$(echo "$voice" | tr '+' '_')
  mkdir -p "$dir"
  for word in $words; do
    espeak-ng -v "$voice" -s 150 -w "$tmp/w.wav" "$word"
    # -D: no dither, so the result is the same on every run. The silence
    # effects cut everything below 0.5 % of full scale at both ends.
    sox -D "$tmp/w.wav" -r 16000 -b 16 -c 1 -C 8 "$dir/$word.flac" \
        silence 1 0.01 0.5% reverse silence 1 0.01 0.5% reverse pad 0.1 0.1
  done
done
