# Completion of vkctl for bash: verbs, their options, and identifiers of plug-ins where a plug-in is wanted.

_vkctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local verbs='match show status diagnose ready launch access elect annotate bulk-annotate add remove hold release watch send'
  local common='-S --service --timeout --color --help'
  local verb='' service=() word i
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    case $word in
      -S | --service) service=(-S "${COMP_WORDS[++i]}") ;;
      --timeout | --color) ((i++)) ;;
      --) [[ $verb == hold || $verb == launch ]] && return 1 ;;
      -*) ;;
      *) [ -n "$verb" ] || verb=$word ;;
    esac
  done

  case $previous in
    --color) mapfile -t COMPREPLY < <(compgen -W 'auto always never' -- "$current"); return ;;
    --rules | --extension) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    -S | --service | --timeout | --rule | --election | --read) return ;;
  esac
  if [ -z "$verb" ]; then
    mapfile -t COMPREPLY < <(compgen -W "$verbs $common --version" -- "$current")
    return
  fi

  local options=$common
  case $verb in
    match) options+=' --rule --rules --all-versions --duplicates --system-only --all --exists --long --json' ;;
    show | status | watch | diagnose) options+=' --json' ;;
    access) options+=' --read --json' ;;
    annotate) options+=' --election --extension' ;;
    hold) options+=' --plug-in --json --' ;;
    launch) options+=' --' ;;
    send) options+=' -n --quiet' ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    return
  fi
  case $verb in
    show | ready | launch | access | elect | annotate | remove)
      if [[ $current != /* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(vkctl "${service[@]}" --timeout 1 match 2>/dev/null | cut -d' ' -f1)" -- "$current")
        return
      fi
      ;;
  esac
  case $verb in
    show | ready | launch | access | elect | annotate | bulk-annotate | add | remove | hold | diagnose)
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
  esac
}
complete -o filenames -F _vkctl vkctl
