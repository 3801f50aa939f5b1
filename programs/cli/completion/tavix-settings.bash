# Completion of tavix-settings for bash. The program itself knows what a word may become.

_tavix_settings() {
  local word words=() candidates current tail
  # bash splits words at '=' and ':' too; the program wants them whole.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    if ((${#words[@]} > 0)) && [[ $word == [=:]* || ${words[-1]} == *[=:] ]]; then
      words[-1]+=$word
    else
      words+=("$word")
    fi
  done
  mapfile -t candidates < <("${COMP_WORDS[0]}" __complete "${words[@]}" 2>/dev/null)
  COMPREPLY=()
  current=${words[-1]}
  tail=${current##*[=:]}
  for word in "${candidates[@]}"; do
    word=${word:${#current}-${#tail}}
    if [[ $current == [\'\"]* ]]; then
      COMPREPLY+=("$word")
    else
      COMPREPLY+=("$(printf '%q' "$word")")
    fi
  done
}

complete -o default -F _tavix_settings tavix-settings
