# shellcheck shell=bash
# Completion of facezoo for bash, read from the tool's own --help: commands, options, networks and
# other fixed choices. Everything else is a file. For zsh: autoload -U bashcompinit && bashcompinit,
# then source this.

_facezoo() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local before=("${COMP_WORDS[@]:0:$COMP_CWORD}") command=() commands=${COMP_WORDS[0]}
  local help='' word value candidates
  # --format=json is three words.
  [ "$previous" != = ] || previous=${COMP_WORDS[COMP_CWORD - 2]}
  [ "$current" != = ] || current=''

  for word in "${before[@]}"; do
    grep -qxFe "$word" <<<"$commands" || continue
    command+=("$word")
    help=$("${command[@]}" --help 2>/dev/null)
    commands=$(sed -n '/^Subcommands:/,/^$/s/^  \([^ ][^ ]*\)  .*/\1/p' <<<"$help")
  done

  # One space stands between an option and its value, more before a description; {A,B} are choices.
  local choices='s/.*{\(.*\)}.*/\1/;T;y/,/\n/;p'
  value=$(grep -E -e "^  ([^ ]*,)?$previous(,[^ ]*)? [^ ]" <<<"$help" 2>/dev/null)
  if [[ $previous = -* && $value ]]; then
    candidates=$(sed -n "$choices" <<<"$value")
  elif [[ $current = -* ]]; then
    candidates=$(sed -n '/^Options:/,/^$/s/^  [^ ]*\(--[^ ]*\).*/\1/p' <<<"$help")
  elif [ "$commands" ]; then
    candidates=$commands
  else
    value=$(sed -n '/^Positionals:/,/^$/{/{/p}' <<<"$help")
    candidates=$(sed -n "$choices" <<<"$value")
    # Named once, unless the help shows that several may be.
    [[ $value = *'} ...'* ]] || ! printf '%s\n' "${before[@]}" | grep -qxFe "$candidates" || candidates=''
  fi
  # shellcheck disable=SC2207 # no candidate holds a space, and zsh has no mapfile
  COMPREPLY=($(compgen -W "$candidates" -- "$current"))
}
complete -o default -F _facezoo facezoo
