# Completion of zorvctl for bash. The words come from zorvctl itself, so they are always those of the
# one that is installed.

_zorvctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local program=${COMP_WORDS[0]} word help words
  COMPREPLY=()

  # The noun and the verb are the first words that are no options; one verb has a verb of its own.
  local -a path=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word == -* ]] && continue
    ((${#path[@]} < 2)) || [[ "${path[*]} $word" == 'block policy set' ]] && path+=("$word")
  done
  case $previous in
    -o | --output | --by)
      # A word that there is not is refused by naming those that there are.
      words=$("$program" "${path[@]}" "$previous" '' 2>&1 | sed -n 's/,//g;s/.* is none of //p')
      mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
      return
      ;;
    -p | --priority)
      mapfile -t COMPREPLY < <(compgen -W "debug info warn error" -- "$current")
      return
      ;;
    --color)
      mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$current")
      return
      ;;
    --cursor | --file)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    -S | --since | -U | --until)
      mapfile -t COMPREPLY < <(compgen -W "today yesterday 1h 1d 7d" -- "$current")
      return
      ;;
    --color)
      mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$current")
      return
      ;;
  esac

  help=$("$program" "${path[@]}" --help 2>/dev/null) || return 0

  # Bash takes FIELD=VALUE apart, and nothing is known of values; nor of those of most options, whose
  # line of the help has the value's name in capitals.
  [[ $previous == = || $current == *=* ]] && return
  if [[ $previous =~ ^--?[a-z-]+$ && $previous != --sort && $previous != --columns ]] &&
    grep -qE "^ +(-[a-zA-Z],)?$previous(,[^ ]+)? [A-Z]" <<<"$help"; then
    return
  fi

  if [[ $previous == --sort || $previous == --columns ||
    ( $help == *'Fields: '* && $current != -* ) ]]; then
    # "Fields: id, username, ..." up to the first line that ends the sentence.
    words=$(sed -n '/^Fields: /,$ {h;s/^Fields: //;s/[,.]/ /g;p;x;/\.$/q}' <<<"$help")
    if [[ $previous == --columns ]]; then
      # Each behind those that stand there already.
      local before=${current%"${current##*,}"}
      words=$(sed "s/[^ ][^ ]*/$before&/g" <<<"$words")
    elif [[ $previous != --sort ]]; then
      words=$(sed 's/[^ ][^ ]*/&=/g' <<<"$words")
      compopt -o nospace 2>/dev/null
    fi
  elif [[ $current == -* ]]; then
    words=$(grep -oE '^ +-[^ ]+' <<<"$help" | grep -oE -- '--?[a-z][a-z-]*')
  else
    words=$(sed -n '/^Subcommands:/,/^$/{s/^  \([a-z][a-z-]*\) .*/\1/p}' <<<"$help")
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _zorvctl zorvctl
