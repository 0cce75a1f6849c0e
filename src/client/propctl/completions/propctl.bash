# bash completion for propctl

# Asks the device that the command line names, and gives up early.
_propctl_keys() {
  propctl "${connection[@]}" --timeout 1 complete-keys -- "$current" 2>/dev/null
}

_propctl_offer() { # WORDS
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$current")
}

_propctl_offer_files() {
  compopt -o filenames
  mapfile -t COMPREPLY < <(compgen -f -- "$current")
}

# Offers columns for the text after the last comma.
_propctl_offer_columns() {
  local before=''
  [[ $current != *,* ]] || before=${current%,*},
  current=${current##*,}
  _propctl_offer 'key value default flags webui provisioning tr069 regexp enum range_min range_max'
  COMPREPLY=("${COMPREPLY[@]/#/$before}")
  compopt -o nospace
}

_propctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' word i
  local -a connection=()
  COMPREPLY=()

  # ":" and "=" part words here: an option has "=" in front of its value, an assignment behind its key.
  if [[ $current == = ]]; then
    return
  elif [[ $previous == = ]]; then
    [[ ${COMP_WORDS[COMP_CWORD - 2]} == --* ]] || return
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  for ((i = 1; i < COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    case $word in
      --host | --port | --user | --password-file | --name | --cafile | --cert | --key | --device | --jobs | --timeout | --by | --columns | --count)
        [[ ${COMP_WORDS[i + 1]} != = ]] || ((++i))
        ((++i))
        case $word in
          --jobs | --timeout | --by | --columns | --count) ;;
          *) ((i >= COMP_CWORD)) || connection+=("$word" "${COMP_WORDS[i]/#~\//$HOME/}") ;;
        esac
        ;;
      -*) ;;
      *) command=${command:-$word} ;;
    esac
  done

  case $previous in
    --by) _propctl_offer 'key web provisioning'; return ;;
    --password-file | --cafile | --cert | --key) _propctl_offer_files; return ;;
    --columns) _propctl_offer_columns; return ;;
    --host) mapfile -t COMPREPLY < <(compgen -A hostname -- "$current"); return ;;
    --port | --user | --name | --device | --jobs | --timeout | --count) return ;;
  esac

  if [[ $current == -* ]]; then
    local options='--host --port --user --password-file --name --cafile --cert --key --device --jobs --timeout --json --quiet --show-secrets --version --help'
    case $command in
      get | set | describe) options+=' --by' ;;
      load) options+=' --by --dry-run' ;;
      list) options+=' --columns --changed' ;;
      watch) options+=' --allow-unknown --no-old --count' ;;
      ping) options+=' --count' ;;
      backup) options+=' --all' ;;
    esac
    _propctl_offer "$options"
    return
  fi

  case $command in
    '') _propctl_offer 'get set reset list describe watch dump load backup restore sysdump prepare ping check devices' ;;
    get | list | describe | reset) mapfile -t COMPREPLY < <(_propctl_keys) ;;
    set)
      mapfile -t COMPREPLY < <(_propctl_keys)
      COMPREPLY=("${COMPREPLY[@]/%/=}")
      compopt -o nospace
      ;;
    watch)
      if [[ $current == *.* ]]; then
        mapfile -t COMPREPLY < <(_propctl_keys)
      else
        mapfile -t COMPREPLY < <(_propctl_keys | cut -d. -f1 | sort -u)
      fi
      ;;
    prepare) _propctl_offer 'version-change factory-reset' ;;
    load | check) _propctl_offer_files ;;
  esac
}

complete -F _propctl propctl
