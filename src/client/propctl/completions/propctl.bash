# bash completion for propctl

_propctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' word i
  COMPREPLY=()

  # ":" and "=" part words here; a key has none, an assignment has "=" behind its key.
  [[ $current == = || $previous == = ]] && return

  case $previous in
    --by) mapfile -t COMPREPLY < <(compgen -W 'key web provisioning' -- "$current"); return ;;
    --password-file | --cafile | --cert | --key) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --columns) mapfile -t COMPREPLY < <(compgen -W 'key value defaultvalues flags webui provisioning tr069 regexp enum range_min range_max' -- "$current"); return ;;
    --host) mapfile -t COMPREPLY < <(compgen -A hostname -- "$current"); return ;;
    --port | --user | --name | --device | --jobs | --timeout | --count) return ;;
  esac

  for ((i = 1; i < COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    case $word in
      --host | --port | --user | --password-file | --name | --cafile | --cert | --key | --device | --jobs | --timeout | --by | --columns | --count) ((++i)) ;;
      -*) ;;
      *) command=$word; break ;;
    esac
  done

  if [[ $current == -* ]]; then
    local options='--host --port --user --password-file --name --cafile --cert --key --device --jobs --timeout --json --quiet --version --help'
    case $command in
      get | set | describe) options+=' --by' ;;
      load) options+=' --by --dry-run' ;;
      list) options+=' --columns --changed' ;;
      watch) options+=' --no-old --count' ;;
      ping) options+=' --count' ;;
      backup) options+=' --all' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    return
  fi

  case $command in
    '') mapfile -t COMPREPLY < <(compgen -W 'get set reset list describe watch dump load backup restore sysdump prepare ping check' -- "$current") ;;
    get | list | describe | reset) mapfile -t COMPREPLY < <(propctl complete-keys "$current" 2>/dev/null) ;;
    set)
      mapfile -t COMPREPLY < <(propctl complete-keys "$current" 2>/dev/null)
      COMPREPLY=("${COMPREPLY[@]/%/=}")
      compopt -o nospace
      ;;
    watch) mapfile -t COMPREPLY < <(propctl complete-keys "$current" 2>/dev/null | cut -d. -f1 | sort -u) ;;
    prepare) mapfile -t COMPREPLY < <(compgen -W 'version-change factory-reset' -- "$current") ;;
    load | check) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
  esac
}

complete -F _propctl propctl
