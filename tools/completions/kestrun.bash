# Completions of kestrun for bash.
_kestrun() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} options
  COMPREPLY=()
  if [ "$COMP_CWORD" -eq 1 ]; then
    COMPREPLY=($(compgen -W "put get del del-range contains entry scan append show types import export flush compact clear remove backup recover stat verify dump watch bench help --help --version" -- "$word"))
    return
  fi
  case "$before" in
    --format) COMPREPLY=($(compgen -W "csv tsv jsonl json sqlite" -- "$word")); return ;;
    --completions) COMPREPLY=($(compgen -W "bash zsh fish" -- "$word")); return ;;
    --html) COMPREPLY=($(compgen -f -- "$word")); return ;;
  esac
  case "${COMP_WORDS[1]}" in
    put) options="--ttl --log-size --json --hex --quiet --verbose --help" ;;
    get) options="--json --hex --quiet --verbose --help" ;;
    del) options="--log-size --json --hex --quiet --verbose --help" ;;
    del-range) options="--yes --dry-run --log-size --json --hex --quiet --verbose --help" ;;
    contains) options="--json --hex --quiet --verbose --help" ;;
    entry) options="--page-size --json --hex --quiet --verbose --help" ;;
    scan) options="--from --to --prefix --limit --keys-only --json --hex --quiet --verbose --help" ;;
    append) options="--ttl --log-size --json --hex --quiet --verbose --help" ;;
    show) options="--json --hex --quiet --verbose --help" ;;
    types) options="--json --hex --quiet --verbose --help" ;;
    import) options="--type --key --format --delimiter --table --with-entry --no-overwrite --skip-bad-rows --ttl --log-size --json --hex --quiet --verbose --help" ;;
    export) options="--type --raw --skip-bad-records --format --delimiter --table --key-column --with-entry --from --to --prefix --limit --json --hex --quiet --verbose --help" ;;
    flush) options="--log-size --json --hex --quiet --verbose --help" ;;
    compact) options="--log-size --json --hex --quiet --verbose --help" ;;
    clear) options="--yes --dry-run --log-size --json --hex --quiet --verbose --help" ;;
    remove) options="--yes --incomplete --json --hex --quiet --verbose --help" ;;
    backup) options="--json --hex --quiet --verbose --help" ;;
    recover) options="--all-blocks --json --hex --quiet --verbose --help" ;;
    stat) options="--page-size --html --json --hex --quiet --verbose --help" ;;
    verify) options="--page-size --json --hex --quiet --verbose --help" ;;
    dump) options="--page-size --json --hex --quiet --verbose --help" ;;
    watch) options="--interval --count --json --hex --quiet --verbose --help" ;;
    bench) options="--entries --value-size --json --hex --quiet --verbose --help" ;;
    help) options="--completions --json --hex --quiet --verbose --help" ;;
    *) return ;;
  esac
  if [[ $word == -* ]]; then
    COMPREPLY=($(compgen -W "$options" -- "$word"))
  elif [ "${COMP_WORDS[1]}" = help ]; then
    COMPREPLY=($(compgen -W "put get del del-range contains entry scan append show types import export flush compact clear remove backup recover stat verify dump watch bench help" -- "$word"))
  else
    COMPREPLY=($(compgen -f -- "$word"))
  fi
}
complete -o filenames -F _kestrun kestrun
