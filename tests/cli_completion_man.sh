#!/usr/bin/env bash
# plenk's completion scripts and manual page, as the build writes and installs them:
# every verb the help lists (at every depth) is completed and documented, the bash
# script completes verbs, options and fixed values, and the page is clean troff.
set -uo pipefail
source "$(dirname "$0")/support/cli.sh"
bin=$PLENK_BINARY_DIR docs=$PLENK_BINARY_DIR/tools/docs
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The verbs below one command, read from its --help: "  name   description" lines in
# the groups of verbs ("Subcommands:", "Commands:"...; not options or positionals).
verbs_below() {
  "$plenk" "$@" --help | awk '/^$/ { group = 0 } /^[A-Z][A-Za-z ]*:$/ { group = !/^(Options|Positionals):$/ }
    group && /^  [a-z][a-z0-9-]*  +[^ ]/ { print $1 }'
}
paths=()
walk() {
  local verb
  for verb in $(verbs_below "$@"); do
    paths+=("$*${*:+ }$verb")
    walk "$@" "$verb"
  done
}
walk
[ "${#paths[@]}" -gt 20 ] || fail "only ${#paths[@]} verbs found in the help"
for path in "${paths[@]}"; do  # the offline verbs show a worked example each
  [[ $path =~ ^(frame|decode)\  ]] && ! grep -q "Example" <<<"$("$plenk" $path --help)" && fail "$path --help: no example"
done

# bash: each verb is offered at its parent's path; options, fixed values.
bash -n "$docs/plenk.bash" || fail "bash script does not parse"
complete_words() {  # the line's words, the last one being completed
  bash -c 'source "$1"; shift; COMP_WORDS=(plenk "$@"); COMP_CWORD=$#; _plenk; echo "${COMPREPLY[*]}"' \
    _ "$docs/plenk.bash" "$@"
}
for path in "${paths[@]}"; do
  read -ra words <<<"$path"
  offered=" $(complete_words "${words[@]:0:${#words[@]}-1}" "${words[-1]:0:1}") "
  [[ $offered == *" ${words[-1]} "* ]] || fail "bash: '$path' not completed (got$offered)"
done
while IFS='|' read -r expected line; do
  read -ra words <<<"$line"
  [[ $line == *' ' ]] && words+=("")
  got=$(complete_words "${words[@]}")
  [ "$got" = "$expected" ] || fail "bash: 'plenk $line' -> [$got], expected [$expected]"
done <<'TABLE'
--json|--j
tare|ta
tare timer timer-auto-start|frame t
--raw|--sim config read --r
--default-on|--json frame timer on --d
on off|frame --json timer 
default-on|frame timer on 
bash zsh fish|completion 
|decode weight --name 
|frame tare --bogus 
TABLE

# zsh and fish: parsed when the shells are here, else at least every verb named.
for file in _plenk plenk.fish; do
  for path in "${paths[@]}"; do
    grep -q "'${path##* }[:']" "$docs/$file" || fail "$file lacks '$path'"
  done
done
head -n1 "$docs/_plenk" | grep -qx '#compdef plenk' || fail "_plenk has no #compdef line"
if command -v zsh >/dev/null; then zsh -n "$docs/_plenk" || fail "zsh script does not parse"; fi
if command -v fish >/dev/null; then fish -n "$docs/plenk.fish" || fail "fish script does not parse"; fi

# Manual: .TH first, only requests the generator writes at line starts, every verb's usage.
man=$docs/plenk.1
grep -m1 -v '^\.\\"' "$man" | grep -q '^\.TH PLENK 1 ' || fail "plenk.1 does not start with .TH"
bad=$(grep -nE "^[.']" "$man" | grep -vE '^[0-9]+:\.(TH|SH|SS|TP|PP|nf|fi)( |$)|^[0-9]+:\.\\"')
[ -z "$bad" ] || fail "plenk.1 has stray control lines: $bad"
if command -v groff >/dev/null; then
  warnings=$(groff -man -Tutf8 -ww -z "$man" 2>&1)
  [ -z "$warnings" ] || fail "groff warnings: $warnings"
  text=$(groff -man -Tascii -P-cbou "$man" 2>/dev/null)
  for path in "${paths[@]}"; do
    grep -qE "^ +plenk $path( |$)" <<<"$text" || fail "plenk.1 has no entry for '$path'"
  done
  grep -q "^ *plenk manpage" <<<"$text" && fail "plenk.1 documents the hidden manpage verb"
fi
"$plenk" manpage | cmp -s - "$man" || fail "plenk.1 differs from 'plenk manpage'"

# The verb: an unknown shell is bad usage; the hidden verb stays out of help and completion.
run completion tcsh
[ "$rc" -eq 2 ] && [ "$(grep -c '' <<<"$err")" -eq 1 ] && grep -q "'tcsh' is not one of bash, zsh, fish" <<<"$err" ||
  fail "completion tcsh -> rc=$rc err=[$err]"
[[ " $(complete_words m) " == *" manpage "* ]] && fail "bash offers the hidden manpage verb"

# Installed where the shells and man look.
cmake --install "$bin" --prefix "$work" >/dev/null || fail "cmake --install"
for file in share/man/man1/plenk.1 share/bash-completion/completions/plenk share/zsh/vendor-completions/_plenk \
  share/fish/vendor_completions.d/plenk.fish; do
  [ -s "$work/$file" ] || fail "not installed: $file"
done
checks_done "completion and manual (${#paths[@]} verbs)"
