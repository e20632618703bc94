#!/bin/sh
# Writes quelmloadbalancing.properties(5): the page's text from TEMPLATE with
# @KEYS@ replaced by one entry per key the probe knows, in its order, with
# the key's description from SAMPLE, its built-in default and the value in
# PACKAGED (the configuration the Debian package installs).
#   properties-man.sh PROBE SAMPLE PACKAGED TEMPLATE VERSION
set -eu
probe=$1 sample=$2 packaged=$3 template=$4 version=$5
empty=$(mktemp -d)
trap 'rm -rf "$empty"' EXIT
# A folder without a properties file: every key at its built-in default.
"$probe" --check-config "$empty" 2>/dev/null >"$empty/defaults" || true
[ -s "$empty/defaults" ] || { echo "$0: $probe printed no keys" >&2; exit 1; }

awk -v sample="$sample" -v packaged="$packaged" '
  function roff(text) {
    gsub(/\\/, "\\e", text)
    if (substr(text, 1, 1) ~ /[.\047]/) text = "\\&" text
    return text
  }
  # Long lists may break after a comma.
  function shown(value) {
    if (value == "") return "(empty)"
    value = roff(value)
    gsub(/,/, ",\\:", value)
    return "\\fB" value "\\fR"
  }
  function flush_comment(line) {
    # A block that opens a group of keys ("Optional keys ...") is the
    # introduction of the group: the description of the key follows it.
    if (block ~ /^Optional/ && block ~ /\n/) {
      n = split(block, lines, "\n"); block = ""; intro = 1
      for (i = 1; i <= n; i++) {
        if (intro) { if (lines[i] ~ /\.$/) intro = 0; continue }
        block = block (block == "" ? "" : "\n") lines[i]
      }
    }
  }
  BEGIN {
    prefix = "varosa.config.quelmloadbalancing."
    while ((getline line < sample) > 0) {
      if (line ~ /^#? ?$/ || line == "") { block = ""; continue }
      if (index(line, prefix) == 1 || index(line, "#" prefix) == 1) {
        sub(/^#/, "", line); key = substr(line, length(prefix) + 1); sub(/=.*/, "", key)
        flush_comment()
        if (!(key in desc)) desc[key] = block
        block = ""; continue
      }
      if (line ~ /^# ?/) { sub(/^# ?/, "", line); block = block (block == "" ? "" : "\n") line }
    }
    while ((getline line < packaged) > 0) {
      if (index(line, prefix) != 1) continue
      key = substr(line, length(prefix) + 1); value = key
      sub(/=.*/, "", key); sub(/^[^=]*=/, "", value)
      pkg[key] = value
    }
  }
  index($0, prefix) == 1 {
    key = substr($0, length(prefix) + 1); value = key
    sub(/=.*/, "", key); sub(/^[^=]*=/, "", value)
    print ".TP"
    print ".B " key
    print "Default: " shown(value)
    packval = (key in pkg) ? pkg[key] : value
    print ".br"
    print "Package: " shown(packval)
    if (key in desc && desc[key] != "") {
      print ".br"
      n = split(desc[key], lines, "\n")
      for (i = 1; i <= n; i++) print roff(lines[i])
    }
  }' "$empty/defaults" >"$empty/keys"

awk -v keys="$empty/keys" -v version="$version" '
  $0 == "@KEYS@" { while ((getline line < keys) > 0) print line; next }
  { gsub(/@VERSION@/, version); print }' "$template"
