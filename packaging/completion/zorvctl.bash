# Completion of zorvctl for bash. The words come from zorvctl itself, so they are always those of the
# one that is installed.

# Puts into COMPREPLY the words that begin with the second argument; the first stands in front of each
# already. A name comes from whoever logs in: it is quoted, and nothing of it is a shell's word.
_zorvctl_offer() {
  local front=$1 typed=$2 word
  while IFS= read -r word; do
    [[ -n $word && $word == "$typed"* ]] && COMPREPLY+=("$front$(printf %q "$word")")
  done
}

# The words that zorvctl names when it refuses one: "'' is none of a, b", "'' is not a value of action:
# a, b, or the number". Sentences are no words.
_zorvctl_values() {
  "$@" 2>&1 | sed -nE "s/, or (the|its) number$//; s/^zorvctl: .*'' is (none of|not a[^:]*:) ?//p" |
    grep -vE '[^,] ' | sed 's/, /\n/g'
}

_zorvctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local program=${COMP_WORDS[0]} word help words field front=''
  COMPREPLY=()
  # Bash takes words apart at =: in FIELD=VALUE, and in --option=VALUE, which is --option VALUE.
  if [[ $current == = ]]; then
    field=$previous current=''
  elif [[ $previous == = ]]; then
    field=${COMP_WORDS[COMP_CWORD - 2]}
  elif [[ $current == [a-z]*=* ]]; then
    field=${current%%=*} front=${current%%=*}= current=${current#*=}
  fi
  if [[ $field == --* ]]; then
    previous=$field field=''
  fi

  # The noun and the verb are the first words that are no options; one verb has a verb of its own.
  local -a path=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word == -* || $word == = ]] && continue
    ((${#path[@]} < 2)) || [[ "${path[*]} $word" == 'block policy set' ]] && path+=("$word")
  done
  case $previous in
    -o | --output | --by | --color | -p | --priority)
      _zorvctl_offer '' "$current" < <(_zorvctl_values "$program" "${path[@]}" "$previous" '')
      return
      ;;
    --vpn-type | --action)
      # Nothing is added: '' is the name of no code.
      _zorvctl_offer '' "$current" < <(_zorvctl_values "$program" "${path[@]}" --username '?' "$previous" '')
      return
      ;;
    --cursor | --file)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    -S | --since | -U | --until | --at)
      _zorvctl_offer '' "$current" <<<$'today\nyesterday\n1h\n1d\n7d'
      return
      ;;
  esac

  if [[ -n $field ]]; then
    # The second filter is none, so that nothing is asked of the daemon.
    [[ ${path[1]} == list ]] &&
      _zorvctl_offer "$front" "$current" < <(_zorvctl_values "$program" "${path[@]}" "${field%!}=" '')
    return
  fi

  case "${path[*]}" in
    'block check' | 'block fail' | 'block remove' | 'block why')
      if [[ $current != -* ]]; then
        _zorvctl_offer '' "$current" < <(timeout 2 "$program" block list -q -n 1000 -o csv --columns user \
          2>/dev/null | tr -d '\r' | grep -v "[\"']")
        return
      fi
      ;;
    'gateway disable')
      if [[ $previous == disable ]]; then
        _zorvctl_offer '' "$current" < <(_zorvctl_values "$program" gateway disable '' 0)
        return
      fi
      ;;
  esac

  help=$("$program" "${path[@]}" --help 2>/dev/null) || return 0

  # Nothing is known of the values of most options, whose line of the help has the value's name in
  # capitals.
  if [[ $previous =~ ^--?[a-z-]+$ && $previous != --sort && $previous != --columns ]] &&
    grep -qE "^ +(-[a-zA-Z],)?$previous(,[^ ]+)? [A-Z]" <<<"$help"; then
    return
  fi

  if [[ $previous == --sort || $previous == --columns ||
    ( $help == *FILTER* && $current != -* ) ]]; then
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
