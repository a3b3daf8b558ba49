#!/usr/bin/env bash
# A short tour of the qss tool on a local domain in a temporary folder: typed
# writes, reads, the whole domain, export, delete, import and the current
# configuration. Each command is printed before it runs.
set -euo pipefail
cd "$(dirname "$0")/.."

qss_binary=${QSS:-build/default/tools/qss/qss}
if [ ! -x "$qss_binary" ]; then
  echo "demo.sh: $qss_binary is missing; build first: cmake --preset default && cmake --build --preset default" >&2
  exit 1
fi
bundles=$PWD/src/configurations/share

work=$(mktemp -d)
# Domains and the host key that encrypts them go into the temporary folder.
export XDG_DATA_HOME=$work/data

# The configurations domain is one file for the whole machine, encrypted with
# the host key of whoever wrote it last; the demo's own key could not read one
# written with another. Set it aside and put it back at the end.
config_file=/tmp/EmbeddedDomain/CF/com.qelvarin.configurations
if [ -e "$config_file" ]; then mv "$config_file" "$work/configurations.saved"; fi
cleanup() {
  rm -f "$config_file"
  if [ -e "$work/configurations.saved" ]; then mv "$work/configurations.saved" "$config_file"; fi
  rm -rf "$work"
}
trap cleanup EXIT

# Prints the command, quoting the words that need it, then runs it. Messages
# share standard output so that they show up next to their command.
qss() {
  local line='$ qss' word
  for word in "$@"; do
    if [[ $word =~ ^[A-Za-z0-9_./:=@+-]+$ ]]; then
      line+=" $word"
    else
      line+=" '${word//\'/\'\\\'\'}'"
    fi
  done
  printf '\n%s\n' "$line"
  "$qss_binary" "$@" 2>&1
}

# A command that is meant to fail: show its message and exit status.
qss_fails() {
  local status=0
  qss "$@" || status=$?
  if [ "$status" -eq 0 ]; then
    echo "demo.sh: expected a failure" >&2
    exit 1
  fi
  echo "(exit status $status)"
}

domain=com.example.player
echo "Domains live in $XDG_DATA_HOME/qelvarin/domains"

qss write $domain /volume int 11
qss write $domain /muted bool false
qss write $domain /window/title string "Now playing"
qss write $domain /window/size hash \
  '<Hash><String>width</String><Number type="int">800</Number><String>height</String><Number type="int">600</Number></Hash>'
qss write $domain /lastRun date 2024-05-01T12:30:00Z
qss write $domain /id uuid 0f8a2c3e-4b5d-4e6f-8091-a2b3c4d5e6f7
qss write $domain /cover data base64:iVBORw0KGgo=

qss read $domain /volume
qss read $domain /window/title
qss read $domain /cover
qss read $domain

qss export $domain "$work/player.xml"
qss delete $domain /window
qss_fails read $domain /window/title
qss_fails write $domain /volume int loud
qss import $domain "$work/player.xml"
qss read $domain /window/size

qss --bundles "$bundles" config current
qss --bundles "$bundles" config list
