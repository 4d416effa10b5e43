# bash completion of hubctl's arguments: hubctl itself tells them, from what its help is made of.
_hubctl() {
  local word
  COMPREPLY=()
  while IFS=$'\t' read -r word _; do
    if [ "$word" = :files ]; then
      compopt -o default
    else
      COMPREPLY+=("$word")
    fi
  done < <("$1" complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -F _hubctl hubctl
