# bash completion for qenconfig. Source it, or install it as
# /usr/share/bash-completion/completions/qenconfig.

_qenconfig() {
  local cur prev
  cur="${COMP_WORDS[COMP_CWORD]}"
  prev="${COMP_CWORD:+${COMP_WORDS[COMP_CWORD-1]}}"

  local global="--root --output --json -q --quiet --verbose -v --verbosity --help --version"
  local commands="apply boot compliance delete doc export extract get host impact plan plugins set smartnic store telemetry validate"

  # Values of the options that take one.
  case "$prev" in
    --output) COMPREPLY=($(compgen -W "text json" -- "$cur")); return ;;
    --type) COMPREPLY=($(compgen -W "apply boot extract impact validate" -- "$cur")); return ;;
    -v|--verbosity) COMPREPLY=($(compgen -W "-1 0 1 2 3" -- "$cur")); return ;;
    --root|--schemas) COMPREPLY=($(compgen -d -- "$cur")); return ;;
    -o|--file) COMPREPLY=($(compgen -f -- "$cur")); return ;;
    --timeout|--context|--include|--exclude|--start|--max|--index) return ;;
  esac

  # The command and subcommand words typed so far, skipping options and the
  # values of those that take one.
  local i word cmd="" sub=""
  for ((i = 1; i < COMP_CWORD; i++)); do
    word="${COMP_WORDS[i]}"
    case "$word" in
      --root|--output|-v|--verbosity|--type|--schemas|-o|--file|--timeout|--context|--include|--exclude|--start|--max|--index)
        ((i++)) ;;
      -*) ;;
      *)
        if [[ -z "$cmd" ]]; then cmd="$word"
        elif [[ -z "$sub" && " boot doc host plugins smartnic store " == *" $cmd "* ]]; then sub="$word"
        fi ;;
    esac
  done

  local subs="" opts=""
  case "$cmd" in
    "") COMPREPLY=($(compgen -W "$commands $global" -- "$cur")); return ;;
    boot) subs="apply document record early merge" ;;
    doc) subs="fmt" ;;
    host) subs="status" ;;
    plugins) subs="check list" ;;
    smartnic) subs="get set" ;;
    store) subs="load dump boot stats" ;;
  esac
  if [[ -n "$subs" && -z "$sub" ]]; then
    COMPREPLY=($(compgen -W "$subs $global" -- "$cur"))
    return
  fi

  case "$cmd${sub:+ $sub}" in
    compliance) opts="--property-level" ;;
    export) opts="--telemetry -o --file" ;;
    extract) [[ "$cur" != -* ]] && { COMPREPLY=($(compgen -W "current desired" -- "$cur")); return; } ;;
    impact) opts="--context" ;;
    plan) opts="-o --file --context" ;;
    apply) opts="--timeout" ;;
    set|delete) opts="-y --yes --timeout" ;;
    "plugins check") opts="--schemas" ;;
    "plugins list") opts="--type" ;;
    telemetry) opts="--include --exclude --start --max --index" ;;
  esac
  if [[ "$cur" == -* ]]; then
    COMPREPLY=($(compgen -W "$opts $global" -- "$cur"))
    return
  fi
  # Positional arguments are files, except the key words of get, set, delete.
  case "$cmd" in
    get|set|delete|telemetry|host) ;;
    *) COMPREPLY=($(compgen -f -- "$cur")) ;;
  esac
}

complete -o filenames -F _qenconfig qenconfig
