# Completion for handset: options, what they take, and the names of the broken phones.

_handset() {
  local word=${COMP_WORDS[COMP_CWORD]}
  local before=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $before in
    --tty) mapfile -t COMPREPLY < <(compgen -W 'raw canonical default uart' -- "$word") ;;
    --profile | .broken)
      local phones
      phones=$(dirname "$(dirname "$(readlink -f "$(type -P "${COMP_WORDS[0]}")")")")
      phones=$(ls "$phones/lib/ftm-handset/broken_phones" 2>/dev/null)
      mapfile -t COMPREPLY < <(compgen -W "$phones" -- "$word"; compgen -d -- "$word")
      ;;
    --line | --control | --daemon | --log | --journal)
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      ;;
    --count | --speed | --waits | --web) ;;
    *)
      mapfile -t COMPREPLY < <(compgen -W '--help --version --serve --line --control --web --count
        --profile --tty --speed --waits --daemon --log --journal --demo' -- "$word")
      ;;
  esac
}
complete -o filenames -F _handset handset
