# Completion for keltop: switches, and the protocols after the two posts.
_keltop() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  case ${previous,,} in
    -rsi | -isi)
      mapfile -t COMPREPLY < <(compgen -W 'jazz json form xml' -- "$current")
      return
      ;;
    -url)
      compopt -o nospace
      mapfile -t COMPREPLY < <(compgen -W 'http:// https://' -- "$current")
      return
      ;;
    -tls | '~tls')
      compopt -o default
      COMPREPLY=()
      return
      ;;
    -p | -view | -room | -fname | -lname | -id | -code | -item | -count | -category | -description)
      return
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W '-h -p -raw -tls -view -isi -rsi -url -description -room -id -fname -lname -count
    -code -item -category' -- "$current")
}
complete -F _keltop keltop
